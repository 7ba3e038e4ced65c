#include "listen/listener.h"

#include "listen/report.h"
#include "listen/stop_signals.h"
#include "receiver/truth_line.h"
#include "wire/message_json.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::listen {

using receiver::SequencerCounters;
using receiver::SequencerSettings;
using receiver::SequencerSinks;

namespace {

// Lines about single losses, messages or runs; the summary counts them all.
constexpr std::uint64_t notices_max = 20;

void write_undecoded(Listener& listener, const unsigned char* bytes, std::size_t length,
                     std::uint64_t sequence, const std::string& error) {
    ++listener.undecoded;
    if (listener.undecoded <= notices_max) {
        report(fmt::format("message {}: {}", sequence, error));
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

// False when the message cannot be decoded.
bool apply_and_write(Listener& listener, const unsigned char* bytes, std::size_t length,
                     std::uint64_t sequence) {
    std::string error;
    if (!decode_message(listener.market.message, bytes, length, &error)) {
        write_undecoded(listener, bytes, length, sequence, error);
        return false;
    }
    apply_decoded(listener.market, listener.market.message, sequence);
    write_line(listener, bytes, length, sequence);
    return true;
}

// What --times and --latency keep of a message. Not inline: without them it would cost each message 14
// instructions.
[[gnu::noinline]] void note_times(Listener& listener, std::uint64_t sequence) {
    const std::uint64_t sip_ns = listener.market.message.header.sip_time_ns;
    if (listener.times.fd >= 0) {
        fmt::format_to(std::back_inserter(listener.times.buffer), "{{\"seq\":{},\"sip\":{}}}\n", sequence,
                       sip_ns);
        flush_when_large(listener.times);
    }
    // A recovered message says nothing about a packet's transit time.
    const receiver::PacketArrival& arrival = listener.sequencer.delivering;
    if (listener.latency && arrival.source == receiver::PacketSource::multicast && arrival.stamp_ns > 0) {
        note_latency(*listener.latency, sip_ns, static_cast<std::uint64_t>(arrival.stamp_ns),
                     listener.taken_ns);
    }
}

void on_message(Listener& listener, std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
    if (listener.finished || sequence >= listener.end_sequence) {
        return;
    }
    RunCounters& run = listener.run;
    run.first = run.messages == 0 ? sequence : run.first;
    run.last = sequence;
    ++run.messages;
    ++listener.messages;
    const bool decoded = apply_and_write(listener, bytes, length, sequence);
    if (listener.measures_times && decoded) [[unlikely]] {
        note_times(listener, sequence);
    }
    listener.finished = listener.options.count != 0 && listener.messages >= listener.options.count;
}

void on_loss(Listener& listener, std::uint64_t first, std::uint64_t count) {
    if (listener.finished || first >= listener.end_sequence) {
        return;
    }
    const std::uint64_t counted = std::min(count, listener.end_sequence - first);
    ++listener.losses;
    if (listener.losses <= notices_max) {
        report(fmt::format("lost {} message{} from {} on", counted, counted == 1 ? "" : "s", first));
    }
    listener.run.lost += counted;
    listener.lost += counted;
}

void on_expired(Listener& listener, std::uint64_t first, std::uint64_t count) {
    if (!listener.finished) {
        report(
            fmt::format("replies begin later than requested: {} messages from {} on are no longer in the "
                        "history of the retransmission service",
                        count, first));
    }
}

void report_run(const Listener& listener) {
    const RunCounters& run = listener.run;
    report_summary(fmt::format("run {}: {} messages ({} to {}), {} lines, {} lost", listener.restarts + 1,
                               run.messages, run.first, run.last, listener.output.lines - run.lines_before,
                               run.lost));
}

void on_restart(Listener& listener, std::uint64_t first) {
    if (listener.restarts < notices_max) {
        report(
            fmt::format("the feed was started again under the same session: after message {} a new run, "
                        "received from {} on",
                        listener.run.last, first));
        report_run(listener);
    }
    ++listener.restarts;
    listener.run = {};
    listener.run.lines_before = listener.output.lines;
    listener.market = {};
    if (listener.after_restart) {
        listener.after_restart();
    }
}

void report_lines(const Listener& listener) {
    for (std::size_t at = 0; at < listener.options.lines.size(); ++at) {
        const receiver::LineCounters& counters = listener.sequencer.arbiter.lines[at].counters;
        report_summary(fmt::format("line {}: {} first, {} second, {} missing, behind {:.3f} ms",
                                   listener.options.lines[at].name, counters.first, counters.second,
                                   missing_on_line(listener.sequencer, at),
                                   static_cast<double>(counters.behind_ns_max) / 1e6));
    }
}

// What a summary alone does not explain.
void report_remarks(const Listener& listener) {
    const SequencerCounters& counters = listener.sequencer.counters;
    if (listener.kernel_drops != 0) {
        report_kernel_drops(listener);
    }
    if (listener.restarts != 0) {
        report(
            fmt::format("the feed was started again {} time{}: the last messages of an earlier run may be "
                        "missing",
                        listener.restarts, listener.restarts == 1 ? "" : "s"));
    }
    if (counters.sequence_resets != 0) {
        report(fmt::format("{} heartbeat{} fell back below a number received: the feed was started again",
                           counters.sequence_resets, counters.sequence_resets == 1 ? "" : "s"));
    }
    for (const Output* output : {&listener.output, &listener.times}) {
        if (!output->error.empty()) {
            report(output->error);
        }
    }
}

bool open_files(Listener& listener, const Options& options) {
    listener.times.option = "--times";
    for (Output* output : {&listener.output, &listener.times}) {
        output->abandon_write = [] { return stop_signals() > 1; };
        const std::string& path = output == &listener.times ? options.times : options.out;
        if (!path.empty() && !open_output(*output, path, options.from_pcap)) {
            report(output->error);
            return false;
        }
    }
    if (options.latency) {
        listener.latency.emplace();
        if (!prepare_latency(*listener.latency, options.latency_out)) {
            report(listener.latency->error);
            return false;
        }
    }
    listener.measures_times = options.latency || !options.times.empty();
    return true;
}

}  // namespace

bool prepare_listener(Listener& listener, const Options& options,
                      std::function<void(const unsigned char*, std::size_t)> request) {
    listener.options = options;
    if (!open_files(listener, options)) {
        return false;
    }
    SequencerSettings settings;
    settings.session = options.session;
    settings.first_sequence = options.first_sequence;
    settings.can_request = static_cast<bool>(request);
    settings.retries = options.retries;
    settings.timeout_ms = options.timeout_ms;
    settings.lines = lines_of(options).size();
    settings.patience_ms = options.patience_ms;
    SequencerSinks sinks;
    sinks.message = [&listener](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        on_message(listener, sequence, bytes, length);
    };
    sinks.lost = [&listener](std::uint64_t first, std::uint64_t count) { on_loss(listener, first, count); };
    sinks.expired = [&listener](std::uint64_t first, std::uint64_t count) {
        on_expired(listener, first, count);
    };
    sinks.restarted = [&listener](std::uint64_t first) { on_restart(listener, first); };
    sinks.request = std::move(request);
    listener.sequencer = receiver::make_sequencer(std::move(settings), std::move(sinks));
    return true;
}

void take_spin_message(Listener& listener, const unsigned char* bytes, std::size_t length) {
    ++listener.spin_messages;
    apply_and_write(listener, bytes, length, 0);
}

void take_captured_spin_message(Listener& listener, const unsigned char* bytes, std::size_t length) {
    std::string error;
    ++listener.spin_messages;
    if (!decode_message(listener.market.message, bytes, length, &error)) {
        write_undecoded(listener, bytes, length, 0, error);
        return;
    }
    write_line(listener, bytes, length, 0);
}

std::vector<LineOption> lines_of(const Options& options) {
    return options.lines.empty() ? std::vector<LineOption>{{"", options.group, options.port, options.iface}}
                                 : options.lines;
}

void report_kernel_drops(const Listener& listener) {
    report(
        fmt::format("the kernel dropped {} packets, the socket buffer of {} bytes was full: raise --rcvbuf "
                    "and its limit, sysctl -w net.core.rmem_max=134217728",
                    listener.kernel_drops, listener.socket_buffer_bytes));
}

ExitStatus finish_listener(Listener& listener) {
    close_output(listener.output);
    close_output(listener.times);
    const SequencerCounters& counters = listener.sequencer.counters;
    if (listener.restarts != 0) {
        report_run(listener);
    }
    report_summary(
        fmt::format("{} messages ({} to {}), {} lines; {} packets, {} heartbeats, {} duplicate, {} "
                    "reordered, {} of other sessions, {} malformed",
                    listener.messages, listener.run.first, listener.run.last, listener.output.lines,
                    counters.packets, counters.heartbeats, counters.duplicate_packets,
                    counters.reordered_packets, counters.other_session, counters.malformed));
    report_summary(
        fmt::format("{} gaps of {} messages, {} requests, {} recovered, {} lost; {} kernel drops, "
                    "{} undecoded",
                    counters.gaps, counters.missed, counters.requests, counters.recovered, listener.lost,
                    listener.kernel_drops, listener.undecoded));
    report_lines(listener);
    if (listener.latency) {
        finish_latency(*listener.latency, listener.taken_ns);
    }
    report_remarks(listener);
    if (counters.packets == 0 && listener.spin_messages == 0) {
        report("no packets received");
        return ExitStatus::something_missing;
    }
    const bool complete = listener.lost == 0 && listener.undecoded == 0 && listener.restarts == 0 &&
                          counters.sequence_resets == 0 && listener.output.error.empty() &&
                          listener.times.error.empty() &&
                          (!listener.latency || listener.latency->error.empty()) &&
                          !listener.snapshot_failed && !listener.capture_damaged;
    report(complete ? "nothing missing" : "incomplete");
    return complete ? ExitStatus::nothing_missing : ExitStatus::something_missing;
}

}  // namespace tessel::listen
