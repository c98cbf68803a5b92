#!/usr/bin/env bash
# Builds every fuzz target and runs each for a short, bounded time
# (KMIO_FUZZ_SECONDS, default 20) from its seed corpus. Exits non-zero when a
# target crashes or finds a failing input (saved under build/fuzz/crashes/).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${KMIO_FUZZ_SECONDS:-20}
source scripts/fuzz-setup.sh
fuzz_build
failed=()
for seeds in fuzz/corpus/*/; do
    target=$(basename "${seeds}")
    echo "=== fuzz ${target}: ${seconds} s"
    if ! fuzz_run "${target}" "${seconds}" 2>"build/fuzz/${target}.log"; then
        tail -n 40 "build/fuzz/${target}.log" >&2
        failed+=("${target}")
    else
        grep -E "^(stat::number_of_executed_units|stat::new_units_added|#[0-9]+ +DONE)" "build/fuzz/${target}.log" || true
    fi
done
if ((${#failed[@]})); then
    echo "fuzz targets failed: ${failed[*]}" >&2
    exit 1
fi
echo "=== every fuzz target ran ${seconds} s without a failure"
