"""docs/messages.md: each sample is what its table says, and what tessel-listen decodes it to."""

import json
import re
import struct
from pathlib import Path

import pytest
from capture import listen_to_capture, mold_packet, udp_frame, write_pcap

PAGE = (Path(__file__).resolve().parents[2] / "docs" / "messages.md").read_text()
SECTION = re.compile(r"\(category (\w), type (\w), `(\w+)`\)\n(.*?)"
                     r"```hex\n(\w+)\n```.*?```json\n(.*?)\n```", re.S)
LENGTH = re.compile(r"\*\*Length:\*\* (\d+)")
CELLS = re.compile(r"^\| (\d+) \| (\d+) \| `(\w+)`", re.M)
ROW = re.compile(r"^\| (\d+) \| (\d+) \| `([\w.]+)` \| ([^|]+) \|.*\| (`\".*\"`|-?\d+) \|$", re.M)
SECTIONS = SECTION.findall(PAGE)
HEADER_BYTES = 29
SIGNED = "price, millionths"
TEXTS = ("letter", "text", "conditions")


def member(decoded, name):
    """The member "consolidated.high" of a decoded message."""
    for part in name.split("."):
        decoded = decoded[part]
    return decoded


def test_the_overview_lists_the_messages_that_are_described():
    listed = re.findall(r"^\| (\w) \w+ \| (\w) \| \[(\w+)\]\(#\w+\) \| (\d+)", PAGE, re.M)
    described = [(*section[:3], LENGTH.search(section[3]).group(1)) for section in SECTIONS]
    assert listed == described
    assert len(listed) == 22


@pytest.mark.parametrize("section", SECTIONS, ids=[section[2] for section in SECTIONS])
def test_a_table_covers_its_sample_and_says_what_is_in_it(section):
    category, letter, kind, table, sample, decoded = section
    data, decoded = bytes.fromhex(sample), json.loads(decoded)
    assert (decoded["kind"], data[1:3].decode()) == (kind, category + letter)
    end = HEADER_BYTES
    for offset, width, name, field_type, value in ROW.findall(table):
        offset, width = int(offset), int(width)
        assert offset == end, f"{name} leaves a gap"
        end = offset + width
        field = data[offset:end]
        if field_type in TEXTS:
            text = json.loads(value.strip("`"))
            assert field.decode() == text
            assert member(decoded, name) == (text.rstrip(" ") if field_type == "text" else text)
            continue
        number = int.from_bytes(field, "big", signed=field_type == SIGNED)
        assert number == int(value), name
        key = name + "_ns" if field_type == "time, ns" else name
        assert member(decoded, key) == (number * 10_000 if field_type == "price, cents" else number), name
    assert end == int(LENGTH.search(table).group(1))
    assert end == len(data) or (end < len(data) and "#appendages" in table)


def test_the_listener_decodes_every_sample_as_the_page_shows_it(tmp_path):
    path = write_pcap(tmp_path / "samples.pcap",
                      [udp_frame(mold_packet(1 + number, [bytes.fromhex(section[4])]), 25177)
                       for number, section in enumerate(SECTIONS)])
    lines = [json.loads(line) for line in listen_to_capture(path, "--decode")]
    assert [line.pop("seq") for line in lines] == list(range(1, len(SECTIONS) + 1))
    assert lines == [json.loads(section[5]) for section in SECTIONS]


def test_appendage_tables_have_the_lengths_that_they_say():
    found = re.findall(r"### [\w -]+: `\w+` is \"\d\"\n\n(\d+) bytes.*?\n\n(\| offset.*?)\n\n", PAGE, re.S)
    assert len(found) == 9
    for length, rows in found:
        end = 0
        for offset, width, name in CELLS.findall(rows):
            assert int(offset) == end, name
            end += int(width)
        assert end == int(length)


def test_packet_tables_agree_with_packets_made_by_hand():
    tables = re.split(r"^## ", PAGE, flags=re.M)
    mold = next(text for text in tables if text.startswith("Packets: MoldUDP64"))
    packet = mold_packet(7, [b"abc"])
    places = {name: packet[int(offset):int(offset) + int(width)]
              for offset, width, name in CELLS.findall(mold)[:3]}
    assert places == {"session": b"UTPBENCH01", "packet_sequence": struct.pack(">Q", 7),
                      "packet_count": b"\0\1"}
    soup = next(text for text in tables if text.startswith("Packets: SoupBinTCP"))
    ends = [int(offset) + int(width) for offset, width, _ in CELLS.findall(soup)]
    assert max(ends) == 2 + 1 + 6 + 10 + 10 + 20


def test_every_code_that_a_table_links_to_is_listed():
    linked = set(re.findall(r"\(#([\w-]+)\)", PAGE))
    assert linked - {"header"} <= set(re.findall(r"<a id=\"([\w-]+)\">", PAGE))
