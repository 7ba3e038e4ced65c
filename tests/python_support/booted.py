"""A Debian system for one test: a root from mmdebstrap, a script that runs in it, and systemd as its first
process where the test wants services. Everything is in namespaces: nothing is left behind, and there is no
network but the loopback interface."""

import subprocess

from time_scale import scaled

# In an overlay of the root, so that what a test changes is forgotten. $1: root, $2: overlay, $3: script.
CHROOT = r"""
set -e
mount --make-rprivate /  # nothing mounted here is seen outside
mount -t tmpfs tmpfs "$2"
mkdir "$2/up" "$2/work" "$2/system"
mount -t overlay -o "lowerdir=$1,upperdir=$2/up,workdir=$2/work" overlay "$2/system"
mkdir "$2/system/test"
mount --bind "$3" "$2/system/test"
ip link set lo up
cd "$2/system"
mount -t proc proc proc
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mount -t tmpfs tmpfs dev
mkdir dev/pts dev/shm
ln -s /proc/self/fd dev/fd
ln -s pts/ptmx dev/ptmx
mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
mount -t tmpfs tmpfs dev/shm
for device in null:3 zero:5 full:7 random:8 urandom:9 tty:0; do
    major=1; [ "$device" = tty:0 ] && major=5
    mknod -m 666 "dev/${device%:*}" c "$major" "${device#*:}"
done
"""

RUN_SCRIPT = CHROOT + r"""
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/tmp LC_ALL=C.UTF-8 chroot . sh -e /test/run
"""

BOOT = CHROOT + r"""
mount -t sysfs sysfs sys
mount -t tmpfs tmpfs sys/fs/cgroup
mkdir sys/fs/cgroup/systemd
mount -t cgroup -o none,name=systemd cgroup sys/fs/cgroup/systemd
echo 0123456789abcdef0123456789abcdef >etc/machine-id
cat >etc/systemd/system/the-test.service <<'UNIT'
[Unit]
After=basic.target
[Service]
Type=oneshot
StandardOutput=append:/test/output
StandardError=append:/test/output
ExecStart=sh -e /test/run
ExecStopPost=sh -c 'echo "ended: $SERVICE_RESULT" >>/test/output; systemctl --force --force poweroff'
UNIT
cat >etc/systemd/system/the-test.target <<'UNIT'
[Unit]
Requires=basic.target the-test.service
UNIT
# Not chroot: in one, nobody may make the namespaces that a hardened service asks for.
pivot_root . mnt
umount -l /mnt
exec env -i container=podman PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --unit=the-test.target \
    --log-target=console --show-status=no >&2
"""


def in_root(root, overlay, files, boot=False, seconds=120):
    """Runs files/run in the root, as the first process's only service with `boot`; its output."""
    overlay.mkdir()
    command = ["unshare", "--pid", "--fork", "--mount", "--net", "--ipc", "--uts", "--cgroup", "--kill-child",
               "bash", "-c", BOOT if boot else RUN_SCRIPT, "root", str(root), str(overlay), str(files)]
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=scaled(seconds),
                          stdin=subprocess.DEVNULL)
