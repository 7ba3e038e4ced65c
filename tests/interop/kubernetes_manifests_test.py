"""The Kubernetes manifests of a plan, held against the published schemas. They are validated only: no cluster
runs them here."""

import json
import re
import subprocess

import pytest
import yaml

from channels import symbol_lines
from feed import program
from npm import NPM, install_packages
from time_scale import scaled

MODULES = NPM / "node_modules"


@pytest.fixture(name="plan", scope="module")
def plan_fixture(tmp_path_factory):
    install_packages()
    folder = tmp_path_factory.mktemp("kubernetes")
    (folder / "symbols.txt").write_text(symbol_lines(60))
    subprocess.run([program("tesselctl"), "channels", "plan", "--symbols", folder / "symbols.txt",
                    "--channels", "5", "--iface", "10.1.2.3", "--out", folder / "plan"],
                   check=True, capture_output=True, timeout=scaled(60))
    return folder / "plan"


def objects(plan, name):
    return list(yaml.safe_load_all((plan / "kubernetes" / name).read_text()))


def validated(found):
    done = subprocess.run(["node", "kubernetes.mjs"], input=json.dumps(found), cwd=NPM, capture_output=True,
                          text=True, timeout=scaled(60), check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


def fields(declaration, interface):
    """{field: its interface's path, or None} of an interface in a type declaration."""
    text = declaration.read_text()
    imports = {}
    for names, source in re.findall(r'import \{ ([^}]*) \} from "([^"]+)"', text):
        path = declaration.parent / source.replace(".js", ".d.ts") if source.startswith(".") \
            else MODULES / f"{source}.d.ts"
        imports |= {name: path for name in names.split(", ")}
    body = re.search(rf"export interface {interface}\b.*?\{{\n(.*?)^\}}", text, re.S | re.M).group(1)
    found = {}
    for name, kind in re.findall(r'^    "(\w+)"\??: ([^\n]+)$', body, re.M):
        used = re.findall(r"\bIIo\w+", kind)
        found[name] = imports.get(used[0]) if used and "[key" not in kind else None
    return found


def unknown_fields(value, declaration, where):
    """The members that the type does not have: the schemas allow any."""
    if isinstance(value, list):
        return [each for item in value for each in unknown_fields(item, declaration, where)]
    if not isinstance(value, dict) or declaration is None:
        return []
    known = fields(declaration, "I" + declaration.name.removesuffix(".d.ts"))
    found = []
    for name, inner in value.items():
        if name not in known:
            found.append(f"{where}.{name}")
        else:
            found += unknown_fields(inner, known[name], f"{where}.{name}")
    return found


def all_unknown_fields(found):
    types = MODULES / "kubernetes-models/v1"
    return [field for each in found
            for field in unknown_fields(each, types / f"{each['kind']}.d.ts", each["kind"])]


@pytest.mark.parametrize("name", ["pods.yaml", "host-network.yaml"])
def test_manifests_are_valid_and_have_known_fields_only(plan, name):
    found = objects(plan, name)
    assert validated(found) == [f"{kind} tessel-ch0{number} ok" for number in range(1, 6)
                                for kind in ("ConfigMap", "Pod")]
    assert all_unknown_fields(found) == []


def test_planted_faults_are_found(plan):
    pod = objects(plan, "pods.yaml")[1]
    pod["spec"]["containers"][0]["ports"][0]["containerPort"] = "many"
    pod["spec"]["containers"][1]["volumeMount"] = []
    pod["spec"]["securityContext"]["runAsNobody"] = True
    assert validated([pod]) == [
        "Pod tessel-ch01: data/spec/containers/0/ports/0/containerPort must be integer"]
    assert all_unknown_fields([pod]) == ["Pod.spec.securityContext.runAsNobody",
                                         "Pod.spec.containers.volumeMount"]


def test_pods_hold_what_the_plan_says(plan):
    channels = json.loads((plan / "channels.json").read_text())["channels"]
    for name, host in (("pods.yaml", False), ("host-network.yaml", True)):
        found = objects(plan, name)
        for channel, config, pod in zip(channels, found[::2], found[1::2]):
            assert config["data"][channel["config"]] == (plan / channel["config"]).read_text()
            assert pod["spec"].get("hostNetwork", False) is host
            feed, *handlers = pod["spec"]["containers"]
            assert channel["control"] in feed["readinessProbe"]["exec"]["command"]
            assert feed["command"][-1] == ("$(NODE_ADDRESS)" if host else "127.0.0.1")
            assert len(handlers) == (0 if host else 1)
            if handlers:
                words = handlers[0]["command"]
                assert words[words.index("--mcast") + 1] == channel["group"]
                assert words[words.index("--port") + 1] == str(channel["port"])
                assert words[words.index("--retrans") + 1].split(":")[1] == channel["retrans"].split(":")[1]
