"""The image and the composed run, without a network: the base is a Debian root made by mmdebstrap, podman's
service is the docker daemon. Everything happens in a private network and mount namespace."""

import os
import shutil
import subprocess

import pytest

from channels import symbol_lines
from feed import program
from package import SOURCE, debian_root, needed_packages, packages
from time_scale import scaled

PROGRAMS = ["buildah", "podman", "crun", "docker-compose", "mmdebstrap"]


def why_not():
    missing = [name for name in PROGRAMS if shutil.which(name) is None]
    if missing:
        return f"{', '.join(missing)} not installed"
    if os.geteuid() != 0:
        return "containers without a network need root here"
    tried = subprocess.run(["unshare", "--mount", "--net", "--pid", "--fork", "mount", "-t", "tmpfs", "tmpfs",
                            "/mnt"], capture_output=True, check=False)
    return "" if tried.returncode == 0 else "namespaces and mounts are forbidden here"


pytestmark = pytest.mark.skipif(bool(why_not()), reason=f"skipped: {why_not()}")

# $1: a folder for everything, with a plan of three channels, $2: the base's tar file, $3: the folder of the
# container files.
SCRIPT = r"""
set -e
mount --make-rprivate /
mount -t tmpfs tmpfs /run
mount -t tmpfs tmpfs /etc/containers
mount -t tmpfs tmpfs /var/lib  # podman makes folders there whatever its configuration
# Containers here have no cgroups; crun refuses some arrangements of them without using any.
mount -t tmpfs tmpfs /sys/fs/cgroup
mkdir "$1/storage" && mount -t tmpfs tmpfs "$1/storage"
ip link set lo up
cat >/etc/containers/containers.conf <<'CONF'
[containers]
cgroups = "disabled"
default_ulimits = ["nofile=1024:1024", "nproc=4096:4096"]
[engine]
cgroup_manager = "cgroupfs"
events_logger = "file"
CONF
cat >/etc/containers/storage.conf <<CONF
[storage]
driver = "vfs"
runroot = "/run/containers"
graphroot = "$1/storage"
CONF
echo '{"default":[{"type":"insecureAcceptAnything"}]}' >/etc/containers/policy.json
export TMPDIR=$1 HOME=$1

cd "$1"
podman import --quiet "$2" base >/dev/null
buildah bud --quiet --isolation chroot --format docker --build-arg BASE=localhost/base \
    -t tessel -f "$3/Containerfile" context >/dev/null
podman inspect --format 'image {{.User}} {{.Config.StopSignal}}' localhost/tessel

# PID 1 of a container ends on either signal; a signal without a handler would do nothing to it.
for signal in TERM INT; do
    podman run -d --name feed --network none localhost/tessel tessel --control-port 25180 >/dev/null
    tries=0
    until podman healthcheck run feed >/dev/null 2>&1; do
        tries=$((tries + 1)); [ $tries -lt 300 ]; sleep 0.1
    done
    echo "healthy"
    podman exec feed cat /proc/1/comm | sed 's/^/PID 1 is /'
    podman kill --signal $signal feed >/dev/null
    echo "SIG$signal ended it with $(timeout 60 podman wait feed)"
    podman logs feed 2>&1 | tail -n 1
    podman rm feed >/dev/null
done

podman system service --time 0 unix:///run/podman.sock >service.log 2>&1 &
service=$!
tries=0
until [ -S /run/podman.sock ]; do tries=$((tries + 1)); [ $tries -lt 300 ]; sleep 0.1; done
export DOCKER_HOST=unix:///run/podman.sock DOCKER_BUILDKIT=0 COMPOSE_PROJECT_NAME=tessel
export TESSEL_IMAGE=localhost/tessel TESSEL_NETWORK=none TESSEL_SECONDS=4
status=0
docker-compose -f "$3/compose.yaml" up --exit-code-from judge >compose.log 2>&1 </dev/null || status=$?
cat compose.log
echo "compose ended with $status"
docker-compose -f "$3/compose.yaml" down -v >down.log 2>&1 </dev/null || cat down.log
status=0
export COMPOSE_PROJECT_NAME=channels
cp -r plan /run/plan && chmod -R a+rX /run/plan  # the containers' user reads it
(cd /run/plan && docker-compose up --exit-code-from judge) >channels.log 2>&1 </dev/null || status=$?
sed 's/^/channels: /' channels.log
echo "composed channels ended with $status"
(cd /run/plan && docker-compose down -v) >down.log 2>&1 </dev/null || cat down.log
kill $service
"""


@pytest.fixture(name="output", scope="module")
def output_fixture(tmp_path_factory):
    tar, reason = debian_root("container", needed_packages())
    if tar is None:
        pytest.skip(f"skipped: {reason}")
    folder = tmp_path_factory.mktemp("containers")
    (folder / "context").mkdir()
    (folder / "symbols.txt").write_text(symbol_lines(30))
    subprocess.run([program("tesselctl"), "channels", "plan", "--symbols", folder / "symbols.txt",
                    "--channels", "3", "--out", folder / "plan"], check=True, capture_output=True,
                   timeout=scaled(60))
    path = packages()["tessel.deb"]
    shutil.copy(path, folder / "context" / path.name)
    command = ["unshare", "--mount", "--net", "--ipc", "--uts", "--pid", "--fork", "--mount-proc",
               "--kill-child", "bash", "-c", SCRIPT, "containers", str(folder), str(tar),
               str(SOURCE / "packaging")]
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=scaled(180))
    assert done.returncode == 0, (done.stdout[-3000:], done.stderr[-3000:])
    return done.stdout.splitlines()


def test_the_image_is_unprivileged_and_stops_by_interrupt(output):
    assert "image 65534:65534 SIGINT" in output


def test_the_feed_as_first_process_is_healthy_and_ends_on_both_signals(output):
    assert output.count("healthy") == 2
    assert output.count("PID 1 is tessel") == 2
    assert "SIGTERM ended it with 0" in output and "SIGINT ended it with 0" in output
    assert output.count("[tessel] stopped") == 2


def test_the_composed_run_ends_with_agreement(output):
    text = "\n".join(output)
    assert any("AGREES" in line and "judge" in line for line in output), text
    assert "compose ended with 0" in output, text


def test_the_composed_channels_end_with_agreement(output):
    text = "\n".join(output)
    lines = [line for line in output if line.startswith("channels: ")]
    assert any("joined 3 channels" in line for line in lines), text
    assert any("judge" in line and "AGREES: 3 of 3 channels agree" in line for line in lines), text
    assert "composed channels ended with 0" in output, text
