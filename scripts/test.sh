#!/usr/bin/env bash
# The test command: installs what is missing, builds, runs the whole suite,
# then builds and runs it again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and once more under ThreadSanitizer (the library
# is threads and locks throughout: TSan finds lock-order cycles that no
# single run would hit), checks the installed package, runs every fuzz target
# for a short while, and last cross-builds for Windows and runs that suite
# under Wine. Exits non-zero on any failure.
#
# With arguments, runs only the named stages, in the order given, for
# example `scripts/test.sh default` while iterating on Linux code:
#   default  the suite in the release build
#   asan     the suite under AddressSanitizer and UndefinedBehaviorSanitizer
#   tsan     the suite under ThreadSanitizer
#   packaging  install, consumer builds, Debian packages, API reference and
#            the Python package's tests (needs the default build)
#   device   scripts/test-device.sh: a QEMU guest with Debian's kernel and
#            two emulated FTDI chips on Linux's own ftdi_sio driver (needs
#            the default build)
#   fuzz     scripts/test-fuzz.sh: each libFuzzer target for about 20 s
#   windows  the Windows cross-build, its checks and its suite under Wine
#            (scripts/test-windows.sh)
# A CTest regular expression may follow a stage after a colon, for example
# `scripts/test.sh default:Serial`.
set -euo pipefail
cd "$(dirname "$0")/.."

all_stages=(default asan tsan packaging device fuzz windows)
stages=("$@")
if ((${#stages[@]} == 0)); then
    stages=("${all_stages[@]}")
fi

scripts/install-deps.sh

# Discovery tests bind the fixed ND ports on loopback and listen for every
# announcement there: run as root, each suite gets a network namespace of its
# own (loopback only), so other programs on the machine that speak ND cannot
# answer our requests or take our replies.
isolated=()
if [[ $(id -u) -eq 0 ]] && unshare -n true 2>/dev/null; then
    isolated=(unshare -n sh -c 'ip link set lo up && exec "$@"' isolated)
fi

run_suite() {
    local preset=$1 filter=${2:-}
    echo "=== ${preset}: configure and build"
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}"
    echo "=== ${preset}: test"
    if [[ -n ${filter} ]]; then
        "${isolated[@]}" ctest --preset "${preset}" -j2 --output-on-failure -R "${filter}"
    else
        "${isolated[@]}" ctest --preset "${preset}" -j2 --output-on-failure
    fi
}

started=${SECONDS}
for stage in "${stages[@]}"; do
    stage_started=${SECONDS}
    name=${stage%%:*}
    filter=
    if [[ ${stage} == *:* ]]; then
        filter=${stage#*:}
    fi
    case ${name} in
    default | asan | tsan) run_suite "${name}" "${filter}" ;;
    packaging) scripts/test-packaging.sh build/default ;;
    device) scripts/test-device.sh build/default ;;
    windows)
        scripts/test-windows.sh --install-only
        "${isolated[@]}" scripts/test-windows.sh --installed ${filter:+"${filter}"}
        ;;
    fuzz) scripts/test-fuzz.sh ;;
    *)
        echo "unknown stage '${name}'; stages: ${all_stages[*]}" >&2
        exit 2
        ;;
    esac
    echo "=== ${stage}: passed in $((SECONDS - stage_started)) s"
done
echo "=== stages passed: ${stages[*]} ($((SECONDS - started)) s)"
