"""tesselctl channels: plans, and the feeds of a plan started, asked, steered and ended."""

import filecmp
import json
import os
import signal
import subprocess

import pytest

from channels import Channels, symbol_lines
from ctl import ctl
from feed import Process, program, wait_until
from time_scale import scaled

FILES = ["channels.json", "ch01.toml", "ch02.toml", "ch03.toml", "ch04.toml", "instances", "compose.yaml",
         "kubernetes/pods.yaml", "kubernetes/host-network.yaml"]


@pytest.fixture(name="channels")
def channels_fixture(tmp_path):
    with Channels(tmp_path, 4, 40) as planned:
        yield planned


def is_running(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            return file.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def test_plan_has_every_symbol_once_and_its_files_are_accepted(channels, tmp_path):
    wanted = sorted(line.split(":")[0] for line in channels.symbol_file.read_text().splitlines())
    assert [symbol for channel in channels.list for symbol in channel["symbols"]] == wanted
    assert (channels.folder / "instances").read_text() == "".join(f"tessel@ch0{n}\n" for n in range(1, 5))
    for channel in channels.list:
        config = channels.folder / channel["config"]
        done = ctl("run", "--dry-run", "--json", "--config", config, cwd=tmp_path)
        assert done.returncode == 0, done.stderr
        words = json.loads(done.stdout)["arguments"]
        options = dict(zip(words[::2], words[1::2]))
        assert options["--session"] == channel["session"] and options["--seed"] == str(channel["seed"])
        assert [f"127.0.0.1:{options[name]}" for name in ("--retrans-port", "--snapshot-port",
                                                           "--control-port")] == \
            [channel["retrans"], channel["snapshot"], channel["control"]]
        assert [entry.split(":")[0] for entry in options["--symbols"].split(",")] == channel["symbols"]


def test_same_input_gives_the_same_bytes(channels, tmp_path):
    base = channels.list[0]
    for _ in range(2):  # into a new folder, then over its own files
        done = ctl("channels", "plan", "--symbols", channels.symbol_file, "--channels", 4, "--group-base",
                   base["group"], "--port-base", base["port"], "--out", tmp_path / "second")
        assert done.returncode == 0, done.stderr
        assert filecmp.cmpfiles(channels.folder, tmp_path / "second", FILES, shallow=False)[0] == FILES


@pytest.mark.parametrize("change, words", [
    (["--channels", "0"], "--channels: 0 channels; at least 1 is right"),
    (["--channels", "41"], "--channels: 41 channels for 40 symbols"),
    (["--channels", "many"], "--channels"),
    (["--port-base", "65530"], "--port-base: 16 ports from 65530 on run above 65535"),
    (["--group-base", "223.255.255.255"], "--group-base: '223.255.255.255' is no multicast address"),
    (["--group-base", "239.255.26.253"], "4 groups from 239.255.26.253 on run over the last byte"),
    (["--by", "luck"], "--by"),
    (["--seed", "-1"], "--seed"),
    (["--out", "/dev/null/x"], "/dev/null/x: "),
])
def test_what_cannot_be_planned_is_status_2(change, words, tmp_path):
    symbols = tmp_path / "symbols.txt"
    symbols.write_text(symbol_lines(40))
    plan = ["channels", "plan", "--symbols", symbols, "--channels", "4", "--out", tmp_path / "plan"]
    done = ctl(*plan, *change)
    assert done.returncode == 2
    assert done.stderr.startswith("tesselctl: ") and words in done.stderr, done.stderr
    assert len(done.stderr.splitlines()) == 1 and len(done.stderr) <= 201
    assert not (tmp_path / "plan").exists()


@pytest.mark.parametrize("text, words", [
    ("AAPL:190\nMSFT:410\nAAPL:1\n", "symbols.txt:3: symbol 'AAPL' is in line 1 already"),
    ("AAPL:190\nMSFT:cheap\n", "symbols.txt:2: price of MSFT: 'cheap' is no number"),
    ("# none\nAAPL:-1\n", "symbols.txt:2: price of AAPL: '-1' is out of range"),
])
def test_faulty_symbol_file_is_status_2_with_file_and_line(text, words, tmp_path):
    (tmp_path / "symbols.txt").write_text(text)
    done = ctl("channels", "plan", "--symbols", tmp_path / "symbols.txt", "--channels", 1, "--out",
               tmp_path / "plan")
    assert done.returncode == 2 and words in done.stderr


def test_channels_come_up_are_asked_steered_and_ended(channels):
    done = channels.up("--interval-ms", "20", "--drop-every", "20", "--quiet")
    assert (done.returncode, done.stderr) == (0, "")
    pids = channels.pids()
    assert sorted(pids) == ["ch01", "ch02", "ch03", "ch04"] and all(map(is_running, pids.values()))

    status = channels.ctl("status", "--json")
    assert status.returncode == 0
    rows = json.loads(status.stdout)["channels"]
    assert [row["name"] for row in rows] == sorted(pids)
    assert all(set(row) == {"name", "up", "next_seq", "rate", "dropped", "gaps"} for row in rows)
    assert all(row["up"] and row["rate"] > 0 and row["next_seq"] > 1 for row in rows)
    table = channels.ctl("status", "--interval", "0.2").stdout.splitlines()
    assert table[0].split() == ["channel", "up", "next_seq", "msgs/s", "dropped", "twice", "gaps"]
    assert [line.split()[:2] for line in table[1:5]] == [[name, "yes"] for name in sorted(pids)]

    stats = json.loads(channels.ctl("stats", "--json").stdout)
    assert [each["name"] for each in stats["channels"]] == sorted(pids)
    for counter in ("quotes", "trades"):
        assert stats["total"][counter] == sum(each[counter] for each in stats["channels"]) > 0
    assert stats["total"]["faults"]["sent"] == sum(each["faults"]["sent"] for each in stats["channels"])

    again = channels.up()
    assert again.returncode == 1
    assert again.stderr.startswith(f"tesselctl: ch01: runs already (pid {pids['ch01']})\n")
    assert channels.pids() == pids and all(map(is_running, pids.values()))

    done = channels.ctl("stop", "--json")
    assert done.returncode == 0
    assert [row["result"] for row in json.loads(done.stdout)["channels"]] == ["ended"] * 4
    assert not any(map(is_running, pids.values())) and channels.pids() == {}
    for name in pids:
        log = (channels.folder / "log" / f"{name}.log").read_text()
        assert log.endswith("[tessel] stopped\n")
        assert (channels.folder / "truth" / f"{name}.jsonl").read_text().endswith("}\n")
    down = channels.ctl("status", "--json", "--interval", "0.05")
    assert down.returncode == 1
    assert not any(row["up"] for row in json.loads(down.stdout)["channels"])
    assert channels.ctl("stats").returncode == 3


def test_gaps_and_drops_are_in_the_status(channels):
    assert channels.up("--interval-ms", "10", "--drop-every", "5", "--quiet").returncode == 0

    def sees_gaps():
        rows = json.loads(channels.ctl("status", "--json").stdout)["channels"]
        return all(row["gaps"] and row["dropped"] for row in rows)
    wait_until(sees_gaps, what="gaps on every channel")


def test_halt_finds_the_channel_of_the_symbol(channels):
    assert channels.up("--interval-ms", "20", "--quiet").returncode == 0
    symbol = channels.list[2]["symbols"][0]
    done = channels.ctl("halt", symbol)
    assert (done.returncode, done.stdout) == (0, f"ok halt {symbol}\n")
    rows = json.loads(channels.ctl("stats", "--json").stdout)["channels"]
    assert [row["halts"] for row in rows] == [0, 0, 1, 0]
    resumed = json.loads(channels.ctl("resume", symbol, "--json").stdout)
    assert resumed == {"command": f"resume {symbol}", "ok": True, "reply": f"ok resume {symbol}"}
    unknown = channels.ctl("halt", "NO.SUCH")
    assert (unknown.returncode, unknown.stderr) == (1, "tesselctl: no channel has the symbol 'NO.SUCH'\n")


def test_a_channel_that_does_not_come_up_is_named_and_none_is_left(channels):
    port = channels.list[2]["control"].split(":")[1]
    holder = Process([program("tessel"), "--control-port", port, "--mcast", "239.255.99.1", "--port", "20001",
                      "--retrans-port", "20002", "--snapshot-port", "20003"])
    with holder:
        holder.wait_for_line("[tessel] UQDF+UTDF")
        done = channels.up()
        assert done.returncode == 1
        assert done.stderr.startswith("tesselctl: ch03: ") and port in done.stderr
    assert channels.pids() == {}


def test_a_configuration_that_is_not_the_lists_is_status_2(channels):
    text = (channels.folder / "ch02.toml").read_text()
    (channels.folder / "ch02.toml").write_text(text.replace("TESSELCH02", "OTHER"))
    done = channels.up()
    assert done.returncode == 2
    assert done.stderr.endswith("ch02.toml: session 'OTHER', but 'TESSELCH02' in channels.json\n")
    assert channels.pids() == {}


def test_a_feed_that_ends_while_the_others_start_is_named(channels, tmp_path):
    folder = tmp_path / "programs"
    folder.mkdir()
    for name in ("tesselctl",):
        (folder / name).write_bytes(open(program(name), "rb").read())
        (folder / name).chmod(0o755)
    (folder / "tessel").write_text(
        "#!/bin/sh\ncase \"$*\" in *TESSELCH03*) echo 'no luck today' >&2; exit 5;; esac\n"
        f"exec {program('tessel')} \"$@\"\n")
    (folder / "tessel").chmod(0o755)
    done = subprocess.run([folder / "tesselctl", "channels", "up", "--dir", channels.folder],
                          capture_output=True, text=True, timeout=scaled(100), check=False)
    assert done.returncode == 1
    assert done.stderr == "tesselctl: ch03: the feed ended with status 5: no luck today\n"
    assert channels.pids() == {}
    rows = json.loads(channels.ctl("status", "--json", "--interval", "0.05").stdout)["channels"]
    assert not any(row["up"] for row in rows)


@pytest.mark.parametrize("options, words", [
    (["--port", "25000"], "--port cannot be the same for all channels"),
    (["--truth-out", "x.jsonl"], "--truth-out cannot be the same for all channels"),
    (["--nonsense"], "unknown option '--nonsense'"),
    (["--interval-ms", "soon"], "--interval-ms: 'soon' is no whole number"),
])
def test_options_that_no_feed_takes_are_status_2(channels, options, words):
    done = channels.up(*options)
    assert done.returncode == 2 and words in done.stderr, done.stderr
    assert channels.pids() == {}


def test_stop_ends_only_its_own_processes(channels):
    assert channels.up("--quiet").returncode == 0
    pids = channels.pids()
    os.kill(pids["ch02"], signal.SIGKILL)
    wait_until(lambda: not is_running(pids["ch02"]), what="the feed's end")
    stranger = subprocess.Popen(["sleep", "1000"])
    # Another program of the channel's options, which only its start tells from the feed.
    lookalike = subprocess.Popen(["python3", "-c", "import time; time.sleep(1000)", "--session", "TESSELCH03",
                                  "--control-port", channels.list[2]["control"].split(":")[1]])
    try:
        (channels.folder / "run" / "ch02.pid").write_text(f"{stranger.pid}\n")
        (channels.folder / "run" / "ch03.pid").write_text(f"{lookalike.pid}\n")
        done = channels.ctl("stop", "--json")
        assert [row["result"] for row in json.loads(done.stdout)["channels"]] == \
            ["ended", "not running", "not running", "ended"]
        assert stranger.poll() is None and lookalike.poll() is None
        assert is_running(pids["ch03"])
    finally:
        stranger.kill()
        lookalike.kill()
        stranger.wait()
        lookalike.wait()
        os.kill(pids["ch03"], signal.SIGKILL)


def test_folder_without_a_plan_is_status_2(tmp_path):
    for command in (["up"], ["status"], ["stats"], ["stop"], ["halt", "AAPL"]):
        done = ctl("channels", *command, "--dir", tmp_path)
        assert done.returncode == 2 and "channels.json: No such file or directory" in done.stderr
    (tmp_path / "channels.json").write_text('{"version":1,"channels":[{"name":"a"}]}')
    done = ctl("channels", "status", "--dir", tmp_path)
    assert done.returncode == 2 and "channel 'a' has no 'group'" in done.stderr
