#!/usr/bin/env bash
# Builds the guest's initramfs: a static busybox, /init, and the kernel
# modules the guest needs before it can reach the host's root over 9p (virtio)
# and talk to emulated FTDI chips (xHCI, usbserial, ftdi_sio), in load order.
#
# Usage: make_initramfs.sh KERNEL_VERSION OUTPUT
set -euo pipefail

kver=$1
out=$2
here=$(cd "$(dirname "$0")" && pwd)
moddir=/lib/modules/${kver}
wanted=(virtio_pci 9pnet_virtio 9p xhci-pci ftdi_sio)

work=$(mktemp -d)
trap 'rm -rf "${work}"' EXIT
mkdir -p "${work}"/{bin,proc,sys,dev,host,lib/modules}
cp /bin/busybox "${work}/bin/busybox"
cp "${here}/guest_init.sh" "${work}/init"
chmod 755 "${work}/init"

# modules.dep lines are "path: dependency paths"; each module is added after
# everything it needs, once.
declare -A added=()
order=()
module_path() {
    local name=${1//[-_]/[-_]}
    grep -oE "^[^:]*/${name}\.ko(\.xz|\.zst|\.gz)?:" "${moddir}/modules.dep" | head -1 | tr -d :
}
add_module() {
    local path=$1 dep
    [[ -n ${added[${path}]:-} ]] && return
    local deps
    deps=$(grep -E "^${path}:" "${moddir}/modules.dep" | cut -d: -f2)
    for dep in ${deps}; do
        add_module "${dep}"
    done
    added[${path}]=1
    order+=("${path}")
}
for name in "${wanted[@]}"; do
    path=$(module_path "${name}")
    if [[ -z ${path} ]]; then
        echo "make_initramfs: module ${name} not found under ${moddir}" >&2
        exit 1
    fi
    add_module "${path}"
done

: >"${work}/modules.order"
for path in "${order[@]}"; do
    base=$(basename "${path}")
    case ${base} in
    *.ko.xz) xz -dc "${moddir}/${path}" >"${work}/lib/modules/${base%.xz}" ;;
    *.ko.zst) zstd -qdc "${moddir}/${path}" >"${work}/lib/modules/${base%.zst}" ;;
    *.ko.gz) gzip -dc "${moddir}/${path}" >"${work}/lib/modules/${base%.gz}" ;;
    *) cp "${moddir}/${path}" "${work}/lib/modules/${base}" ;;
    esac
    echo "${base%.ko*}.ko" >>"${work}/modules.order"
done

(cd "${work}" && find . | cpio -o -H newc --quiet) | gzip -1 >"${out}"
