"""tessel-judge as a process: verdicts, exit statuses, speed and memory."""

import json
import random
import re
import resource
import subprocess
import time

import pytest

from feed import program

QUOTE = ('{"seq":%d,"secid":1,"symbol":"AAPL","bid":[[%s,300],[189.9900,500]],"ask":[[190.0300,200]],'
         '"nbbo":[%s,300,190.0300,200],"band":[180.5000,199.5000],"status":"T"}\n')
TRADE = '{"seq":%d,"secid":1,"symbol":"AAPL","trade":[190.0100,%d,"Q","@   "],"kind":0,"id":%d}\n'


def truth_text(first, last):
    """A run's truth lines: three quotes, then a trade, and no line for every seventh number."""
    lines = []
    for seq in range(first, last + 1):
        if seq % 7 == 0:
            continue
        if seq % 4 == 0:
            lines.append(TRADE % (seq, 100 * (seq % 5 + 1), seq))
        else:
            price = f"190.{seq % 100:02d}00"
            lines.append(QUOTE % (seq, price, price))
    return "".join(lines)


def rewritten(text):
    """The same lines as another program would write them: parsed and printed again."""
    return "".join(json.dumps(json.loads(line)) + "\n" for line in text.splitlines())


class Bench:
    def __init__(self, folder):
        self.truth = folder / "truth.jsonl"
        self.output = folder / "output.jsonl"

    def judge(self, truth, output, *args, **options):
        self.truth.write_text(truth)
        self.output.write_text(output)
        return run_judge(self.truth, self.output, *args, **options)


def run_judge(*args, **options):
    return subprocess.run([program("tessel-judge"), *map(str, args)], capture_output=True, text=True,
                          timeout=120,
                          check=False, **options)


def totals_of(done):
    """The report's figures by name."""
    rows = {}
    for line in done.stdout.splitlines():
        row = re.match(r" *([a-z]+(?: lines)?) +([\d,]+)", line)
        if row:
            rows.setdefault(row[1], int(row[2].replace(",", "")))
    return rows


@pytest.fixture
def bench(tmp_path):
    return Bench(tmp_path)


def test_output_written_by_another_program_agrees(bench):
    text = truth_text(6, 2000)
    done = bench.judge(text, rewritten(text))
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.startswith("AGREES: ")
    assert totals_of(done) == {"truth lines": 1710, "output lines": 1710, "matched": 1710, "mismatched": 0,
                             "missing": 0, "unexpected": 0, "compared": 1282 * 7 + 428 * 5}


def test_each_kind_of_difference_is_counted_and_shown_in_full(bench):
    truth = truth_text(1, 100).splitlines(keepends=True)
    output = list(truth)
    output[50] = output[50].replace(",300", ",301")
    del output[10:13]
    output.append(output[60])
    output.append('{"seq":7}\n')
    done = bench.judge("".join(truth), "".join(output))
    assert done.returncode == 1
    assert done.stdout.startswith("DIFFERS: ")
    rows = totals_of(done)
    assert (rows["matched"], rows["mismatched"], rows["missing"], rows["unexpected"]) == (82, 1, 3, 2)
    seq = json.loads(truth[50])["seq"]
    assert rows["bid"] == 1 and rows["nbbo"] == 1
    assert f"run 1 seq {seq}: mismatched in bid, nbbo" in done.stdout
    assert f"truth   {bench.truth}:51: {truth[50]}" in done.stdout
    assert f"output  {bench.output}:48: " in done.stdout
    first, last = json.loads(truth[10])["seq"], json.loads(truth[12])["seq"]
    assert f"3 truth lines in a row, sequence {first} to {last}" in done.stdout
    assert f"run 1 seq {first} to {last}: missing, 3 lines" in done.stdout
    assert "seq 7: unexpected (no truth line has this sequence number)" in done.stdout
    assert ": unexpected (repeated: this sequence number had its line already)" in done.stdout


def test_shuffled_output_agrees(bench):
    text = truth_text(1, 3000)
    output = text.splitlines(keepends=True)
    mixer = random.Random(5)
    for start in range(0, len(output), 500):
        part = output[start:start + 500]
        mixer.shuffle(part)
        output[start:start + 500] = part
    done = bench.judge(text, "".join(output))
    assert done.returncode == 0, done.stdout


def test_late_handler_is_judged_from_its_first_line_when_asked(bench):
    truth, output = truth_text(6, 900), truth_text(300, 900)
    assert bench.judge(truth, output).returncode == 1
    done = bench.judge(truth, output, "--late")
    assert done.returncode == 0, done.stdout
    assert "truth lines before OUTPUT's first" in done.stdout
    assert bench.judge(truth, output, "--from-first").returncode == 0


def test_handler_that_left_early_is_judged_up_to_its_last_line_when_asked(bench):
    truth, output = truth_text(6, 900), truth_text(6, 500)
    assert bench.judge(truth, output).returncode == 1
    assert bench.judge(truth, output, "--early").returncode == 0


def test_runs_in_one_truth_log_are_told_apart(bench):
    first, second, third = truth_text(6, 700), truth_text(6, 300), truth_text(6, 900).replace("190.", "191.")
    whole = first + second + third
    assert bench.judge(whole, whole).returncode == 0
    done = bench.judge(whole, third)
    assert done.returncode == 0, done.stdout
    assert "TRUTH holds 3 runs, OUTPUT 1; judged run 3" in done.stdout
    done = bench.judge(whole, second + third)
    assert done.returncode == 0, done.stdout
    assert "judged runs 2 to 3" in done.stdout
    assert bench.judge(whole, first).returncode == 1
    assert bench.judge(whole, first, "--run", "1").returncode == 0


@pytest.mark.parametrize("damage, reason", [
    ('{"seq":8,"bid":[[1.0,\n', "not JSON: broken at byte 22"),
    ("hello\n", "not JSON: broken at byte 1"),
    ('{"symbol":"AAPL"}\n', "no member 'seq'"),
    ('{"seq":"8"}\n', "member 'seq' is not a whole number from 0 up"),
    ('{"seq":8,"id":1,"id":1}\n', "member 'id' is given twice"),
])
def test_bad_line_names_file_and_line(bench, damage, reason):
    text = truth_text(1, 6)
    done = bench.judge(text, text + damage)
    assert done.returncode == 2
    assert done.stderr == f"tessel-judge: {bench.output}:7: {reason}\n"
    done = bench.judge(text + damage, text)
    assert done.returncode == 2
    assert done.stderr == f"tessel-judge: {bench.truth}:7: {reason}\n"


def test_bad_files_and_options_end_with_status_2(bench, tmp_path):
    text = truth_text(1, 6)
    assert bench.judge("", text).returncode == 2
    assert bench.judge('{"mark":"x","seq":1}\n', text).returncode == 2
    missing = tmp_path / "nowhere"
    done = run_judge(missing, bench.output)
    assert (done.returncode, done.stderr) == (2,
                                              f"tessel-judge: {missing}: open: No such file or directory\n")
    done = run_judge(bench.output, tmp_path)
    assert (done.returncode, done.stderr) == (2, f"tessel-judge: {tmp_path}: not a regular file\n")
    assert run_judge().returncode == 2
    assert run_judge(bench.output, bench.output, "--run", "0").returncode == 2
    assert run_judge(bench.output, bench.output, "--report", tmp_path / "no" / "page.html").returncode == 2
    assert run_judge("--help").returncode == 0


def test_report_to_a_full_disk_is_an_error(bench):
    text = truth_text(1, 6)
    bench.judge(text, text)
    with open("/dev/full", "w", encoding="ascii") as full:
        done = subprocess.run([program("tessel-judge"), bench.truth, bench.output], stdout=full,
                              stderr=subprocess.PIPE, timeout=60, check=False)
    assert done.returncode == 2


MEMORY_LIMIT_BYTES = 192 << 20


def limit_memory():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT_BYTES, MEMORY_LIMIT_BYTES))


def sanitized():
    """Whether the program carries a sanitizer, which reserves far more address space than it uses."""
    with open(program("tessel-judge"), "rb") as binary:
        return b"__asan_init" in binary.read()


def test_million_lines_are_judged_quickly_in_little_memory(tmp_path):
    """Measures and prints what a run takes; only far too much of it fails, since the machine may be busy."""
    truth, output = tmp_path / "truth.jsonl", tmp_path / "output.jsonl"
    part = truth_text(1, 14_000).splitlines()
    bodies = [line.split(",", 1)[1] for line in part]
    with open(truth, "w", encoding="ascii") as file, open(output, "w", encoding="ascii") as other_file:
        seq = 0
        while seq < 1_000_000:
            count = min(len(bodies), 1_000_000 - seq)
            file.write("".join(f'{{"seq":{seq + i},{bodies[i]}\n' for i in range(count)))
            other_file.write("".join(f'{{"seq": {seq + i}, {bodies[i].replace(",", ", ")}\n'
                                     for i in range(count) if (seq + i) % 1000))
            seq += count
    start = time.monotonic()
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
    done = run_judge(truth, output, preexec_fn=None if sanitized() else limit_memory)
    seconds = time.monotonic() - start
    processor = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before
    print(f"a million truth lines: {seconds:.2f} s, {processor:.2f} s of one core")
    assert done.returncode == 1, done.stdout + done.stderr
    rows = totals_of(done)
    assert (rows["truth lines"], rows["matched"], rows["missing"]) == (1_000_000, 999_000, 1000)
    assert seconds < 30
