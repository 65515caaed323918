#!/usr/bin/env bash
# Runs vord's main job, link aggregation, in a sandbox and shows what it does.
#
# Builds vord, makes a fresh sandbox root (./sandbox) with the sample vord.conf,
# starts the statistics simulator (standing in for the kernel module) with two
# links, starts the daemon, sends it the interface list, a whitelist and a Wi-Fi
# gateway, and shows the link shares it computes and the "vexo_SLA" rules it
# writes; then changes the simulated rates and shows the rules follow; then stops
# the daemon through the property and shows that it cleaned up and stays alive,
# idle.
#
# As root (where network namespaces can be made) the rule tools run the real
# iptables and ip inside a namespace holding links named wlan0 and rmnet_data0,
# and the kernel's rule tree is shown with iptables-save and ip rule. Elsewhere
# the rule tools are stand-ins that only record each command.
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

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
wait_for() {  # wait_for FILE TEXT SECONDS
    local i
    for ((i = 0; i < $3 * 10; i++)); do
        grep -qF -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    echo "timed out waiting for: $2" >&2
    return 1
}

ns=""
pids=()
cleanup() {
    local p
    for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
    if [ -n "$ns" ]; then
        ip netns del "$ns" 2>/dev/null || true
        ip netns del "$ns-peer" 2>/dev/null || true
        rm -rf "/etc/netns/$ns"
    fi
}
trap cleanup EXIT

# --- the rule tools: real ones in a namespace, or recording stand-ins ---
if [ "$(id -u)" = 0 ] && ip netns add "vord-demo-$$" 2>/dev/null; then
    ns="vord-demo-$$"
    ip netns add "$ns-peer"
    i=0
    for dev in wlan0 rmnet_data0; do
        i=$((i + 1))
        ip link add "$dev" netns "$ns" type veth peer name "peer$i" netns "$ns-peer"
        ip -n "$ns" addr add "10.77.$i.2/24" dev "$dev"
        ip -n "$ns-peer" addr add "10.77.$i.1/24" dev "peer$i"
        ip -n "$ns" link set "$dev" up
        ip -n "$ns-peer" link set "peer$i" up
        ip -n "$ns" route add default via "10.77.$i.1" dev "$dev" table $((100 + i))
    done
    # Route tables named after the links, for ip inside the namespace only:
    # "ip netns exec" mounts /etc/netns/NS/iproute2 over /etc/iproute2.
    mkdir -p "/etc/netns/$ns/iproute2"
    if [ -d /etc/iproute2 ]; then cp -a /etc/iproute2/. "/etc/netns/$ns/iproute2/"; fi
    [ -f "/etc/netns/$ns/iproute2/rt_tables" ] ||
        cp /usr/share/iproute2/rt_tables "/etc/netns/$ns/iproute2/" 2>/dev/null || true
    printf '101 wlan0\n102 rmnet_data0\n' >> "/etc/netns/$ns/iproute2/rt_tables"
    echo "rule tools: the real iptables and ip in network namespace $ns"
else
    echo "rule tools: stand-ins that record each command (run as root for real iptables)"
fi
for tool in iptables-wrapper-1.0 ip-wrapper-1.0; do
    {
        echo '#!/bin/sh'
        echo "echo \"/system/bin/$tool \$*\" >> '$sandbox/commands.log'"
        if [ -n "$ns" ]; then
            echo "exec ip netns exec $ns ${tool%%-*} \"\$@\""
        fi
    } > "$sandbox/system/bin/$tool"
    chmod +x "$sandbox/system/bin/$tool"
done

show_sla_rules() {
    if [ -n "$ns" ]; then
        echo "-- iptables-save -t mangle (vexo_SLA) in $ns:"
        ip netns exec "$ns" iptables-save -t mangle | grep -E '^-A vexo_SLA' || echo "(empty)"
    else
        echo "-- last vexo_SLA rules written:"
        grep -E 'vexo_SLA' "$sandbox/commands.log" | tail -n 3
    fi
}

# --- the kernel module's stand-in ---
step "statistics simulator: wlan0 at 1000 kbit/s, rmnet_data0 at 500 kbit/s"
printf 'wlan0=1000kbit\nrmnet_data0=500kbit\n' > "$sandbox/rates"
"$bin/sla_stats_sim" --rates-file "$sandbox/rates" > "$sandbox/sim.log" 2>&1 < /dev/null &
pids+=($!)
disown
sleep 0.5

step "starting vord (VORD_ROOT=$sandbox)"
"$bin/vord" 2> "$sandbox/vord.log" &
pid=$!
pids+=("$pid")
disown
wait_for "$sandbox/vord.log" "Created socket success" 30
head -n 3 "$sandbox/vord.log"
echo "..."
if [ -n "$ns" ]; then
    echo "-- the base chain tree:"
    ip netns exec "$ns" iptables-save -t mangle | grep -E '^(:vexo|-A (OUTPUT|vexo_MUX ))'
    ip netns exec "$ns" iptables-save -t nat | grep -E 'vexo'
fi

step "vordctl ifaces wlan0,rmnet_data0 whitelist 10123 gateway 192.168.1.1"
"$bin/vordctl" ifaces wlan0,rmnet_data0 whitelist 10123 gateway 192.168.1.1
wait_for "$sandbox/vord.log" "Updated Ratio" 30
sleep 2
echo "-- what the kernel module was told (simulator's view):"
grep -E 'iface=|enable=' "$sandbox/sim.log" | tail -n 4
echo "-- the shares computed (Wi-Fi 1000/1600 = 0.625, cellular the rest):"
grep -E 'Updated Ratio' "$sandbox/vord.log" | tail -n 2
show_sla_rules
if [ -n "$ns" ]; then
    echo "-- whitelist chain (gateway exempt, then the whitelisted UID):"
    ip netns exec "$ns" iptables-save -t mangle | grep -E '^-A vexo_MUX_wapper'
    echo "-- ip rule in $ns:"
    ip -n "$ns" rule | grep 14999
else
    grep -E 'vexo_MUX_wapper' "$sandbox/commands.log" | tail -n 2
fi

step "wlan0 drops to 400 kbit/s: the shares move, the rules follow"
before=$(grep -c 'Updated Ratio' "$sandbox/vord.log")
printf 'wlan0=400kbit\nrmnet_data0=500kbit\n' > "$sandbox/rates"
for _ in $(seq 1 100); do
    [ "$(grep -c 'Updated Ratio' "$sandbox/vord.log")" -gt "$before" ] && break
    sleep 0.1
done
sleep 1
grep -E 'Updated Ratio' "$sandbox/vord.log" | tail -n 2
show_sla_rules

step "stopping it: setprop vendor.sla.enabled 2"
"$bin/setprop" vendor.sla.enabled 2
wait_for "$sandbox/vord.log" "Vord exiting" 30
grep -F "Mux disabled" "$sandbox/vord.log"
echo "... $(sed -n '/Mux disabled/,$p' "$sandbox/vord.log" | grep -c 'COMMAND - PASS') rule commands remove every chain, hook and rule ..."
sed -n '/Mux disabled/,$p' "$sandbox/vord.log" | grep -F -e 'enable=' -e "Vord exiting"
if [ -n "$ns" ]; then
    echo "-- left in $ns after the stop:"
    { ip netns exec "$ns" iptables-save | grep vexo; ip -n "$ns" rule | grep 14999; } ||
        echo "(no chain, hook or fwmark rule of vord)"
fi

sleep 1
if kill -0 "$pid" 2>/dev/null; then
    step "vord (pid $pid) is still alive, idle, as on the device; ending the demo kills it"
else
    echo "vord is gone: unexpected" >&2
    exit 1
fi
echo "full log: $sandbox/vord.log   commands: $sandbox/commands.log"
