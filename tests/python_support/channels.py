"""Plans several channels for a test, on a group and ports that no other test takes."""

import json
import random
import subprocess

from feed import PORT_LAST, PortLease, program, unique_group

SECONDS = 200


def symbol_lines(count, seed=5):
    """COUNT lines SYMBOL:PRICE, in no order."""
    draw = random.Random(seed)
    names = set()
    while len(names) < count:
        names.add("".join(draw.choice("ABCDEFGHIJKLMNOPQRSTUVWXYZ") for _ in range(draw.randint(3, 4))))
    order = sorted(names)
    draw.shuffle(order)
    return "".join(f"{name}:{draw.randint(1000, 50000) / 100:.2f}\n" for name in order)


class PortRange:
    """`count` ports in a row that are free now; the lease of each keeps other tests away."""

    def __init__(self, count):
        for _ in range(200):
            base = random.Random().randint(20000, PORT_LAST - count)
            leases = []
            try:
                for number in range(base, base + count):
                    leases.append(PortLease(number))
            except OSError:
                for lease in leases:
                    lease.release()
                continue
            self.base, self.leases = base, leases
            return
        raise RuntimeError("no free ports found")


class Channels:
    """A plan below `folder` and what tesselctl does with it. Ends every feed on leaving."""

    def __init__(self, folder, channels, symbols, *args):
        self.folder = folder / "plan"
        self.ports = PortRange(4 * channels)
        self.symbol_file = folder / "symbols.txt"
        self.symbol_file.write_text(symbol_lines(symbols))
        group = unique_group().rsplit(".", 1)[0] + ".1"
        done = subprocess.run(
            [program("tesselctl"), "channels", "plan", "--symbols", self.symbol_file, "--channels",
             str(channels), "--group-base", group, "--port-base", str(self.ports.base), "--out", self.folder,
             *args], capture_output=True, text=True, timeout=SECONDS, check=False)
        assert done.returncode == 0, done.stderr
        self.list = json.loads((self.folder / "channels.json").read_text())["channels"]

    def ctl(self, command, *args):
        """tesselctl channels COMMAND for this plan."""
        options = ["--dir", self.folder]
        return subprocess.run([program("tesselctl"), "channels", command, *options, *args],
                              capture_output=True, text=True, timeout=SECONDS, check=False)

    def up(self, *feed_options):
        return self.ctl("up", *(["--", *feed_options] if feed_options else []))

    def pids(self):
        return {path.stem: int(path.read_text()) for path in (self.folder / "run").glob("*.pid")}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if (self.folder / "channels.json").exists():
            self.ctl("stop")
        for lease in self.ports.leases:
            lease.release()
