#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need,
# only when one is missing, so that repeated runs cost nothing. With package
# names as arguments, installs those instead (the stages that need more,
# such as the device stage, call it so).
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libgtest-dev libbenchmark-dev libserialport-dev iproute2 procps)
if (($#)); then
    packages=("$@")
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    sudo_cmd=()
    if [[ $(id -u) -ne 0 ]]; then
        sudo_cmd=(sudo)
    fi
    "${sudo_cmd[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi
