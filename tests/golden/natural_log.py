#!/usr/bin/env python3
"""Writes natural_log.txt: logarithms to 60 digits, by Python's decimal, which computes ln correctly rounded.

A line is a double x, the double nearest to its logarithm, and the rest of it as a double, all in hexadecimal.
"""

import decimal
import random
import struct
from pathlib import Path

POINTS = 1500


def points():
    """Doubles of every magnitude, most of them in (0, 1], and the places where a reduction changes."""
    draw = random.Random(7)
    edges = [2.0**-0.5, 2.0**0.5, 1.0, 0.5, 2.0, 0.25, 0.75, 1.5, 2.0**-1022, float.fromhex("0x1.fffffffffffffp1023")]
    for edge in edges:
        bits = struct.unpack("<q", struct.pack("<d", edge))[0]
        for step in (-2, -1, 0, 1, 2):
            x = struct.unpack("<d", struct.pack("<q", bits + step))[0]
            if 2.0**-1022 <= x < float("inf"):
                yield x
    for at in range(POINTS):
        kind = at % 3
        if kind == 0:
            yield 1.0 - draw.random()
        elif kind == 1:
            yield 1.0 + draw.choice((-1, 1)) * 2.0**draw.uniform(-52, -2)
        else:
            yield 2.0**draw.uniform(-1022, 1023)


def main():
    decimal.getcontext().prec = 60
    lines = []
    for x in points():
        exact = decimal.Decimal(x).ln()
        nearest = float(exact)
        rest = float(exact - decimal.Decimal(nearest))
        lines.append(f"{x.hex()} {nearest.hex()} {rest.hex()}\n")
    Path(__file__).with_suffix(".txt").write_text("".join(lines))


if __name__ == "__main__":
    main()
