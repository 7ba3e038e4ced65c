"""Channels as services of a systemd that is booted in namespaces, received by one tessel-listen and judged.

    result = run_services(root, folder, channels=24, symbols=2400, seconds=20, interval_ms=100)

The part below GUEST runs inside, with the package installed there.
"""

import json
import shutil
import signal
import subprocess

from booted import in_root
from channels import symbol_lines
from feed import program
from package import packages

GUEST = r'''
import json, os, pathlib, signal, subprocess, sys, time

seconds, slow = float(sys.argv[1]), float(sys.argv[2])
plan = pathlib.Path("/test/plan")
names = [line.split("@")[1] for line in (plan / "instances").read_text().split()]
channels = json.loads((plan / "channels.json").read_text())["channels"]

def run(*words):
    return subprocess.run(words, capture_output=True, text=True)

def wait_for(what, condition, limit=60):
    end = time.monotonic() + limit * slow
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"timed out waiting for {what}")
        time.sleep(0.1)

def status():
    done = run("tesselctl", "channels", "status", "--dir", plan, "--json", "--interval", "0.1")
    return json.loads(done.stdout)

def all_up():
    return all(each["up"] for each in status()["channels"])

# (seconds of CPU, MiB resident) of processes.
def usage(pids):
    cpu = memory = 0
    for pid in pids:
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        cpu += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        text = pathlib.Path(f"/proc/{pid}/status").read_text()
        memory += int(text.split("VmRSS:")[1].split()[0]) / 1024
    return cpu, memory

def last_number(path):
    with open(path, "rb") as file:
        size = file.seek(0, 2)
        file.seek(max(0, size - 20000))
        lines = file.read().split(b"\n")[:-1]
    return json.loads(lines[-1])["seq"] if lines else 0

services = [f"tessel@{name}" for name in names]
begin = time.monotonic()
started = run("systemctl", "start", *services)
if started.returncode != 0:
    sys.exit(started.stderr)
wait_for("the channels", all_up)
start_seconds = time.monotonic() - begin
pids = [int(run("systemctl", "show", "-p", "MainPID", "--value", each).stdout) for each in services]
log = open("/tmp/listen.log", "w")
listener = subprocess.Popen(["tessel-listen", "--channels", plan / "channels.json", "--out-dir", "/tmp/out"],
                            stderr=log)
wait_for("the receiver", lambda: "joined" in pathlib.Path("/tmp/listen.log").read_text())

before, feeds_before, listener_before = time.monotonic(), usage(pids), usage([listener.pid])
numbers = [each["next_seq"] for each in status()["channels"]]
time.sleep(seconds)
sent = sum(each["next_seq"] for each in status()["channels"]) - sum(numbers)
passed = time.monotonic() - before
feeds, received = usage(pids), usage([listener.pid])

for each in channels:
    run("tesselctl", "--control", each["control"], "rate", "1000000")
truth = pathlib.Path("/tmp/truth")
truth.mkdir()
for name in names:
    (truth / f"{name}.jsonl").symlink_to(f"/var/lib/tessel/{name}/{name}.jsonl")
wait_for("the last lines", lambda: all(
    last_number(truth / f"{name}.jsonl") == last_number(f"/tmp/out/{name}.jsonl") for name in names))
listener.send_signal(signal.SIGINT)
listen_status = listener.wait()
stopped = run("systemctl", "stop", *services)
results = set(run("systemctl", "show", "-p", "Result", "--value", *services).stdout.split())
judged = time.monotonic()
judge = run("tessel-judge", "--channels", plan / "channels.json", truth, "/tmp/out", "--json")
judge_seconds = time.monotonic() - judged
report = json.loads(judge.stdout) if judge.stdout else {"error": judge.stderr}
print("result " + json.dumps({
    "listen_status": listen_status, "listen": pathlib.Path("/tmp/listen.log").read_text().splitlines()[-3:],
    "services": sorted(results), "verdict": report.get("verdict"), "error": report.get("error", ""),
    "verdicts": [each["verdict"] for each in report.get("channels", [])],
    "truth_lines": report.get("truth_lines"), "start_seconds": start_seconds, "seconds": passed,
    "messages_a_second": sent / passed,
    "feeds_cpu": (feeds[0] - feeds_before[0]) / passed, "feeds_mib": feeds[1],
    "listener_cpu": (received[0] - listener_before[0]) / passed, "listener_mib": received[1],
    "judge_seconds": judge_seconds}))
'''


def add_setting(path, text):
    """A line more in [feed]."""
    path.write_text(path.read_text().replace("[feed]\n", f"[feed]\n{text}\n"))


def run_services(root, folder, channels, symbols, seconds, interval_ms, slow=1.0):
    """The result that GUEST prints; `folder` is an empty one for everything, `slow` stretches its limits."""
    files = folder / "files"
    files.mkdir()
    package = packages()["tessel.deb"]
    shutil.copy(package, files / package.name)
    (folder / "symbols.txt").write_text(symbol_lines(symbols))
    subprocess.run([program("tesselctl"), "channels", "plan", "--symbols", folder / "symbols.txt",
                    "--channels", str(channels), "--by", "range", "--out", files / "plan"],
                   check=True, capture_output=True, timeout=60)
    for path in (files / "plan").glob("*.toml"):
        add_setting(path, f"interval_ms = {interval_ms}")
    (files / "guest.py").write_text(GUEST)
    (files / "run").write_text(f"dpkg -i /test/{package.name}\ncp /test/plan/*.toml /etc/tessel/\n"
                               f"systemctl daemon-reload\npython3 /test/guest.py {seconds} {slow}\n")
    done = in_root(root, folder / "overlay", files, boot=True, seconds=240 + 4 * seconds)
    output = (files / "output").read_text() if (files / "output").exists() else done.stdout
    results = [line for line in output.splitlines() if line.startswith("result ")]
    # A namespace whose first process has powered off ends as if by SIGINT.
    assert done.returncode in (0, -signal.SIGINT) and results, (output[-3000:], done.stderr[-3000:])
    return json.loads(results[0].removeprefix("result "))
