#pragma once

#include "app/config.h"
#include "capture/frames.h"

#include <cstdint>
#include <string>
#include <vector>

// The command line of tessel-capture.
namespace tessel::capture {

struct Options {
    FeedConfig feed;  // the feed's own options

    std::int64_t start_ns = 0;  // since the epoch
    std::int64_t duration_ns = 0;
    std::string pcap;  // paths; empty: none
    std::string truth_out;
    std::string plot;
    std::string script;
    std::vector<std::int64_t> joins_ns;  // since the start, in order
    bool retransmit = false;
    std::uint32_t source_address = 0;  // host order
    std::uint32_t group_address = 0;
    std::uint16_t source_port = 0;
    Mac source_mac{};
    std::uint16_t vlan = 0;  // 0: no tag
};

enum class ExitStatus : int { written = 0, not_written = 1, bad_options = 2 };

// Reads the command line into `options`. Returns -1 to go on, or the status to end with: 0 after --help and
// --version, 2 after a fault, which has been printed to standard error.
int parse_options(Options& options, int argc, const char* const* argv);

// Six octets in hexadecimal with colons or hyphens between; false for anything else.
bool parse_mac(const std::string& text, Mac& mac);

}  // namespace tessel::capture
