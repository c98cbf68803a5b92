#!/bin/sh
# Fails unless the library's defined dynamic symbols are exactly the thirteen
# KM_IO_* functions (each a text symbol, nothing else at all).
set -eu
expected="T KM_IO_CanEnumerateDevices
T KM_IO_Close
T KM_IO_EnumerateDevices
T KM_IO_EnumerateInterfaces
T KM_IO_GetDiscoveryEventData
T KM_IO_GetErrorEventData
T KM_IO_GetLocatorInterfaceType
T KM_IO_GetProperty
T KM_IO_GetVersion
T KM_IO_Open
T KM_IO_Send
T KM_IO_SetEventCallback
T KM_IO_SetGlobalOptions"
actual=$(nm -D --defined-only "$1" | awk '{ print $2 " " $3 }' | LC_ALL=C sort)
if [ "$actual" != "$expected" ]; then
    printf 'defined dynamic symbols of %s:\n%s\n' "$1" "$actual"
    exit 1
fi
