#!/usr/bin/env bash
# Builds the API reference (HTML) from include/kmio/kmio.h with Doxygen.
#   scripts/docs.sh [BUILD_DIR]     default build/default; output BUILD_DIR/docs/html/index.html
# Any Doxygen warning (an undocumented function, parameter or constant, a
# broken reference) fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${1:-build/default}
out=${build_dir}/docs

if ! command -v doxygen >/dev/null; then
    sudo_cmd=()
    if [[ $(id -u) -ne 0 ]]; then
        sudo_cmd=(sudo)
    fi
    "${sudo_cmd[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends doxygen
fi

mkdir -p "${out}"
{
    cat docs/Doxyfile
    echo "OUTPUT_DIRECTORY = ${out}"
    echo "WARN_AS_ERROR = FAIL_ON_WARNINGS"
} | doxygen -
echo "API reference: ${out}/html/index.html"
