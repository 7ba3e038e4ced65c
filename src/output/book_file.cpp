#include "output/book_file.h"

#include "market/quote_index.h"
#include "output/number_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace tessel {

namespace {

// Both sides' levels with their brackets, and the members after them.
constexpr std::size_t member_bytes_max =
    2 * book_levels_max * (2 * text_number_bytes_max + 4) + 4 * text_number_bytes_max;

char* put_levels(char* out, const PriceLevels& levels) {
    for (std::size_t at = 0; at < levels.count; ++at) {
        if (at != 0) {
            *out++ = ',';
        }
        *out++ = '[';
        out = put_price_general(out, levels.level[at].price);
        *out++ = ',';
        out = put_unsigned(out, levels.level[at].size);
        *out++ = ']';
    }
    return out;
}

// Never waits for a FIFO's reader; a regular file is not affected by O_NONBLOCK.
int open_temporary(const std::string& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
}

bool is_regular_file(int fd) {
    struct stat found {};
    return fstat(fd, &found) == 0 && S_ISREG(found.st_mode);
}

bool write_all(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(fd, text.data() + written, text.size() - written);
        if (count <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

void open_reserve(ReserveDescriptor& reserve) {
    if (reserve.fd < 0) {
        reserve.fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
}

void replace_file(const std::string& path, const std::string& text, ReserveDescriptor& reserve) {
    const std::string temporary_path = path + ".tmp";
    int fd = open_temporary(temporary_path);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE) && reserve.fd >= 0) {
        close(reserve.fd);
        reserve.fd = -1;
        fd = open_temporary(temporary_path);
    }
    // A FIFO that nobody reads is refused with ENXIO.
    bool written = fd >= 0 || errno != ENXIO;
    if (fd >= 0) {
        written = is_regular_file(fd) && write_all(fd, text);
        close(fd);
    }
    open_reserve(reserve);
    if (!written) {
        // A full disk: the observers keep the old file, and the room goes back.
        unlink(temporary_path.c_str());
        return;
    }
    static_cast<void>(std::rename(temporary_path.c_str(), path.c_str()));
}

void append_book_member(std::string& text, const Instrument& instrument) {
    text += '"';
    text += instrument.symbol;
    PriceLevels bids;
    PriceLevels asks;
    list_levels(instrument, book_levels_max, bids, asks);
    std::array<char, member_bytes_max> member;
    char* out = put_text(member.data(), "\":{\"bid\":[");
    out = put_levels(out, bids);
    out = put_text(out, "],\"ask\":[");
    out = put_levels(out, asks);
    out = put_text(out, "],\"last\":");
    out = put_price_general(out, instrument.last_trade_price);
    out = put_text(out, ",\"volume\":");
    out = put_unsigned(out, instrument.share_volume);
    out = put_text(out, ",\"status\":\"");
    *out++ = instrument.status;
    out = put_text(out, "\"}");
    text.append(member.data(), static_cast<std::size_t>(out - member.data()));
}

void format_book(std::string& text, std::span<const Instrument> instruments, std::uint64_t now_ns) {
    std::array<char, text_number_bytes_max> number;
    text = "{\"ts_ns\":";
    text.append(number.data(), put_unsigned(number.data(), now_ns));
    text += ",\"symbols\":{";
    bool first = true;
    for (const Instrument& instrument : instruments) {
        if (!first) {
            text += ',';
        }
        first = false;
        append_book_member(text, instrument);
    }
    text += "}}\n";
}

void format_bbo(std::string& text, std::span<const Instrument> instruments) {
    text.clear();
    for (const Instrument& instrument : instruments) {
        std::array<char, 2 * text_number_bytes_max + 3> prices;
        char* out = prices.data();
        *out++ = ' ';
        out = put_price_general(out, instrument.nbbo.bid);
        *out++ = ' ';
        out = put_price_general(out, instrument.nbbo.ask);
        *out++ = '\n';
        text += instrument.symbol;
        text.append(prices.data(), static_cast<std::size_t>(out - prices.data()));
    }
}

}  // namespace tessel
