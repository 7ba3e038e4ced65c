"""tesselctl run: checks a configuration, prints the command, becomes the feed."""

import json
import os
import shlex
import shutil
import signal
import socket
import subprocess

import pytest

from ctl import ctl
from feed import Process, free_port, program, unique_group


class Ports:
    def __init__(self):
        self.group = unique_group()
        self.port, self.retrans, self.snapshot, self.control = (free_port() for _ in range(4))

    def toml(self, feed="", rest=""):
        return (f'[feed]\nmcast = "{self.group}"\nport = {self.port}\nretrans_port = {self.retrans}\n'
                f"snapshot_port = {self.snapshot}\ncontrol_port = {self.control}\n{feed}\n{rest}\n")


@pytest.fixture(name="ports")
def ports_fixture():
    return Ports()


def config(tmp_path, text):
    path = tmp_path / "day.toml"
    path.write_text(text)
    return path


def refused(result):
    """The faults of a run that was refused before anything was started."""
    assert result.returncode == 2, result
    lines = result.stderr.splitlines()
    assert lines and all(line.startswith("tesselctl: ") and len(line) <= 300 for line in lines), lines
    assert "UQDF" not in result.stderr
    return [line.removeprefix("tesselctl: ") for line in lines]


def test_dry_run_prints_the_equivalent_command(tmp_path, ports):
    rest = '[faults]\ndrop_every = 50\n[scenario]\nname = "it\'s"\nhalt_after = 5'
    path = config(tmp_path, ports.toml('symbols = ["AAPL:190.00", "MSFT:410"]\nquiet = true', rest))
    done = ctl("run", "--config", path, "--dry-run", "--", "--seed", "9")
    assert done.returncode == 0 and done.stderr == ""
    words = shlex.split(done.stdout)
    assert words[0] == "TESSEL_SCENARIO=name=it's,halt_after=5"
    assert words[1] == program("tessel")
    options = dict(zip(words[2:-1:2], words[3:-1:2]))
    assert options == {"--mcast": ports.group, "--port": str(ports.port),
                       "--retrans-port": str(ports.retrans),
                       "--snapshot-port": str(ports.snapshot), "--control-port": str(ports.control),
                       "--symbols": "AAPL:190.00,MSFT:410", "--drop-every": "50", "--seed": "9"}
    assert words[-1] == "--quiet"
    as_json = json.loads(ctl("run", "--config", path, "--dry-run", "--json").stdout)
    assert as_json["scenario"] == "name=it's,halt_after=5"
    assert as_json["program"] == program("tessel")


def test_run_becomes_the_feed_with_its_signals_and_status(tmp_path, ports):
    path = config(tmp_path, ports.toml(f'truth_out = "{tmp_path}/truth.jsonl"', "[scenario]\nhalt_after = 1"))
    child = Process([program("tesselctl"), "run", "--config", path])
    try:
        child.wait_for_line("bench: scenario '' armed (halt after 1 s")
        child.wait_for_line("[tessel] UQDF+UTDF")
        assert os.readlink(f"/proc/{child.pid}/exe") == os.path.realpath(program("tessel"))
        child.wait_for_line("AAPL halted")
        assert child.stop(signal.SIGINT) == 0
        assert child.stderr[-1] == "[tessel] stopped"
    finally:
        child.kill()
    assert (tmp_path / "truth.jsonl").stat().st_size > 0


def test_symbols_from_a_file_of_thousands_all_become_instruments(tmp_path, ports):
    (tmp_path / "all.txt").write_text("# symbol price\n" + "".join(f"S{at:04} {10 + at / 100:.2f}\n"
                                                                    for at in range(5000)))
    path = config(tmp_path, ports.toml('symbols_file = "all.txt"\nparticipants = "QN"\ninterval_ms = -1'))
    child = Process([program("tesselctl"), "run", "--config", path])
    try:
        child.wait_for_line("S4999:59.99")
        done = ctl("--control", f"127.0.0.1:{ports.control}", "halt", "S4999")
        assert (done.returncode, done.stdout) == (0, "ok halt S4999\n")
        assert ctl("--control", f"127.0.0.1:{ports.control}", "stop").stdout == "ok stopping\n"
        assert child.wait() == 0
    finally:
        child.kill()


def test_more_than_an_argument_holds_is_said(tmp_path, ports):
    (tmp_path / "all.txt").write_text("".join(f"SYM{at:05}:1234.56\n" for at in range(10000)))
    path = config(tmp_path, ports.toml('symbols_file = "all.txt"'))
    (fault,) = refused(ctl("run", "--config", path))
    assert fault == (f"{path}:7: feed.symbols_file: 169999 bytes are more than one argument of a command may "
                     "have: 131071 (128 KiB with its end); use fewer symbols, or shorter prices")


@pytest.mark.parametrize("text, fault", [
    ("[feed]\nport = 65536\n", "2: feed.port: '65536' is out of range: 1 to 65535"),
    ("[feed]\nmcast = \"10.0.0.1\"\n",
     "2: feed.mcast: '10.0.0.1' is no multicast address: 224.0.0.0 to 239.255.255.255"),
    ("[feed]\niface = \"lo\"\n", "2: feed.iface: 'lo' is no IPv4 address"),
    ("[feed]\nsymbols = [\"AAPL:x\"]\n", "2: feed.symbols: price of AAPL: 'x' is no number"),
    ("[feed]\n\ninterval = 5\n", "3: feed.interval: unknown key; did you mean 'interval_ms'?"),
    ("[scenario]\nhalt_secs = \"x\"\n", "2: scenario.halt_secs: write a whole number"),
    ("[feed\n", "1: no TOML: "),
])
def test_a_fault_names_file_line_and_key(tmp_path, text, fault):
    path = config(tmp_path, text)
    (found,) = refused(ctl("run", "--config", path))
    assert found.startswith(f"{path}:{fault}")


def test_taken_ports_are_named_with_their_holder(tmp_path, ports):
    path = config(tmp_path, ports.toml())
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp, \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control, \
            socket.socket(socket.AF_INET, socket.SOCK_STREAM) as tcp:
        udp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        udp.bind(("", ports.retrans))
        control.bind(("127.0.0.1", ports.control))
        tcp.bind(("", ports.snapshot))
        tcp.listen(1)
        holder = f"is taken by {open('/proc/self/comm').read().strip()} (pid {os.getpid()})"
        assert refused(ctl("run", "--config", path)) == [
            f"{path}:4: feed.retrans_port: port {ports.retrans}/udp {holder}",
            f"{path}:5: feed.snapshot_port: port {ports.snapshot}/tcp {holder}",
            f"{path}:6: feed.control_port: port {ports.control}/udp {holder}"]
        done = ctl("run", "--config", path, "--dry-run")
        assert len(refused(done)) == 3
        assert shlex.split(done.stdout)[0] == program("tessel")  # the command is printed all the same
    path = config(tmp_path, ports.toml().replace(str(ports.control), str(ports.retrans)))
    assert refused(ctl("run", "--config", path)) == [
        f"{path}:6: feed.control_port: port {ports.retrans} is the retransmission port already"]


def test_outputs_that_cannot_be_written_are_refused(tmp_path, ports):
    folder = tmp_path / "folder"
    folder.mkdir()
    (tmp_path / "link").symlink_to(folder)
    os.mkfifo(tmp_path / "pipe")

    def faults(feed):
        found = refused(ctl("run", "--config", config(tmp_path, ports.toml(feed))))
        return found[0].split("day.toml:7: ", 1)[1]
    assert faults('truth_out = "/dev/full"') == "feed.truth_out: /dev/full is no regular file"
    assert faults(f'book_out = "{folder}"') == f"feed.book_out: {folder} is no regular file"
    assert faults(f'bbo_out = "{tmp_path}/pipe"') == f"feed.bbo_out: {tmp_path}/pipe is no regular file"
    assert faults(f'truth_out = "{tmp_path}/gone/t"') == (
        f"feed.truth_out: {tmp_path}/gone/t: No such file or directory")
    assert faults('truth_out = "/proc/t"').startswith("feed.truth_out: /proc/t: ")


def test_two_outputs_on_one_path_are_refused(tmp_path, ports):
    (tmp_path / "link").symlink_to(tmp_path)
    other = f"{tmp_path}/link/../{tmp_path.name}/x"
    path = config(tmp_path, ports.toml(f'truth_out = "{tmp_path}/x"\nbook_out = "{other}"'))
    assert refused(ctl("run", "--config", path)) == [
        f"{path}:8: feed.book_out: {tmp_path}/x is written by truth_out already"]
    path = config(tmp_path, ports.toml(f'truth_out = "{tmp_path}/x.tmp"\nbbo_out = "{tmp_path}/link/x"'))
    assert refused(ctl("run", "--config", path)) == [
        f"{path}:8: feed.bbo_out: {tmp_path}/x.tmp is written by truth_out already"]


def test_an_address_of_another_host_is_refused(tmp_path, ports):
    path = config(tmp_path, ports.toml('iface = "203.0.113.9"'))
    (fault,) = refused(ctl("run", "--config", path))
    assert fault.startswith(f"{path}:7: feed.iface: 203.0.113.9 is no address of this host, which has lo ")


def test_options_are_checked_as_strictly_as_the_file():
    assert refused(ctl("run", "--", "--port", "12x", "--sede", "1")) == [
        "--port: '12x' is no whole number", "unknown option '--sede'; did you mean '--seed'?"]
    assert refused(ctl("run", "--port", "1"))[0].startswith("The following arguments were not expected")


def test_the_feed_is_found_on_the_search_path_when_it_is_not_beside(tmp_path):
    lonely = tmp_path / "bin"
    lonely.mkdir()
    shutil.copy(program("tesselctl"), lonely)
    env = dict(os.environ, PATH=f"{tmp_path}:{os.path.dirname(program('tessel'))}")
    ports = Ports()
    path = config(tmp_path, ports.toml())
    done = subprocess.run([lonely / "tesselctl", "run", "--dry-run", "--config", path], env=env,
                          capture_output=True, text=True, check=True, timeout=60)
    assert shlex.split(done.stdout)[0] == program("tessel")
    env["PATH"] = str(tmp_path)
    done = subprocess.run([lonely / "tesselctl", "run", "--config", path], env=env, capture_output=True,
                          text=True, check=False, timeout=60)
    assert refused(done) == ["no program 'tessel' beside this one or on the search path"]


def test_nothing_is_left_of_a_refused_run(tmp_path, ports):
    path = config(tmp_path, ports.toml(f'truth_out = "{tmp_path}/t"\nbook_out = "/dev/null"'))
    refused(ctl("run", "--config", path))
    assert not (tmp_path / "t").exists()
