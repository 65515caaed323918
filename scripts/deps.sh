# Sourced by the other scripts: installs what building and testing vord needs,
# with apt-get, when something is missing.

vord_packages="cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iptables iproute2 procps"

ensure_deps() {
    local missing=""
    local pkg
    for pkg in $vord_packages "$@"; do
        dpkg -s "$pkg" >/dev/null 2>&1 || missing="$missing $pkg"
    done
    [ -z "$missing" ] && return 0
    echo "== installing:$missing"
    local sudo=""
    if [ "$(id -u)" != 0 ]; then
        if command -v sudo >/dev/null 2>&1; then
            sudo="sudo"
        else
            echo "error: missing packages:$missing (run as root or install them)" >&2
            return 1
        fi
    fi
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq $missing >/dev/null
}
