#!/usr/bin/env bash
# The demonstration: installs what is missing, builds the library, the C
# example, the kmio tool and the two device simulators with the default
# preset, then finds three simulated network devices on loopback, opens one by
# its serial number, exchanges a line of text with it and closes it; then
# does the same over USB against the simulated FTDI driver, one step at a
# time.
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
cmake --build --preset default --target kmio-cli kmio-example kmio-sim ftdi-sim

bin=build/default
kmio=${bin}/tools/kmio/kmio
sim=${bin}/tools/kmio-sim/kmio-sim
sim_pid=""
sim_log=$(mktemp)
chip_file=$(mktemp)

stop_simulator() {
    if [[ -n ${sim_pid} ]]; then
        kill -TERM "${sim_pid}" 2>/dev/null || true
        wait "${sim_pid}" 2>/dev/null || true
        sim_pid=""
    fi
}
trap 'stop_simulator; rm -f "${sim_log}" "${chip_file}"' EXIT

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

step "Simulated USB chips: a chip file for the simulated FTDI driver"
cat >"${chip_file}" <<'CHIPS'
# One chip per line (see README, "The USB simulator").
serial=KM000001 description="Kalomet DRV-I" ee43=0x1234 ee44=0x5678
serial=KM000002 description="Kalomet Sensor" ua=KMIO\x01 protocols=146,147
serial=FT4Q7P2Z description="FT232R USB UART"
CHIPS
cat "${chip_file}"
# The library loads the driver by its name through the loader's search path:
# the simulator's folder on LD_LIBRARY_PATH stands in for FTDI's driver.
printf '$ export FTDISIM_CONFIG=%s LD_LIBRARY_PATH=%s\n' "${chip_file}" "${PWD}/${bin}/ftdi-sim"
export FTDISIM_CONFIG="${chip_file}" LD_LIBRARY_PATH="${PWD}/${bin}/ftdi-sim"

step "USB devices (KM000002 answered the protocol-id probe with two protocols)"
show "${kmio}" list --type usb

step "The same devices with chip-id locators"
show "${kmio}" list --type usb -o "locator-format-usb id" -o only-locator

step "Opening KM000001 by serial number and echoing a line through it"
printf 'hello over USB\n' | show "${kmio}" open usb:sn:KM000001 --linger 300

id_locator=$("${kmio}" list --type usb -o "locator-format-usb id" -o only-locator \
    -o "find-usb-product-name Kalomet DRV-I" --raw)
step "Opening the same chip by its chip id (${id_locator}) and echoing a line"
printf 'hello by chip id\n' | show "${kmio}" open "${id_locator}" --linger 300

step "Done"
