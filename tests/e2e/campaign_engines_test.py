"""The recipes of docs/campaigns.md: a campaign by Slurm, and by GNU parallel over SSH. Each in namespaces of
its own, so that nothing is left; one job is killed in the middle and must be run again."""

import json
import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

from feed import program
from quick_cases import listen_command, quick_cases
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
PAGE = (ROOT / "docs" / "campaigns.md").read_text()
JOBS = 3


def lacking(*programs):
    if os.geteuid() != 0:
        return "namespaces need root"
    missing = [name for name in programs if shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin") is None]
    if missing:
        return f"{', '.join(missing)} not installed"
    tried = subprocess.run(["unshare", "--pid", "--fork", "--mount-proc", "--net", "--uts", "true"],
                           check=False, capture_output=True)
    return "" if tried.returncode == 0 else "namespaces are forbidden here"


def fitted(text):
    """A recipe with the handler, seeds and number of jobs of this test."""
    text = re.sub(r"--handler '\./my_handler [^']*'", lambda _: f"--handler '{listen_command()}'", text)
    text = text.replace("seeds=1..1000", f"seeds=1..{2 * JOBS}").replace("--array=1-8", f"--array=1-{JOBS}")
    return re.sub(r"8 ::: .*", f"{JOBS} ::: {' '.join(map(str, range(1, JOBS + 1)))}", text)


def block(mark):
    """The page's block of commands that has the mark."""
    return fitted(next(each for each in re.findall(r"^```sh\n(.*?)^```", PAGE, re.M | re.S) if mark in each))


# $1 is the folder. An address that is no loopback address, so that names are looked up as on a real machine.
BEGIN = r"""
cd "$1"
mount --make-rprivate /
mount -t tmpfs tmpfs /run
hostname alone
printf '127.0.0.1 localhost\n10.99.99.1 alone\n' >hosts-file
mount --bind hosts-file /etc/hosts
ip link set lo up multicast on
ip route add 224.0.0.0/4 dev lo
ip address add 10.99.99.1/32 dev lo
# wait_for SECONDS COMMAND...
wait_for() {
    tries=$(($1 * 10)); shift
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1)); [ $tries -gt 0 ] || { echo "timed out waiting for: $*"; exit 1; }
        sleep 0.1
    done
}
"""

SLURM = BEGIN + r"""
head -c 1024 /dev/urandom >munge.key
chmod 600 munge.key
cat >slurm.conf <<CONF
ClusterName=test
SlurmctldHost=alone(10.99.99.1)
SlurmUser=root
AuthType=auth/munge
AuthInfo=socket=$PWD/munge.socket,cred_expire=5
StateSaveLocation=$PWD/state
SlurmdSpoolDir=$PWD/spool-%n
SlurmctldPidFile=$PWD/slurmctld.pid
SlurmdPidFile=$PWD/slurmd-%n.pid
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SwitchType=switch/none
MpiDefault=none
SelectType=select/linear
SchedulerType=sched/builtin
SchedulerParameters=batch_sched_delay=1,sched_interval=1
ReturnToService=2
KillWait=2
NodeName=one NodeHostname=alone NodeAddr=10.99.99.1 Port=6821 CPUs=1
NodeName=two NodeHostname=alone NodeAddr=10.99.99.1 Port=6822 CPUs=1
PartitionName=all Nodes=one,two Default=YES State=UP MaxTime=INFINITE
CONF
mkdir state
export SLURM_CONF=$PWD/slurm.conf
munged --foreground --force --socket=$PWD/munge.socket --key-file=$PWD/munge.key --pid-file=$PWD/munge.pid \
    --log-file=$PWD/munge.log --seed-file=$PWD/munge.seed >munged.log 2>&1 &
wait_for 60 test -S munge.socket
slurmctld -D >slurmctld.log 2>&1 &
slurmd -D -N one >slurmd-one.log 2>&1 &
slurmd -D -N two >slurmd-two.log 2>&1 &
idle() { sinfo -h -o '%t %D' | grep -q 'idle 2'; }
wait_for 60 idle
"""

SSH = BEGIN + r"""
mkdir /run/sshd home
for key in host user; do ssh-keygen -q -t ed25519 -N '' -f $key.key; done
cat >sshd_config <<CONF
ListenAddress 10.99.99.1:2222
HostKey $PWD/host.key
AuthorizedKeysFile $PWD/user.key.pub
StrictModes no
UsePAM no
PermitRootLogin yes
PasswordAuthentication no
PidFile $PWD/sshd.pid
SetEnv PATH=$PATH TESSEL_BIN=$TESSEL_BIN TESSEL_CASES=$TESSEL_CASES
CONF
cat >ssh_config <<CONF
Host one two
HostName 10.99.99.1
Port 2222
User root
IdentityFile $PWD/user.key
IdentitiesOnly yes
UserKnownHostsFile $PWD/known_hosts
StrictHostKeyChecking no
LogLevel ERROR
CONF
export HOME=$PWD/home PARALLEL_SSH="ssh -F $PWD/ssh_config" RSYNC_RSH="ssh -F $PWD/ssh_config"
$(command -v sshd) -D -f sshd_config -E sshd.log &
wait_for 60 ssh -F ssh_config one true
printf 'one\ntwo\n' >hosts
"""


def kill_job_2(cases, engine):
    """Kills the campaign's job 2 once it runs: the oldest process with its number on the command line."""
    end = time.monotonic() + scaled(90)
    while time.monotonic() < end and engine.poll() is None:
        for process in sorted(Path("/proc").glob("[0-9]*"), key=lambda path: int(path.name)):
            try:
                words = (process / "cmdline").read_bytes().split(b"\0")
                mine = cases.encode() in (process / "environ").read_bytes()
            except OSError:  # it has just ended
                continue
            if mine and words[0].endswith(b"tessel-certify") and f"2/{JOBS}".encode() in words:
                os.kill(int(process.name), signal.SIGKILL)
                return True
        time.sleep(0.05)
    return False


def run_engine(folder, script):
    """The script in namespaces of its own; its output."""
    folder.mkdir()
    (folder / "job.sh").write_text(block("# job.sh"))
    (folder / "campaign.sbatch").write_text(block("# campaign.sbatch"))
    # Nothing of a user's own file may steer a recipe.
    environment = {"PATH": f"{Path(program('tessel-certify')).parent}:/usr/sbin:/usr/bin:/sbin:/bin",
                   "TESSEL_BIN": str(Path(program("tessel")).parent), "HOME": str(folder),
                   "LC_ALL": "C.UTF-8",
                   "TESSEL_CASES": str(folder.parent / "cases")}
    engine = subprocess.Popen(["unshare", "--pid", "--fork", "--mount-proc", "--net", "--uts", "--ipc",
                               "--kill-child", "bash", "-e", "-c", script, "engine", str(folder)],
                              env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              stdin=subprocess.DEVNULL)
    try:
        killed = kill_job_2(environment["TESSEL_CASES"], engine)
        output, _ = engine.communicate(timeout=scaled(150))
    finally:
        engine.kill()
        engine.wait()
    logs = "".join(f"--- {path.name}\n{path.read_text(errors='replace')[-1500:]}"
                   for path in sorted(folder.glob("*.log")))
    assert killed, output[-4000:] + logs
    return engine.returncode, output, output[-4000:] + logs


def results(path):
    """A file of results without what differs between two runs: times, and lines that depend on them."""
    report = json.loads(path.read_text())
    for case in report["cases"]:
        for name in ("seconds", "truth_lines", "matched"):
            del case[name]
    return report


@pytest.fixture(name="single", scope="module")
def single_fixture(tmp_path_factory):
    """The folder of the cases and the results of the whole campaign as one job."""
    folder = tmp_path_factory.mktemp("campaign")
    environment = {**os.environ, "TESSEL_CASES": str(quick_cases(folder / "cases"))}
    done = subprocess.run([program("tessel-certify"), "--handler", listen_command(), "--campaign",
                           f"seeds=1..{2 * JOBS}", "--json", str(folder / "single.json")], env=environment,
                          check=False, capture_output=True, text=True, timeout=scaled(120))
    assert done.returncode == 0, done.stdout + done.stderr
    return folder


def check(folder, status, output, text):
    assert status == 0, text
    # Of two seeds each; the first run of job 2 was killed, so it has no result.
    assert len(re.findall(r"^4 of 4 runs of 2 cases pass$", text, re.M)) == JOBS, text
    assert f"{4 * JOBS} of {4 * JOBS} runs of 2 cases pass" in output, text
    assert sorted(path.name for path in folder.glob("job-*.json")) == [
        f"job-{job}.json" for job in range(1, JOBS + 1)]
    assert results(folder / "all.json") == results(folder.parent / "single.json")
    assert "runs of 2 cases" in (folder / "scorecard.html").read_text()


WITHOUT_SLURM = lacking("slurmctld", "slurmd", "sbatch", "munged")
WITHOUT_SSH = lacking("parallel", "sshd", "ssh", "rsync")


@pytest.mark.skipif(bool(WITHOUT_SLURM), reason=f"skipped: {WITHOUT_SLURM}")
def test_slurm_array_runs_a_killed_job_again(single):
    status, output, text = run_engine(single / "slurm", SLURM + block("sbatch --wait"))
    check(single / "slurm", status, output, text)
    assert "Requeuing JobId=1_2" in (single / "slurm" / "slurmctld.log").read_text(), text


@pytest.mark.skipif(bool(WITHOUT_SSH), reason=f"skipped: {WITHOUT_SSH}")
def test_parallel_over_ssh_runs_a_killed_job_again(single):
    status, output, text = run_engine(single / "ssh", SSH + block("parallel --ssh"))
    check(single / "ssh", status, output, text)
