#!/usr/bin/env bash
# The device stage: boots Debian's kernel in a QEMU guest (TCG, no KVM
# needed) with two emulated FTDI FT232 chips and runs the kmio tool, pyserial
# and the API checks against Linux's own ftdi_sio driver
# (tests/vm/run_guest.py says how). Needs the default build; installs QEMU,
# the kernel image and busybox when missing.
#
# Usage: scripts/test-device.sh [BUILD_DIR]   (default build/default)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build/default}")

scripts/install-deps.sh qemu-system-x86 linux-image-amd64 busybox-static cpio python3 python3-serial

cmake --build "${build}" --target kmio-cli kmio-guest-serial-checks
# The guest runs Debian's python3 with the host's root as its own, so
# pyserial must come from the system's packages, not a virtual environment.
exec /usr/bin/python3 tests/vm/run_guest.py --source "$(pwd)" --build "${build}"
