#include "listen/listener.h"

#include "listen/message_json.h"
#include "receiver/truth_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace tessel::listen {

namespace {

constexpr std::uint64_t complaints_max =
    20;  // lines about single losses or messages; the summary counts them all

void take_undecoded(Receiver& r, const unsigned char* bytes, std::size_t length, std::uint64_t sequence,
                    const std::string& error) {
    ++r.market.undecoded;
    r.market.last_error = error;
    if (r.market.undecoded <= complaints_max) {
        fmt::print(stderr, "tessel-listen: message {}: {}\n", sequence, error);
    }
    if (r.options.decode) {
        append_undecoded_json(r.output.buffer, bytes, length, sequence, error);
        ++r.output.lines;
    }
}

void write_line(Receiver& r, std::uint64_t sequence) {
    if (r.output.fd < 0) {
        return;
    }
    if (r.options.decode) {
        append_message_json(r.output.buffer, r.market.message, sequence);
        ++r.output.lines;
    } else if (sequence != 0 && append_truth_line(r.output.buffer, r.market, r.market.message, sequence)) {
        ++r.output.lines;
    }
    flush_when_large(r.output);
}

void take_any(Receiver& r, const unsigned char* bytes, std::size_t length, std::uint64_t sequence) {
    std::string error;
    if (!decode_message(r.market.message, bytes, length, &error)) {
        take_undecoded(r, bytes, length, sequence, error);
        return;
    }
    apply_decoded(r.market, r.market.message, sequence);
    write_line(r, sequence);
}

void take_message(Receiver& r, std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
    if (r.finished || sequence >= r.end_sequence) {
        return;
    }
    r.first_taken = r.messages == 0 ? sequence : r.first_taken;
    r.last_taken = sequence;
    ++r.messages;
    take_any(r, bytes, length, sequence);
    r.finished = r.options.count != 0 && r.messages >= r.options.count;
}

void take_loss(Receiver& r, std::uint64_t first, std::uint64_t count) {
    if (r.finished || first >= r.end_sequence) {
        return;
    }
    const std::uint64_t counted = std::min(count, r.end_sequence - first);
    if (r.lost < complaints_max) {
        fmt::print(stderr, "tessel-listen: lost {} message{} from {} on\n", counted, counted == 1 ? "" : "s",
                   first);
    }
    r.lost += counted;
}

}  // namespace

bool prepare_receiver(Receiver& receiver, const Options& options,
                      std::function<void(const unsigned char*, std::size_t)> request) {
    receiver.options = options;
    if (!options.out.empty() && !open_output(receiver.output, options.out)) {
        fmt::print(stderr, "tessel-listen: {}\n", receiver.output.error);
        return false;
    }
    SequencerSettings settings;
    settings.session = options.session;
    settings.first_sequence = static_cast<std::uint64_t>(options.first_sequence);
    settings.can_ask = static_cast<bool>(request);
    settings.retries = options.retries;
    settings.timeout_ms = options.timeout_ms;
    SequencerSinks sinks;
    sinks.message = [&receiver](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        take_message(receiver, sequence, bytes, length);
    };
    sinks.lost = [&receiver](std::uint64_t first, std::uint64_t count) { take_loss(receiver, first, count); };
    sinks.request = std::move(request);
    receiver.sequencer = make_sequencer(std::move(settings), std::move(sinks));
    return true;
}

void take_spin_message(Receiver& receiver, const unsigned char* bytes, std::size_t length) {
    ++receiver.spin_messages;
    take_any(receiver, bytes, length, 0);
}

void take_captured_spin_message(Receiver& receiver, const unsigned char* bytes, std::size_t length) {
    std::string error;
    ++receiver.spin_messages;
    if (!decode_message(receiver.market.message, bytes, length, &error)) {
        take_undecoded(receiver, bytes, length, 0, error);
        return;
    }
    write_line(receiver, 0);
}

void report_kernel_drops(const Receiver& receiver) {
    fmt::print(
        stderr,
        "tessel-listen: the kernel dropped {} packets because the socket buffer of {} bytes was full; raise "
        "net.core.rmem_max, for example: sysctl -w net.core.rmem_max=134217728 (and --rcvbuf with it)\n",
        receiver.kernel_drops, receiver.socket_buffer_bytes);
}

ExitStatus finish_receiver(Receiver& receiver) {
    close_output(receiver.output);
    const SequencerCounters& c = receiver.sequencer.counters;
    fmt::print(stderr,
               "tessel-listen: {} messages ({} to {}), {} lines; {} packets, {} heartbeats, {} duplicate, {} "
               "reordered, "
               "{} of other sessions, {} malformed\n",
               receiver.messages, receiver.first_taken, receiver.last_taken, receiver.output.lines, c.packets,
               c.heartbeats, c.duplicate_packets, c.reordered_packets, c.other_session, c.malformed);
    fmt::print(
        stderr,
        "tessel-listen: {} gaps of {} messages, {} requests, {} recovered, {} lost; {} kernel drops, {} "
        "undecoded\n",
        c.gaps, c.missed, c.requests, c.recovered, receiver.lost, receiver.kernel_drops,
        receiver.market.undecoded);
    if (receiver.kernel_drops != 0) {
        report_kernel_drops(receiver);
    }
    if (c.fallen_back != 0) {
        fmt::print(stderr, "tessel-listen: the sequence fell back {} times: the feed was started again\n",
                   c.fallen_back);
    }
    if (!receiver.output.error.empty()) {
        fmt::print(stderr, "tessel-listen: {}\n", receiver.output.error);
    }
    const bool heard = c.packets != 0 || receiver.spin_messages != 0;
    if (!heard) {
        fmt::print(stderr, "tessel-listen: nothing was heard\n");
    }
    const bool complete = heard && receiver.lost == 0 && receiver.market.undecoded == 0 &&
                          receiver.output.error.empty() && !receiver.snapshot_failed;
    if (heard) {
        fmt::print(stderr, "tessel-listen: {}\n", complete ? "nothing missing" : "something is missing");
    }
    return complete ? ExitStatus::nothing_missing : ExitStatus::something_missing;
}

}  // namespace tessel::listen
