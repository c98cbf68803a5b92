#!/bin/sh
# Fails unless the library's defined dynamic symbols are exactly the thirteen
# KM_IO_* functions (each a text symbol, nothing else at all).
set -eu
expected=$(for f in CanEnumerateDevices Close EnumerateDevices EnumerateInterfaces GetDiscoveryEventData \
    GetErrorEventData GetLocatorInterfaceType GetProperty GetVersion Open Send SetEventCallback \
    SetGlobalOptions; do echo "T KM_IO_$f"; done)
actual=$(nm -D --defined-only "$1" | awk '{ print $2 " " $3 }' | LC_ALL=C sort)
[ "$actual" = "$expected" ] || { printf 'defined dynamic symbols of %s:\n%s\n' "$1" "$actual"; exit 1; }
