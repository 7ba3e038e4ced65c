#pragma once

#include "relay/line.h"
#include "relay/options.h"
#include "relay/retrans_proxy.h"
#include "relay/snapshot_proxy.h"
#include "relay/udp_output.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The lines of a run and what they write to.
namespace tessel::relay {

struct CaptureOutput;  // a capture file; see capture_output.h

struct Output {
    Line line;
    UdpOutput udp;
    std::shared_ptr<CaptureOutput> capture;  // null for a network destination
    TimingCounters timing;
};

struct Relay {
    const Options* options = nullptr;
    std::vector<std::unique_ptr<Output>> outputs;
    std::vector<std::unique_ptr<RetransProxy>> retrans;
    std::vector<std::unique_ptr<SnapshotProxy>> snapshots;
    int control = -1;
    bool stopping = false;
    bool timed = false;                  // packets have a time they should leave at
    std::int64_t (*now_ns)() = nullptr;  // null: nothing waits for a clock
    std::int64_t stamp_offset_ns = 0;    // from that clock to the time of day, for capture files
    std::string error;                   // of an output file
};

// Opens everything that the options name. False with the reason in `error`.
bool open_relay(Relay& relay, const Options& options, std::string& error);

// Gives a packet to every line. Packets of other sessions are passed over.
void offer_packet(Relay& relay, const unsigned char* bytes, std::size_t length, std::int64_t now_ns);

// Sends what is due on every line.
void send_due(Relay& relay, std::int64_t now_ns);
void flush_outputs(Relay& relay);

// When anything is due, services included; INT64_MAX when nothing waits.
std::int64_t next_due_ns(const Relay& relay, std::int64_t now_ns);

// What poll() has to watch besides the input, and serving it.
void add_poll_entries(const Relay& relay, std::vector<pollfd>& entries, std::int64_t now_ns);
void serve(Relay& relay, std::int64_t now_ns);

// One control command; returns the reply without a line feed, of several lines for "stats".
std::string run_command(Relay& relay, std::string_view command);

// The end of the input: everything that waits goes out in its time, then the end of the session. A relay on a
// clock waits for it, at most `most_ns`. False with the reason in relay.error when an output file failed.
bool finish_relay(Relay& relay, std::int64_t now_ns, std::int64_t most_ns);

// The summary on standard error.
void print_summary(const Relay& relay);

void close_relay(Relay& relay);

}  // namespace tessel::relay
