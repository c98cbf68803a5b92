#!/bin/sh
# Checks a Windows build from its files, without running it:
#  - kmio.dll exports exactly the thirteen KM_IO_* names, undecorated;
#  - kmio.dll and every program given after it import only DLLs that every
#    Windows system has (the C++ runtime, libgcc and winpthread are linked
#    in), apart from kmio.dll itself for the programs.
# Usage: check_pe.sh OBJDUMP kmio.dll [program.exe...]
set -eu
objdump=$1
dll=$2
shift 2

expected=$(for f in CanEnumerateDevices Close EnumerateDevices EnumerateInterfaces GetDiscoveryEventData \
    GetErrorEventData GetLocatorInterfaceType GetProperty GetVersion Open Send SetEventCallback \
    SetGlobalOptions; do echo "KM_IO_$f"; done)
# The name table lists "[ordinal] name" lines until the next blank line.
actual=$("$objdump" -p "$dll" | sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/p' |
    sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\][[:space:]]*//p' | LC_ALL=C sort)
if [ "$actual" != "$expected" ]; then
    printf 'exports of %s:\n%s\n' "$dll" "$actual"
    exit 1
fi

system_dlls='advapi32.dll iphlpapi.dll kernel32.dll msvcrt.dll ws2_32.dll user32.dll shell32.dll'
status=0
for file in "$dll" "$@"; do
    for imported in $("$objdump" -p "$file" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'A-Z' 'a-z'); do
        case " $system_dlls kmio.dll " in
        *" $imported "*) ;;
        *)
            echo "$file imports $imported, which is not a system DLL"
            status=1
            ;;
        esac
    done
done
[ "$status" -eq 0 ] && echo "exports: the thirteen names; imports: system DLLs only"
exit "$status"
