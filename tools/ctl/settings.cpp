#include "ctl/settings.h"

#include "common/symbol_entry.h"

#include <arpa/inet.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <unordered_set>

namespace tessel::ctl {

using common::symbol_error;
using common::symbol_of;
using common::symbols_max;

namespace {

constexpr SettingKey keys[] = {
    {"feed", "mcast", "--mcast", Form::group},
    {"feed", "port", "--port", Form::port},
    {"feed", "iface", "--iface", Form::address},
    {"feed", "retrans_port", "--retrans-port", Form::port},
    {"feed", "snapshot_port", "--snapshot-port", Form::port},
    {"feed", "session", "--session", Form::session},
    {"feed", "symbols", "--symbols", Form::symbols},
    {"feed", "participants", "--participants", Form::participants},
    {"feed", "interval_ms", "--interval-ms", Form::interval},
    {"feed", "step_bps", "--step-bps", Form::basis_points},
    {"feed", "seed", "--seed", Form::seed},
    {"feed", "book_out", "--book-out", Form::path},
    {"feed", "bbo_out", "--bbo-out", Form::path},
    {"faults", "drop_every", "--drop-every", Form::count},
    {"faults", "drop_burst", "--drop-burst", Form::burst},
    {"faults", "dup_every", "--dup-every", Form::count},
    {"faults", "reorder_every", "--reorder-every", Form::count},
    {"feed", "truth_out", "--truth-out", Form::path},
    {"feed", "control_port", "--control-port", Form::port_or_off},
    {"feed", "quiet", "--quiet", Form::flag},
    {"scenario", "name", "", Form::text},
    {"scenario", "halt_after", "", Form::count},
    {"scenario", "halt_secs", "", Form::count},
    {"scenario", "pause_after", "", Form::count},
    {"scenario", "pause_secs", "", Form::count},
    {"scenario", "band_every", "", Form::count},
    {"scenario", "trf_every", "", Form::count},
    {"scenario", "cancel_every", "", Form::count},
    {"scenario", "correct_every", "", Form::count},
    {"scenario", "mwcb_level", "", Form::level},
    {"scenario", "mwcb_after", "", Form::count},
    {"scenario", "odd_lot_every", "", Form::count},
    {"scenario", "asof_every", "", Form::count},
};

constexpr std::size_t quoted_bytes_max = 40;
constexpr std::size_t session_bytes_max = 10;

std::string in_quotes(std::string_view text) {
    std::string shown(text.substr(0, quoted_bytes_max));
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char letter) { return letter < ' ' || letter > '~'; }, '?');
    return "'" + shown + (text.size() > quoted_bytes_max ? "...'" : "'");
}

template <typename Number>
std::string number_error(std::string_view value, Number least, Number most) {
    Number number{};
    const char* const end = value.data() + value.size();
    const std::from_chars_result read = std::from_chars(value.data(), end, number);
    const bool digits = read.ptr == end && !value.empty();
    if (!digits || read.ec == std::errc::invalid_argument) {
        return in_quotes(value) + " is no " + (std::is_integral_v<Number> ? "whole " : "") + "number";
    }
    if (read.ec != std::errc() || !(number >= least && number <= most)) {
        const auto text = [](Number limit) {
            char digits_of[64];
            if constexpr (std::is_integral_v<Number>) {
                return std::string(digits_of,
                                   std::to_chars(digits_of, digits_of + sizeof digits_of, limit).ptr);
            } else {
                return std::string(digits_of, std::to_chars(digits_of, digits_of + sizeof digits_of, limit,
                                                            std::chars_format::fixed)
                                                  .ptr);
            }
        };
        return in_quotes(value) + " is out of range: " + text(least) + " to " + text(most);
    }
    return "";
}

std::string count_error(std::string_view value) {
    return number_error<std::int64_t>(value, 0, std::numeric_limits<std::uint32_t>::max());
}

std::string address_error(std::string_view value, bool multicast) {
    in_addr address{};
    if (inet_pton(AF_INET, std::string(value.substr(0, INET_ADDRSTRLEN)).c_str(), &address) != 1) {
        return in_quotes(value) + " is no IPv4 address";
    }
    if (multicast && !IN_MULTICAST(ntohl(address.s_addr))) {
        return in_quotes(value) + " is no multicast address: 224.0.0.0 to 239.255.255.255";
    }
    return "";
}

bool all_printable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char letter) { return letter >= ' ' && letter <= '~'; });
}

std::string session_error(std::string_view value) {
    if (value.empty() || value.size() > session_bytes_max || !all_printable(value)) {
        return in_quotes(value) + " is no session: 1 to 10 printable characters";
    }
    return "";
}

std::string participants_error(std::string_view value) {
    for (std::size_t at = 0; at < value.size(); ++at) {
        if (value[at] < 'A' || value[at] > 'Z') {
            return in_quotes(value) + " holds " + in_quotes(value.substr(at, 1)) +
                   ": a market center is a letter A to Z";
        }
        if (value.substr(0, at).find(value[at]) != std::string_view::npos) {
            return in_quotes(value) + " names market center " + in_quotes(value.substr(at, 1)) + " twice";
        }
    }
    return "";
}

std::string burst_error(std::string_view value) {
    const std::size_t colon = value.find(':');
    std::string error =
        number_error<std::uint64_t>(value.substr(0, colon), 1, std::numeric_limits<std::uint64_t>::max());
    if (error.empty() && colon != std::string_view::npos) {
        error = number_error<std::uint64_t>(value.substr(colon + 1), 1,
                                            std::numeric_limits<std::uint32_t>::max());
    }
    return error.empty() ? "" : error + "; a burst is START or START:COUNT, packet numbers from 1";
}

std::string symbols_error(std::string_view value) {
    std::unordered_set<std::string_view> seen;
    if (value.empty()) {
        return "";
    }
    while (true) {
        const std::size_t comma = value.find(',');
        const std::string_view entry = value.substr(0, comma);
        std::string error = symbol_error(entry);
        if (error.empty() && !seen.insert(symbol_of(entry)).second) {
            error = "symbol " + in_quotes(symbol_of(entry)) + " is there twice";
        }
        if (!error.empty()) {
            return error;
        }
        if (comma == std::string_view::npos) {
            break;
        }
        value.remove_prefix(comma + 1);
    }
    return seen.size() > symbols_max ? "more than " + std::to_string(symbols_max) + " symbols" : "";
}

std::string path_error(std::string_view value) {
    return value.empty() || value.find('\0') != std::string_view::npos ? in_quotes(value) + " is no path"
                                                                       : "";
}

std::string text_error(std::string_view value) {
    const bool bad = value.find(',') != std::string_view::npos || !all_printable(value);
    return bad ? in_quotes(value) + " has a comma or a character that is not printable" : "";
}

}  // namespace

std::span<const SettingKey> setting_keys() {
    return keys;
}

const SettingKey* find_setting(std::string_view table, std::string_view key) {
    for (const SettingKey& each : keys) {
        if (each.table == table && each.key == key) {
            return &each;
        }
    }
    return nullptr;
}

const SettingKey* find_option(std::string_view option) {
    for (const SettingKey& each : keys) {
        if (!option.empty() && each.option == option) {
            return &each;
        }
    }
    return nullptr;
}

std::string value_error(Form form, std::string_view value) {
    using Interval = std::numeric_limits<std::int32_t>;
    switch (form) {
        case Form::group: return address_error(value, true);
        case Form::address: return address_error(value, false);
        case Form::port: return number_error<std::int64_t>(value, 1, 65535);
        case Form::port_or_off: return number_error<std::int64_t>(value, 0, 65535);
        case Form::session: return session_error(value);
        case Form::symbols: return symbols_error(value);
        case Form::participants: return participants_error(value);
        case Form::interval: return number_error<std::int64_t>(value, Interval::min(), Interval::max());
        case Form::basis_points: return number_error<double>(value, 0, 10'000);
        case Form::seed:
            return number_error<std::uint64_t>(value, 0, std::numeric_limits<std::uint64_t>::max());
        case Form::path: return path_error(value);
        case Form::count: return count_error(value);
        case Form::burst: return burst_error(value);
        case Form::flag: return "";
        case Form::text: return text_error(value);
        case Form::level: return number_error<std::int64_t>(value, 0, 3);
    }
    return "";
}

}  // namespace tessel::ctl
