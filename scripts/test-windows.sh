#!/usr/bin/env bash
# The Windows test command: cross-builds kmio.dll, the tools and the tests for
# 64-bit and 32-bit Windows with mingw-w64, checks the built files (exports,
# imports, structure sizes, which the 32-bit build's compilation asserts), and
# runs the suite under Wine in a fresh private prefix per width. Prints the
# passed and skipped counts per width; exits non-zero on any failure.
#
# The 32-bit suite needs the 32-bit Wine (wine32, an i386 package). When the
# package mirror cannot provide it, the 32-bit build is still made and
# checked, and the script says why its suite did not run.
#
# Usage: scripts/test-windows.sh [--install-only | --installed] [REGEX]
#   --install-only  install what is missing (apt-get) and stop
#   --installed     install nothing: scripts/test.sh runs the install step
#                   first and then the rest inside a network namespace,
#                   where the package mirror cannot be reached
#   REGEX           a CTest regular expression picking the tests to run
#                   under Wine, for example `scripts/test-windows.sh Usb`
set -euo pipefail
cd "$(dirname "$0")/.."
mode=all
case ${1:-} in
--install-only | --installed)
    mode=${1#--}
    shift
    ;;
esac
filter=${1:-}

sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
    sudo_cmd=(sudo)
fi

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

install_packages() {
    local packages=(cmake ninja-build mingw-w64 g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix binutils-mingw-w64
        googletest wine wine64)
    local missing=() p
    for p in "${packages[@]}"; do
        installed "$p" || missing+=("$p")
    done
    if ((${#missing[@]})); then
        echo "Installing: ${missing[*]}"
        "${sudo_cmd[@]}" apt-get update || echo "apt-get update reported errors; trying with the lists it has"
        DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
    fi

    # The 32-bit Wine: only from a mirror that carries i386.
    # A failed attempt takes the i386 architecture away again: a mirror without
    # (complete) i386 lists would otherwise make every later apt-get update fail.
    if ! installed wine32; then
        added_i386=no
        if ! dpkg --print-foreign-architectures | grep -qx i386; then
            "${sudo_cmd[@]}" dpkg --add-architecture i386
            added_i386=yes
        fi
        wine32_log=$(mktemp)
        if ! { "${sudo_cmd[@]}" apt-get update || true; DEBIAN_FRONTEND=noninteractive \
            "${sudo_cmd[@]}" apt-get install -y --no-install-recommends wine32; } >"${wine32_log}" 2>&1; then
            wine32_reason="wine32 could not be installed from this machine's package mirror: $(grep -m1 '^E:' \
                "${wine32_log}" || echo 'apt-get failed')"
            if [[ ${added_i386} == yes ]]; then
                "${sudo_cmd[@]}" dpkg --remove-architecture i386 || true
                "${sudo_cmd[@]}" apt-get update >/dev/null 2>&1 || true
            fi
            echo "${wine32_reason}"
        fi
        rm -f "${wine32_log}"
    fi
}

wine32_reason=
if [[ ${mode} != installed ]]; then
    install_packages
fi
if [[ ${mode} == install-only ]]; then
    exit 0
fi
if [[ -z ${wine32_reason} ]] && ! installed wine32; then
    wine32_reason="wine32 is not installed (the install step above says why)"
fi

prefixes=()
cleanup() {
    # End only the Wine servers of the prefixes this run made.
    for prefix in "${prefixes[@]}"; do
        WINEPREFIX=${prefix} wineserver -k 2>/dev/null || true
    done
}
trap cleanup EXIT

summary=()
status=0
objdump_of() {
    case $1 in
    windows-x64) echo x86_64-w64-mingw32-objdump ;;
    windows-x86) echo i686-w64-mingw32-objdump ;;
    esac
}
run_width() {
    local preset=$1 run_suite=$2
    local build=build/${preset}
    echo "=== ${preset}: configure and build"
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}" -j2
    local log=${build}/ctest-windows.log
    : >"${log}"
    if [[ ${run_suite} != yes ]]; then
        # Only what needs no Wine: the structure sizes are asserted by the
        # compilation above; the exports and imports are read from the files.
        echo "=== ${preset}: the suite does not run: ${run_suite}"
        echo "=== ${preset}: checks of the built files"
        if sh tests/windows/check_pe.sh "$(objdump_of "${preset}")" "${build}/bin/kmio.dll" "${build}"/bin/*.exe; then
            echo "Test #0: windows.exports_and_imports ... Passed 0 sec" >"${log}"
        else
            status=1
            echo "Test #0: windows.exports_and_imports ...***Failed 0 sec" >"${log}"
        fi
        if sh tests/windows/check_ftdi_sim.sh "$(objdump_of "${preset}")" "${build}/ftdi-sim/ftd2xx.dll" \
            "${build}/ftdi-sim-chipid/FTChipID.dll"; then
            echo "Test #1: windows.ftdi_sim_exports ... Passed 0 sec" >>"${log}"
        else
            status=1
            echo "Test #1: windows.ftdi_sim_exports ...***Failed 0 sec" >>"${log}"
        fi
    else
        local prefix=${PWD}/${build}/wineprefix
        echo "=== ${preset}: fresh Wine prefix"
        rm -rf "${prefix}"
        prefixes+=("${prefix}")
        WINEPREFIX=${prefix} WINEDEBUG=-all wineboot -i >/dev/null 2>&1
        # Until its server ends, the new prefix has no registry files to copy.
        WINEPREFIX=${prefix} wineserver -w
        echo "=== ${preset}: test under Wine"
        ctest --preset "${preset}" ${filter:+-R "${filter}"} 2>&1 | tee "${log}" || status=1
        WINEPREFIX=${prefix} wineserver -k 2>/dev/null || true
    fi
    local passed failed skipped results
    results=$(grep -E 'Test +#[0-9]+: ' "${log}" | sort -u)
    passed=$(grep -cE ' Passed +[0-9.]+ sec$' <<<"${results}" || true)
    failed=$(grep -cE '\*\*\*(Failed|Timeout|Exception)|Not Run' <<<"${results}" || true)
    skipped=$(grep -cE '\*\*\*Skipped' <<<"${results}" || true)
    if ((skipped)); then
        echo "--- ${preset}: skipped, with the reason each gave:"
        grep -h -A1 ': Skipped$' "${build}/Testing/Temporary/LastTest.log" | grep -vE ': Skipped$|^--$' || true
    fi
    summary+=("${preset}: ${passed} passed, ${failed} failed, ${skipped} skipped")
}

run_width windows-x64 yes
if [[ -n ${wine32_reason} ]]; then
    run_width windows-x86 "${wine32_reason}"
else
    run_width windows-x86 yes
fi

echo "=== Windows summary"
printf '%s\n' "${summary[@]}"
exit "${status}"
