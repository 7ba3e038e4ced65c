#include "relay/options.h"

#include "base/version.h"
#include "common/duration.h"
#include "receiver/sockets.h"

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <set>

namespace tessel::relay {

namespace {

constexpr std::size_t error_bytes_max = 200;

constexpr const char* footer = R"(Examples:
  tessel-relay --line A=239.1.1.1:4001,drop=1%,delay=200us..2ms --line B=239.1.1.2:4002,drop=1%
  tessel-relay --line out=10.0.0.7:4001,payload=1400 --end-of-session
  tessel-relay --from-pcap day.pcap --speed 10 --line A=239.1.1.1:4001
  tessel-relay --from-pcap day.pcap --line A=damaged.pcap,burst=0.5%:20% --seed 3
  tessel-relay --line A=239.1.1.1:4001 --retrans 127.0.0.1:5001=127.0.0.1:25178,drop=10%,limit=50/s

A line is NAME=DEST[,KEY=VALUE...]; DEST is GROUP:PORT[@IFACE], HOST:PORT or FILE.pcap[.zst].
Keys: drop=P% burst=P%:R% every=N seq=A-B[+C-D] dup=P% reorder=P%:D delay=T|T1..T2|normal:M:SD|spike:P%:T
      rate=XMbit queue=N bits=P% truncate=P% foreign=P% dark=T1..T2 payload=N
Exit status: 0 done, 1 a socket or file failed, 2 a bad command line.)";

bool is_text_of(std::string_view text, std::string_view allowed) {
    return !text.empty() && text.find_first_not_of(allowed) == std::string_view::npos;
}

constexpr std::string_view name_letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";

bool parse_address(const std::string& text, sockaddr_in& address, std::string& error) {
    return receiver::parse_endpoint(address, text, error);
}

bool parse_destination(const std::string& text, LineOptions& line, std::string& error) {
    line.destination = text;
    if (text.ends_with(".pcap") || text.ends_with(".pcap.zst")) {
        line.to_file = true;
        return true;
    }
    const std::size_t at = text.find('@');
    if (at != std::string::npos) {
        line.iface = text.substr(at + 1);
        in_addr unused{};
        if (inet_pton(AF_INET, line.iface.c_str(), &unused) != 1) {
            error = "'" + line.iface + "' is no IPv4 address of an interface";
            return false;
        }
    }
    if (!parse_address(text.substr(0, at), line.address, error)) {
        error += "; a destination is GROUP:PORT[@IFACE], HOST:PORT or FILE.pcap[.zst]";
        return false;
    }
    const bool is_group = (ntohl(line.address.sin_addr.s_addr) >> 28) == 0xE;
    if (!is_group && !line.iface.empty()) {
        error = "'" + text + "': only a multicast group has an interface to be sent through";
        return false;
    }
    return true;
}

// The first part of "A=B,c=d,e=f" and the assignments after it.
std::vector<std::string> split_at_commas(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t at = 0; at <= text.size(); ++at) {
        if (at == text.size() || text[at] == ',') {
            parts.push_back(text.substr(begin, at - begin));
            begin = at + 1;
        }
    }
    return parts;
}

bool parse_service_ends(const std::string& text, sockaddr_in& listen, sockaddr_in& upstream,
                        std::string& error) {
    const std::size_t at = text.find('=');
    if (at == std::string::npos) {
        error = "'" + text + "' is not LISTEN=UPSTREAM, each HOST:PORT";
        return false;
    }
    return parse_address(text.substr(0, at), listen, error) &&
           parse_address(text.substr(at + 1), upstream, error);
}

// One assignment of a service, through the line's keys where they are the same.
bool read_service_key(const std::string& assignment, std::string_view allowed, Impairments& values,
                      std::string& error) {
    const std::string key = assignment.substr(0, assignment.find('='));
    if ((" " + std::string(allowed) + " ").find(" " + key + " ") == std::string::npos) {
        error = "unknown key '" + key + "': it is one of " + std::string(allowed);
        return false;
    }
    if (assignment.find("..") != std::string::npos || assignment.find(':') != std::string::npos) {
        error = key + ": '" + assignment.substr(key.size() + 1) + "' is no single value";
        return false;
    }
    return set_impairment(values, assignment, false, error);
}

std::int64_t only_delay(const Impairments& values) {
    return values.delays.empty() ? 0 : values.delays.front().first_ns;
}

bool parse_rate_option(const std::string& text, double& rate, std::string& error) {
    const char* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, rate);
    if (problem != std::errc() || stop != end || !(rate > 0) || rate > 1e9) {
        error = "'" + text + "' is no number of messages a second from 1 to 1000000000";
        return false;
    }
    return true;
}

bool parse_ramp(const std::string& text, Options& options, std::string& error) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    if (second == std::string::npos) {
        error = "'" + text + "' is no ramp: write FIRST:LAST:TIME, as in 10000:2000000:30s";
        return false;
    }
    if (!parse_rate_option(text.substr(0, first), options.rate_first, error) ||
        !parse_rate_option(text.substr(first + 1, second - first - 1), options.rate_last, error) ||
        !common::parse_duration(text.substr(second + 1), options.ramp_ns, error)) {
        return false;
    }
    if (options.ramp_ns == 0) {
        error = "'" + text + "': a ramp takes time";
        return false;
    }
    return true;
}

struct Texts {
    std::vector<std::string> lines;
    std::vector<std::string> retrans;
    std::vector<std::string> snapshots;
    std::string control;
    std::string rate;
    std::string ramp;
    std::uint32_t control_port = 0;
};

void declare(CLI::App& app, Options& options, Texts& texts) {
    app.set_version_flag("--version", version_line("tessel-relay"));
    app.add_option("--mcast", options.group, "Multicast group to join")->capture_default_str();
    app.add_option("--port", options.port, "UDP port of the group")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_option("--iface", options.iface, "IPv4 address of the interface to join on")
        ->capture_default_str();
    app.add_option("--session", options.session, "Relay this session only (default: every packet)");
    app.add_option("--from-pcap", options.from_pcap, "Read a capture instead, - for standard input");
    app.add_option("--line", texts.lines, "An output, NAME=DEST[,KEY=VALUE...]; may be repeated");
    app.add_option("--retrans", texts.retrans,
                   "LISTEN=UPSTREAM[,drop=P%][,delay=T][,limit=N/s]: pass requests on");
    app.add_option("--snapshot", texts.snapshots,
                   "LISTEN=UPSTREAM[,delay=T][,rate=XMbit][,close=BYTES]: pass Snap-Shot connections on");
    app.add_option("--seed", options.seed, "Seed of every random draw; each line draws for itself")
        ->capture_default_str();
    app.add_option("--max-payload", options.payload_bytes_max,
                   "Split packets for every line, as payload=N does for one")
        ->check(CLI::Range(200, 65507));
    app.add_flag("--end-of-session", options.end_of_session,
                 "Send an end-of-session packet when the relay ends");
    app.add_option("--control-port", texts.control_port, "UDP port for text commands, on 127.0.0.1")
        ->check(CLI::Range(1, 65535));
    app.add_option("--control", texts.control, "The same as HOST:PORT");
    app.add_option("--speed", options.speed, "Of a replay: 10 is ten times as fast")
        ->check(CLI::Range(0.001, 10000.0));
    app.add_option("--rate", texts.rate, "Of a replay: messages a second");
    app.add_option("--ramp", texts.ramp, "Of a replay: FIRST:LAST:TIME, from one rate to another");
    app.add_option("--loop", options.loops, "Replay the capture this many times")
        ->check(CLI::Range(1u, 1000000000u));
    app.add_flag("--quiet", options.quiet, "No line for each fault");
    app.footer(footer);
}

bool read_lines(Options& options, const Texts& texts, std::string& error) {
    std::set<std::string> names;
    if (texts.lines.empty()) {
        error = "--line: name at least one output, as in --line A=239.1.1.1:4001";
        return false;
    }
    for (const std::string& text : texts.lines) {
        LineOptions line;
        if (!parse_line_option(text, line, error)) {
            error = "--line: " + error;
            return false;
        }
        if (!names.insert(line.name).second) {
            error = "--line: the name '" + line.name + "' is there twice";
            return false;
        }
        if (line.impairments.payload_bytes_max == 0) {
            line.impairments.payload_bytes_max = options.payload_bytes_max;
        }
        options.lines.push_back(std::move(line));
    }
    return true;
}

bool read_services(Options& options, const Texts& texts, std::string& error) {
    for (const std::string& text : texts.retrans) {
        if (!parse_retrans_option(text, options.retrans.emplace_back(), error)) {
            error = "--retrans: " + error;
            return false;
        }
    }
    for (const std::string& text : texts.snapshots) {
        if (!parse_snapshot_option(text, options.snapshots.emplace_back(), error)) {
            error = "--snapshot: " + error;
            return false;
        }
    }
    return true;
}

bool read_control(Options& options, const Texts& texts, std::string& error) {
    const std::string where =
        texts.control_port != 0 ? "127.0.0.1:" + std::to_string(texts.control_port) : texts.control;
    if (where.empty()) {
        return true;
    }
    options.control = true;
    if (!parse_address(where, options.control_address, error)) {
        error = "--control: " + error;
        return false;
    }
    return true;
}

bool check_input(Options& options, const Texts& texts, std::string& error) {
    in_addr address{};
    if (inet_pton(AF_INET, options.group.c_str(), &address) != 1 || (ntohl(address.s_addr) >> 28) != 0xE) {
        error = "--mcast: '" + options.group + "' is no multicast group: 224.0.0.0 to 239.255.255.255";
        return false;
    }
    if (inet_pton(AF_INET, options.iface.c_str(), &address) != 1) {
        error = "--iface: '" + options.iface + "' is no IPv4 address";
        return false;
    }
    if (options.session.size() > 10) {
        error = "--session: '" + options.session + "' has more than 10 characters";
        return false;
    }
    if (!texts.rate.empty()) {
        if (!parse_rate_option(texts.rate, options.rate_first, error)) {
            error = "--rate: " + error;
            return false;
        }
        options.rate_last = options.rate_first;
    }
    if (!texts.ramp.empty() && !parse_ramp(texts.ramp, options, error)) {
        error = "--ramp: " + error;
        return false;
    }
    if (options.from_pcap.empty() && (options.loops != 1 || options.speed != 1 || options.rate_first != 0)) {
        error = "--speed, --rate, --ramp and --loop are for a replay: add --from-pcap FILE";
        return false;
    }
    if (options.from_pcap == "-" && options.loops != 1) {
        error = "--loop: standard input can be read once only";
        return false;
    }
    return true;
}

}  // namespace

bool is_offline(const Options& options) {
    if (options.from_pcap.empty()) {
        return false;
    }
    for (const LineOptions& line : options.lines) {
        if (!line.to_file) {
            return false;
        }
    }
    return true;
}

bool parse_line_option(const std::string& text, LineOptions& line, std::string& error) {
    const std::vector<std::string> parts = split_at_commas(text);
    const std::size_t at = parts[0].find('=');
    if (at == std::string::npos) {
        error = "'" + text + "' is not NAME=DEST[,KEY=VALUE...]";
        return false;
    }
    line.name = parts[0].substr(0, at);
    if (!is_text_of(line.name, name_letters)) {
        error = "'" + line.name + "' is no name: use letters, digits, '_', '-' and '.'";
        return false;
    }
    if (!parse_destination(parts[0].substr(at + 1), line, error)) {
        error = line.name + ": " + error;
        return false;
    }
    for (std::size_t part = 1; part < parts.size(); ++part) {
        if (!set_impairment(line.impairments, parts[part], true, error)) {
            error = line.name + ": " + error;
            return false;
        }
    }
    return true;
}

bool parse_retrans_option(const std::string& text, RetransOptions& service, std::string& error) {
    const std::vector<std::string> parts = split_at_commas(text);
    if (!parse_service_ends(parts[0], service.listen, service.upstream, error)) {
        return false;
    }
    Impairments values;
    for (std::size_t part = 1; part < parts.size(); ++part) {
        if (parts[part].starts_with("limit=")) {
            const std::string number = parts[part].substr(6);
            if (!number.ends_with("/s") ||
                !parse_rate_option(number.substr(0, number.size() - 2), service.limit, error)) {
                error = "limit: '" + number + "' is no rate of requests: write 50/s";
                return false;
            }
        } else if (!read_service_key(parts[part], "drop delay limit", values, error)) {
            return false;
        }
    }
    service.drop = values.drop;
    service.delay_ns = only_delay(values);
    return true;
}

bool parse_snapshot_option(const std::string& text, SnapshotOptions& service, std::string& error) {
    const std::vector<std::string> parts = split_at_commas(text);
    if (!parse_service_ends(parts[0], service.listen, service.upstream, error)) {
        return false;
    }
    Impairments values;
    for (std::size_t part = 1; part < parts.size(); ++part) {
        if (parts[part].starts_with("close=")) {
            const std::string number = parts[part].substr(6);
            const char* end = number.data() + number.size();
            const auto [stop, problem] = std::from_chars(number.data(), end, service.close_bytes);
            if (problem != std::errc() || stop != end || service.close_bytes == 0) {
                error = "close: '" + number + "' is no number of bytes";
                return false;
            }
        } else if (!read_service_key(parts[part], "delay rate close", values, error)) {
            return false;
        }
    }
    service.delay_ns = only_delay(values);
    service.rate_bits = values.rate_bits;
    return true;
}

int parse_options(Options& options, int argc, char** argv) {
    CLI::App app("Sends the packets of a feed on to one or more lines, each with its own impairments.",
                 "tessel-relay");
    Texts texts;
    declare(app, options, texts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& problem) {
        std::string text = problem.what();
        std::fprintf(stderr, "tessel-relay: %.*s\n", static_cast<int>(error_bytes_max),
                     text.substr(0, text.find('\n')).c_str());
        return 2;
    }
    std::string error;
    if (!check_input(options, texts, error) || !read_lines(options, texts, error) ||
        !read_services(options, texts, error) || !read_control(options, texts, error)) {
        std::fprintf(stderr, "tessel-relay: %.*s\n", static_cast<int>(error_bytes_max), error.c_str());
        return 2;
    }
    return -1;
}

}  // namespace tessel::relay
