#!/bin/sh
# Checks that the shared library defines exactly the thirteen KM_IO_*
# functions in its dynamic symbol table, and nothing else.
set -eu
lib=$1
expected=$(sort <<'LIST'
KM_IO_CanEnumerateDevices
KM_IO_Close
KM_IO_EnumerateDevices
KM_IO_EnumerateInterfaces
KM_IO_GetDiscoveryEventData
KM_IO_GetErrorEventData
KM_IO_GetLocatorInterfaceType
KM_IO_GetProperty
KM_IO_GetVersion
KM_IO_Open
KM_IO_Send
KM_IO_SetEventCallback
KM_IO_SetGlobalOptions
LIST
)
# Each line is "address type name"; only functions in the text section count
# as exports, so require type T as well.
actual=$(nm -D --defined-only "$lib" | awk '{ print $2 " " $3 }' | sort -k2)
functions=$(printf '%s\n' "$actual" | awk '$1 == "T" { print $2 }' | sort)
if [ "$functions" != "$expected" ] || [ "$(printf '%s\n' "$actual" | wc -l)" -ne 13 ]; then
    echo "defined dynamic symbols of $lib:"
    printf '%s\n' "$actual"
    echo "expected exactly these functions:"
    printf '%s\n' "$expected"
    exit 1
fi
echo "$lib exports exactly the 13 KM_IO_* functions"
