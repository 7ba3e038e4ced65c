#!/usr/bin/env python3
"""Measures the feed against the least that its work could cost, side by side, in alternating rounds.

Prints one table; --json FILE writes every round; --write FILE puts the table between the markers of a
Markdown page.
"""

import argparse
import json
import os
import pathlib
import re
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

GROUP = "239.255.77.%d" % (os.getpid() % 250 + 1)
INTERFACE = "127.0.0.1"
TICKS = os.sysconf("SC_CLK_TCK")
INSTRUMENTS = 8000
DISTURBED_SHARE = 0.10  # of a core that others used while a round ran
TMPFS = "/dev/shm"


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def symbols(count):
    letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    names = ("S" + letters[n // 676 % 26] + letters[n // 26 % 26] + letters[n % 26] for n in range(count))
    return ",".join("%s:%d.00" % (name, 20 + n % 400) for n, name in enumerate(names))


def process_seconds(pid):
    """CPU seconds of a process, in nanosecond steps where the scheduler reports them."""
    try:
        return int(pathlib.Path("/proc/%d/schedstat" % pid).read_text().split()[0]) * 1e-9
    except (OSError, ValueError):
        fields = pathlib.Path("/proc/%d/stat" % pid).read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / TICKS


def busy_seconds():
    """CPU seconds that the whole machine has been busy, stolen time included."""
    fields = [int(field) for field in pathlib.Path("/proc/stat").read_text().splitlines()[0].split()[1:]]
    return (sum(fields[0:3]) + sum(fields[5:8])) / TICKS


class OtherLoad:
    """How much of a core others than the measured and this program used during a round."""

    def __init__(self):
        self.busy, self.start, self.ours = busy_seconds(), time.monotonic(), time.process_time()

    def share(self, own_seconds):
        spent = time.monotonic() - self.start
        own_seconds += time.process_time() - self.ours
        return max(0.0, busy_seconds() - self.busy - own_seconds) / spent


class Emptied:
    """Keeps a truth file small while it is written to. A file that grows by gigabytes takes memory that a
    virtual machine must first get from its host, which costs several times what the line does and changes
    from run to run; pages just freed are at hand."""

    PAUSE = 0.05

    def __init__(self, path):
        self.path = path
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self.run)

    def run(self):
        while not self.ending.wait(self.PAUSE):
            if os.path.exists(self.path):
                os.truncate(self.path, 0)

    def __enter__(self):
        if self.path:
            self.thread.start()
        return self

    def __exit__(self, *unused):
        if self.path:
            self.ending.set()
            self.thread.join()
            os.unlink(self.path)


class Receiver:
    """Joins the group and throws away what comes, in a separate process on the other core."""

    CODE = """
import socket, struct, sys
group, port = sys.argv[1], int(sys.argv[2])
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind((group, port))
s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
             struct.pack("4s4s", socket.inet_aton(group), socket.inet_aton("127.0.0.1")))
buffer = bytearray(2048)
print("joined", flush=True)
while True:
    s.recv_into(buffer)
"""

    def __init__(self, port):
        command = [sys.executable, "-c", self.CODE, GROUP, str(port)]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE)
        self.process.stdout.readline()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.process.kill()
        self.process.wait()

    def cpu(self):
        return process_seconds(self.process.pid)


def control(port, line):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asker:
        asker.settimeout(30)
        # Connected, a port that nobody has opened yet refuses immediately, without a wait: the feed would
        # run on meanwhile, and its histories and its truth grow.
        asker.connect(("127.0.0.1", port))
        asker.send(line.encode())
        return asker.recv(4096).decode()


class Feed:
    """The feed as a black box on one core."""

    def __init__(self, build, port, extra=(), core=None, environment=None, count=INSTRUMENTS):
        self.control_port = free_port(socket.SOCK_DGRAM)
        command = [str(build / "tessel"), "--mcast", GROUP, "--port", str(port), "--interval-ms", "0",
                   "--symbols", symbols(count), "--retrans-port", "0",
                   "--snapshot-port", str(free_port(socket.SOCK_STREAM)),
                   "--control-port", str(self.control_port), "--quiet", *extra]
        pin = None if core is None else lambda: os.sched_setaffinity(0, {core})
        self.process = subprocess.Popen(command, stderr=subprocess.DEVNULL, preexec_fn=pin,
                                        env={**os.environ, **(environment or {})})
        for _ in range(600):
            try:
                self.sequence()
                return
            except OSError:
                time.sleep(0.05)
        raise SystemExit("the feed did not start")

    def sequence(self):
        return int(re.search(r"next_seq=(\d+)", control(self.control_port, "stats")).group(1))

    def packets(self):
        return int(re.search(r"faults: sent (\d+)", control(self.control_port, "stats")).group(1))

    def cpu(self):
        return process_seconds(self.process.pid)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()


def run_json(command, core=None):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, check=True,
                          preexec_fn=None if core is None else lambda: os.sched_setaffinity(0, {core}))
    return json.loads(done.stdout)


def feed_round(build, port, seconds, core, truth, receiver):
    load = OtherLoad()
    receiver_before = receiver.cpu() if receiver else 0.0
    with Emptied(truth), Feed(build, port, ["--truth-out", truth] if truth else [], core) as feed:
        time.sleep(0.5)
        first, cpu_first = feed.sequence(), feed.cpu()
        time.sleep(seconds)
        last, cpu_last = feed.sequence(), feed.cpu()
        own = cpu_last + (receiver.cpu() - receiver_before if receiver else 0.0)
        return (cpu_last - cpu_first) / (last - first) * 1e9, load.share(own)


def bare_round(build, port, seconds, core, truth, receiver):
    load = OtherLoad()
    before = receiver.cpu() if receiver else 0.0
    with Emptied(truth):
        command = [build / "bare_loop", GROUP, port, INTERFACE, seconds, *([truth] if truth else [])]
        report = run_json(command, core)
    own = report["messages"] * report["cpu_ns"] * 1e-9 + (receiver.cpu() - before if receiver else 0.0)
    return report["cpu_ns"], load.share(own)


def rate_rounds(build, rounds, seconds, truth, joined):
    """The bare loop before and after each run of the feed, on the same core."""
    core = max(os.sched_getaffinity(0))
    port = free_port(socket.SOCK_DGRAM)
    path = os.path.join(TMPFS, "tessel-bench-%d" % os.getpid()) if truth else None
    receiver = Receiver(port) if joined else None
    measured = []
    try:
        before, load_before = bare_round(build, port, 1.0, core, path, receiver)
        for _ in range(rounds):
            feed, load = feed_round(build, port, seconds, core, path, receiver)
            after, load_after = bare_round(build, port, 1.0, core, path, receiver)
            others = max(load, load_before, load_after)
            bare = (before + after) / 2
            measured.append({"bare_ns": bare, "feed_ns": feed, "ratio": bare / feed, "others": others,
                             "disturbed": others > DISTURBED_SHARE})
            before, load_before = after, load_after
    finally:
        if receiver:
            receiver.__exit__()
    return measured


def counted_allocations(build, truth):
    """Allocations a message in the steady state: counted over some seconds by a preloaded counter."""
    with tempfile.TemporaryDirectory() as folder:
        library, count_file = os.path.join(folder, "counter.so"), os.path.join(folder, "count")
        source = pathlib.Path(__file__).with_name("allocation_counter.c")
        subprocess.run(["gcc", "-O2", "-shared", "-fPIC", "-o", library, str(source)], check=True)
        path = os.path.join(TMPFS, "tessel-bench-%d" % os.getpid())
        environment = {"LD_PRELOAD": library, "ALLOCATION_COUNT_FILE": count_file}
        options = ["--truth-out", path] if truth else []
        with Feed(build, free_port(socket.SOCK_DGRAM), options, None, environment) as feed:

            def count():
                if os.path.exists(count_file):
                    os.unlink(count_file)
                sequence = feed.sequence()
                feed.process.send_signal(signal.SIGUSR2)
                while not os.path.exists(count_file) or os.path.getsize(count_file) == 0:
                    time.sleep(0.01)
                return sequence, int(pathlib.Path(count_file).read_text())

            time.sleep(2.0)
            first, before = count()
            time.sleep(3.0)
            last, after = count()
        if truth:
            os.unlink(path)
        return (after - before) / (last - first)


def packet_fill(build):
    """Mean payload of a full-speed packet, of what fits: a message more would not have."""
    port = free_port(socket.SOCK_DGRAM)
    joined = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    joined.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 24)
    joined.bind((GROUP, port))
    joined.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                      struct.pack("4s4s", socket.inet_aton(GROUP), socket.inet_aton(INTERFACE)))
    joined.settimeout(10)
    sizes, fits = [], []
    with Feed(build, port):
        previous = None
        while len(sizes) < 20000:
            packet = joined.recv(2048)
            if len(packet) <= 20:
                continue
            first = struct.unpack(">Q", packet[10:18])[0]
            block = 2 + struct.unpack(">H", packet[20:22])[0]
            if previous is not None and first == previous[0]:
                # What could have been sent: whole messages up to 1,500 bytes; the next one did not fit.
                sizes.append(previous[1])
                fits.append(previous[1] if previous[1] + block > 1500 else 1500)
            previous = (first + struct.unpack(">H", packet[18:20])[0], len(packet))
    joined.close()
    return statistics.mean(sizes), sum(sizes) / sum(fits)


def idle_share(build, rounds, seconds):
    measured = []
    for _ in range(rounds):
        empty = run_json([build / "empty_loop", seconds])["cpu_share"]
        port = free_port(socket.SOCK_DGRAM)
        command = [str(build / "tessel"), "--mcast", GROUP, "--port", str(port), "--retrans-port",
                   str(free_port(socket.SOCK_DGRAM)), "--snapshot-port", str(free_port(socket.SOCK_STREAM))]
        feed = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        time.sleep(0.5)
        first, start = process_seconds(feed.pid), time.monotonic()
        time.sleep(seconds)
        share = (process_seconds(feed.pid) - first) / (time.monotonic() - start)
        feed.kill()
        feed.wait()
        measured.append({"empty": empty, "feed": share, "ratio": share / empty})
    return measured


def tick_costs(build, rounds):
    def cost(count, ticks):
        command = [str(build / "tick_profile"), str(count), str(ticks)]
        report = subprocess.run(command, stdout=subprocess.PIPE, check=True)
        return float(report.stdout.split()[3])

    return [{"many_ns": cost(INSTRUMENTS, 60), "few_ns": cost(3, 150000)} for _ in range(rounds)]


def median(rounds, key):
    calm = [entry[key] for entry in rounds if not entry.get("disturbed")]
    return statistics.median(calm or [entry[key] for entry in rounds])


def spread(rounds, key):
    return "%.3f to %.3f" % (min(entry[key] for entry in rounds), max(entry[key] for entry in rounds))


def measure(build, only, quick):
    rounds, seconds = (3, 3.0) if quick else (7, 6.0)
    result = {"rates": {}, "others": {}}
    if only in (None, "rates"):
        for name, truth, joined in (("no truth", False, False), ("no truth, receiver", False, True),
                                    ("truth", True, False), ("truth, receiver", True, True)):
            result["rates"][name] = rate_rounds(build, rounds, seconds, truth, joined)
    if only in (None, "services"):
        result["services"] = run_json([build / "service_ratios", 9 if quick else 31])
        result["idle"] = idle_share(build, 3 if quick else 5, 4.0 if quick else 8.0)
        result["tick"] = tick_costs(build, 3 if quick else 7)
    if only in (None, "memory"):
        result["allocations"] = {"no truth": counted_allocations(build, False),
                                 "truth": counted_allocations(build, True)}
        result["packet_bytes"], result["packet_fill"] = packet_fill(build)
    return result


def table(result):
    rows = []
    for name, rounds in result["rates"].items():
        goal = ("0.60", "0.72") if "no truth" not in name else ("0.50", "0.60")
        disturbed = sum(entry["disturbed"] for entry in rounds)
        note = "bare %.0f ns, feed %.0f ns a message" % (median(rounds, "bare_ns"), median(rounds, "feed_ns"))
        if disturbed:
            note += "; %d of %d rounds disturbed by other load" % (disturbed, len(rounds))
        rows.append(("CPU ratio to the bare loop, " + name, "%.3f" % median(rounds, "ratio"), *goal,
                     spread(rounds, "ratio"), note))
    if "allocations" in result:
        for name, value in result["allocations"].items():
            rows.append(("allocations a message, " + name, "%.5f" % value, "0.05", "0", "", ""))
        rows.append(("bytes a packet, of what fits", "%.4f" % result["packet_fill"], "0.97", "0.99", "",
                     "mean packet %.0f bytes" % result["packet_bytes"]))
    if "services" in result:
        report = result["services"]
        rows.append(("resident growth of the full history over its payload",
                     "%.3f" % report["history"], "1.45", "1.2", "", ""))
        rows.append(("retransmission reply over the bare server",
                     "%.3f" % report["retransmission"], "0.80", "0.95",
                     "%.3f to %.3f" % (report["retransmission_min"], report["retransmission_max"]),
                     "65,535 messages"))
        rows.append(("spin of 8,000 instruments over sending a ready buffer",
                     "%.3f" % report["spin"], "0.55", "0.70",
                     "%.3f to %.3f" % (report["spin_min"], report["spin_max"]),
                     "%.1f MB, built in %.1f ms" % (report["spin_bytes"] / 1e6, report["spin_build_ms"])))
        rows.append(("idle CPU over the empty loop", "%.3f" % median(result["idle"], "ratio"), "1.25", "1.1",
                     spread(result["idle"], "ratio"),
                     "%.2f %% of a core" % (100 * median(result["idle"], "feed"))))
        many, few = median(result["tick"], "many_ns"), median(result["tick"], "few_ns")
        rows.append(("tick cost, 8,000 instruments over 3", "%.3f" % (many / few), "2.0", "1.3", "",
                     "%.0f and %.0f ns a message" % (many, few)))
    lines = ["| figure | median | must | aim | spread | |", "|---|---|---|---|---|---|"]
    return "\n".join(lines + ["| %s |" % " | ".join(row) for row in rows])


def write_between_markers(path, text):
    page = pathlib.Path(path)
    start, end = "<!-- figures -->", "<!-- end of figures -->"
    before, rest = page.read_text().split(start)
    page.write_text(before + start + "\n" + text + "\n" + end + rest.split(end)[1])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", default="build/release", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true", help="fewer and shorter rounds")
    parser.add_argument("--only", choices=("rates", "services", "memory"))
    parser.add_argument("--json", help="write every round to this file")
    parser.add_argument("--write", help="put the table between the markers of this Markdown page")
    options = parser.parse_args()
    started = time.monotonic()
    result = measure(options.build, options.only, options.quick)
    result["seconds"] = time.monotonic() - started
    text = table(result)
    print(text)
    print("measured in %.0f s; load average now %.2f" % (result["seconds"], os.getloadavg()[0]))
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps(result, indent=1) + "\n")
    if options.write:
        write_between_markers(options.write, text)


if __name__ == "__main__":
    main()
