#!/usr/bin/env bash
# Runs vord's two features in a sandbox and shows what they do.
#
# Stage 1, link aggregation: builds vord, makes a fresh sandbox root (./sandbox)
# with the sample vord.conf, starts the statistics simulator (standing in for
# the kernel module) with two links, starts the daemon, sends it the interface
# list, a whitelist and a Wi-Fi gateway, and shows the link shares it computes
# and the "vexo_SLA" rules it writes, IPv4 and IPv6; then changes the simulated rates and shows
# the rules follow; then stops the daemon through the property and shows that
# it cleaned up.
#
# Stage 2, link selection: as root, in the link lab (vord-linklab: wlan0 with a
# 40 ms and rmnet_data0 with a 30 ms real round trip), runs the daemon inside
# the lab, starts selection for UID 10123 and an application of that UID, shows
# the link chosen, cuts wlan0 and shows the switch, the application's IPv4 and
# IPv6 connections torn down and re-established over rmnet_data0 (with vordctl
# status after each stage), then stops
# selection and the daemon and shows no rule is left. Without root it shows the
# selection commands and the rule commands they produce with recording
# stand-ins, and says what it skipped.
#
# As root the rule tools run the real iptables, ip6tables and ip inside network
# namespaces; elsewhere they are stand-ins that only record each command.
# Everything the demo starts or creates outside ./sandbox (processes,
# namespaces, /etc/netns/NAME, /run/vord-linklab/NAME) is removed on exit,
# Ctrl-C included.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$top/scripts/deps.sh"
ensure_deps

build=${BUILD_DIR:-$top/build}
echo "building vord and its tools in $build (a fresh clone takes a minute or two)..."
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Only what the demo runs (scripts/test.sh builds the tests). Progress: a line per
# ten files compiled and per program built; compiler messages as they come.
cmake --build "$build" -j"$(nproc)" --target vord vordctl setprop getprop sla_stats_sim vord-linklab |
    awk '/Building CXX object/ { if (++n % 10 == 0) { printf "  %d files compiled\n", n; fflush() } }
         /Built target/ { t = $NF; if (!seen[t]++) { printf "  built %s\n", t; fflush() } }'
echo "built"
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
lab=""
pids=()
cleanup() {
    local p
    trap - EXIT INT TERM HUP
    # The lab first: "down" ends every process inside it (the daemon, the
    # application client) and removes its namespaces and files.
    if [ -n "$lab" ]; then "$bin/vord-linklab" down "$lab" >/dev/null 2>&1 || true; fi
    for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
    if [ -n "$ns" ]; then
        ip netns del "$ns" 2>/dev/null || true
        ip netns del "$ns-peer" 2>/dev/null || true
        rm -rf "/etc/netns/$ns"
    fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

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
    echo "rule tools: the real iptables, ip6tables and ip in network namespace $ns"
else
    echo "rule tools: stand-ins that record each command (run as root for real iptables)"
fi
install_tools() {  # install_tools [NAMESPACE]: real tools run there, else stand-ins
    local tool
    for tool in iptables-wrapper-1.0 ip6tables-wrapper-1.0 ip-wrapper-1.0; do
        {
            echo '#!/bin/sh'
            echo "echo \"/system/bin/$tool \$*\" >> '$sandbox/commands.log'"
            if [ -n "${1:-}" ]; then
                echo "exec ip netns exec $1 ${tool%%-*} \"\$@\""
            fi
        } > "$sandbox/system/bin/$tool"
        chmod +x "$sandbox/system/bin/$tool"
    done
}
install_tools "$ns"

show_sla_rules() {  # the cascade of each family, the IPv6 one right after the IPv4 one
    local save
    if [ -n "$ns" ]; then
        for save in iptables-save ip6tables-save; do
            echo "-- $save -t mangle (vexo_SLA) in $ns:"
            ip netns exec "$ns" "$save" -t mangle | grep -E '^-A vexo_SLA' || echo "(empty)"
        done
    else
        echo "-- last vexo_SLA rules written (IPv4, then IPv6):"
        grep -E 'vexo_SLA' "$sandbox/commands.log" | tail -n 6
    fi
}
# vordctl status (the daemon's status snapshot), without blank lines and the
# UID-list summary.
ctl_help=$("$bin/vordctl" --help 2>&1 || true)
show_status() {
    if [[ $ctl_help == *"vordctl status"* ]]; then
        echo "-- vordctl status:"
        { "$bin/vordctl" status 2>&1 || true; } | { grep -v -e '^$' -e '^Features' || true; }
    fi
}

printf '\n\033[1m######## Stage 1: link aggregation ########\033[0m\n'
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
    echo "-- and the same in the IPv6 tables: $(ip netns exec "$ns" ip6tables-save | grep -c vexo) lines with vexo"
fi

step "vordctl ifaces wlan0,rmnet_data0 whitelist 10123 gateway 192.168.1.1"
"$bin/vordctl" ifaces wlan0,rmnet_data0 whitelist 10123 gateway 192.168.1.1
wait_for "$sandbox/vord.log" "Updated Ratio" 30
sleep 2
echo "-- what the kernel module was told (simulator's view):"
grep -E 'iface=|enable=' "$sandbox/sim.log" | tail -n 4
echo "-- the shares computed (Wi-Fi 1000/1600 = 0.625, cellular the rest), as rule probabilities:"
echo "   the rules form a cascade: wlan0's rule takes 0.625 of new connections, and"
echo "   rmnet_data0's rule, tried only by the 0.375 left over, takes all of them (1.000000)"
grep -E 'Updated Ratio' "$sandbox/vord.log" | tail -n 2
show_sla_rules
if [ -n "$ns" ]; then
    echo "-- whitelist chain (gateway exempt, then the whitelisted UID):"
    ip netns exec "$ns" iptables-save -t mangle | grep -E '^-A vexo_MUX_wapper'
    echo "-- ip rule and ip -6 rule in $ns:"
    ip -n "$ns" rule | grep 14999
    ip -n "$ns" -6 rule | grep 14999
else
    grep -E 'vexo_MUX_wapper' "$sandbox/commands.log" | tail -n 2
fi
show_status

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
    { ip netns exec "$ns" iptables-save | grep vexo; ip netns exec "$ns" ip6tables-save | grep vexo
      ip -n "$ns" rule | grep 14999; ip -n "$ns" -6 rule | grep 14999; } ||
        echo "(no chain, hook or fwmark rule of vord, IPv4 or IPv6)"
fi


# The aggregation daemon stays alive, idle, after the stop (as on the device);
# end it and its statistics simulator and namespace before link selection.
for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
pids=()
if [ -n "$ns" ]; then
    ip netns del "$ns"; ip netns del "$ns-peer"; rm -rf "/etc/netns/$ns"
    ns=""
fi

printf '\n\033[1m######## Stage 2: link selection ########\033[0m\n'
# A fresh start for the second daemon: selection's own settings (a probe every
# 200 ms, three probes per decision, a 2 s hysteresis window, a 100 ms loop),
# no statistics module, the stop property cleared.
rm -rf "$sandbox/proc/sla" "$sandbox/properties" "$sandbox/dev/socket"
mkdir -p "$sandbox/proc/sla" "$sandbox/properties" "$sandbox/dev/socket"
: > "$sandbox/proc/sla/config"
sed -e 's/^mini_est_interval=.*/mini_est_interval=100/' \
    -e 's/^ping_interval_ms=.*/ping_interval_ms=200/' \
    -e 's/^min_ping_times=.*/min_ping_times=3/' \
    -e 's/^t_hyst_s=.*/t_hyst_s=2/' "$top/etc/vord.conf" > "$sandbox/vendor/etc/sla/vord.conf"
log="$sandbox/vord-sls.log"
: > "$sandbox/commands.log"

# The lines of the daemon's log after line $1 that match the pattern $2, at most $3.
log_since() { tail -n +"$(($1 + 1))" "$log" | grep -E -- "$2" | head -n "$3" || true; }
wait_count() {  # wait_count PATTERN N SECONDS: N lines of the log match PATTERN
    local i
    for ((i = 0; i < $3 * 10; i++)); do
        [ "$(grep -cE -- "$1" "$log" || true)" -ge "$2" ] && return 0
        sleep 0.1
    done
    echo "timed out waiting for $2 lines like: $1" >&2
    return 1
}
wait_log_since() {  # wait_log_since LINE TEXT SECONDS
    local i
    for ((i = 0; i < $3 * 10; i++)); do
        tail -n +"$(($1 + 1))" "$log" | grep -qF -- "$2" && return 0
        sleep 0.1
    done
    echo "timed out waiting for: $2" >&2
    return 1
}

# vordctl, without its note that it waits while the daemon finishes a command.
ctl() { "$bin/vordctl" "$@" 2>&1 | { grep -v 'is busy' || true; }; }

skip_lab=""
if [ "$(id -u)" != 0 ]; then
    skip_lab="not root: the link lab needs network namespaces and TUN devices"
elif [ ! -c /dev/net/tun ]; then
    skip_lab="no /dev/net/tun: the link lab's links are TUN devices"
fi

if [ -z "$skip_lab" ]; then
    lab="vdemo-$$"
    sls_rules() {  # the selection rules in the lab, "(none)" when there are none
        local save
        for save in iptables-save ip6tables-save; do
            "$bin/vord-linklab" exec "$lab" -- "$save" -t mangle |
                grep -E '^-A (vexo_SLS|vexo_sls_uid_)' | sed "s/^/$save: /" || echo "(no vexo_SLS rule)"
        done
    }

    step "link lab $lab: wlan0 20 ms + 20 ms, rmnet_data0 15 ms + 15 ms (real delays)"
    "$bin/vord-linklab" up "$lab" wlan0=20 rmnet_data0=15 --default rmnet_data0 >/dev/null
    # Two bytes more per echo: each probe exchange takes one round trip instead
    # of ending at the probe's 500 ms receive time-out.
    "$bin/vord-linklab" probe-echo "$lab" fill
    "$bin/vord-linklab" status "$lab" | grep -E 'delay=' | awk '{print "  " $1, $2, $3, $4}'
    echo "probe server 1.1.1.1:443 and application server 198.18.0.10:8080 ([2001:2::10]:8080)"
    echo "live in $lab-peer; the links are dual-stack (wlan0 fd66:66:1::2, rmnet_data0"
    echo "fd66:66:2::2); without selection the handset's traffic takes rmnet_data0 (its default route)"
    install_tools "$lab"

    step "vord inside the lab; vordctl ifaces wlan0,rmnet_data0; vordctl sls-start 10123"
    "$bin/vord-linklab" exec "$lab" -- "$bin/vord" 2> "$log" &
    pids+=($!)
    disown
    wait_for "$log" "Created socket success" 30
    ctl ifaces wlan0,rmnet_data0
    ctl sls-start 10123
    wait_count "TCPing cacla rtt is [0-9]+,device is wlan0" 3 20
    wait_count "TCPing cacla rtt is [0-9]+,device is rmnet_data0" 3 20
    wait_for "$log" "SLA_RTT_SELECTED perform switch wlan0" 20
    echo "-- the probes' RTTs (ms), the levels they give (Wi-Fi and cellular have their own RTT bands) and the choice, the higher level:"
    for link in wlan0 rmnet_data0; do
        { grep -E "TCPing cacla rtt is [0-9]+,device is $link" "$log" || true; } | tail -n 1
    done
    for link in wlan0 rmnet_data0; do
        { grep -F "interface ($link) (network level" "$log" || true; } | tail -n 1
    done
    { grep -F "perform switch wlan0" "$log" || true; } | sed -n '1,1p'
    echo "-- iptables-save and ip6tables-save -t mangle in $lab: vexo_SLS sends UID 10123 to wlan0"
    sls_rules
    show_status

    step "an application as UID 10123 talks to the lab's application server, over IPv4 and IPv6"
    "$bin/vord-linklab" client "$lab" --uid 10123 > "$sandbox/client.log" 2>&1 &
    pids+=($!)
    disown
    "$bin/vord-linklab" client "$lab" --uid 10123 -6 > "$sandbox/client6.log" 2>&1 &
    pids+=($!)
    disown
    wait_for "$sandbox/client.log" "connected " 10
    wait_for "$sandbox/client6.log" "connected " 10
    grep -hF "connected " "$sandbox/client.log" "$sandbox/client6.log"
    echo "-- the server's side (the source rewritten to wlan0's addresses by vord's MASQUERADE):"
    { "$bin/vord-linklab" log "$lab" | grep -F "app accept" || true; } | tail -n 2

    step "vord-linklab cut $lab wlan0: every wlan0 packet dropped"
    mark=$(wc -l < "$log")
    start=$(date +%s%N)
    "$bin/vord-linklab" cut "$lab" wlan0
    wait_log_since "$mark" "perform switch rmnet_data0" 20
    echo "switch $((($(date +%s%N) - start) / 1000000)) ms after the cut; why (from the log):"
    log_since "$mark" 'failed.*device is wlan0|Ping (Miss|FAIL) for RTT interface \(wlan0\)' 3
    log_since "$mark" 'perform switch|UID destroying sockets|destroying .* sockets' 4
    wait_for "$sandbox/client.log" "reconnected " 10
    wait_for "$sandbox/client6.log" "reconnected " 10
    echo "-- the application's IPv4 and IPv6 connections:"
    grep -E "connection aborted|reconnected " "$sandbox/client.log" | sed -n '1,2p'
    grep -E "connection aborted|reconnected " "$sandbox/client6.log" | sed -n '1,2p'
    echo "-- iptables-save and ip6tables-save -t mangle in $lab: vexo_SLS now sends UID 10123 to rmnet_data0"
    sls_rules
    show_status

    step "vordctl sls-stop; setprop vendor.sla.enabled 2"
    ctl sls-stop
    for _ in $(seq 1 50); do
        [ -n "$(sls_rules | grep -F ': -A' || true)" ] || break
        sleep 0.1
    done
    sls_rules
    "$bin/setprop" vendor.sla.enabled 2
    wait_for "$log" "Vord exiting" 30
    tail -n 1 "$log"
    show_status
    echo "-- left in $lab after the stop:"
    { "$bin/vord-linklab" exec "$lab" -- iptables-save | grep vexo_;
      "$bin/vord-linklab" exec "$lab" -- ip6tables-save | grep vexo_;
      "$bin/vord-linklab" exec "$lab" -- ip rule | grep fwmark;
      "$bin/vord-linklab" exec "$lab" -- ip -6 rule | grep fwmark; } ||
        echo "(no chain, hook or fwmark rule of vord, IPv4 or IPv6)"

    step "vord-linklab down $lab"
    "$bin/vord-linklab" down "$lab"
    lab=""
    for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
    pids=()
    echo "namespaces left: $(ip netns list | grep -c -e vdemo- -e vord-demo- || true)"
else
    step "link selection with recording stand-ins (no link lab: $skip_lab)"
    install_tools ""
    host_links=""
    for link in wlan0 rmnet_data0; do
        [ -e "/sys/class/net/$link" ] && host_links="$host_links $link"
    done
    "$bin/vord" 2> "$log" &
    pids+=($!)
    disown
    wait_for "$log" "Created socket success" 30
    ctl ifaces wlan0,rmnet_data0
    if [ -n "$host_links" ]; then
        # A probe binds to its link; on a host that has such a link it could
        # reach a real network, so selection is not started here.
        echo "SKIPPED sls-start: this host has a link named$host_links (a probe could leave the machine)"
    else
        echo "\$ vordctl sls-start 10123"
        ctl sls-start 10123
        wait_for "$log" "Set interface wlan0 failed" 20
        sleep 0.5
        echo "-- the rule commands it produces (sandbox/commands.log):"
        echo "   (the hook, the per-link chains, the UID's chains, the jump to the chosen link)"
        { grep -E -- '-(I vexo_MUX .*vexo_SLS|N vexo_sls_|A vexo_sls_uid_|A vexo_SLS )' "$sandbox/commands.log" ||
            true; } | sed -n '1,10p' | sed 's|^/system/bin/||'
        echo "   ... $(grep -cE 'vexo_(SLS|sls_)' "$sandbox/commands.log") commands in all"
        echo "-- the probes: wlan0 and rmnet_data0 do not exist on this host, so binding"
        echo "   a probe to them fails before any packet is sent:"
        { grep -E 'Set interface (wlan0|rmnet_data0) failed' "$log" || true; } | sort -u | sed -n '1,2p'
        { grep -E 'Ping (Miss|FAIL) for RTT interface' "$log" || true; } | sed -n '1,2p'
        show_status
        echo "\$ vordctl sls-stop"
        mark=$(wc -l < "$sandbox/commands.log")
        ctl sls-stop
        sleep 1
        echo "-- the rule commands it produces (per link: the jump and the chains deleted):"
        { tail -n +"$((mark + 1))" "$sandbox/commands.log" | grep -E -- '-(D vexo_SLS |X vexo_sls_)' ||
            true; } | sed -n '1,6p' |
            sed 's|^/system/bin/||'
    fi
    "$bin/setprop" vendor.sla.enabled 2
    wait_for "$log" "Vord exiting" 30
    tail -n 1 "$log"
    step "skipped, and why"
    echo "Not run: the link lab (links with real delays), the probes' RTTs, the choice of"
    echo "a link, the application of UID 10123, the cut of wlan0 and the switch with its"
    echo "socket destruction. Reason: $skip_lab."
    echo "Run as root (sudo bash scripts/demo.sh) to see them on the real kernel."
fi
echo
echo "logs: $sandbox/vord.log (aggregation), $log (selection); commands: $sandbox/commands.log"
