# Sourced by the other scripts: installs what building and testing vord needs,
# with apt-get, when something is missing. Another package manager run (an
# unattended upgrade, a parallel install) holding its locks is waited for, up to
# ten minutes, instead of failing the run.

vord_packages="cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iptables iproute2 procps"

# apt-get ARGS..., waiting for the package manager's locks: install waits through
# apt's own lock time-out; update has none for the package lists' lock, so it is
# tried again while that lock is held.
apt_get_waiting() {
    local deadline=$((SECONDS + 600)) out
    while :; do
        if out=$(DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=600 "$@" 2>&1); then
            return 0
        fi
        if [[ "$out" == *"Could not get lock"* || "$out" == *"Unable to lock"* ]] && ((SECONDS < deadline)); then
            echo "== waiting for the package manager's lock" >&2
            sleep 5
            continue
        fi
        echo "$out" >&2
        return 1
    done
}

ensure_deps() {
    local missing=""
    local pkg
    for pkg in $vord_packages "$@"; do
        dpkg -s "$pkg" >/dev/null 2>&1 || missing="$missing $pkg"
    done
    [ -z "$missing" ] && return 0
    echo "== installing:$missing"
    sudo=""
    if [ "$(id -u)" != 0 ]; then
        if command -v sudo >/dev/null 2>&1; then
            sudo="sudo"
        else
            echo "error: missing packages:$missing (run as root or install them)" >&2
            return 1
        fi
    fi
    apt_get_waiting update -qq
    # shellcheck disable=SC2086
    apt_get_waiting install -y -qq $missing
}
