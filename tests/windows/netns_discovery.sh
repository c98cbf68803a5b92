#!/bin/sh
# kmio-sim.exe and kmio.exe under Wine on two separate networks. The tool
# must report both adapters with their masks (GetAdaptersAddresses), find one
# device on each with "--iface all", and open the second by serial number.
#
#   host ns:    kmwh1 10.78.1.1/24             kmwh2 10.78.2.1/24
#                  |                              |
#   device ns:  kmwd 10.78.1.2/24 (WNSA0001)   kmwd 10.78.2.2/24 (WNSB0001)
#
# Each namespace runs its own Wine server on its own prefix:
# Wine answers adapter queries from a helper process that the server starts,
# and that process must live in the namespace whose interfaces it reports.
# Usage: netns_discovery.sh WINE kmio-sim.exe kmio.exe
# Exits 77 (skipped) when namespaces cannot be made here, unless
# KMIO_REQUIRE_NETNS=1 asks for a failure instead.
set -eu
wine=$1
sim=$2
tool=$3
skip() {
    echo "skipped: $1"
    [ "${KMIO_REQUIRE_NETNS:-0}" = 1 ] && exit 1
    exit 77
}
[ "$(id -u)" -eq 0 ] || skip "network namespaces need root"
command -v ip >/dev/null || skip "the ip command is missing"

tag=$$
hostns=kmw-host-$tag
work=$(mktemp -d)
pids=""
cleanup() {
    for pid in $pids; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    for ns in $hostns kmw-dev1-$tag kmw-dev2-$tag; do
        if [ -d "$work/$ns" ]; then
            ip netns exec "$ns" env WINEPREFIX="$work/$ns" wineserver -k 2>/dev/null || true
        fi
        ip netns del "$ns" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
in_ns() {
    ns=$1
    shift
    ip netns exec "$ns" env WINEPREFIX="$work/$ns" WINEDEBUG=-all "$@"
}

ip netns add "$hostns" || skip "ip netns add failed"
ip -n "$hostns" link set lo up
for i in 1 2; do
    devns=kmw-dev$i-$tag
    ip netns add "$devns"
    ip -n "$devns" link set lo up
    ip link add "kmwh$i-$tag" netns "$hostns" type veth peer name kmwd netns "$devns"
    ip -n "$hostns" link set "kmwh$i-$tag" name "kmwh$i"
    ip -n "$hostns" addr add "10.78.$i.1/24" dev "kmwh$i"
    ip -n "$hostns" link set "kmwh$i" up
    ip -n "$devns" addr add "10.78.$i.2/24" dev kmwd
    ip -n "$devns" link set kmwd up
done
# The prefix's 700 MB of DLLs are only read: hard links serve. The registry
# files are written, so each namespace gets copies of its own. A prefix whose
# Wine server has not yet saved its registry cannot be copied: then each
# namespace makes a prefix of its own.
for ns in $hostns kmw-dev1-$tag kmw-dev2-$tag; do
    if [ -n "${WINEPREFIX:-}" ] && [ -f "$WINEPREFIX/system.reg" ]; then
        cp -al "$WINEPREFIX" "$work/$ns"
        for file in "$WINEPREFIX"/*.reg; do
            cp --remove-destination "$file" "$work/$ns/"
        done
    else
        in_ns "$ns" wineboot -i >/dev/null 2>&1
    fi
done

for i in 1 2; do
    letter=$(echo "AB" | cut -c"$i")
    in_ns "kmw-dev$i-$tag" "$wine" "$sim" --iface "10.78.$i.2" --count 1 --serial-prefix "WNS$letter" \
        >"$work/sim$i.out" 2>&1 &
    pids="$pids $!"
done
for i in 1 2; do
    for _ in $(seq 150); do
        grep -q '^ready' "$work/sim$i.out" && break
        sleep 0.2
    done
    grep -q '^ready' "$work/sim$i.out" || {
        echo "kmio-sim.exe $i did not get ready:"
        cat "$work/sim$i.out"
        exit 1
    }
done

adapters=$(in_ns "$hostns" "$wine" "$tool" interfaces)
echo "$adapters"
for expected in "10.78.1.1 +255.255.255.0 +kmwh1" "10.78.2.1 +255.255.255.0 +kmwh2"; do
    echo "$adapters" | grep -Eq "^network +$expected" || {
        echo "adapter missing: $expected"
        exit 1
    }
done
listing=$(in_ns "$hostns" "$wine" "$tool" list --type network --iface all)
echo "$listing"
for expected in "network:sn:WNSA0001 +network:10.78.1.1" "network:sn:WNSB0001 +network:10.78.2.1"; do
    echo "$listing" | grep -Eq "$expected" || {
        echo "not listed: $expected"
        cat "$work"/sim*.out
        exit 1
    }
done

reply=$(in_ns "$hostns" "$wine" "$tool" send network:sn:WNSB0001 "across the namespaces" --iface 10.78.2.1)
echo "$reply"
[ "$reply" = "across the namespaces" ] || {
    echo "unexpected reply"
    exit 1
}
