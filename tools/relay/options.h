#pragma once

#include "relay/impairments.h"

#include <netinet/in.h>
#include <cstdint>
#include <string>
#include <vector>

// The relay's command line.
namespace tessel::relay {

struct LineOptions {
    std::string name;
    std::string destination;  // as written
    bool to_file = false;
    sockaddr_in address{};  // of a network destination
    std::string iface;      // of a group: the interface to send through; empty for 127.0.0.1
    Impairments impairments;
};

// --retrans LISTEN=UPSTREAM[,drop=P%][,delay=T][,limit=N/s]
struct RetransOptions {
    sockaddr_in listen{};
    sockaddr_in upstream{};
    double drop = 0;  // of requests and of replies
    std::int64_t delay_ns = 0;
    double limit = 0;  // requests a second from one client address; 0: no limit
};

// --snapshot LISTEN=UPSTREAM[,delay=T][,rate=XMbit][,close=BYTES]
struct SnapshotOptions {
    sockaddr_in listen{};
    sockaddr_in upstream{};
    std::int64_t delay_ns = 0;
    double rate_bits = 0;           // to the client, a second; 0: no limit
    std::uint64_t close_bytes = 0;  // the connection is closed after this many bytes to the client; 0: never
};

struct Options {
    std::string group = "239.255.25.177";
    std::uint32_t port = 25177;
    std::string iface = "127.0.0.1";
    std::string session;  // others are not relayed; empty: all are
    std::string from_pcap;
    std::vector<LineOptions> lines;
    std::vector<RetransOptions> retrans;
    std::vector<SnapshotOptions> snapshots;
    std::uint64_t seed = 7;
    std::uint64_t payload_bytes_max = 0;
    bool end_of_session = false;
    bool control = false;
    sockaddr_in control_address{};
    double speed = 1;       // of a replay
    double rate_first = 0;  // messages a second; 0: as the capture has it
    double rate_last = 0;   // of a ramp; else the same
    std::int64_t ramp_ns = 0;
    std::uint64_t loops = 1;
    bool quiet = false;  // no fault lines
};

// True when nothing waits for a clock: a capture goes into files.
bool is_offline(const Options& options);

// Reads the command line. -1: go on; anything else is the exit status, and what there was to say has been
// said.
int parse_options(Options& options, int argc, char** argv);

// "NAME=DEST[,KEY=VALUE...]". False with the reason in `error`.
bool parse_line_option(const std::string& text, LineOptions& line, std::string& error);
bool parse_retrans_option(const std::string& text, RetransOptions& service, std::string& error);
bool parse_snapshot_option(const std::string& text, SnapshotOptions& service, std::string& error);

}  // namespace tessel::relay
