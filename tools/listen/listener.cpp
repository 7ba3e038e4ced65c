#include "listen/listener.h"

#include "receiver/truth_line.h"
#include "wire/message_json.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace tessel::listen {

using receiver::SequencerCounters;
using receiver::SequencerSettings;
using receiver::SequencerSinks;

namespace {

constexpr std::uint64_t complaints_max =
    20;  // lines about single losses or messages; the summary counts them all

void take_undecoded(Listener& listener, const unsigned char* bytes, std::size_t length,
                    std::uint64_t sequence, const std::string& error) {
    ++listener.market.undecoded;
    listener.market.last_error = error;
    if (listener.market.undecoded <= complaints_max) {
        fmt::print(stderr, "tessel-listen: message {}: {}\n", sequence, error);
    }
    if (listener.options.decode) {
        layout::append_undecoded_json(listener.output.buffer, bytes, length, sequence, error);
        ++listener.output.lines;
    }
}

void write_line(Listener& listener, const unsigned char* bytes, std::size_t length, std::uint64_t sequence) {
    if (listener.output.fd < 0) {
        return;
    }
    if (listener.options.decode) {
        layout::append_message_json(listener.output.buffer, bytes, length, sequence);
        ++listener.output.lines;
    } else if (sequence != 0 && receiver::append_truth_line(listener.output.buffer, listener.market,
                                                            listener.market.message, sequence)) {
        ++listener.output.lines;
    }
    flush_when_large(listener.output);
}

void take_any(Listener& listener, const unsigned char* bytes, std::size_t length, std::uint64_t sequence) {
    std::string error;
    if (!decode_message(listener.market.message, bytes, length, &error)) {
        take_undecoded(listener, bytes, length, sequence, error);
        return;
    }
    apply_decoded(listener.market, listener.market.message, sequence);
    write_line(listener, bytes, length, sequence);
}

void take_message(Listener& listener, std::uint64_t sequence, const unsigned char* bytes,
                  std::size_t length) {
    if (listener.finished || sequence >= listener.end_sequence) {
        return;
    }
    listener.first_taken = listener.messages == 0 ? sequence : listener.first_taken;
    listener.last_taken = sequence;
    ++listener.messages;
    take_any(listener, bytes, length, sequence);
    listener.finished = listener.options.count != 0 && listener.messages >= listener.options.count;
}

void take_loss(Listener& listener, std::uint64_t first, std::uint64_t count) {
    if (listener.finished || first >= listener.end_sequence) {
        return;
    }
    const std::uint64_t counted = std::min(count, listener.end_sequence - first);
    if (listener.lost < complaints_max) {
        fmt::print(stderr, "tessel-listen: lost {} message{} from {} on\n", counted, counted == 1 ? "" : "s",
                   first);
    }
    listener.lost += counted;
}

}  // namespace

bool prepare_listener(Listener& listener, const Options& options,
                      std::function<void(const unsigned char*, std::size_t)> request) {
    listener.options = options;
    if (!options.out.empty() && !open_output(listener.output, options.out)) {
        fmt::print(stderr, "tessel-listen: {}\n", listener.output.error);
        return false;
    }
    SequencerSettings settings;
    settings.session = options.session;
    settings.first_sequence = static_cast<std::uint64_t>(options.first_sequence);
    settings.can_request = static_cast<bool>(request);
    settings.retries = options.retries;
    settings.timeout_ms = options.timeout_ms;
    SequencerSinks sinks;
    sinks.message = [&listener](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        take_message(listener, sequence, bytes, length);
    };
    sinks.lost = [&listener](std::uint64_t first, std::uint64_t count) { take_loss(listener, first, count); };
    sinks.request = std::move(request);
    listener.sequencer = receiver::make_sequencer(std::move(settings), std::move(sinks));
    return true;
}

void take_spin_message(Listener& listener, const unsigned char* bytes, std::size_t length) {
    ++listener.spin_messages;
    take_any(listener, bytes, length, 0);
}

void take_captured_spin_message(Listener& listener, const unsigned char* bytes, std::size_t length) {
    std::string error;
    ++listener.spin_messages;
    if (!decode_message(listener.market.message, bytes, length, &error)) {
        take_undecoded(listener, bytes, length, 0, error);
        return;
    }
    write_line(listener, bytes, length, 0);
}

void report_kernel_drops(const Listener& listener) {
    fmt::print(
        stderr,
        "tessel-listen: the kernel dropped {} packets because the socket buffer of {} bytes was full; raise "
        "net.core.rmem_max, for example: sysctl -w net.core.rmem_max=134217728 (and --rcvbuf with it)\n",
        listener.kernel_drops, listener.socket_buffer_bytes);
}

ExitStatus finish_listener(Listener& listener) {
    close_output(listener.output);
    const SequencerCounters& c = listener.sequencer.counters;
    fmt::print(stderr,
               "tessel-listen: {} messages ({} to {}), {} lines; {} packets, {} heartbeats, {} duplicate, {} "
               "reordered, "
               "{} of other sessions, {} malformed\n",
               listener.messages, listener.first_taken, listener.last_taken, listener.output.lines, c.packets,
               c.heartbeats, c.duplicate_packets, c.reordered_packets, c.other_session, c.malformed);
    fmt::print(
        stderr,
        "tessel-listen: {} gaps of {} messages, {} requests, {} recovered, {} lost; {} kernel drops, {} "
        "undecoded\n",
        c.gaps, c.missed, c.requests, c.recovered, listener.lost, listener.kernel_drops,
        listener.market.undecoded);
    if (listener.kernel_drops != 0) {
        report_kernel_drops(listener);
    }
    if (c.sequence_resets != 0) {
        fmt::print(stderr, "tessel-listen: the sequence fell back {} times: the feed was started again\n",
                   c.sequence_resets);
    }
    if (!listener.output.error.empty()) {
        fmt::print(stderr, "tessel-listen: {}\n", listener.output.error);
    }
    const bool heard = c.packets != 0 || listener.spin_messages != 0;
    if (!heard) {
        fmt::print(stderr, "tessel-listen: nothing was heard\n");
    }
    const bool complete = heard && listener.lost == 0 && listener.market.undecoded == 0 &&
                          listener.output.error.empty() && !listener.snapshot_failed;
    if (heard) {
        fmt::print(stderr, "tessel-listen: {}\n", complete ? "nothing missing" : "something is missing");
    }
    return complete ? ExitStatus::nothing_missing : ExitStatus::something_missing;
}

}  // namespace tessel::listen
