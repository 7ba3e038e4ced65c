#include "listen/latency_files.h"

#include "mold/packet.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <vector>

namespace tessel::listen {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr double ns_per_us = 1e3;
constexpr double ns_per_ms = 1e6;
constexpr double ns_per_s = 1e9;
constexpr unsigned ticks_per_half = 5;

// What the file formats call the range and the precision of the values.
constexpr std::uint64_t highest_value_min = 3'600'000'000'000;  // an hour
constexpr std::uint64_t significant_digits = 3;
constexpr std::uint64_t sub_buckets = 2048;

constexpr std::uint64_t payload_cookie = 0x1c849313;     // version 2, counts of variable length
constexpr std::uint64_t compressed_cookie = 0x1c849314;  // the same, deflated
constexpr std::size_t stored_block_max = 65'535;         // bytes in a block that is not compressed

// The middle of the values that are counted together.
double middle_value_at(std::size_t index) {
    const std::uint64_t low = lowest_value_at(index);
    const std::uint64_t half = (highest_value_at(index) - low + 1) / 2;
    return static_cast<double>(low + half);
}

std::uint64_t highest_value(const LatencyHistogram& histogram) {
    return std::max(highest_value_min, histogram.max);
}

unsigned bucket_count(std::uint64_t highest) {
    return 1 + static_cast<unsigned>(std::bit_width(highest / sub_buckets));
}

// One line for each level that is reached, with the value at which it is; the last line is the level 100 %.
void append_distribution(std::string& text, const LatencyHistogram& histogram) {
    double from = 0;
    std::uint64_t passed = 0;
    bool at_end = histogram.total == 0;
    for (std::size_t index = 0; index != histogram.counts.size() && !at_end; ++index) {
        if (histogram.counts[index] == 0) {
            continue;
        }
        passed += histogram.counts[index];
        const double reached = 100.0 * static_cast<double>(passed) / static_cast<double>(histogram.total);
        const double value = static_cast<double>(highest_value_at(index)) / ns_per_us;
        while (from <= reached && !at_end) {
            if (passed == histogram.total) {
                at_end = from == 100.0;
            }
            fmt::format_to(std::back_inserter(text), "{:12.3f} {:.12f} {:10d}", value, from / 100, passed);
            if (from < 100.0) {
                fmt::format_to(std::back_inserter(text), " {:14.2f}", 1 / (1 - from / 100));
            }
            text += '\n';
            if (passed == histogram.total) {
                from = 100.0;
                continue;
            }
            const double halvings = std::floor(std::log2(100.0 / (100.0 - from))) + 1;
            from += 100.0 / (ticks_per_half * std::exp2(halvings));
        }
    }
}

void append_number(Bytes& out, std::uint64_t value, std::size_t width) {
    out.resize(out.size() + width);
    write_big_endian(out.data() + out.size() - width, value, width);
}

// A signed number in 1 to 9 bytes: zigzag, seven bits a byte, lowest first; the ninth byte holds eight.
void append_variable(Bytes& out, std::int64_t value) {
    const std::uint64_t shifted = static_cast<std::uint64_t>(value) << 1;
    std::uint64_t rest = value < 0 ? ~shifted : shifted;
    for (int at = 0; at < 8 && rest >= 0x80; ++at) {
        out.push_back(static_cast<unsigned char>(rest | 0x80));
        rest >>= 7;
    }
    out.push_back(static_cast<unsigned char>(rest));
}

// The counts up to the last one that is not 0; a negative number means that many zeros.
Bytes payload_of(const LatencyHistogram& histogram) {
    Bytes counts;
    std::int64_t zeros = 0;
    std::uint64_t passed = 0;
    for (std::size_t index = 0; passed != histogram.total; ++index) {
        if (histogram.counts[index] == 0) {
            ++zeros;
            continue;
        }
        if (zeros != 0) {
            append_variable(counts, zeros == 1 ? 0 : -zeros);
            zeros = 0;
        }
        append_variable(counts, static_cast<std::int64_t>(histogram.counts[index]));
        passed += histogram.counts[index];
    }
    Bytes payload;
    append_number(payload, payload_cookie, 4);
    append_number(payload, counts.size(), 4);
    append_number(payload, 0, 4);  // offset of the counts
    append_number(payload, significant_digits, 4);
    append_number(payload, 1, 8);  // the lowest value distinguished from 0
    append_number(payload, highest_value(histogram), 8);
    append_number(payload, std::bit_cast<std::uint64_t>(1.0), 8);  // factor of the values
    payload.insert(payload.end(), counts.begin(), counts.end());
    return payload;
}

// A zlib stream of stored blocks: a few KB a second need no compression.
Bytes zlib_stream(const Bytes& payload) {
    Bytes out = {0x78, 0x01};
    for (std::size_t at = 0; at < payload.size(); at += stored_block_max) {
        const std::size_t length = std::min(stored_block_max, payload.size() - at);
        out.push_back(at + length == payload.size() ? 1 : 0);
        for (const std::size_t field : {length, ~length}) {
            out.push_back(static_cast<unsigned char>(field));
            out.push_back(static_cast<unsigned char>(field >> 8));
        }
        const auto begin = payload.begin() + static_cast<std::ptrdiff_t>(at);
        out.insert(out.end(), begin, begin + static_cast<std::ptrdiff_t>(length));
    }
    std::uint64_t sum = 1;
    std::uint64_t sum_of_sums = 0;
    for (const unsigned char byte : payload) {
        sum = (sum + byte) % 65'521;
        sum_of_sums = (sum_of_sums + sum) % 65'521;
    }
    append_number(out, sum_of_sums << 16 | sum, 4);
    return out;
}

std::string base64(const Bytes& bytes) {
    constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t length = std::min<std::size_t>(3, bytes.size() - at);
        unsigned char three[3] = {};
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), length, three);
        const std::uint64_t bits = read_big_endian(three, 3);
        for (std::size_t letter = 0; letter < 4; ++letter) {
            text += letter <= length ? letters[bits >> (18 - 6 * letter) & 63] : '=';
        }
    }
    return text;
}

}  // namespace

std::string percentiles_text(const LatencyHistogram& histogram) {
    std::string text = fmt::format("{} messages", histogram.total);
    for (const double percent : {50.0, 90.0, 99.0, 99.9}) {
        fmt::format_to(std::back_inserter(text), ", p{} {:.1f} us", percent,
                       static_cast<double>(latency_percentile(histogram, percent)) / ns_per_us);
    }
    return text + fmt::format(", max {:.1f} us", static_cast<double>(histogram.max) / ns_per_us);
}

std::string percentile_file_text(const LatencyHistogram& histogram) {
    std::string text = fmt::format("{:>12} {:>14} {:>10} {:>14}\n\n", "Value", "Percentile", "TotalCount",
                                   "1/(1-Percentile)");
    append_distribution(text, histogram);
    double sum = 0;
    for (std::size_t index = 0; index != histogram.counts.size(); ++index) {
        if (histogram.counts[index] != 0) {
            sum += middle_value_at(index) * static_cast<double>(histogram.counts[index]);
        }
    }
    const double count = static_cast<double>(std::max<std::uint64_t>(histogram.total, 1));
    const double mean = sum / count;
    double squares = 0;
    for (std::size_t index = 0; index != histogram.counts.size(); ++index) {
        if (histogram.counts[index] != 0) {
            const double away = middle_value_at(index) - mean;
            squares += away * away * static_cast<double>(histogram.counts[index]);
        }
    }
    fmt::format_to(std::back_inserter(text), "#[Mean    = {:12.3f}, StdDeviation   = {:12.3f}]\n",
                   mean / ns_per_us, std::sqrt(squares / count) / ns_per_us);
    fmt::format_to(std::back_inserter(text), "#[Max     = {:12.3f}, Total count    = {:12d}]\n",
                   static_cast<double>(histogram.max) / ns_per_us, histogram.total);
    fmt::format_to(std::back_inserter(text), "#[Buckets = {:12d}, SubBuckets     = {:12d}]\n",
                   bucket_count(highest_value(histogram)), sub_buckets);
    return text;
}

std::string interval_log_heading(std::uint64_t start_ns) {
    const double start = static_cast<double>(start_ns) / ns_per_s;
    return "#[Histogram log format version 1.3]\n" +
           fmt::format("#[BaseTime: {:.3f} (seconds since epoch)]\n", start) +
           fmt::format("#[StartTime: {:.3f} (seconds since epoch)]\n", start) +
           "\"StartTimestamp\",\"Interval_Length\",\"Interval_Max\",\"Interval_Compressed_Histogram\"\n";
}

std::string interval_log_line(std::string_view tag, std::uint64_t start_ns, std::uint64_t length_ns,
                              const LatencyHistogram& histogram) {
    const Bytes stream = zlib_stream(payload_of(histogram));
    Bytes encoded;
    append_number(encoded, compressed_cookie, 4);
    append_number(encoded, stream.size(), 4);
    encoded.insert(encoded.end(), stream.begin(), stream.end());
    return fmt::format("Tag={},{:.3f},{:.3f},{:.3f},{}\n", tag, static_cast<double>(start_ns) / ns_per_s,
                       static_cast<double>(length_ns) / ns_per_s,
                       static_cast<double>(histogram.max) / ns_per_ms, base64(encoded));
}

}  // namespace tessel::listen
