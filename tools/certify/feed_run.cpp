#include "certify/feed_run.h"

#include "certify/file_text.h"
#include "certify/time_limits.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>

namespace tessel::certify {

namespace {

constexpr int reply_ms = 10'000;
constexpr std::string_view ready_words = "[tessel] UQDF+UTDF ";
constexpr double stop_seconds = 5;

std::string local_endpoint(std::uint16_t port) {
    return "127.0.0.1:" + std::to_string(port);
}

// The number after `before` in a line; 0 when there is none.
std::uint64_t number_after(std::string_view line, std::string_view before) {
    const std::size_t at = line.find(before);
    std::uint64_t number = 0;
    if (at != std::string_view::npos) {
        std::from_chars(line.data() + at + before.size(), line.data() + line.size(), number);
    }
    return number;
}

}  // namespace

bool lease_feed(FeedRun& feed, Leases& leases, std::uint16_t shared, std::string& error) {
    feed.endpoints.group = lease_group(leases);
    feed.endpoints.port = shared != 0 ? shared : lease_port(leases);
    const std::uint16_t retrans = lease_port(leases);
    const std::uint16_t snapshot = lease_port(leases);
    const std::uint16_t control = lease_port(leases);
    if (feed.endpoints.group.empty() || feed.endpoints.port == 0 || retrans == 0 || snapshot == 0 ||
        control == 0) {
        error = "there are no free ports or groups";
        return false;
    }
    feed.endpoints.retrans = local_endpoint(retrans);
    feed.endpoints.snapshot = local_endpoint(snapshot);
    feed.control = local_endpoint(control);
    return true;
}

std::string generated_symbols(unsigned count) {
    constexpr unsigned price_first = 20;
    constexpr unsigned prices = 400;
    std::string list;
    for (unsigned number = 1; number <= count; ++number) {
        list += fmt::format("{}S{:04}:{}.00", number == 1 ? "" : ",", number, price_first + number % prices);
    }
    return list;
}

std::uint64_t feed_seed(std::uint64_t run_seed, const std::string& case_name) {
    std::uint32_t hash = 2'166'136'261;  // FNV-1a
    for (const char letter : case_name) {
        hash = (hash ^ static_cast<unsigned char>(letter)) * 16'777'619;
    }
    return run_seed + hash;
}

std::vector<std::string> feed_words(const Case& each, const FeedRun& feed, const std::string& program,
                                    std::uint64_t seed) {
    const Endpoints& at = feed.endpoints;
    const auto port_of = [](const std::string& endpoint) { return endpoint.substr(endpoint.rfind(':') + 1); };
    std::vector<std::string> words = {program,
                                      "--mcast",
                                      at.group,
                                      "--port",
                                      std::to_string(at.port),
                                      "--iface",
                                      at.iface,
                                      "--session",
                                      at.session,
                                      "--retrans-port",
                                      port_of(at.retrans),
                                      "--snapshot-port",
                                      port_of(at.snapshot),
                                      "--control-port",
                                      port_of(feed.control),
                                      "--truth-out",
                                      feed.truth_path,
                                      "--seed",
                                      std::to_string(seed)};
    if (each.generated_symbols != 0) {
        words.insert(words.end(), {"--symbols", generated_symbols(each.generated_symbols)});
    }
    words.insert(words.end(), each.feed_options.begin(), each.feed_options.end());
    return words;
}

bool start_feed(FeedRun& feed, std::string& error) {
    ProgramStart start;
    start.words = feed.words;
    if (!feed.scenario.empty()) {
        start.variables.push_back("TESSEL_SCENARIO=" + feed.scenario);
    }
    start.output = open(feed.log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (start.output < 0) {
        error = feed.log_path + ": " + std::strerror(errno);
        return false;
    }
    feed.log_offsets.push_back(regular_file_bytes(feed.log_path));
    feed.process = start_program(start, error);
    close(start.output);
    if (feed.client.fd < 0 && !ctl::open_control(feed.control, reply_ms, feed.client, error)) {
        return false;
    }
    return feed.process != 0;
}

bool is_feed_ready(const FeedRun& feed) {
    return file_text(feed.log_path, feed.log_offsets.back()).find(ready_words) != std::string::npos;
}

std::string last_words(const FeedRun& feed) {
    std::string text = file_text(feed.log_path);
    text.resize(text.find_last_not_of('\n') + 1);
    return text.substr(text.rfind('\n') + 1);
}

std::vector<DroppedRange> parse_dropped(std::string_view log) {
    constexpr std::string_view dropped = "tessel fault: dropped seq ";
    std::vector<DroppedRange> ranges;
    while (!log.empty()) {
        const std::string_view line = log.substr(0, log.find('\n'));
        log.remove_prefix(std::min(line.size() + 1, log.size()));
        if (line.starts_with(dropped)) {
            const std::size_t packet = line.find("(packet ");
            const std::size_t comma = line.find(", ", packet == std::string_view::npos ? 0 : packet);
            const std::uint64_t count =
                comma == std::string_view::npos ? 0 : number_after(line.substr(comma), ", ");
            ranges.push_back({number_after(line, dropped), count});
        }
    }
    return ranges;
}

std::vector<DroppedRange> dropped_ranges(const FeedRun& feed, std::size_t run) {
    if (run >= feed.log_offsets.size()) {
        return {};
    }
    std::string text = file_text(feed.log_path, feed.log_offsets[run]);
    if (run + 1 < feed.log_offsets.size()) {
        text.resize(std::min<std::size_t>(text.size(), feed.log_offsets[run + 1] - feed.log_offsets[run]));
    }
    return parse_dropped(text);
}

bool ask_stats(FeedRun& feed, ctl::FeedCounters& counters) {
    std::string reply;
    std::string error;
    return ctl::ask(feed.client, "stats", reply, error) == ctl::Answer::reply &&
           ctl::parse_stats(reply, counters);
}

void stop_feed(FeedRun& feed, Reaped& reaped) {
    if (feed.process == 0) {
        return;
    }
    kill(feed.process, SIGINT);
    const double end = steady_seconds() + scaled(stop_seconds);
    for (reap(reaped); !has_ended(reaped, feed.process); reap(reaped)) {
        if (steady_seconds() > end) {
            kill(feed.process, SIGKILL);
        }
        poll(nullptr, 0, 2);
    }
    feed.process = 0;
}

}  // namespace tessel::certify
