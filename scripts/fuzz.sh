#!/usr/bin/env bash
# Builds the fuzz targets and runs one of them for a while:
#   scripts/fuzz.sh TARGET SECONDS      e.g. scripts/fuzz.sh packet_decode 600
# Targets are the folders of fuzz/corpus/. A crash leaves its input under
# build/fuzz/crashes/; add it to fuzz/corpus/TARGET/ as a regression input
# once the fault is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
if (($# != 2)); then
    echo "usage: scripts/fuzz.sh TARGET SECONDS" >&2
    exit 2
fi
source scripts/fuzz-setup.sh
fuzz_build
fuzz_run "$1" "$2"
