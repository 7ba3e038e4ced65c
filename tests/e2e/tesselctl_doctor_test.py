"""tesselctl doctor: every cause is provoked, between two network namespaces, and named with what repairs
it."""

import json
import shutil
import subprocess
import sys

import pytest

from ctl import ctl
from feed import Feed, program, wait_until
from net import Cable, can_make_namespaces

NAMES = ["interface", "group", "ports", "route", "membership", "rp_filter", "firewall", "buffer", "mtu",
         "session", "traffic"]

needs_namespaces = pytest.mark.skipif(not can_make_namespaces(),
                                      reason="network namespaces cannot be made here")


class Patient:
    """A feed at one end of a cable, and the doctor at the other."""

    def __init__(self, cable):
        self.cable = cable

    def start_feed(self, *options, iface=None, end="feed"):
        child = self.cable.start(end, program("tessel"), "--iface", iface or self.cable.feed_address,
                                 "--interval-ms", "20", *options)
        child.wait_for_line("[tessel] UQDF+UTDF")
        return child

    def doctor(self, *options, iface=None, seconds="0.5"):
        """The findings by name, and the exit status."""
        done = self.cable.run("receiver", program("tesselctl"), "doctor", "--json", "--seconds", seconds,
                              "--iface", iface or self.cable.receiver_address, *options)
        assert done.stderr == ""
        checks = json.loads(done.stdout)["checks"]
        assert [check["name"] for check in checks] == NAMES
        for check in checks:
            assert list(check) == ["name", "result", "text", "fix"]
            assert check["result"] in ("ok", "warning", "problem")
            assert (check["fix"] == "") == (check["result"] == "ok"), check
        found = any(check["result"] == "problem" for check in checks)
        assert done.returncode == (1 if found else 0)
        return {check["name"]: check for check in checks}

    def repair(self, check):
        """Runs the command that a finding names."""
        done = self.cable.run("receiver", "sh", "-c", check["fix"])
        assert done.returncode == 0, done


@pytest.fixture(name="patient")
def patient_fixture():
    with Cable() as cable:
        yield Patient(cable)


def problems(checks):
    return sorted(name for name, check in checks.items() if check["result"] == "problem")


@needs_namespaces
def test_a_healthy_network_has_no_problem(patient):
    patient.start_feed()
    checks = patient.doctor()
    assert problems(checks) == []
    assert checks["interface"]["text"] == "10.77.0.2 is wire"
    assert "one feed, session UTPBENCH01 from 10.77.0.1:" in checks["session"]["text"]
    assert checks["traffic"]["result"] == "ok"


@needs_namespaces
def test_an_address_of_no_interface_is_named_and_repaired(patient):
    patient.start_feed()
    checks = patient.doctor(iface="10.77.0.9")
    assert "interface" in problems(checks) and "traffic" in problems(checks)
    assert checks["interface"]["text"] == (
        "10.77.0.9 is no address of this host, which has lo 127.0.0.1, wire 10.77.0.2")
    patient.repair(checks["interface"])
    assert patient.doctor(iface="10.77.0.9")["interface"]["result"] == "ok"


@needs_namespaces
def test_an_interface_that_is_down_is_named_and_repaired(patient):
    patient.cable.ip("receiver", "link", "set", "wire", "down")
    checks = patient.doctor()
    assert checks["interface"]["result"] == "problem"
    assert "wire with 10.77.0.2 is down" in checks["interface"]["text"]
    patient.repair(checks["interface"])
    wait_until(lambda: patient.doctor(seconds="0.1")["interface"]["result"] == "ok", what="the link")


@needs_namespaces
def test_a_group_outside_224_4_is_a_problem(patient):
    checks = patient.doctor("--mcast", "192.168.1.1")
    assert {"group", "traffic"} <= set(problems(checks))
    assert "--mcast" in checks["group"]["fix"]


HOLD_PORT = """
import socket, sys
kind, address, port = sys.argv[1:]
s = socket.socket(socket.AF_INET, socket.SOCK_STREAM if kind == "tcp" else socket.SOCK_DGRAM)
s.bind((address, int(port)))
kind == "tcp" and s.listen(1)
print("holding", file=sys.stderr, flush=True)
import time
time.sleep(600)
"""


@needs_namespaces
@pytest.mark.parametrize("kind, port", [("udp", 25177), ("udp", 25178), ("tcp", 25179)])
def test_a_taken_port_is_named_with_its_holder(patient, kind, port):
    holder = patient.cable.start("receiver", sys.executable, "-c", HOLD_PORT, kind, "0.0.0.0", port)
    holder.wait_for_line("holding")
    checks = patient.doctor()
    assert checks["ports"]["result"] == "problem"
    assert f"port {port}/{kind} is taken by python3" in checks["ports"]["text"]
    patient.repair(checks["ports"])
    holder.wait()
    assert patient.doctor(seconds="0.1")["ports"]["result"] == "ok"


@needs_namespaces
def test_the_ports_of_a_feed_are_no_problem(patient):
    patient.start_feed(iface=patient.cable.receiver_address, end="receiver")
    checks = patient.doctor()
    assert checks["ports"]["result"] == "ok"
    assert "Snap-Shot port 25179/tcp is tessel (pid " in checks["ports"]["text"]
    assert checks["traffic"]["result"] == "ok"


@needs_namespaces
def test_a_missing_multicast_route_is_named_and_repaired(patient):
    patient.cable.ip("receiver", "route", "delete", "224.0.0.0/4")
    checks = patient.doctor()
    assert checks["route"]["result"] == "problem"
    patient.repair(checks["route"])
    assert patient.doctor(seconds="0.1")["route"]["result"] == "ok"


@needs_namespaces
def test_a_membership_on_another_interface_is_named(patient):
    cable = patient.cable
    cable.ip("receiver", "link", "add", "other", "type", "veth", "peer", "name", "other2")
    cable.ip("receiver", "address", "add", "10.78.0.2/24", "dev", "other")
    cable.ip("receiver", "link", "set", "other", "up")
    listener = cable.start("receiver", program("tessel-listen"), "--iface", "10.78.0.2")
    listener.wait_for_line("joined")
    patient.start_feed()
    checks = patient.doctor()
    assert checks["membership"]["result"] == "problem"
    assert checks["membership"]["text"].startswith("239.255.25.177 is joined on other, not on wire")
    name, *options = checks["membership"]["fix"].split()
    cable.start("receiver", program(name), *options).wait_for_line("joined")
    assert patient.doctor(seconds="0.1")["membership"]["result"] == "ok"


@needs_namespaces
def test_a_reverse_path_filter_that_drops_is_named_and_repaired(patient):
    cable = patient.cable
    cable.run("receiver", "sysctl", "-w", "net.ipv4.conf.wire.rp_filter=1", "net.ipv4.conf.all.rp_filter=0")
    patient.start_feed()
    assert patient.doctor()["rp_filter"]["result"] == "ok"
    # From now on the feed's packets carry an address that the receiver would answer through lo.
    cable.ip("feed", "address", "add", "10.99.0.1/24", "dev", "wire")
    cable.ip("feed", "address", "delete", "10.77.0.1/24", "dev", "wire")
    cable.ip("receiver", "route", "add", "10.99.0.0/24", "dev", "lo")
    child = patient.start_feed("--port", "25277", "--retrans-port", "25278", "--snapshot-port", "25279",
                               iface="10.99.0.1")
    checks = patient.doctor("--port", "25277")
    assert {"rp_filter", "traffic"} <= set(problems(checks))
    assert checks["firewall"]["result"] == "ok"
    assert "no route to 10.99.0.1 leads back there" in checks["rp_filter"]["text"]
    patient.repair(checks["rp_filter"])
    assert patient.doctor("--port", "25277")["traffic"]["result"] == "ok"
    child.stop()


@needs_namespaces
@pytest.mark.skipif(shutil.which("nft") is None, reason="nft is not installed")
@pytest.mark.parametrize("rules", [
    "add chain inet f in { type filter hook input priority 0; policy drop; }",
    "add chain inet f in { type filter hook input priority 0; }; "
    "add rule inet f in udp dport 25177 counter drop",
    "add chain inet f in { type filter hook input priority 0; }; "
    "add rule inet f in ip daddr 224.0.0.0/4 drop",
])
def test_a_firewall_that_drops_the_feed_is_named_and_repaired(patient, rules):
    patient.start_feed()
    done = patient.cable.run("receiver", "nft", f"add table inet f; {rules}")
    assert done.returncode == 0, done.stderr
    checks = patient.doctor()
    assert problems(checks) == ["firewall", "traffic"]
    assert "chain in of table inet f: " in checks["firewall"]["text"]
    patient.repair(checks["firewall"])
    assert problems(patient.doctor()) == []


@needs_namespaces
@pytest.mark.skipif(shutil.which("nft") is None, reason="nft is not installed")
def test_a_firewall_that_lets_the_feed_in_is_no_problem(patient):
    done = patient.cable.run("receiver", "nft",
                             "add table inet f; "
                             "add chain inet f in { type filter hook input priority 0; policy drop; }; "
                             "add rule inet f in udp dport 25177 accept")
    assert done.returncode == 0, done.stderr
    checks = patient.doctor(seconds="0.1")
    assert checks["firewall"]["result"] == "ok"


@needs_namespaces
@pytest.mark.parametrize("mtu, result", [(1528, "ok"), (1527, "warning"), (1499, "problem")])
def test_an_mtu_below_a_full_packet_is_named_and_repaired(mtu, result):
    with Cable(mtu=mtu) as cable:
        patient = Patient(cable)
        checks = patient.doctor(seconds="0.1")
        assert checks["mtu"]["result"] == result
        if result != "ok":
            patient.repair(checks["mtu"])
            assert patient.doctor(seconds="0.1")["mtu"]["result"] == "ok"


@needs_namespaces
def test_two_feeds_with_one_session_are_found(patient):
    patient.start_feed()
    patient.start_feed("--retrans-port", "25188", "--snapshot-port", "25189")
    checks = patient.doctor()
    assert checks["session"]["result"] == "problem"
    assert checks["session"]["text"].startswith("two feeds send session UTPBENCH01 to 239.255.25.177:25177: ")


@needs_namespaces
def test_no_feed_is_said_with_how_to_start_one(patient):
    checks = patient.doctor(seconds="0.2")
    assert problems(checks) == ["traffic"]
    assert "none reached the interface" in checks["traffic"]["text"]
    assert checks["traffic"]["fix"] == ("tesselctl run -- --mcast 239.255.25.177 --port 25177 --iface "
                                        "10.77.0.2")


def test_a_feed_on_loopback_is_healthy_and_the_lines_are_plain_off_a_terminal(tmp_path):
    with Feed(tmp_path, interval_ms=20) as feed:
        done = ctl("doctor", "--mcast", feed.group, "--port", feed.port,
                   "--retrans", f"127.0.0.1:{feed.retrans_port}",
                   "--snapshot", f"127.0.0.1:{feed.snapshot_port}", "--seconds", "0.5")
        assert done.returncode == 0, done.stdout
        lines = done.stdout.splitlines()
        assert [line.split()[1] for line in lines] == NAMES
        assert all(line.split()[0] in ("ok", "warning") for line in lines)
        assert all("; fix: " in line for line in lines if line.startswith("warning"))
        assert "\x1b" not in done.stdout and done.stderr == ""


def test_colors_are_for_a_terminal_without_no_color(tmp_path):
    if shutil.which("script") is None:
        pytest.skip("no program 'script' to give a terminal")
    command = f"{program('tesselctl')} doctor --seconds 0.2 --port 1"
    for no_color in (False, True):
        env = {"PATH": "/usr/bin:/bin", **({"NO_COLOR": "1"} if no_color else {})}
        done = subprocess.run(["script", "-qec", command, "/dev/null"], capture_output=True, text=True,
                              timeout=60, check=False, env=env)
        assert ("\x1b[31mproblem" in done.stdout) == (not no_color)
        assert "packets" in done.stdout  # the progress bar


def test_endpoints_that_are_none_are_status_2():
    for option in ("--retrans", "--snapshot"):
        done = ctl("doctor", option, "25178")
        assert done.returncode == 2
        assert done.stderr.startswith(f"tesselctl: {option}: '25178' is not HOST:PORT")
