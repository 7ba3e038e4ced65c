#pragma once

#include <cstdint>
#include <string>

namespace tessel {

// What the command line says, with its defaults.
struct FeedConfig {
    std::string mcast = "239.255.25.177";  // IPv4 multicast group
    std::uint16_t port = 25177;
    std::string iface = "127.0.0.1";  // IPv4 address of the sending interface
    std::uint16_t retrans_port = 25178;
    std::uint16_t snapshot_port = 25179;
    std::string session = "UTPBENCH01";  // at most 10 characters
    std::string symbols = "AAPL:190.00,MSFT:410.00,TSLA:250.00";
    std::string participants = "QNPZKVD";  // one market-center letter a character
    std::int32_t interval_ms = 100;        // negative: the model is frozen; 0: a tick in every pass
    double step_bps = 0.8;                 // price step of a tick, basis points
    std::uint64_t seed = 7;
    std::string book_out;  // empty: off, as for the other paths
    std::string bbo_out;
    std::uint32_t drop_every = 0;  // 0: off, as for the other faults
    std::string drop_burst;        // START or START:COUNT
    std::uint32_t dup_every = 0;
    std::uint32_t reorder_every = 0;
    std::string truth_out;
    std::uint16_t control_port = 0;  // 0: no control channel
    bool quiet = false;
};

// Fills config from the arguments (program name excluded). On a fault: false, and error holds the whole
// line(s) for standard error, line feed included ("unknown flag --x\n", "--port needs a value\n", "tessel:
// --port: stoi: not a number: 'abc'\n"); the process ends with status 2.
bool parse_command_line(int count, const char* const* arguments, FeedConfig& config, std::string& error);

// Splits the text of --drop-burst. An empty text leaves both 0; without ':' the length is 1. On a bad number
// false and the error line as above.
bool split_drop_burst(const std::string& text, std::uint64_t& start, std::uint32_t& length,
                      std::string& error);

}  // namespace tessel
