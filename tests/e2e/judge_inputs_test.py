"""What tessel-judge reads: files, pipes, compressed and damaged ones; and its descriptors."""

import gzip
import os
import subprocess
import threading

import pytest

from feed import program

TRUTH = "".join(f'{{"seq":{seq},"symbol":"AAPL","id":{seq},"status":"T"}}\n' for seq in range(1, 40_001))
OUTPUT = "".join(f'{{"seq":{seq},"symbol":"AAPL","status":"T"}}\n' for seq in range(1, 40_001))
LIST = '{"version":1,"channels":[{"name":"a"}]}'


def judge(*args, **options):
    return subprocess.run([program("tessel-judge"), *map(str, args)], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=120, check=False, **options)


def zstd(data):
    return subprocess.run(["zstd", "-q", "-c"], input=data, stdout=subprocess.PIPE, check=True).stdout


@pytest.fixture
def files(tmp_path):
    (tmp_path / "truth.jsonl").write_text(TRUTH)
    (tmp_path / "output.jsonl").write_text(OUTPUT)
    return tmp_path / "truth.jsonl", tmp_path / "output.jsonl"


@pytest.mark.parametrize("pack", [gzip.compress, zstd])
def test_compressed_files_are_known_by_their_content(tmp_path, files, pack):
    truth, output = files
    wanted = judge(truth, output)
    assert wanted.returncode == 0, wanted.stderr
    (tmp_path / "packed").write_bytes(pack(TRUTH.encode()))
    (tmp_path / "packed.txt").write_bytes(pack(OUTPUT.encode()[:500_000]) + pack(OUTPUT.encode()[500_000:]))
    done = judge(tmp_path / "packed", tmp_path / "packed.txt")
    assert (done.returncode, done.stdout) == (0, wanted.stdout), done.stderr


@pytest.mark.parametrize("pack", [gzip.compress, zstd])
@pytest.mark.parametrize("damage, reason", [
    (lambda data: data[:len(data) // 2], "unfinished"),
    (lambda data: data[:len(data) // 3] + b"\x00\xff\x55" * 20 + data[len(data) // 3 + 60:], ""),
    (lambda data: data + b"rubbish", "broken"),
])
def test_damaged_compressed_file_is_status_2_with_its_name(tmp_path, files, pack, damage, reason):
    truth, output = files
    noise = "".join(f'{{"seq":{seq},"id":{seq * seq * 7919 % 1000003}}}\n' for seq in range(1, 40_001))
    broken = tmp_path / "broken"
    broken.write_bytes(damage(pack(noise.encode())))
    for arguments in ((broken, output), (truth, broken)):
        done = judge(*arguments)
        assert done.returncode == 2
        assert done.stderr.startswith(f"tessel-judge: {broken}:") and done.stderr.count("\n") == 1
        assert reason in done.stderr


def test_standard_input_and_named_pipes_are_read(tmp_path, files):
    truth, output = files
    wanted = judge(truth, output).stdout
    with open(output, "rb") as file:
        done = judge(truth, "-", stdin=file)
    assert (done.returncode, done.stdout) == (0, wanted), done.stderr
    done = judge("-", output, input=TRUTH)
    assert (done.returncode, done.stdout) == (0, wanted), done.stderr
    done = judge("-", output, input="")
    assert done.returncode == 2
    assert done.stderr == "tessel-judge: standard input:1: no truth line in the file\n"


def test_two_named_pipes_may_be_written_in_any_order(tmp_path):
    """One program writes both, OUTPUT first: a judge that read the truth to its end first would wait."""
    first, second = tmp_path / "truth.pipe", tmp_path / "output.pipe"
    os.mkfifo(first)
    os.mkfifo(second)

    def write():
        with open(second, "w", encoding="ascii") as output, open(first, "w", encoding="ascii") as truth:
            for start in range(0, len(OUTPUT), 8192):
                output.write(OUTPUT[start:start + 8192])
                output.flush()
            truth.write(TRUTH)
    writer = threading.Thread(target=write)
    writer.start()
    done = judge(first, second)
    writer.join()
    assert done.returncode == 0, done.stderr


def test_same_file_twice_is_status_2(tmp_path, files):
    truth, output = files
    link, hard = tmp_path / "link", tmp_path / "hard"
    link.symlink_to(truth)
    os.link(truth, hard)
    text = truth.read_text()
    for arguments, words in (
            ((truth, truth), "TRUTH and OUTPUT are the same file"),
            ((truth, link), "TRUTH and OUTPUT are the same file"),
            ((truth, output, "--report", link), "TRUTH and --report are the same file"),
            ((truth, output, "--report", hard), "TRUTH and --report are the same file"),
            ((truth, output, "--json", output), "OUTPUT and --json are the same file"),
            ((truth, output, "--junit", truth), "TRUTH and --junit are the same file"),
            ((truth, output, "--summary-md", hard), "TRUTH and --summary-md are the same file")):
        done = judge(*arguments)
        assert (done.returncode, done.stderr) == (2, f"tessel-judge: {words}\n"), arguments
    assert truth.read_text() == text and output.read_text() == OUTPUT
    assert judge("-", "-").returncode == 2
    with open(truth, "rb") as file:
        assert judge(truth, "-", stdin=file).returncode == 2


def test_report_over_the_times_or_the_channel_list_is_status_2(tmp_path, files):
    truth, output = files
    times, channels, link = tmp_path / "times", tmp_path / "channels.json", tmp_path / "link"
    times.write_text('{"seq":1,"sip":5}\n')
    channels.write_text(LIST)
    link.symlink_to(times)
    latency = (truth, output, "--latency", "at", "--times")
    for arguments, words in (
            ((*latency, times, "--json", times), "--times and --json are the same file"),
            ((*latency, times, "--report", link), "--times and --report are the same file"),
            ((*latency, output), "OUTPUT and --times are the same file"),
            ((tmp_path, tmp_path, "--channels", channels, "--json", channels),
             "--channels and --json are the same file")):
        done = judge(*arguments)
        assert (done.returncode, done.stderr) == (2, f"tessel-judge: {words}\n"), arguments
    assert times.read_text() == '{"seq":1,"sip":5}\n'
    assert channels.read_text() == LIST


def test_errors_are_one_short_line(tmp_path, files):
    truth, output = files
    long_name = tmp_path / ("x" * 200 + "\n" + "y" * 40)
    for arguments in ((long_name, output), (truth, output, "--jobs", "0"), (truth, output, "--jobs", "many"),
                      (truth, output, "--nonsense" + "n" * 300), (truth,), (),
                      (truth, output, "--run", "-1"), (truth, output, "--json", "-", "--junit", "-")):
        done = judge(*arguments)
        assert done.returncode == 2, arguments
        assert done.stdout == ""
        assert done.stderr.startswith("tessel-judge: ") and done.stderr.endswith("\n")
        assert done.stderr.count("\n") == 1 and len(done.stderr) <= 201, done.stderr


def test_unwritable_standard_error_does_not_change_the_status(tmp_path, files):
    truth, output = files
    missing = tmp_path / "nowhere"
    for redirection in ("2>/dev/full", "2>&-"):
        command = ["sh", "-c", f'"$0" "$@" {redirection}', program("tessel-judge"), missing, output]
        done = subprocess.run(command, capture_output=True, timeout=60, check=False)
        assert done.returncode == 2, redirection
    reading, writing = os.pipe()
    os.close(reading)
    done = subprocess.run([program("tessel-judge"), missing, output], stderr=writing, timeout=60, check=False)
    os.close(writing)
    assert done.returncode == 2


def test_closed_descriptors_are_nobodys_report(tmp_path, files):
    truth, output = files
    report = tmp_path / "report.json"
    for closed in ("0<&- 1>&- 2>&-", "1>&-", "0<&-"):
        report.unlink(missing_ok=True)
        command = ["sh", "-c", f'"$0" "$@" {closed}', program("tessel-judge"), truth, output, "--json",
                   report]
        done = subprocess.run(command, capture_output=True, timeout=60, check=False)
        assert done.returncode == 0, closed
        assert report.read_text().startswith('{\n "verdict": "AGREES"'), closed
        assert truth.read_text() == TRUTH and output.read_text() == OUTPUT


def test_reader_that_is_gone_is_an_error(files):
    reading, writing = os.pipe()
    os.close(reading)
    done = subprocess.run([program("tessel-judge"), *files], stdout=writing, stderr=subprocess.PIPE,
                          timeout=60, check=False)
    os.close(writing)
    assert (done.returncode, done.stderr) == (2, b"tessel-judge: standard output: Broken pipe\n")


def test_version_names_the_program():
    done = judge("--version")
    assert done.returncode == 0
    assert done.stdout.startswith("tessel-judge 1.") and done.stdout.rstrip().endswith(")")
