#!/usr/bin/env bash
# The test command: installs what is missing, builds, runs the whole suite,
# then builds and runs it again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and once more under ThreadSanitizer (the library
# is threads and locks throughout: TSan finds lock-order cycles that no
# single run would hit). Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

run_suite() {
    local preset=$1
    echo "=== ${preset}: configure and build"
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}"
    echo "=== ${preset}: test"
    ctest --preset "${preset}" -j2 --output-on-failure
}

run_suite default
run_suite asan
run_suite tsan
scripts/test-packaging.sh build/default
echo "=== all suites passed"
