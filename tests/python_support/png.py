"""Reads and writes PNG pictures with the standard library alone: enough to ask which colors one has, and to
make one small."""

import collections
import struct
import zlib

SIGNATURE = b"\x89PNG\r\n\x1a\n"


def read_png(path):
    """The picture as (width, height, rows): each row is bytes of red, green, blue per point. Takes what
    browsers write: eight bits a channel, with or without alpha, not interlaced."""
    data = path.read_bytes()
    assert data[:8] == SIGNATURE, f"{path} is no PNG"
    place, packed = 8, b""
    while place < len(data):
        length, kind = struct.unpack(">I4s", data[place:place + 8])
        body = data[place + 8:place + 8 + length]
        place += 12 + length
        if kind == b"IHDR":
            width, height, depth, color, _, _, interlace = struct.unpack(">IIBBBBB", body)
            assert depth == 8 and color in (2, 6) and interlace == 0, (depth, color, interlace)
            channels = 3 if color == 2 else 4
        elif kind == b"IDAT":
            packed += body
    raw = zlib.decompress(packed)
    stride = width * channels
    rows, above = [], bytes(stride)
    for index in range(height):
        start = index * (stride + 1)
        above = _unfiltered(raw[start], raw[start + 1:start + 1 + stride], above, channels)
        if channels == 3:
            rows.append(bytes(above))
        else:
            row = bytearray(width * 3)
            for channel in range(3):
                row[channel::3] = above[channel::4]
            rows.append(bytes(row))
    return width, height, rows


def _unfiltered(kind, line, above, channels):
    """Undoes one row's filter; `above` is the row before it, already undone."""
    row = bytearray(line)
    if kind == 0:
        return row
    if kind == 2:
        return bytearray((here + up) & 255 for here, up in zip(row, above))
    for place in range(len(row)):
        left = row[place - channels] if place >= channels else 0
        up = above[place]
        if kind == 1:
            guess = left
        elif kind == 3:
            guess = (left + up) >> 1
        else:
            corner = above[place - channels] if place >= channels else 0
            estimate = left + up - corner
            far_left, far_up, far_corner = abs(estimate - left), abs(estimate - up), abs(estimate - corner)
            if far_left <= far_up and far_left <= far_corner:
                guess = left
            else:
                guess = up if far_up <= far_corner else corner
        row[place] = (row[place] + guess) & 255
    return row


def count_color(picture, color):
    """How many points have exactly this color, given as "#rrggbb"."""
    wanted = bytes.fromhex(color.lstrip("#"))
    count = 0
    for row in picture[2]:
        place = row.find(wanted)
        while place >= 0:
            if place % 3 == 0:
                count += 1
                place = row.find(wanted, place + 3)
            else:
                place = row.find(wanted, place + 1)
    return count


def write_small_png(path, picture):
    """Writes a picture with its 256 most frequent colors, each of the others replaced by the nearest of them:
    a third of the size of what a browser writes."""
    width, height, rows = picture
    counts = collections.Counter(row[place:place + 3] for row in rows for place in range(0, len(row), 3))
    palette = [color for color, _ in counts.most_common(256)]
    index = {color: place for place, color in enumerate(palette)}
    for color in counts:
        if color not in index:
            index[color] = min(range(len(palette)), key=lambda place, it=color: sum(
                (one - other) ** 2 for one, other in zip(palette[place], it)))
    body = b"".join(b"\0" + bytes(index[row[place:place + 3]] for place in range(0, len(row), 3))
                    for row in rows)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    path.write_bytes(SIGNATURE + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 3, 0, 0, 0))
                     + chunk(b"PLTE", b"".join(palette)) + chunk(b"IDAT", zlib.compress(body, 9))
                     + chunk(b"IEND", b""))
