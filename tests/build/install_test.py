"""The package in an empty Debian 12: installed, used as a user would, run as a service by systemd, purged."""

import os
import shutil
import signal
import subprocess

import pytest

from booted import in_root
from package import USER_PACKAGES, copied_packages, run, unpacked_root

PURGE_LEAVES = "etc usr lib bin sbin var opt srv"


def why_not():
    if os.geteuid() != 0:
        return "namespaces with a system of their own need root"
    if shutil.which("mmdebstrap") is None:
        return "mmdebstrap is not installed"
    tried = subprocess.run(["unshare", "--pid", "--fork", "--mount", "--net", "--cgroup", "mount", "-t",
                            "tmpfs", "tmpfs", "/mnt"], capture_output=True, check=False)
    return "" if tried.returncode == 0 else "namespaces and mounts are forbidden here"


pytestmark = pytest.mark.skipif(bool(why_not()), reason=f"skipped: {why_not()}")


@pytest.fixture(name="root", scope="module")
def root_fixture(tmp_path_factory):
    yield from unpacked_root(tmp_path_factory, "user", USER_PACKAGES)


@pytest.fixture(name="files")
def files_fixture(tmp_path):
    return copied_packages(tmp_path / "files")


def run_in(root, tmp_path, files, script, boot=False):
    (files / "run").write_text(script)
    done = in_root(root, tmp_path / "overlay", files, boot)
    written = files / "output"
    output = written.read_text() if written.exists() else done.stdout
    # A namespace whose first process has powered off ends as if by SIGINT.
    assert done.returncode in ((0, -signal.SIGINT) if boot else (0,)), (output[-4000:], done.stderr[-4000:])
    return output


USE = r"""
listing() {
    find /etc /usr /var/lib /opt -not -path '*/dpkg/*' -not -path '*/__pycache__*' \
    \( -type d -printf '%p/\n' -o -printf '%p\n' \) | sort
}
listing >/tmp/before
dpkg -i /test/tessel.deb /test/libtessel-dev.deb /test/python3-tessel.deb >/tmp/dpkg.log 2>&1 ||
    { cat /tmp/dpkg.log; exit 1; }

for program in $(dpkg -L tessel | sed -n 's|^/usr/bin/||p'); do
    [ "$program" = tessel ] && continue
    "$program" --version | grep -q "^$program [0-9.]* (.*)$" && "$program" --help | grep -q Usage &&
        echo "ran $program"
done
tessel --nonsense 2>&1 | grep -q 'unknown flag --nonsense' && echo "ran tessel"

for page in $(dpkg -L tessel | sed -n 's|^/usr/share/man/man\([0-9]\)/\(.*\)\.[0-9]\.gz$|\1:\2|p'); do
    man --warnings "${page%%:*}" "${page#*:}" >/tmp/page 2>/tmp/warnings
    [ -s /tmp/page ] && ! [ -s /tmp/warnings ] && echo "read ${page#*:}"
done

# A new interactive shell that nobody has prepared completes by itself.
bash -c '. /usr/share/bash-completion/bash_completion
         COMP_WORDS=(tesselctl ha); COMP_CWORD=1; COMP_LINE="tesselctl ha"
         _completion_loader tesselctl; _tesselctl tesselctl ha tesselctl; echo "bash: ${COMPREPLY[*]}"'
zsh -f -c 'autoload -Uz compinit && compinit -u -d /tmp/zcompdump
           for each in tessel tesselctl tessel-listen; do
           echo "zsh: $each ${_comps[$each]}"; done; autoload +X _tesselctl && echo "zsh: loaded"'
tshark -G plugins 2>/dev/null | grep '^tessel.lua' | cut -f 1 | sed 's/^/plugin /'
tesselctl run --dry-run --config /etc/tessel/example.toml >/dev/null && echo "example is right"
python3 -B -c 'import tessel; print("python", tessel.__version__)'

mkdir -p /var/lib/private/tessel/example && echo kept >/var/lib/private/tessel/example/truth.jsonl
dpkg -P python3-tessel libtessel-dev tessel >/tmp/purge.log 2>&1 || { cat /tmp/purge.log; exit 1; }
grep -i warning /tmp/purge.log || true
listing >/tmp/after
diff /tmp/before /tmp/after | sed -n 's/^> /left /p; s/^< /lost /p' | grep -v '/var/lib/private/$' || true
"""


def test_installed_used_and_purged(root, files, tmp_path):
    lines = run_in(root, tmp_path, files, USE).splitlines()
    names = run("dpkg", "-c", files / "tessel.deb").split()
    programs = {name.removeprefix("./usr/bin/") for name in names if name.startswith("./usr/bin/t")}
    pages = programs | {"tessel.toml", "tessel-files"}
    assert {line[4:] for line in lines if line.startswith("ran ")} == programs
    assert {line[5:] for line in lines if line.startswith("read ")} == pages
    assert "bash: halt" in lines, lines
    assert [line for line in lines if line.startswith("zsh: ")] == [
        "zsh: tessel _tessel", "zsh: tesselctl _tesselctl", "zsh: tessel-listen _tessel-listen",
        "zsh: loaded"]
    assert "plugin tessel.lua" in lines and "example is right" in lines
    assert any(line.startswith("python ") for line in lines)
    assert [line for line in lines if line.startswith(("left", "lost", "dpkg"))] == []


SERVICE = r"""
# wait_for COMMAND...: until it succeeds, for a minute.
wait_for() {
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        if [ $tries -ge 600 ]; then
            echo "timed out waiting for: $*"; systemctl status 'tessel@*'; journalctl; exit 1
        fi
        sleep 0.1
    done
}
restarted() { [ "$(systemctl show -p NRestarts --value tessel@two)" = 1 ] && systemctl is-active tessel@two; }
dpkg -i /test/tessel.deb
for name in one two; do
    base=25100; [ $name = two ] && base=25200
    cat >/etc/tessel/$name.toml <<TOML
[feed]
mcast = "239.255.25.$((base / 100))"
port = $base
retrans_port = $((base + 1))
snapshot_port = $((base + 2))
control_port = $((base + 3))
interval_ms = 20
truth_out = "truth.jsonl"
[faults]
drop_every = 20
TOML
done
echo 'broken = 1' >/etc/tessel/broken.toml
systemctl daemon-reload
systemctl start tessel@one tessel@two
systemctl start tessel@broken || true
# A service is started before the feed has opened its ports.
for base in 25100 25200; do
    wait_for tesselctl --control 127.0.0.1:$((base + 3)) stats
    tessel-listen --mcast 239.255.25.$((base / 100)) --port $base --retrans 127.0.0.1:$((base + 1)) \
        --seconds 3 --out /tmp/$base.jsonl
done
ps -o user= -C tessel | sort -u | sed 's/^/user /'
pid=$(systemctl show -p MainPID --value tessel@two)
kill -KILL "$pid"
wait_for restarted
systemctl stop tessel@one
systemctl show -p Result -p ExecMainStatus -p NRestarts tessel@one
wait_for systemctl is-failed tessel@broken
echo "broken: $(systemctl show -p NRestarts --value tessel@broken) restarts, status" \
    "$(systemctl show -p ExecMainStatus --value tessel@broken)"
tessel-judge --early /var/lib/tessel/one/truth.jsonl /tmp/25100.jsonl | sed -n '1s/^/one /p'
tessel-judge --early --run 1 /var/lib/tessel/two/truth.jsonl /tmp/25200.jsonl | sed -n '1s/^/two /p'
# A purge leaves what the administrator has written.
rm /etc/tessel/one.toml /etc/tessel/two.toml /etc/tessel/broken.toml
dpkg -P tessel
pgrep -x tessel || echo "no feed is left"
ls /var/lib/private /etc | grep tessel || echo "nothing is left"
"""


def test_two_services_are_received_judged_and_stopped(root, files, tmp_path):
    lines = run_in(root, tmp_path, files, SERVICE, boot=True).splitlines()
    text = "\n".join(lines[-40:])
    assert "ended: success" in lines, text
    assert ["one AGREES", "two AGREES"] == [line.split(":")[0] for line in lines if " AGREES" in line], text
    users = [line for line in lines if line.startswith("user ")]
    assert users and "user root" not in users, text
    assert {"Result=success", "ExecMainStatus=0", "NRestarts=0"} <= set(lines), text
    assert "broken: 0 restarts, status 2" in lines, text
    assert "no feed is left" in lines and "nothing is left" in lines, text


@pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="systemd-analyze is not installed")
def test_the_service_is_hardened():
    from package import SOURCE
    unit = SOURCE / "packaging" / "tessel@.service"
    done = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=25", str(unit)],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout[-300:]
