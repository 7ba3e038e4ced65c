#pragma once

#include "market/instrument.h"
#include "output/quote_line.h"
#include "output/truth_log.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace tessel::testing {

// An instrument with its quotes and a log in a file.
struct Log {
    TempFolder folder;
    std::string path = folder.path("truth.jsonl");
    TruthLog truth;
    InstrumentList list;
    std::vector<ParticipantQuote> quotes;
    std::size_t taken = 0;

    explicit Log(const std::string& symbol = "AAPL", std::size_t centers = 0) : quotes(centers) {
        std::string error;
        EXPECT_TRUE(build_instruments(symbol, list, error));
        for (std::size_t at = 0; at < centers; ++at) {
            quotes[at].market_center = static_cast<char>('A' + at);
            quotes[at].present = true;
        }
        list[0].quotes = quotes.data();
        list[0].quote_slots = centers;
        open_truth_log(truth, path);
    }
    ~Log() {
        close_truth_log(truth);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    Instrument& instrument() {
        return list[0];
    }
    // What was written since the last call.
    std::string take() {
        std::ifstream file(path, std::ios::binary);
        file.seekg(static_cast<std::streamoff>(taken));
        const std::string fresh{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        taken += fresh.size();
        return fresh;
    }
    std::string action_line(std::uint64_t sequence, char action, const std::string& reason) {
        write_action_line(truth, instrument(), sequence, action, reason);
        return take();
    }
    std::string quote_line(std::uint64_t sequence) {
        write_quote_line(truth, instrument(), sequence);
        return take();
    }
};

// A formatting call into a buffer of N bytes, as the line is defined. The formats are the literals of the
// tests below, which the compiler no longer sees through the parameter.
template <std::size_t N, typename... Values>
std::string cut_format(const char* format, Values... values) {
    std::array<char, N> buffer;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    std::snprintf(buffer.data(), buffer.size(), format, values...);
#pragma GCC diagnostic pop
    return buffer.data();
}

inline double dollars(std::int64_t price) {
    return static_cast<double>(price) / 1e6;
}

}  // namespace tessel::testing
