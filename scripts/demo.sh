#!/usr/bin/env bash
# Runs vord's main job in a sandbox and shows what it does.
#
# Builds vord, makes a fresh sandbox root (./sandbox) with the sample vord.conf and
# stand-ins for the rule tools that print each command, starts the daemon there,
# shows its log, then stops it through the property and shows that it cleaned up
# and stays alive, idle.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$top/scripts/deps.sh"
ensure_deps

build=${BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
bin="$build/bin"

sandbox="$top/sandbox"
rm -rf "$sandbox"
mkdir -p "$sandbox"/{vendor/etc/sla,dev/socket,proc/sla,system/bin,properties}
export VORD_ROOT="$sandbox"
sed -e 's/^mini_est_interval=.*/mini_est_interval=500/' "$top/etc/vord.conf" \
    > "$sandbox/vendor/etc/sla/vord.conf"
for tool in iptables-wrapper-1.0 ip-wrapper-1.0; do
    cat > "$sandbox/system/bin/$tool" <<TOOL
#!/bin/sh
echo "/system/bin/$tool \$*" >> "$sandbox/commands.log"
TOOL
    chmod +x "$sandbox/system/bin/$tool"
done

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
wait_for() {  # wait_for TEXT SECONDS
    local i
    for ((i = 0; i < $2 * 10; i++)); do
        grep -qF -- "$1" "$sandbox/vord.log" && return 0
        sleep 0.1
    done
    echo "timed out waiting for: $1" >&2
    return 1
}

step "starting vord with VORD_ROOT=$sandbox"
"$bin/vord" 2> "$sandbox/vord.log" &
pid=$!
trap 'kill -9 $pid 2>/dev/null || true' EXIT
wait_for "starting daemon" 10
sleep 2
cat "$sandbox/vord.log"

step "stopping it: setprop vendor.sla.enabled 2"
"$bin/setprop" vendor.sla.enabled 2
wait_for "Vord exiting" 15
offset=$(grep -n "Mux disabled" "$sandbox/vord.log" | head -1 | cut -d: -f1)
tail -n +"$offset" "$sandbox/vord.log"

sleep 1
if kill -0 "$pid" 2>/dev/null; then
    step "vord (pid $pid) is still alive, idle, as on the device; ending the demo kills it"
else
    echo "vord is gone: unexpected" >&2
    exit 1
fi
