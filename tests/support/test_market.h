#pragma once

#include "base/clock.h"
#include "base/random.h"
#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "mold/publisher.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::testing {

using Bytes = std::vector<unsigned char>;

// What a market in memory is made with. The defaults are those of the program.
struct MarketOptions {
    std::string symbols = "AAPL:190.00,MSFT:410.00,TSLA:250.00";
    std::string participants = "QNPZKVD";
    std::string scenario = {};  // a text as in TESSEL_SCENARIO
    std::uint64_t seed = 7;
    double step_bps = 0.8;
    bool quiet = false;
    bool truth = true;               // keep a truth log, in memory
    std::uint64_t wall_step_ns = 1;  // what each reading of the wall clock adds
    std::string session = "UTPBENCH01";
};

// A whole market without a socket and without a real clock:
//
//     TestMarket market({.symbols = "IBM:100", .scenario = "trf_every=3"});
//     market.start_of_day();
//     market.run_ticks(50);
//     halt_instrument(market.engine, market.at(0), "T1", 5);
//     EXPECT_EQ(letters(market.message(market.last())), "QCQ ");
//     EXPECT_EQ(market.truth_lines().back(), "...");
struct TestMarket {
    explicit TestMarket(const MarketOptions& options = {});
    ~TestMarket();
    TestMarket(const TestMarket&) = delete;
    TestMarket& operator=(const TestMarket&) = delete;

    Clock clock;  // simulated: 2023-11-14 22:13:20 UTC and 1,000,000 ms at first
    Random rng;
    Scenario scenario;
    MoldPublisher publisher;
    SipEngine engine;
    std::vector<Bytes> packets;  // what the publisher sent, in order

    Instrument& at(std::size_t index) {
        return engine.instruments.at(index);
    }

    // The session's opening messages, as at start-up.
    void start_of_day();
    // Lets time pass on both clocks.
    void advance_ms(std::uint64_t ms);
    // Time and a tick, count times.
    void run_ticks(std::size_t count, std::uint64_t interval_ms = 100);

    // Sequence number of the last message, 0 before the first.
    std::uint64_t last() const {
        return publisher.next_sequence - 1;
    }
    // Message of a sequence number that is still kept.
    Bytes message(std::uint64_t sequence) const;
    // Messages first to last, both included.
    std::vector<Bytes> messages(std::uint64_t first, std::uint64_t last) const;
    // Their letters (see below), which is how a test writes down an expected order.
    std::vector<std::string> letters_of(std::uint64_t first, std::uint64_t last) const;

    // The truth log so far, and its lines without their line feeds.
    std::string truth_text() const;
    std::vector<std::string> truth_lines() const;
};

// Category, type, market center and sub-market center of a message: "AHQ ".
std::string letters(const Bytes& message);

// Big-endian fields and texts of a message, read at an offset.
std::uint16_t get_u16(const Bytes& message, std::size_t offset);
std::uint32_t get_u32(const Bytes& message, std::size_t offset);
std::uint64_t get_u64(const Bytes& message, std::size_t offset);
std::string get_text(const Bytes& message, std::size_t offset, std::size_t width);

// The message blocks of a downstream packet.
std::vector<Bytes> packet_messages(const Bytes& packet);

// Collects what is written to standard error while it lives; standard error comes back when it ends.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // What was written since the start or since the last call.
    std::string take();

private:
    int saved_ = -1;
    int file_ = -1;
    std::size_t taken_ = 0;
};

// A fresh folder under the system's temporary one, removed at the end.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string path(std::string_view name) const;

private:
    std::string folder_;
};

// A file's whole content; an empty text when there is none.
std::string read_file(const std::string& path);

}  // namespace tessel::testing
