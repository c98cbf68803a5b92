#!/bin/bash
# Runs inside the guest, chrooted into the host's root (read-only): the kmio
# tool, pyserial and the API checks against Linux's own ftdi_sio driver and
# two emulated FT232 chips whose host ends echo. Prints "@@" lines for the
# harness (tests/vm/run_guest.py).
set -u
kmio=${KMIO_BUILD}/tools/kmio/kmio
first=KMVM0001
second=KMVM0002

check() {
    local name=$1 out
    shift
    if out=$("$@" 2>&1); then
        echo "@@check ${name} ok"
    else
        echo "@@check ${name} fail $(printf '%s' "${out}" | tr '\n' ' ' | cut -c1-400)"
    fi
}

# The ttyUSB port whose USB device carries this serial number.
tty_of() {
    local tty
    for tty in /sys/class/tty/ttyUSB*; do
        [[ -e ${tty} ]] || continue
        if [[ $(cat "$(readlink -f "${tty}/device")/../../serial" 2>/dev/null) == "$1" ]]; then
            basename "${tty}"
            return 0
        fi
    done
    return 1
}

wait_for_chips() {
    local tries
    for ((tries = 0; tries < 600; tries++)); do
        if tty_of "${first}" >/dev/null && tty_of "${second}" >/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    echo "ports seen: $(ls /sys/class/tty | grep -c ttyUSB)"
    return 1
}

contains() { grep -qF -- "$1" <<<"$2" || { echo "'$1' missing from: $2"; return 1; }; }
lacks() { ! grep -qF -- "$1" <<<"$2" || { echo "'$1' present in: $2"; return 1; }; }

check kernel-sees-both-chips wait_for_chips
tty0=$(tty_of "${first}")
tty1=$(tty_of "${second}")
echo "@@figure ports-ready $(cut -d' ' -f1 /proc/uptime) s guest time"
echo "@@note ${first}=/dev/${tty0} ${second}=/dev/${tty1}, driver $(basename "$(readlink -f "/sys/class/tty/${tty0}/device/driver")"), latency_timer $(cat "/sys/class/tty/${tty0}/device/latency_timer" 2>/dev/null || echo none) ms, type attribute $([[ -e /sys/class/tty/${tty0}/type ]] && echo present || echo absent)"

list_both() {
    local out
    out=$("${kmio}" list --type serial --raw -o force-rescan) || return 1
    contains "serial:/dev/${tty0}" "${out}" && contains "serial:/dev/${tty1}" "${out}"
}
check kmio-list-shows-both-ports list_both

list_by_serial() {
    local out
    out=$("${kmio}" list --type serial --raw -o serial-usb-info -o "find-device-sn ${second}") || return 1
    contains "serial:/dev/${tty1}" "${out}" && contains "device-sn=${second}" "${out}" &&
        contains "usb-vid=1027" "${out}" && contains "usb-pid=24577" "${out}" &&
        lacks "serial:/dev/${tty0}" "${out}"
}
check kmio-list-picks-by-serial-number list_by_serial

send_echo() {
    local out
    out=$("${kmio}" send "serial:/dev/${tty0}" hello-from-the-guest -o "baudrate 115200" --wait 2000) || return 1
    contains hello-from-the-guest "${out}"
}
check kmio-send-echoes send_echo

peer=${KMIO_SRC}/tests/vm/pyserial_peer.py
check pyserial-lists-the-same-ports python3 "${peer}" list "/dev/${tty0}=${first}" "/dev/${tty1}=${second}"
check pyserial-talks-to-the-chip python3 "${peer}" echo "/dev/${tty1}"

checks=${KMIO_BUILD}/tests/vm/kmio-guest-serial-checks
if [[ -x ${checks} ]]; then
    "${checks}" "/dev/${tty0}" "/dev/${tty1}" "${second}"
    echo "@@check api-checks-ran-to-the-end $([[ $? -eq 0 ]] && echo ok || echo fail exit code $?)"
else
    echo "@@check api-checks-ran-to-the-end fail ${checks} not built"
fi
