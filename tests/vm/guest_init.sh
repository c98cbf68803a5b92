#!/bin/busybox sh
# The guest's first process. It loads the modules, mounts the host's root
# read-only over 9p and runs the checks inside it with chroot, so the guest
# uses the build tree's binaries and the host's Python as they are, with
# nothing copied. Lines starting with "@@" talk to the host's harness.
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev

while read -r module; do
    insmod "/lib/modules/${module}" || echo "@@note insmod ${module} failed"
done </modules.order

if ! mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=262144 hostroot /host; then
    echo "@@guest-exit 1"
    poweroff -f
fi
mount -t proc proc /host/proc
mount -t sysfs sysfs /host/sys
mount -t devtmpfs devtmpfs /host/dev
mkdir -p /host/dev/pts
mount -t devpts devpts /host/dev/pts
# The host's /tmp stays visible (the build tree may live there, as in a CI
# clone); what the guest writes goes to a tmpfs on /run, named by TMPDIR.
mount -t tmpfs tmpfs /host/run
mkdir -p /host/run/tmp

echo "@@guest-up $(cut -d' ' -f1 /proc/uptime)"
# kmio_src and kmio_build come from the kernel command line.
chroot /host /usr/bin/env -i PATH=/usr/bin:/bin:/usr/sbin:/sbin HOME=/run/tmp TMPDIR=/run/tmp LANG=C.UTF-8 \
    KMIO_SRC="${kmio_src}" KMIO_BUILD="${kmio_build}" \
    /bin/bash "${kmio_src}/tests/vm/guest_checks.sh"
echo "@@guest-exit $?"
poweroff -f
