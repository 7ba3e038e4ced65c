#include "listen/terminal_view.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>

namespace tessel::listen {

using receiver::Instrument;
using receiver::Market;
using receiver::Nbbo;
using receiver::SequencerCounters;

namespace {

constexpr std::uint64_t millionths_per_share = 1'000'000;

// Alternate screen with the cursor off, and back. Each picture starts at the top and clears after each line.
constexpr std::string_view enter_screen = "\x1b[?1049h\x1b[?25l";
constexpr std::string_view leave_screen = "\x1b[?25h\x1b[?1049l";
constexpr std::string_view go_home = "\x1b[H";
constexpr std::string_view clear_to_line_end = "\x1b[K\r\n";
constexpr std::string_view clear_below = "\x1b[J";

std::string price(std::int64_t millionths) {
    return millionths == 0 ? "-" : fmt::format("{:.2f}", static_cast<double>(millionths) / 1e6);
}

std::string band(const Instrument& instrument) {
    return band_in_force(instrument.band)
               ? price(instrument.band.lower) + " / " + price(instrument.band.upper)
               : "-";
}

std::string status(const Instrument& instrument) {
    return instrument.status == 'T' || instrument.reason.empty()
               ? std::string(1, instrument.status)
               : instrument.status + (" " + instrument.reason);
}

std::string instrument_line(const Instrument& instrument) {
    const Nbbo& nbbo = instrument.nbbo;
    return fmt::format("{:<11} {:>7} {:>10} {} x {} {:<10} {:>7}  {:>10} {:>12}  {:<7} {}", instrument.symbol,
                       nbbo.bid_size, price(nbbo.bid), nbbo.bid_center, nbbo.ask_center, price(nbbo.ask),
                       nbbo.ask_size, price(instrument.sales.last),
                       instrument.sales.volume / millionths_per_share, status(instrument), band(instrument));
}

// Symbols come from the wire: no byte of theirs may steer the terminal.
void add_line(std::string& picture, std::string line, unsigned columns) {
    for (char& c : line) {
        if (c < ' ' || c > '~') {
            c = '?';
        }
    }
    picture += line.substr(0, columns);
    picture += '\n';
}

void write_all(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count <= 0) {
            return;  // the terminal is gone; nothing to report to
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

std::string render_view(const Market& market, const SequencerCounters& counters, const ViewStatus& status,
                        ViewSize size) {
    std::string picture;
    add_line(picture,
             fmt::format("{:<11} {:>7} {:>10} {} x {} {:<10} {:>7}  {:>10} {:>12}  {:<7} {}", "symbol",
                         "size", "bid", ' ', ' ', "ask", "size", "last", "volume", "status", "band"),
             size.columns);
    const std::size_t room = size.rows > 3 ? size.rows - 2 : 1;
    const std::size_t all = market.instruments.size();
    const std::size_t shown = all > room ? room - 1 : all;
    for (std::size_t i = 0; i < shown; ++i) {
        add_line(picture, instrument_line(market.instruments[i]), size.columns);
    }
    if (shown < all) {
        add_line(picture, fmt::format("... and {} more", all - shown), size.columns);
    }
    std::string foot =
        fmt::format("seq {}  {:.0f} msg/s  gaps {}  recovered {}  lost {}  duplicates {}  reordered {}",
                    market.last_sequence, status.messages_a_second, counters.gaps, counters.recovered,
                    counters.lost, counters.duplicate_packets, counters.reordered_packets);
    if (status.kernel_drops != 0) {
        foot += fmt::format("  kernel drops {}", status.kernel_drops);
    }
    if (!status.note.empty()) {
        foot += "  " + status.note;
    }
    add_line(picture, foot, size.columns);
    return picture;
}

ViewSize terminal_size() {
    winsize window{};
    ViewSize size;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_row != 0 && window.ws_col != 0) {
        size = {window.ws_row, window.ws_col};
    }
    return size;
}

void open_view() {
    write_all(enter_screen);
}

void close_view() {
    write_all(leave_screen);
}

void show_view(const std::string& picture) {
    std::string screen(go_home);
    for (const char c : picture) {
        if (c == '\n') {
            screen += clear_to_line_end;
        } else {
            screen += c;
        }
    }
    // The last line ends without a line feed, which would scroll a full screen.
    screen.resize(screen.size() - clear_to_line_end.size());
    screen += "\x1b[K";
    screen += clear_below;
    write_all(screen);
}

}  // namespace tessel::listen
