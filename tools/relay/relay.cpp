#include "relay/relay.h"

#include "relay/capture_output.h"

#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace tessel::relay {

namespace {

constexpr std::size_t command_bytes_max = 512;
constexpr std::size_t commands_a_pass_max = 64;
constexpr std::int64_t us = 1'000;
constexpr std::int64_t wait_step_ns = 1'000'000;

void count_timing(TimingCounters& timing, std::int64_t late_ns) {
    ++timing.packets;
    timing.within_10_us += late_ns <= 10 * us ? 1 : 0;
    timing.within_100_us += late_ns <= 100 * us ? 1 : 0;
    timing.within_1_ms += late_ns <= 1000 * us ? 1 : 0;
}

LineSinks make_sinks(Relay& relay, Output& output) {
    LineSinks sinks;
    sinks.send = [&relay, &output](std::int64_t due_ns, const unsigned char* bytes, std::size_t length) {
        if (output.capture != nullptr) {
            write_packet(*output.capture, due_ns + relay.stamp_offset_ns, bytes, length);
            return;
        }
        if (relay.timed) {
            count_timing(output.timing, std::max<std::int64_t>(0, relay.now_ns() - due_ns));
        }
        add_packet(output.udp, bytes, length);
    };
    if (!relay.options->quiet) {
        sinks.fault = [&output](std::string_view kind, std::uint64_t first, const std::string& detail) {
            std::fprintf(stderr, "tessel fault: line %s %.*s seq %" PRIu64 " (%s)\n",
                         output.line.name.c_str(), static_cast<int>(kind.size()), kind.data(), first,
                         detail.c_str());
        };
    }
    return sinks;
}

bool open_control(Relay& relay, std::string& error) {
    if (!relay.options->control) {
        return true;
    }
    relay.control = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const auto* address = reinterpret_cast<const sockaddr*>(&relay.options->control_address);
    if (relay.control < 0 || bind(relay.control, address, sizeof relay.options->control_address) != 0) {
        error = "--control: bind: " + std::string(std::strerror(errno));
        return false;
    }
    return true;
}

void serve_control(Relay& relay) {
    for (std::size_t taken = 0; relay.control >= 0 && taken < commands_a_pass_max; ++taken) {
        std::array<char, command_bytes_max> bytes{};
        sockaddr_in from{};
        socklen_t from_bytes = sizeof from;
        const ssize_t length = recvfrom(relay.control, bytes.data(), bytes.size(), MSG_TRUNC,
                                        reinterpret_cast<sockaddr*>(&from), &from_bytes);
        if (length < 0) {
            return;
        }
        std::string reply = "err a command has at most " + std::to_string(bytes.size()) + " bytes";
        if (static_cast<std::size_t>(length) <= bytes.size()) {
            reply = run_command(relay, {bytes.data(), static_cast<std::size_t>(length)});
        }
        reply += '\n';
        sendto(relay.control, reply.data(), reply.size(), MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&from), sizeof from);
    }
}

std::vector<std::string_view> words_of(std::string_view text) {
    constexpr std::string_view white_space = " \t\n\v\f\r";
    std::vector<std::string_view> words;
    for (std::size_t at = text.find_first_not_of(white_space); at != std::string_view::npos;
         at = text.find_first_not_of(white_space, at)) {
        const std::size_t end = std::min(text.find_first_of(white_space, at), text.size());
        words.push_back(text.substr(at, end - at));
        at = end;
    }
    return words;
}

std::string summary_of(const Output& output) {
    return "line " + output.line.name + ": " + counters_text(output.line.counters);
}

std::string change_line(Relay& relay, std::string_view name, std::string_view assignment) {
    for (const auto& output : relay.outputs) {
        if (output->line.name == name) {
            std::string error;
            if (!set_impairment(output->line.impairments, assignment, false, error)) {
                return "err " + error;
            }
            return "ok line " + std::string(name) + " " + std::string(assignment);
        }
    }
    return "err unknown line '" + std::string(name) + "'";
}

bool is_ours(const Relay& relay, const unsigned char* bytes, std::size_t length) {
    const std::string& session = relay.options->session;
    if (session.empty()) {
        return true;
    }
    std::string padded = session;
    padded.resize(10, ' ');
    return length >= padded.size() && std::memcmp(bytes, padded.data(), padded.size()) == 0;
}

bool anything_waits(const Relay& relay) {
    return std::any_of(relay.outputs.begin(), relay.outputs.end(), [](const auto& output) {
        return !output->line.waiting.empty() || !output->line.held.empty();
    });
}

}  // namespace

bool open_relay(Relay& relay, const Options& options, std::string& error) {
    relay.options = &options;
    for (const LineOptions& line : options.lines) {
        relay.outputs.push_back(std::make_unique<Output>());
        Output& output = *relay.outputs.back();
        if (line.to_file) {
            output.capture = open_capture_output(line.destination, options, error);
            if (output.capture == nullptr) {
                return false;
            }
        } else if (!open_output(output.udp, line, error)) {
            return false;
        }
        output.line = make_line(line.name, line.impairments, options.seed, make_sinks(relay, output));
    }
    for (const RetransOptions& service : options.retrans) {
        relay.retrans.push_back(std::make_unique<RetransProxy>());
        if (!open_retrans_proxy(*relay.retrans.back(), service, options.seed, error)) {
            return false;
        }
    }
    for (const SnapshotOptions& service : options.snapshots) {
        relay.snapshots.push_back(std::make_unique<SnapshotProxy>());
        if (!open_snapshot_proxy(*relay.snapshots.back(), service, error)) {
            return false;
        }
    }
    return open_control(relay, error);
}

void offer_packet(Relay& relay, const unsigned char* bytes, std::size_t length, std::int64_t now_ns) {
    if (!is_ours(relay, bytes, length)) {
        return;
    }
    for (const auto& output : relay.outputs) {
        offer(output->line, bytes, length, now_ns);
    }
}

void send_due(Relay& relay, std::int64_t now_ns) {
    for (const auto& output : relay.outputs) {
        send_due(output->line, now_ns);
    }
}

void flush_outputs(Relay& relay) {
    for (const auto& output : relay.outputs) {
        if (output->capture == nullptr && output->udp.count != 0) {
            flush_output(output->udp);
        }
    }
}

std::int64_t next_due_ns(const Relay& relay, std::int64_t now_ns) {
    std::int64_t due_ns = std::numeric_limits<std::int64_t>::max();
    for (const auto& output : relay.outputs) {
        due_ns = std::min(due_ns, next_due_ns(output->line));
    }
    for (const auto& proxy : relay.retrans) {
        due_ns = std::min(due_ns, next_due_ns(*proxy));
    }
    for (const auto& proxy : relay.snapshots) {
        due_ns = std::min(due_ns, next_due_ns(*proxy, now_ns));
    }
    return due_ns;
}

void add_poll_entries(const Relay& relay, std::vector<pollfd>& entries, std::int64_t now_ns) {
    if (relay.control >= 0) {
        entries.push_back({relay.control, POLLIN, 0});
    }
    for (const auto& proxy : relay.retrans) {
        add_poll_entries(*proxy, entries);
    }
    for (const auto& proxy : relay.snapshots) {
        add_poll_entries(*proxy, entries, now_ns);
    }
}

void serve(Relay& relay, std::int64_t now_ns) {
    serve_control(relay);
    for (const auto& proxy : relay.retrans) {
        serve_retrans_proxy(*proxy, now_ns);
    }
    for (const auto& proxy : relay.snapshots) {
        serve_snapshot_proxy(*proxy, now_ns);
    }
}

std::string run_command(Relay& relay, std::string_view command) {
    const std::vector<std::string_view> words = words_of(command);
    if (words.size() == 3 && words[0] == "line") {
        return change_line(relay, words[1], words[2]);
    }
    if (words.size() == 1 && words[0] == "stats") {
        std::string reply;
        for (const auto& output : relay.outputs) {
            reply += (reply.empty() ? "ok " : "\nok ") + summary_of(*output);
        }
        return reply;
    }
    if (words.size() == 1 && words[0] == "stop") {
        relay.stopping = true;
        return "ok stopping";
    }
    return "err write 'line NAME KEY=VALUE', 'stats' or 'stop'";
}

bool finish_relay(Relay& relay, std::int64_t now_ns, std::int64_t most_ns) {
    for (const auto& output : relay.outputs) {
        release_held(output->line, now_ns);
    }
    const std::int64_t end_ns =
        most_ns == std::numeric_limits<std::int64_t>::max() ? most_ns : now_ns + most_ns;
    while (anything_waits(relay)) {
        const std::int64_t due_ns = next_due_ns(relay, now_ns);
        if (due_ns > end_ns) {
            break;
        }
        if (relay.now_ns == nullptr) {
            now_ns = std::max(now_ns, due_ns);
        } else {
            const std::int64_t wait_ns = std::clamp<std::int64_t>(due_ns - relay.now_ns(), 0, wait_step_ns);
            usleep(static_cast<useconds_t>(wait_ns / us));
            now_ns = relay.now_ns();
        }
        send_due(relay, now_ns);
        flush_outputs(relay);
    }
    bool good = true;
    for (const auto& output : relay.outputs) {
        if (relay.options->end_of_session) {
            send_end_of_session(output->line, std::max(now_ns, output->line.last_sent_ns));
        }
        if (output->capture != nullptr && !close_capture_output(*output->capture, relay.error)) {
            good = false;
        }
    }
    flush_outputs(relay);
    return good;
}

void print_summary(const Relay& relay) {
    TimingCounters all;
    for (const auto& output : relay.outputs) {
        std::fprintf(stderr, "tessel-relay: %s\n", summary_of(*output).c_str());
        if (output->udp.failed != 0) {
            std::fprintf(stderr, "tessel-relay: line %s: the system refused %" PRIu64 " packets\n",
                         output->line.name.c_str(), output->udp.failed);
        }
        all.packets += output->timing.packets;
        all.within_10_us += output->timing.within_10_us;
        all.within_100_us += output->timing.within_100_us;
        all.within_1_ms += output->timing.within_1_ms;
    }
    for (const auto& proxy : relay.retrans) {
        const RetransCounters& c = proxy->counters;
        std::fprintf(stderr,
                     "tessel-relay: retransmission: requests=%" PRIu64 " replies=%" PRIu64 " dropped=%" PRIu64
                     " limited=%" PRIu64 "\n",
                     c.requests, c.replies, c.dropped, c.limited);
    }
    for (const auto& proxy : relay.snapshots) {
        const SnapshotCounters& c = proxy->counters;
        std::fprintf(stderr,
                     "tessel-relay: Snap-Shot: connections=%" PRIu64 " refused=%" PRIu64 " cut=%" PRIu64 "\n",
                     c.connections, c.refused, c.cut);
    }
    if (relay.timed && all.packets != 0) {
        const auto share = [&all](std::uint64_t count) {
            return 100.0 * static_cast<double>(count) / static_cast<double>(all.packets);
        };
        std::fprintf(
            stderr,
            "tessel-relay: timing: %.1f %% within 10 us, %.1f %% within 100 us, %.1f %% within 1 ms\n",
            share(all.within_10_us), share(all.within_100_us), share(all.within_1_ms));
    }
}

void close_relay(Relay& relay) {
    for (const auto& output : relay.outputs) {
        if (output->udp.fd >= 0) {
            close(output->udp.fd);
        }
    }
    for (const auto& proxy : relay.retrans) {
        close_retrans_proxy(*proxy);
    }
    for (const auto& proxy : relay.snapshots) {
        close_snapshot_proxy(*proxy);
    }
    if (relay.control >= 0) {
        close(relay.control);
    }
}

}  // namespace tessel::relay
