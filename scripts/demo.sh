#!/usr/bin/env bash
# The demonstration: installs what is missing, builds the library, the C
# example and the kmio tool with the default preset, then shows what they do
# on this machine, one step at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

step() {
    printf '\n=== %s\n' "$*"
}

# Shows a command before running it, as a user would type it.
show() {
    printf '$ %s\n' "$*"
    "$@"
}

step "Installing missing packages"
scripts/install-deps.sh

step "Configuring and building (preset: default)"
cmake --preset default >/dev/null
cmake --build --preset default --target kmio-cli kmio-example

bin=build/default
kmio=${bin}/tools/kmio/kmio

step "The C example: library version and locator classification"
show "${bin}/examples/kmio-example"

step "The kmio tool"
show "${kmio}" version

step "Network interfaces and serial ports of this host"
show "${kmio}" interfaces

step "Serial devices that can be opened"
show "${kmio}" list --type serial

step "Done"
