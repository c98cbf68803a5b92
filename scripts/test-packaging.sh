#!/usr/bin/env bash
# Packaging checks, as a user of the installed library meets it:
#   scripts/test-packaging.sh BUILD_DIR      (e.g. build/default, configured by the presets)
#
# 1. install:     cmake --install into a staging prefix; the expected files, the SONAME
# 2. find_package: a C++ project out of tree against the prefix, built and run
# 3. pkg-config:  a C program compiled with pkg-config's flags, run
# 4. deb:         cpack -G DEB; contents and control fields checked with dpkg-deb -c / -f
# 5. docs:        scripts/docs.sh (Doxygen, warnings are errors), and the Python
#                 package's API reference from its docstrings (Sphinx, warnings are errors)
# 6. python:      pip install of bindings/python into a fresh venv, offline, then
#                 pytest against the staged libkmio.so.2, pseudo-terminals and kmio-sim
#                 on 127.0.0.1 (inside a private network namespace when run as root, so
#                 the discovery ports are ours alone and no network is reachable)
#
# Installs what it needs with apt-get, prints one line per stage and a summary,
# and exits non-zero if any stage failed.
set -uo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD

if (($# != 1)); then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
mkdir -p "$1"
build_dir=$(realpath "$1")

sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
    sudo_cmd=(sudo)
fi
packages=(cmake ninja-build g++ pkg-config doxygen dpkg-dev file binutils python3 python3-venv
    python3-setuptools python3-wheel python3-pytest python3-sphinx iproute2 util-linux)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    "${sudo_cmd[@]}" apt-get update >/dev/null
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends \
        "${missing[@]}" >/dev/null || exit 1
fi

work=$(mktemp -d /tmp/kmio-packaging.XXXXXX)
trap 'rm -rf "${work}"' EXIT
prefix=${work}/prefix
log_dir=${work}/logs
mkdir -p "${log_dir}"

results=()
failures=0
start_all=$SECONDS

# Runs one stage, its output kept in a log that is shown when it fails.
stage() {
    local name=$1
    shift
    local started=$SECONDS
    echo "=== packaging: ${name}"
    if "$@" >"${log_dir}/${name}.log" 2>&1; then
        [[ -n ${KMIO_PACKAGING_VERBOSE:-} ]] && cat "${log_dir}/${name}.log"
        tail -n 1 "${log_dir}/${name}.log"
        results+=("PASS  ${name} ($((SECONDS - started)) s)")
    else
        cat "${log_dir}/${name}.log"
        results+=("FAIL  ${name} ($((SECONDS - started)) s)")
        failures=$((failures + 1))
    fi
}

fail() {
    echo "FAILED: $*"
    return 1
}

expect_file() {
    [[ -e $1 || -L $1 ]] || fail "missing $1"
}

stage_install() {
    if [[ ! -f ${build_dir}/CMakeCache.txt ]]; then
        # Run on its own: only the library and the tools are needed here.
        cmake -S "${source_dir}" -B "${build_dir}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DKMIO_BUILD_TESTS=OFF -DKMIO_BUILD_BENCH=OFF || return 1
    fi
    cmake --build "${build_dir}" --target kmio kmio-cli kmio-sim ftdi-sim ftdi-sim-chipid -j2 || return 1
    cmake --install "${build_dir}" --prefix "${prefix}" || return 1
    local f
    for f in lib/libkmio.so.2.2.0 lib/libkmio.so.2 lib/libkmio.so include/kmio/kmio.h bin/kmio bin/kmio-sim \
        lib/udev/rules.d/70-kalometio-ftdi.rules share/doc/kalometio/LICENSE share/doc/kalometio/README.md \
        lib/cmake/KalometIO/KalometIOConfig.cmake lib/cmake/KalometIO/KalometIOConfigVersion.cmake \
        lib/cmake/KalometIO/KalometIOTargets.cmake lib/pkgconfig/kmio.pc \
        lib/kalometio/ftdi-sim/libftd2xx.so lib/kalometio/ftdi-sim-chipid/libftchipid.so; do
        expect_file "${prefix}/${f}" || return 1
    done
    [[ $(readlink "${prefix}/lib/libkmio.so.2") == libkmio.so.2.2.0 ]] || fail "libkmio.so.2 link" || return 1
    [[ $(readlink "${prefix}/lib/libkmio.so") == libkmio.so.2 ]] || fail "libkmio.so link" || return 1
    readelf -d "${prefix}/lib/libkmio.so.2.2.0" | grep -q 'SONAME.*\[libkmio\.so\.2\]' || fail "SONAME" || return 1
    grep -q 'ATTR{idVendor}=="0403".*GROUP="plugdev"' "${prefix}/lib/udev/rules.d/70-kalometio-ftdi.rules" ||
        fail "udev rule" || return 1
    # The installed tool finds the installed library without help.
    env -u LD_LIBRARY_PATH "${prefix}/bin/kmio" version | tee /dev/stderr | grep -q '2\.2\.0' ||
        fail "installed kmio version" || return 1
}

stage_find_package() {
    cmake -S tests/packaging/find-package -B "${work}/find-package" -G Ninja \
        -DCMAKE_PREFIX_PATH="${prefix}" || return 1
    cmake --build "${work}/find-package" || return 1
    "${work}/find-package/consumer" || return 1
    # SameMajorVersion: a request for 3.0 must be refused.
    local probe=${work}/version-probe
    mkdir -p "${probe}"
    printf 'cmake_minimum_required(VERSION 3.16)\nproject(p NONE)\nfind_package(KalometIO 3.0 REQUIRED)\n' \
        >"${probe}/CMakeLists.txt"
    if cmake -S "${probe}" -B "${probe}/build" -DCMAKE_PREFIX_PATH="${prefix}" >/dev/null 2>&1; then
        fail "find_package(KalometIO 3.0) accepted version 2.2.0"
    fi
}

stage_pkg_config() {
    export PKG_CONFIG_PATH=${prefix}/lib/pkgconfig
    [[ $(pkg-config --modversion kmio) == 2.2.0 ]] || fail "pkg-config --modversion kmio" || return 1
    # shellcheck disable=SC2046 # the flags are meant to split into words
    cc -std=c99 -Wall -Wextra -Wpedantic -Werror tests/packaging/pkg-config/consumer.c \
        $(pkg-config --cflags --libs kmio) -o "${work}/pkg-config-consumer" || return 1
    LD_LIBRARY_PATH=${prefix}/lib "${work}/pkg-config-consumer"
}

# Checks that a package's file list has (or lacks) an entry.
deb_has() {
    grep -qE "^\S+ \S+ +[0-9]+ \S+ \S+ \.$2( -> .*)?$" "$1" || fail "$(basename "$1" .list) lacks $2"
}

stage_deb() {
    rm -rf "${build_dir}/packages"
    (cd "${build_dir}" && cpack -G DEB) || return 1
    local arch
    arch=$(dpkg --print-architecture)
    local runtime=${build_dir}/packages/kalometio_2.2.0_${arch}.deb
    local dev=${build_dir}/packages/kalometio-dev_2.2.0_${arch}.deb
    expect_file "${runtime}" && expect_file "${dev}" || return 1
    dpkg-deb -I "${runtime}" && dpkg-deb -I "${dev}" || return 1
    dpkg-deb -c "${runtime}" | tee "${work}/runtime.list" || return 1
    dpkg-deb -c "${dev}" | tee "${work}/dev.list" || return 1
    local f
    for f in /usr/lib/libkmio.so.2.2.0 /usr/lib/libkmio.so.2 /usr/bin/kmio /usr/bin/kmio-sim \
        /usr/lib/udev/rules.d/70-kalometio-ftdi.rules /usr/share/doc/kalometio/LICENSE \
        /usr/lib/kalometio/ftdi-sim/libftd2xx.so; do
        deb_has "${work}/runtime.list" "${f}" || return 1
    done
    for f in /usr/include/kmio/kmio.h /usr/lib/libkmio.so /usr/lib/pkgconfig/kmio.pc \
        /usr/lib/cmake/KalometIO/KalometIOConfig.cmake /usr/lib/cmake/KalometIO/KalometIOConfigVersion.cmake \
        /usr/lib/cmake/KalometIO/KalometIOTargets.cmake; do
        deb_has "${work}/dev.list" "${f}" || return 1
    done
    ! grep -q 'include/kmio' "${work}/runtime.list" || fail "the header is in the runtime package" || return 1
    ! grep -qE '\./usr/lib/libkmio\.so\.2' "${work}/dev.list" ||
        fail "the library is in the development package" || return 1
    local depends
    depends=$(dpkg-deb -f "${runtime}" Depends)
    [[ ${depends} == *libc6* && ${depends} == *libstdc++6* ]] || fail "runtime Depends: ${depends}" || return 1
    depends=$(dpkg-deb -f "${dev}" Depends)
    [[ ${depends} == *"kalometio (= 2.2.0)"* ]] || fail "development Depends: ${depends}" || return 1
    [[ $(dpkg-deb -f "${runtime}" Version) == 2.2.0 ]] || fail "runtime Version" || return 1
    # The shlibs file lets other packages' dependencies on libkmio.so.2 be computed.
    dpkg-deb --ctrl-tarfile "${runtime}" | tar -xO ./shlibs | grep -qx 'libkmio 2 kalometio (= 2.2.0)' ||
        fail "shlibs" || return 1
}

stage_docs() {
    scripts/docs.sh "${build_dir}" && expect_file "${build_dir}/docs/html/index.html" &&
        grep -q KM_IO_GetDiscoveryEventData "${build_dir}/docs/html/kmio_8h.html" &&
        PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m sphinx -W --keep-going -q -b html \
            bindings/python/docs "${build_dir}/docs/python" &&
        grep -q open_connection "${build_dir}/docs/python/index.html"
}

# The Python stage: a fresh venv, an offline install, the tests.
python_stage_body() {
    /usr/bin/python3 -m venv --system-site-packages "${work}/venv" || return 1
    local py=${work}/venv/bin/python
    # --no-index: nothing but the local source tree and Debian's setuptools.
    "${py}" -m pip install --no-index --no-build-isolation --no-cache-dir "${source_dir}/bindings/python" ||
        return 1
    rm -rf "${source_dir}/bindings/python/build" "${source_dir}/bindings/python/src/kalometio.egg-info"
    "${py}" -c 'import kalometio, sys; assert "/venv/" in kalometio.__file__, kalometio.__file__' || return 1
    (cd "${work}" && KMIO_LIBRARY=${prefix}/lib/libkmio.so.2 KMIO_SIM=${prefix}/bin/kmio-sim \
        PYTHONDONTWRITEBYTECODE=1 "${py}" -m pytest -p no:cacheprovider -v \
        "${source_dir}/bindings/python/tests")
}

stage_python() {
    if [[ $(id -u) -eq 0 ]] && unshare --net true 2>/dev/null; then
        echo "(in a private network namespace: loopback only, no network)"
        export -f python_stage_body fail
        export work prefix source_dir
        unshare --net bash -c 'ip link set lo up && python_stage_body'
    else
        echo "(not root: on the host's network; pip still installs with --no-index)"
        python_stage_body
    fi
}

stage install stage_install
if [[ ${results[-1]} == PASS* ]]; then
    stage find_package stage_find_package
    stage pkg_config stage_pkg_config
    stage python stage_python
else
    results+=("FAIL  find_package, pkg_config, python (not run: no staged install)")
    failures=$((failures + 3))
fi
stage deb stage_deb
stage docs stage_docs

echo
echo "=== packaging summary ($((SECONDS - start_all)) s)"
printf '%s\n' "${results[@]}"
passed=$(printf '%s\n' "${results[@]}" | grep -c '^PASS')
echo "packaging: ${passed} passed, ${failures} failed"
((failures == 0))
