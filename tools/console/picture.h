#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// What the receiver has at one moment, as plain records that other threads may read. Prices are millionths of
// a dollar, 0 for none.
namespace tessel::console {

// One instrument in the list.
struct Row {
    std::string symbol;
    char status = 'T';
    bool has_band = false;  // a band is in force
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;  // millionths of a share
    std::int64_t band_lower = 0;
    std::int64_t band_upper = 0;
};

struct CenterRow {
    char center = ' ';
    char condition = ' ';
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    std::int64_t bid = 0;
    std::int64_t ask = 0;
};

enum class TradeKind : std::uint8_t { trade, correction, as_of };
enum class TradeState : std::uint8_t { live, canceled, error, corrected };

struct TapeTrade {
    std::uint64_t sequence = 0;
    std::uint64_t id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;  // millionths of a share
    std::array<char, 4> conditions = {' ', ' ', ' ', ' '};
    char center = ' ';
    char sub_center = ' ';
    TradeKind kind = TradeKind::trade;
    TradeState state = TradeState::live;
};

struct HaltRecord {
    std::uint64_t sequence = 0;
    char action = ' ';
    std::string reason;
};

// Everything about one instrument.
struct Detail {
    Row row;
    std::vector<CenterRow> quotes;  // in letter order
    std::vector<TapeTrade> trades;  // oldest first
    std::vector<HaltRecord> halts;  // oldest first
};

enum class EventKind : std::uint8_t { halt, resume, pause, band, mwcb, wipeout, cancel, correction };

// One thing that happened to the market. Members that a kind does not have keep their first value.
struct MarketEvent {
    EventKind kind = EventKind::halt;
    char action = ' ';  // of halt, pause and resume
    char center = ' ';  // of wipeout, cancel and correction
    char level = ' ';   // of mwcb
    std::uint64_t sequence = 0;
    std::uint64_t sip_ns = 0;  // since the epoch
    std::string symbol;        // empty for mwcb and wipeout
    std::string reason;        // of halt, pause and resume
};

// Where a latency begins and ends: the SIP time in the message, the kernel's receive stamp, and the moment in
// which the receiver takes the message.
enum class LatencyStage : std::uint8_t { sip_to_kernel, kernel_to_taken, sip_to_taken };
constexpr std::size_t latency_stages = 3;

// Upper bounds of the exported buckets, in nanoseconds.
constexpr std::array<std::uint64_t, 16> latency_bounds_ns = {
    1'000,   2'500,     5'000,     10'000,     25'000,     50'000,      100'000,       250'000,
    500'000, 1'000'000, 2'500'000, 10'000'000, 50'000'000, 250'000'000, 1'000'000'000, 5'000'000'000};

struct LatencyPicture {
    std::uint64_t total = 0;  // values; the others are of no meaning while it is 0
    std::uint64_t sum_ns = 0;
    std::uint64_t p50_ns = 0;
    std::uint64_t p90_ns = 0;
    std::uint64_t p99_ns = 0;
    std::uint64_t p999_ns = 0;
    std::uint64_t max_ns = 0;
    std::array<std::uint64_t, latency_bounds_ns.size()> within{};  // values up to each bound
};

struct ReceiverPicture {
    std::uint64_t messages = 0;
    std::uint64_t packets = 0;
    std::uint64_t gaps = 0;
    std::uint64_t recovered = 0;
    std::uint64_t lost = 0;
    std::uint64_t requests = 0;
    std::uint64_t duplicates = 0;    // packets
    std::uint64_t reordered = 0;     // packets
    std::uint64_t kernel_drops = 0;  // packets
    std::uint64_t undecoded = 0;     // messages
    std::uint64_t ignored = 0;       // messages of instruments beyond instruments_max
};

struct Picture {
    bool up = false;
    std::uint64_t next_sequence = 0;  // 0: nothing received yet
    std::uint64_t runs = 1;           // the feed's runs under this session, as far as they were noticed
    ReceiverPicture receiver;
    double messages_a_second = 0;
    double packets_a_second = 0;
    std::array<LatencyPicture, latency_stages> latency;
    std::shared_ptr<const std::vector<Row>> rows;  // in the order of symbols; never null
};

}  // namespace tessel::console
