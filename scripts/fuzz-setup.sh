# Sourced by scripts/fuzz.sh and scripts/test-fuzz.sh: installs clang and its
# libFuzzer runtime when missing, checks that a fuzzer links, then configures
# and builds every fuzz target with the fuzz preset (build/fuzz).

fuzz_install_clang() {
    local sudo_cmd=()
    if [[ $(id -u) -ne 0 ]]; then
        sudo_cmd=(sudo)
    fi
    if ! command -v clang++ >/dev/null; then
        echo "Installing clang"
        "${sudo_cmd[@]}" apt-get update
        DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends clang
    fi
    # libFuzzer ships in the compiler runtime package of clang's own major
    # version (libclang-rt-14-dev for Debian 12's clang 14).
    local major
    major=$(clang++ -dumpversion | cut -d. -f1)
    local runtime=libclang-rt-${major}-dev
    if ! dpkg-query -W -f='${Status}' "${runtime}" 2>/dev/null | grep -q "install ok installed"; then
        echo "Installing ${runtime}"
        "${sudo_cmd[@]}" apt-get update
        DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${runtime}"
    fi
    local probe
    probe=$(mktemp -d)
    echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' >"${probe}/probe.cpp"
    if ! clang++ -fsanitize=fuzzer,address,undefined "${probe}/probe.cpp" -o "${probe}/probe"; then
        rm -rf "${probe}"
        echo "clang++ cannot link a libFuzzer target (-fsanitize=fuzzer)" >&2
        return 1
    fi
    rm -rf "${probe}"
}

fuzz_build() {
    scripts/install-deps.sh
    fuzz_install_clang
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz
}

# fuzz_run TARGET SECONDS: runs one target from its seed corpus. New inputs go
# to build/fuzz/corpus/TARGET (the repository's seeds stay as they are); a
# crashing input is saved under build/fuzz/crashes/ and fails the run.
fuzz_run() {
    local target=$1 seconds=$2
    local binary=build/fuzz/fuzz/kmio-fuzz-${target}
    local seeds=fuzz/corpus/${target}
    if [[ ! -x ${binary} || ! -d ${seeds} ]]; then
        echo "unknown fuzz target '${target}'; targets: $(ls fuzz/corpus | tr '\n' ' ')" >&2
        return 2
    fi
    mkdir -p "build/fuzz/corpus/${target}" build/fuzz/crashes
    "${binary}" -max_total_time="${seconds}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/crashes/${target}-" "build/fuzz/corpus/${target}" "${seeds}"
}
