"""The metrics of tessel-console, read by the tools that will read them, and the forms of its JSON."""

import json
import os
import signal
import subprocess
import urllib.parse
import urllib.request
from pathlib import Path

import jsonschema
import pytest
from console import Console
from feed import Feed, Process, free_port, wait_until
from time_scale import scaled

ROOT = Path(os.environ["TESSEL_SOURCE"])
RULES = ROOT / "packaging" / "prometheus"
SCENARIO = "halt_after=1,halt_secs=1,cancel_every=3,correct_every=4,asof_every=5,trf_every=2,band_every=1"


@pytest.fixture(scope="module", name="feed")
def _feed(tmp_path_factory):
    with Feed(tmp_path_factory.mktemp("feed"), truth=False, scenario=SCENARIO) as feed:
        yield feed


@pytest.fixture(scope="module", name="folder")
def _folder(tmp_path_factory):
    return tmp_path_factory.mktemp("textfile")


@pytest.fixture(scope="module", name="console")
def _console(feed, folder):
    with Console(feed, "--metrics-open", "--textfile", str(folder)) as console:
        console.wait_for(lambda state: state["feed"]["up"] and state["control"]["up"] and state["latency"])
        yield console


def promtool(*words, text=None):
    return subprocess.run(["promtool", *map(str, words)], input=text, capture_output=True, text=True,
                          timeout=200, check=False)


def test_promtool_has_nothing_to_say_about_the_metrics(console):
    status, text = console.get("/metrics", token=False)
    assert status == 200
    result = promtool("check", "metrics", text=text)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    broken = promtool("check", "metrics", text=text.replace("tessel_quotes_total", "tessel_quotes"))
    assert broken.returncode != 0


def test_every_counter_of_the_feed_is_a_metric_and_the_same(console, feed):
    stats = {}

    def all_the_same():
        # Between two of the questions the counters may move, though little moves while the market is paused.
        stats.update(feed.stats())
        counters, metrics = console.state()["counters"], console.metrics()
        return all(metrics[f"tessel_{name}_total"] == value == stats[name]
                   for name, value in counters.items())
    feed.control("pause")
    try:
        wait_until(all_the_same, what="the same counters everywhere")
    finally:
        feed.control("resume")
    metrics = console.metrics()
    for name in ("sent", "dropped", "duplicated", "reordered"):
        assert metrics[f"tessel_packets_{name}_total"] >= 0
    assert metrics["tessel_up"] == 1 and metrics["tessel_control_up"] == 1
    assert [name for name in metrics if name.startswith('tessel_build_info{version="')]
    for stage in ("sip_to_kernel", "kernel_to_taken", "sip_to_taken"):
        count = metrics[f'tessel_latency_seconds_count{{stage="{stage}"}}']
        assert count == metrics[f'tessel_latency_seconds_bucket{{stage="{stage}",le="+Inf"}}'] > 0


def test_monitoring_server_scrapes_and_answers(console, tmp_path):
    port = free_port()
    (tmp_path / "prometheus.yml").write_text(
        f"global: {{scrape_interval: 1s, evaluation_interval: 1s}}\n"
        f"rule_files: [{RULES / 'tessel-alerts.yml'}]\n"
        f"scrape_configs:\n"
        f"  - job_name: tessel\n"
        f"    static_configs: [{{targets: ['127.0.0.1:{console.port}']}}]\n")
    with Process(["prometheus", f"--config.file={tmp_path}/prometheus.yml",
                  f"--storage.tsdb.path={tmp_path}/data",
                  f"--web.listen-address=127.0.0.1:{port}"]) as server:
        def query(text):
            url = f"http://127.0.0.1:{port}/api/v1/query?" + urllib.parse.urlencode({"query": text})
            try:
                with urllib.request.urlopen(url, timeout=scaled(20)) as response:
                    return json.load(response)["data"]["result"]
            except OSError:
                assert server.running(), server.stderr[-5:]
                return []
        result = wait_until(lambda: query("tessel_up == 1"), 120, "the first scrape")
        assert result[0]["metric"]["job"] == "tessel"
        wait_until(lambda: query("rate(tessel_receiver_messages_total[1m]) > 0"), 120, "a rate")
        median = 'histogram_quantile(0.5, tessel_latency_seconds_bucket{stage="sip_to_kernel"}) > 0'
        wait_until(lambda: query(median), 120, "a percentile")
        assert query('up{job="tessel"} == 1')
        assert server.stop(signal.SIGTERM) == 0


def test_alert_rules_fire_when_they_should_and_not_else():
    assert promtool("check", "rules", RULES / "tessel-alerts.yml").returncode == 0
    result = promtool("test", "rules", RULES / "tessel-alerts.test.yml")
    assert result.returncode == 0, result.stdout + result.stderr


def test_textfile_is_replaced_whole_and_says_down_at_the_end(feed, tmp_path):
    path = tmp_path / "tessel.prom"
    with Console(feed, "--textfile", str(tmp_path)) as console:
        assert path.exists()
        first = path.stat().st_ino
        wait_until(lambda: "\ntessel_up 1\n" in "\n" + path.read_text(), what="the feed in the file")
        assert path.stat().st_ino != first
        assert promtool("check", "metrics", text=path.read_text()).returncode == 0
        assert console.stop() == 0
    assert "\ntessel_up 0\n" in "\n" + path.read_text()
    assert [each.name for each in tmp_path.iterdir()] == ["tessel.prom"]


def test_textfile_that_cannot_be_written_is_status_1(feed, tmp_path):
    result = subprocess.run([*Console(feed, "--textfile", str(tmp_path / "none")).words], capture_output=True,
                            text=True, timeout=200, check=False)
    assert result.returncode == 1 and result.stdout == ""
    assert result.stderr == (f"tessel-console: --textfile: '{tmp_path}/none/tessel.prom.tmp': "
                             "No such file or directory\n")


def schema(name):
    document = json.loads((ROOT / "tools" / "console" / "schema" / name).read_text())
    jsonschema.Draft7Validator.check_schema(document)
    return jsonschema.Draft7Validator(document)


def test_json_has_the_form_that_its_schema_says(console):
    state, instrument, market = schema("state.json"), schema("instrument.json"), schema("market.json")
    kinds = set()

    def has_all_trades():
        document = console.instrument("AAPL")
        instrument.validate(document)
        return {trade["state"] for trade in document["trades"]} >= {"live", "corrected"} and document["halts"]
    wait_until(has_all_trades, 120, "a corrected trade and a halt")
    with console.stream("?symbol=AAPL&backlog=200") as stream:
        assert console.command("halt MSFT")[1]["ok"]
        assert console.command("resume MSFT")[1]["ok"]
        for _ in range(400):
            name, data = stream.next_event()
            {"state": state, "instrument": instrument, "market": market}[name].validate(data)
            kinds.add(data["kind"] if name == "market" else name)
            if kinds >= {"state", "instrument", "halt", "resume", "band", "cancel", "correction"}:
                break
        else:
            raise AssertionError(f"only {kinds}")
    state.validate(console.state("?limit=0"))


def test_schema_finds_what_is_wrong(console):
    document = console.state()
    for break_it in (lambda d: d.pop("total"), lambda d: d["feed"].update(up=1),
                     lambda d: d["instruments"][0].update(band=[1]), lambda d: d["counters"].pop("quotes")):
        broken = json.loads(json.dumps(document))
        break_it(broken)
        assert not schema("state.json").is_valid(broken)
