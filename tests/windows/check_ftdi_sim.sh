#!/bin/sh
# Checks the simulated driver DLLs from their files, without running them:
#  - ftd2xx.dll exports the driver's 22 FT_ entry points and the simulator's
#    FtdiSim_ control functions, FTChipID.dll exactly the two FTID_ ones, all
#    undecorated (on 32-bit Windows a __stdcall export would otherwise carry
#    an "@N" suffix and the library's GetProcAddress by bare name would fail);
#  - both import only system DLLs, and FTChipID.dll the driver DLL as well.
# Usage: check_ftdi_sim.sh OBJDUMP ftd2xx.dll FTChipID.dll
set -eu
objdump=$1
driver=$2
chipid=$3

exports_of() {
    "$objdump" -p "$1" | sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/p' |
        sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\][[:space:]]*//p' | LC_ALL=C sort
}

status=0
expected_driver=$(for f in Close CreateDeviceInfoList EE_Read EE_UARead EE_UASize EE_UAWrite GetDeviceInfoList \
    GetStatus Open OpenEx Purge Read ReadEE SetBaudRate SetBitMode SetDataCharacteristics SetEventNotification \
    SetFlowControl SetLatencyTimer SetTimeouts SetUSBParameters Write; do echo "FT_$f"; done | LC_ALL=C sort)
driver_exports=$(exports_of "$driver")
if [ "$(echo "$driver_exports" | grep '^FT_')" != "$expected_driver" ]; then
    printf 'FT_ exports of %s:\n%s\n' "$driver" "$(echo "$driver_exports" | grep '^FT_' || true)"
    status=1
fi
if echo "$driver_exports" | grep -qv -e '^FT_' -e '^FtdiSim_[A-Za-z]*$'; then
    printf 'unexpected exports of %s:\n%s\n' "$driver" "$(echo "$driver_exports" | grep -v '^FT_')"
    status=1
fi
chipid_exports=$(exports_of "$chipid")
if [ "$chipid_exports" != "$(printf 'FTID_GetChipIDFromHandle\nFTID_GetNumDevices')" ]; then
    printf 'exports of %s:\n%s\n' "$chipid" "$chipid_exports"
    status=1
fi

for file in "$driver" "$chipid"; do
    for imported in $("$objdump" -p "$file" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'A-Z' 'a-z'); do
        case " kernel32.dll msvcrt.dll ftd2xx.dll " in
        *" $imported "*) ;;
        *)
            echo "$file imports $imported, which is not a system DLL"
            status=1
            ;;
        esac
    done
done
if "$objdump" -p "$driver" | grep -qi 'DLL Name: ftd2xx.dll'; then
    echo "$driver imports itself"
    status=1
fi
[ "$status" -eq 0 ] && echo "simulated driver: 22 FT_ and 2 FTID_ exports, undecorated; imports: system DLLs only"
exit "$status"
