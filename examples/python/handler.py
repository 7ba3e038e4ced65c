#!/usr/bin/env python3
"""A complete handler of the feed in one file, with nothing but the standard library: handler.py --out FILE

Joins the multicast group, recovers what is lost from the retransmission service, joins late by the Snap-Shot
service, builds the market, and writes one JSON line per quote, trading action, band, trade and revision, with
the members of the truth log. To be read from top to bottom; docs/python-handler.md walks through it.

    handler.py --out lines.jsonl                 # start it before the feed
    handler.py --late --out lines.jsonl          # join a running feed by the Snap-Shot service
    handler.py --group 239.1.1.1 --port 5000 --retrans 127.0.0.1:5001 --out -

SIGINT or SIGTERM ends it. Exit status: 0 nothing is missing, 1 something is, 2 a bad command line.
"""

import argparse
import select
import signal
import socket
import struct
import sys
import time

# ---------------------------------------------------------------- messages: bytes to fields

# Every message begins with version, category, type, market center and sub-market center, a byte each, then
# the SIP time, the participant's time and its token, 8 bytes each.
HEADER_BYTES = 29
CENT = 10_000  # prices are held in millionths of a dollar
SHARE = 1_000_000  # sizes of trades come in millionths of a share


def text(data):
    """An alpha field: letters, padded with blanks on the right."""
    return data.decode("latin-1").rstrip(" ")


def short_sides(data, at):
    """Bid price, bid size, ask price, ask size of a short form: prices are whole cents."""
    bid, bid_size, ask, ask_size = struct.unpack_from("!HHHH", data, at)
    return bid * CENT, bid_size, ask * CENT, ask_size


def long_sides(data, at):
    """The same of a long form: prices are signed millionths of a dollar."""
    return struct.unpack_from("!qIqI", data, at)


def read_nbbo(data, at, indicator):
    """The NBBO appendage: (bid, size, center, ask, size, center) and its length."""
    if indicator == "2":
        _, center, bid, size, ask_center, ask, ask_size = struct.unpack_from("!ccHHcHH", data, at)
        return (bid * CENT, size, center, ask * CENT, ask_size, ask_center), 11
    if indicator == "3":
        _, center, bid, size, ask_center, ask, ask_size = struct.unpack_from("!ccqIcqI", data, at)
        return (bid, size, center, ask, ask_size, ask_center), 27
    return None, 0


def decode_quote(data, kind):
    """A quote message. Odd-lot orders are not in any line of the truth log, so they are left undecoded."""
    if kind == "C":
        sides, symbol, fixed = short_sides(data, 34), text(data[29:34]), 42
        indicator_at, appendages = fixed + 4, 52
    else:
        sides, symbol, fixed = long_sides(data, 48), text(data[37:48]), 72
        indicator_at, appendages = fixed + 4, 83
    indicator = chr(data[indicator_at])
    nbbo, _ = read_nbbo(data, appendages, indicator)
    return {"symbol": symbol, "sides": sides, "nbbo_indicator": indicator, "nbbo": nbbo}


def decode_trade(data, kind):
    if kind == "M":
        identity, price, size = struct.unpack_from("!QHQ", data, 42)
        return {"symbol": text(data[37:42]), "id": identity, "price": price * CENT, "size": size // SHARE,
                "conditions": data[60:64].decode("latin-1")}
    identity, price, size = struct.unpack_from("!QqQ", data, 48)
    return {"symbol": text(data[37:48]), "id": identity, "price": price, "size": size // SHARE,
            "conditions": data[72:76].decode("latin-1")}


def decode_cancel(data):
    identity, price, size = struct.unpack_from("!QqQ", data, 49)
    return {"symbol": text(data[37:48]), "function": chr(data[48]), "id": identity, "price": price,
            "size": size // SHARE}


def decode_correction(data):
    old, = struct.unpack_from("!Q", data, 48)
    new, price, size = struct.unpack_from("!QqQ", data, 79)
    return {"symbol": text(data[37:48]), "old": old, "new": new, "price": price, "size": size // SHARE}


def decode_as_of(data):
    price, size = struct.unpack_from("!qQ", data, 56)
    return {"symbol": text(data[37:48]), "price": price, "size": size // SHARE,
            "conditions": data[72:76].decode("latin-1")}


# ---------------------------------------------------------------- the market: messages to state

EMPTY_NBBO = (0, 0, b" ", 0, 0, b" ")
BANDS_IN_FORCE = "ABCEG"
LEVELS_MAX = 10


class Instrument:
    def __init__(self):
        self.secid = 0  # position in the directory, from 1; 0 when it has no entry
        self.status = "T"
        self.band = (" ", 0, 0)  # indicator, lower, upper
        self.nbbo = EMPTY_NBBO
        self.quotes = {}  # market center -> (bid, bid size, ask, ask size)


class Market:
    def __init__(self):
        self.instruments = {}
        self.entries = 0  # of the directory

    def instrument(self, symbol):
        if symbol not in self.instruments:
            self.instruments[symbol] = Instrument()
        return self.instruments[symbol]


def apply_quote(market, quote, center):
    """A quote replaces the whole quote of its market center, and says what became of the NBBO."""
    instrument = market.instrument(quote["symbol"])
    instrument.quotes[center] = quote["sides"]
    indicator = quote["nbbo_indicator"]
    if indicator == "1":
        instrument.nbbo = EMPTY_NBBO
    elif indicator in "23":
        instrument.nbbo = quote["nbbo"]
    elif indicator == "4":  # the quote is the whole NBBO, and there is no appendage
        bid, bid_size, ask, ask_size = quote["sides"]
        instrument.nbbo = (bid, bid_size, center, ask, ask_size, center)
    return instrument


def levels_of(instrument, price_at):
    """One side's quotes added up by price, best first: price_at 0 is the bid, 2 the ask."""
    levels = {}
    for quote in instrument.quotes.values():
        price, size = quote[price_at], quote[price_at + 1]
        if price > 0 and size > 0:
            levels[price] = levels.get(price, 0) + size
    return sorted(levels.items(), reverse=price_at == 0)[:LEVELS_MAX]


def dollars(millionths):
    sign = "-" if millionths < 0 else ""
    whole, rest = divmod(abs(millionths), 1_000_000)
    return f"{sign}{whole}.{rest // 100:04d}"


def start_of_line(sequence, market, symbol):
    secid = market.instrument(symbol).secid
    known = f',"secid":{secid}' if secid else ""
    return f'{{"seq":{sequence}{known},"symbol":"{symbol}"'


def book_line(sequence, market, symbol, extra=""):
    """The line of quotes, trading actions and bands: the book after the message."""
    instrument = market.instrument(symbol)
    bids, asks = (",".join(f"[{dollars(price)},{size}]" for price, size in levels_of(instrument, at))
                  for at in (0, 2))
    bid, bid_size, _, ask, ask_size, _ = instrument.nbbo
    indicator, lower, upper = instrument.band
    band = ""
    if indicator in BANDS_IN_FORCE and lower > 0 and upper > 0:
        band = f',"band":[{dollars(lower)},{dollars(upper)}]'
    return (f'{start_of_line(sequence, market, symbol)},"bid":[{bids}],"ask":[{asks}],'
            f'"nbbo":[{dollars(bid)},{bid_size},{dollars(ask)},{ask_size}]{band},'
            f'"status":"{instrument.status}"{extra}}}')


def trade_kind(center, conditions):
    """2 crosses and the official close, 1 prints of a trade reporting facility, 0 exchange prints."""
    if conditions[1] in "O56" or conditions[3] == "M":
        return 2
    return 1 if center == "D" else 0


def apply_message(market, sequence, data):
    """Applies one message. Returns the line it causes, or None. A type it does not know is skipped."""
    if len(data) < HEADER_BYTES:
        return None
    category, kind, center = chr(data[1]), chr(data[2]), chr(data[3])
    if category == "Q" and kind in "CD":
        quote = decode_quote(data, kind)
        apply_quote(market, quote, center)
        return book_line(sequence, market, quote["symbol"])
    if category == "A" and kind == "B":
        instrument = market.instrument(text(data[29:40]))
        market.entries += 1
        instrument.secid = instrument.secid or market.entries
    elif category == "A" and kind == "H":
        symbol, action, reason = text(data[29:40]), chr(data[40]), text(data[53:59])
        market.instrument(symbol).status = action
        return book_line(sequence, market, symbol, f',"ah":"{action}","reason":"{reason}"')
    elif category == "A" and kind == "P":
        symbol, indicator = text(data[29:40]), chr(data[40])
        market.instrument(symbol).band = (indicator, *struct.unpack_from("!qq", data, 49))
        return book_line(sequence, market, symbol, f',"ap":"{indicator}"')
    elif category == "A" and kind == "D":
        return f'{{"seq":{sequence},"mwcb":{chr(data[29])}}}'
    elif category == "T":
        return trade_line(market, sequence, data, kind, center)
    return None


def trade_line(market, sequence, data, kind, center):
    """The line of a trade, of one taken back, of one replaced, or of one of yesterday."""
    if kind in "MN":
        trade = decode_trade(data, kind)
        end = (f'"trade":[{dollars(trade["price"])},{trade["size"]},"{center}","{trade["conditions"]}"],'
               f'"kind":{trade_kind(center, trade["conditions"])},"id":{trade["id"]}')
    elif kind == "O":
        trade = decode_cancel(data)
        end = (f'"cancel_error":[{trade["id"]},{dollars(trade["price"])},{trade["size"]},"{center}",'
               f'"{trade["function"]}"]')
    elif kind == "P":
        trade = decode_correction(data)
        end = (f'"correction":[{trade["old"]},{trade["new"]},{dollars(trade["price"])},{trade["size"]},'
               f'"{center}"]')
    elif kind == "Q":
        trade = decode_as_of(data)
        end = f'"asof":[{trade["price"] / 1e6:g},{trade["size"]},"{center}","{trade["conditions"]}"]'
    else:
        return None
    return f'{start_of_line(sequence, market, trade["symbol"])},{end}}}'


# ---------------------------------------------------------------- packets: putting messages in order

PACKET = struct.Struct("!10sQH")  # session, first sequence number, message count
END_OF_SESSION = 0xFFFF
# What is asked for in one request, so that the replies fit into a socket buffer of the default size.
REQUEST_MESSAGES_MAX = 1000
BUFFERED_MAX = 1_000_000  # messages kept beyond a gap: more than the feed's own history
ANSWER_SECONDS = 0.25
TRIES_MAX = 8
# A service whose replies begin later than asked no longer has the rest. One lost reply looks the same.
LATER_REPLIES_MAX = 3


def messages_of(packet, count):
    """The messages of a packet. Raises ValueError when the packet is cut short."""
    at, found = PACKET.size, []
    for _ in range(count):
        length, = struct.unpack_from("!H", packet, at) if at + 2 <= len(packet) else (len(packet),)
        at += 2
        if at + length > len(packet):
            raise ValueError("the packet ends inside a message")
        found.append(packet[at:at + length])
        at += length
    return found


def sip_time(data):
    """When the feed made the message: nanoseconds since the epoch."""
    return struct.unpack_from("!Q", data, 5)[0] if len(data) >= HEADER_BYTES else 0


class Sequencer:
    """Hands messages on in order, each once. Knows no socket and no clock: both are handed in.

    deliver(number, bytes) takes a message, request(first, count) asks for lost ones, restart() begins a run.
    """

    def __init__(self, session, first, now_ns, deliver, request, restart):
        self.session = session.encode("latin-1").ljust(10)[:10]
        self.deliver, self.request, self.restart = deliver, request, restart
        self.lost = 0
        self.begin(first, now_ns)

    def begin(self, first, now_ns):
        self.next = first  # the number waited for
        self.highest = first - 1  # the last number known to exist
        self.waiting = {}  # messages beyond the gap
        self.latest_ns = now_ns  # SIP time of the last message handed on
        self.asked_at, self.asked_until = 0.0, 0
        self.tries = 0
        self.reply_first = None  # the lowest number in the replies to the last request
        self.low_heartbeats = 0

    def on_packet(self, packet, now, from_service=False):
        if len(packet) < PACKET.size:
            return
        session, first, count = PACKET.unpack_from(packet)
        if session != self.session or first == 0:
            return
        if count in (0, END_OF_SESSION):  # the number is the one that comes next
            self.on_heartbeat(first, now)
            return
        try:
            messages = messages_of(packet, count)
        except ValueError:
            return
        # A copy is never newer than the messages that followed the original: this is a new run's message.
        if first < self.next and sip_time(messages[0]) > self.latest_ns:
            self.begin_again(now)
        if from_service:
            self.reply_first = min(first, self.reply_first or first)
        before = self.next
        for number, data in enumerate(messages, first):
            self.on_message(number, data)
        self.highest = max(self.highest, first + count - 1)
        if self.next != before:
            self.asked_at, self.tries, self.low_heartbeats = now, 0, 0
        self.ask(now)

    def on_heartbeat(self, number, now):
        """Shows a loss at the end of a burst. One with a number of the past may be late, a second is not."""
        if number < self.next:
            self.low_heartbeats += 1
            if self.low_heartbeats == 2:
                self.begin_again(now)
        self.highest = max(self.highest, number - 1)
        self.ask(now)

    def on_message(self, number, data):
        if number == self.next:
            self.hand_on(data)
            self.hand_on_waiting()
        elif number > self.next and len(self.waiting) < BUFFERED_MAX:
            self.waiting.setdefault(number, data)

    def hand_on(self, data):
        self.latest_ns = max(self.latest_ns, sip_time(data))
        self.deliver(self.next, data)
        self.next += 1

    def hand_on_waiting(self):
        while self.next in self.waiting:
            self.hand_on(self.waiting.pop(self.next))

    def begin_again(self, now):
        """The feed was started again under the same session."""
        self.lost += self.missing()
        self.begin(1, 0)
        self.restart()
        self.ask(now)

    def missing(self):
        return max(0, self.highest + 1 - self.next - len(self.waiting))

    def ask(self, now):
        """Asks for the first gap, and again when no answer comes. Gives it up when asking does not help."""
        if self.next > self.highest:
            return
        if self.next < self.asked_until and now - self.asked_at < ANSWER_SECONDS:
            return
        end = min(self.waiting, default=self.highest + 1)
        if self.tries >= LATER_REPLIES_MAX and self.reply_first is not None and self.reply_first > self.next:
            self.give_up(min(end, self.reply_first))
        elif self.tries >= TRIES_MAX:
            self.give_up(end)
        if self.next > self.highest:
            return
        count = min(min(self.waiting, default=self.highest + 1) - self.next, REQUEST_MESSAGES_MAX)
        self.request(self.next, count)
        self.asked_at, self.asked_until, self.reply_first = now, self.next + count, None
        self.tries += 1

    def give_up(self, end):
        self.lost += end - self.next
        self.next, self.tries = end, 0
        self.hand_on_waiting()


# ---------------------------------------------------------------- sockets

def address(name):
    host, _, port = name.rpartition(":")
    if not host or not port.isdigit() or not 0 < int(port) < 65536:
        raise argparse.ArgumentTypeError(f"'{name}' is not HOST:PORT")
    return host, int(port)


def join(group, port, iface):
    """The group, joined on the interface the feed is sent through and bound to the group itself."""
    feed = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    feed.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    feed.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32 << 20)
    feed.bind((group, port))
    membership = socket.inet_aton(group) + socket.inet_aton(iface)
    feed.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
    feed.setblocking(False)
    return feed


def soup(letter, payload=b""):
    return struct.pack("!Hc", len(payload) + 1, letter) + payload


def read_exactly(stream, count):
    data = b""
    while len(data) < count:
        piece = stream.recv(count - len(data))
        if not piece:
            raise ConnectionError("the Snap-Shot service closed the connection")
        data += piece
    return data


def take_snapshot(options, market, meanwhile):
    """Logs in, applies the spin, logs out. Returns the last number that the spin covers, and its time.

    Only one client may be logged in, so a busy service is asked again. `meanwhile` is called between packets
    to empty the multicast socket."""
    session = options.session.encode("latin-1").ljust(10)[:10]
    end = time.monotonic() + options.snapshot_seconds
    while True:
        try:
            with socket.create_connection(options.snapshot, timeout=options.snapshot_seconds) as stream:
                stream.sendall(soup(b"L", b"EXAMPL" + b" " * 10 + session + b"0".rjust(20)))
                return read_spin(stream, market, end, meanwhile)
        except OSError as failure:
            if time.monotonic() > end or isinstance(failure, PermissionError):
                raise
            market.__init__()
            time.sleep(0.2)


def read_spin(stream, market, end, meanwhile):
    while time.monotonic() < end:
        length, letter = struct.unpack("!Hc", read_exactly(stream, 3))
        payload = read_exactly(stream, length - 1)
        meanwhile()
        if letter == b"J" and payload == b"S":
            raise PermissionError("the Snap-Shot service refuses the session")
        if letter == b"J":
            raise ConnectionError("the Snap-Shot service is busy")
        if letter == b"S" and payload[1:3] == b"AS":  # the end of the snapshot
            stream.sendall(soup(b"O"))
            return struct.unpack_from("!Q", payload, 29)[0], sip_time(payload)
        if letter == b"S":
            apply_message(market, 0, payload)
    raise TimeoutError("the Snap-Shot service sent no whole snapshot")


# ---------------------------------------------------------------- the program

class Handler:
    def __init__(self, options):
        self.options = options
        self.market = Market()
        self.out = sys.stdout if options.out == "-" else open(options.out, "a", encoding="latin-1")
        self.feed = join(options.group, options.port, options.iface)
        self.service = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.service.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32 << 20)
        self.service.connect(options.retrans)
        self.service.setblocking(False)
        self.kept = []  # packets received while the snapshot is taken
        covered, time_ns = 0, 0
        if options.late:
            covered, time_ns = take_snapshot(options, self.market, self.keep_packets)
        self.sequencer = Sequencer(options.session, covered + 1, time_ns, self.deliver, self.request,
                                   self.restart)
        self.running = True

    def keep_packets(self):
        self.kept += self.receive(self.feed)

    def receive(self, from_socket):
        packets = []
        while len(packets) < 1000:
            try:
                packets.append(from_socket.recv(65536))
            except BlockingIOError:
                break
            except ConnectionRefusedError:  # nobody on the service's port
                continue
        return packets

    def deliver(self, number, data):
        try:
            line = apply_message(self.market, number, data)
        except struct.error:  # shorter than its type says
            return
        if line is not None:
            self.out.write(line + "\n")

    def request(self, first, count):
        try:
            self.service.send(PACKET.pack(self.sequencer.session, first, count))
        except OSError:
            pass  # it is asked again

    def restart(self):
        print("handler.py: the feed was started again under the same session", file=sys.stderr)
        self.market = Market()

    def one_pass(self, wait):
        select.select([self.feed, self.service], [], [], wait)
        now = time.monotonic()
        for packet in self.receive(self.feed):
            self.sequencer.on_packet(packet, now)
        for packet in self.receive(self.service):
            self.sequencer.on_packet(packet, now, from_service=True)
        self.sequencer.ask(now)
        self.out.flush()

    def run(self):
        for packet in self.kept:
            self.sequencer.on_packet(packet, time.monotonic())
        while self.running:
            self.one_pass(0.05)
        end = time.monotonic() + 3  # what is known to be missing may still be recovered
        while self.sequencer.missing() and time.monotonic() < end:
            self.one_pass(0.05)
        missing = self.sequencer.lost + self.sequencer.missing()
        print(f"handler.py: {self.sequencer.next - 1} is the last message, {missing} missing",
              file=sys.stderr)
        self.out.flush()
        return 1 if missing else 0


def main():
    parser = argparse.ArgumentParser(description="A complete handler of the feed, to be read.")
    parser.add_argument("--group", default="239.255.25.177", help="multicast group (default %(default)s)")
    parser.add_argument("--port", type=int, default=25177, help="UDP port of the group (default %(default)s)")
    parser.add_argument("--iface", default="127.0.0.1", help="address of the interface (default %(default)s)")
    parser.add_argument("--session", default="UTPBENCH01", help="others are ignored (default %(default)s)")
    parser.add_argument("--retrans", type=address, default=("127.0.0.1", 25178), help="HOST:PORT")
    parser.add_argument("--snapshot", type=address, default=("127.0.0.1", 25179), help="HOST:PORT")
    parser.add_argument("--snapshot-seconds", type=float, default=30, help="how long to wait for it")
    parser.add_argument("--late", action="store_true", help="begin with a snapshot")
    parser.add_argument("--out", default="-", help="file to append lines to, - for standard output")
    handler = None

    def stop(*_):
        if handler is None:
            sys.exit(1)
        handler.running = False
    signal.signal(signal.SIGINT, stop)
    signal.signal(signal.SIGTERM, stop)
    options = parser.parse_args()
    try:
        handler = Handler(options)
        return handler.run()
    except OSError as failure:
        print(f"handler.py: {failure}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
