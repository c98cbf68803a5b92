#!/usr/bin/env bash
# The demonstration: installs what is missing, builds the library, the C
# example, the kmio tool and the device simulator with the default preset,
# then finds three simulated network devices on loopback, opens one by its
# serial number, exchanges a line of text with it and closes it, one step at
# a time.
set -euo pipefail
cd "$(dirname "$0")/.."

step() {
    printf '\n=== %s\n' "$*"
}

# Shows a command before running it, as a user would type it.
show() {
    printf '$'
    printf ' %q' "$@"
    printf '\n'
    "$@"
}

step "Installing missing packages"
scripts/install-deps.sh

step "Configuring and building (preset: default)"
cmake --preset default >/dev/null
cmake --build --preset default --target kmio-cli kmio-example kmio-sim

bin=build/default
kmio=${bin}/tools/kmio/kmio
sim=${bin}/tools/kmio-sim/kmio-sim
sim_pid=""
sim_log=$(mktemp)

stop_simulator() {
    if [[ -n ${sim_pid} ]]; then
        kill -TERM "${sim_pid}" 2>/dev/null || true
        wait "${sim_pid}" 2>/dev/null || true
        sim_pid=""
    fi
}
trap 'stop_simulator; rm -f "${sim_log}"' EXIT

step "The C example: library version and locator classification"
show "${bin}/examples/kmio-example"

step "The kmio tool"
show "${kmio}" version

step "Network interfaces and serial ports of this host"
show "${kmio}" interfaces

step "Serial devices that can be opened"
show "${kmio}" list --type serial

step "Starting the device simulator: three network devices on 127.0.0.1"
printf '$ %s\n' "${sim} --iface 127.0.0.1 --count 3 &"
"${sim}" --iface 127.0.0.1 --count 3 >"${sim_log}" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
    grep -q '^ready' "${sim_log}" && break
    kill -0 "${sim_pid}" 2>/dev/null || break
    sleep 0.05
done
if ! grep -q '^ready' "${sim_log}"; then
    cat "${sim_log}"
    echo "demo: the simulator did not start" >&2
    exit 1
fi
cat "${sim_log}"

step "Network devices found by discovery on 127.0.0.1"
show "${kmio}" list --type network --iface 127.0.0.1

step "The same devices with host:port locators"
show "${kmio}" list --type network --iface 127.0.0.1 -o "locator-format-network host" -o "only-locator"

step "Opening SIM0001 by serial number and exchanging a line of text"
show "${kmio}" send network:sn:SIM0001 "hello from the KalometIO demo" --iface 127.0.0.1 --wait 500
echo

step "Stopping the simulator"
stop_simulator
echo "simulator stopped"

step "Done"
