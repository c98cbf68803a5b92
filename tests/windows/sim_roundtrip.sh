#!/bin/sh
# kmio-sim.exe and kmio.exe together under Wine on loopback: the tool lists the
# simulated devices and echoes a message through one opened by serial number.
# Usage: sim_roundtrip.sh WINE kmio-sim.exe kmio.exe
set -eu
wine=$1
sim=$2
tool=$3
out=$(mktemp)
"$wine" "$sim" --iface 127.0.0.1 --count 2 --serial-prefix WTEST --first-port 47390 >"$out" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null || true; wait $pid 2>/dev/null || true; rm -f "$out"' EXIT
for _ in $(seq 100); do
    grep -q '^ready' "$out" && break
    sleep 0.2
done
grep -q '^ready' "$out" || { echo "kmio-sim.exe did not get ready:"; cat "$out"; exit 1; }

listing=$("$wine" "$tool" list --type network --iface 127.0.0.1 -o "find-device-sn WTEST0001" -o "find-device-sn WTEST0002")
echo "$listing"
echo "$listing" | grep -q 'network:sn:WTEST0001' || { echo "WTEST0001 not listed"; exit 1; }
echo "$listing" | grep -q 'network:sn:WTEST0002' || { echo "WTEST0002 not listed"; exit 1; }

reply=$("$wine" "$tool" send network:sn:WTEST0002 "echo through Wine" --iface 127.0.0.1)
echo "$reply"
[ "$reply" = "echo through Wine" ] || { echo "unexpected reply"; exit 1; }
