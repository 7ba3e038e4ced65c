#include "listen/options.h"

#include "base/version.h"
#include "listen/report.h"
#include "mold/line_arbiter.h"
#include "receiver/sockets.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <arpa/inet.h>
#include <charconv>
#include <functional>
#include <system_error>

namespace tessel::listen {

namespace {

// The longest run that --seconds accepts: some 31 years.
constexpr double seconds_max = 1e9;
constexpr double seconds_min = 0.001;

// An option's check: an empty text when the value is good, otherwise what would be.
CLI::Validator checked(std::function<std::string(std::string&)> check) {
    return CLI::Validator(std::move(check), "");
}

std::string check_text(std::string& text) {
    return text.empty() ? "must not be empty" : "";
}

std::string check_port(std::string& text) {
    unsigned port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    const bool good = error == std::errc() && stop == end && port >= 1 && port <= 65'535;
    return good ? "" : "'" + text + "' is not a port from 1 to 65535";
}

std::string check_group(std::string& text) {
    in_addr address{};
    const bool good = inet_pton(AF_INET, text.c_str(), &address) == 1 && IN_MULTICAST(ntohl(address.s_addr));
    return good ? "" : "'" + text + "' is not an IPv4 address of a multicast group (224.0.0.0 and up)";
}

std::string check_interface(std::string& text) {
    in_addr address{};
    const bool good = inet_pton(AF_INET, text.c_str(), &address) == 1 && address.s_addr != 0;
    return good ? "" : "'" + text + "' is not an IPv4 address of an interface";
}

bool is_line_name(const std::string& name) {
    return !name.empty() && name.size() <= line_name_max &&
           name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_") ==
               std::string::npos;
}

std::string check_line(std::string& text) {
    LineOption line;
    std::string error;
    return parse_line_option(line, text, error) ? "" : error;
}

// Decimal digits alone: the library's own conversion turns -1 into a large number.
std::string check_whole(std::string& text) {
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    const bool good = error == std::errc() && stop == end;
    return good ? "" : "'" + text + "' is not a whole number from 0 to 18446744073709551615";
}

std::string check_seconds(std::string& text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    // Written so that "nan" is refused, too.
    const bool good =
        error == std::errc() && stop == end && (value == 0 || (value >= seconds_min && value <= seconds_max));
    return good ? "" : "'" + text + "' is neither 0 (no limit) nor from 0.001 to 1000000000 seconds";
}

std::string check_endpoint(std::string& text) {
    sockaddr_in address{};
    std::string error;
    return receiver::parse_endpoint(address, text, error) ? "" : error;
}

void declare_addresses(CLI::App& app, Options& options, std::vector<std::string>& line_texts) {
    app.add_option("--mcast", options.group, "Multicast group")
        ->check(checked(check_group))
        ->capture_default_str();
    app.add_option("--port", options.port, "UDP port of the group")
        ->check(checked(check_port))
        ->capture_default_str();
    app.add_option("--iface", options.iface, "IPv4 address of the interface to join on")
        ->check(checked(check_interface))
        ->capture_default_str();
    app.add_option("--line", line_texts,
                   "NAME=GROUP:PORT[@IFACE], one of several lines that carry the feed, in place of --mcast "
                   "and --port; may be repeated")
        ->check(checked(check_line))
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    app.add_option("--patience-ms", options.patience_ms,
                   "With --line: how long a line that brings nothing new may keep a gap open")
        ->check(CLI::Range(0, 600'000))
        ->capture_default_str();
    app.add_option("--session", options.session, "MoldUDP64 session; other sessions are ignored")
        ->check(checked(check_text))
        ->capture_default_str();
    app.add_option("--rcvbuf", options.receive_buffer_bytes, "Socket buffer to ask for, in bytes")
        ->check(CLI::Range(4096, 1 << 30))
        ->capture_default_str();
    app.add_option("--retrans", options.retrans,
                   "HOST:PORT to request missing messages from (default: none is requested)")
        ->check(checked(check_endpoint));
    app.add_option("--retries", options.retries, "Further attempts after one that brought nothing")
        ->check(CLI::Range(0, 1'000'000))
        ->capture_default_str();
    app.add_option("--timeout-ms", options.timeout_ms, "How long a request may go unanswered")
        ->check(CLI::Range(1, 600'000))
        ->capture_default_str();
    app.add_option("--snapshot", options.snapshot,
                   "HOST:PORT of the Snap-Shot service to start from (default: none)")
        ->check(checked(check_endpoint));
    app.add_option("--snapshot-timeout", options.snapshot_timeout_seconds,
                   "Seconds that the Snap-Shot service may go without a message of the spin")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
    app.add_option("--user", options.user, "User name for the Snap-Shot login")->check(checked(check_text));
    app.add_option("--password", options.password, "Password for the Snap-Shot login");
}

void declare_channels(CLI::App& app, Options& options) {
    app.add_option("--channels", options.channels,
                   "List of channels (channels.json) to receive together, in place of one feed's addresses")
        ->check(checked(check_text));
    app.add_option("--out-dir", options.out_dir,
                   "With --channels: directory for NAME.jsonl, a file a channel")
        ->check(checked(check_text));
    app.add_option("--threads", options.threads,
                   "With --channels: threads that share the channels, 0 for one a core")
        ->check(CLI::Range(0, 1024))
        ->capture_default_str();
    app.add_flag(
        "--no-retrans", options.no_retrans,
        "With --channels: request nothing; otherwise each channel's service is asked, from message 1 on");
    app.add_flag("--late", options.late,
                 "With --channels: start each channel from its Snap-Shot service; needs --user");
}

void declare_run(CLI::App& app, Options& options) {
    app.add_option("--from", options.first_sequence,
                   "Sequence number to begin with, 0 for the first one received (default: 1 with --retrans "
                   "and without --snapshot, otherwise 0)")
        ->check(checked(check_whole));
    app.add_option("--out", options.out, "File to write lines to, - for standard output")
        ->check(checked(check_text));
    app.add_flag("--decode", options.decode,
                 "Write every message with all its fields instead of truth lines");
    app.add_flag("--view", options.view, "Show the market live in the terminal");
    app.add_option("--count", options.count, "End after this many messages, 0 for no limit")
        ->check(checked(check_whole));
    app.add_option("--seconds", options.seconds, "End after this many seconds, 0 for no limit")
        ->check(checked(check_seconds));
    app.add_option("--from-pcap", options.from_pcap,
                   "Read a capture instead of the network: pcap or pcapng, also .zst; - for standard input")
        ->check(checked(check_text));
    app.add_flag("--latency", options.latency,
                 "Measure from the SIP time to the kernel and on to this program; percentiles every second "
                 "and at the end");
    app.add_option("--latency-out", options.latency_out, "Directory for files of --latency, which it implies")
        ->check(checked(check_text));
    app.add_option("--times", options.times, "File for a line a message: its number and its SIP time")
        ->check(checked(check_text));
    app.footer("Ends with 0 when nothing is missing, 1 when something is, 2 for a bad command line.");
}

// The texts of --line as lines with distinct names.
std::string take_lines(Options& options, const std::vector<std::string>& texts) {
    if (texts.size() > receiver::lines_max) {
        return fmt::format("--line: {} lines; at most {} are received together", texts.size(),
                           receiver::lines_max);
    }
    for (const std::string& text : texts) {
        LineOption line;
        std::string error;
        if (!parse_line_option(line, text, error)) {
            return "--line: " + error;
        }
        for (const LineOption& other : options.lines) {
            if (other.name == line.name) {
                return "--line: '" + line.name + "' is named twice; give each line its own name";
            }
        }
        options.lines.push_back(std::move(line));
    }
    return "";
}

// What goes together with what; an empty text when all is well.
std::string check_combination(const Options& options) {
    if (!options.snapshot.empty() && options.user.empty() && options.from_pcap.empty()) {
        return "--snapshot needs --user";
    }
    if (options.late && options.user.empty()) {
        return "--late needs --user";
    }
    if (options.snapshot.empty() && !options.late && (!options.user.empty() || !options.password.empty())) {
        return "--user and --password need --snapshot";
    }
    if (options.view && (options.decode || options.out == "-")) {
        return "--view needs standard output for itself: not with --decode or --out -";
    }
    if (!options.snapshot.empty() && options.first_sequence > 0) {
        return "--from does not go with --snapshot, which says where to begin";
    }
    return "";
}

// What goes together with --channels and what does not; an empty text when all is well.
std::string check_channels(const CLI::App& app, const Options& options) {
    if (options.channels.empty()) {
        for (const char* name : {"--out-dir", "--threads", "--no-retrans", "--late"}) {
            if (app.count(name) != 0) {
                return std::string(name) + " needs --channels";
            }
        }
        return "";
    }
    for (const char* name : {"--mcast", "--port", "--line", "--session", "--retrans", "--snapshot"}) {
        if (app.count(name) != 0) {
            return std::string(name) + " does not go with --channels, whose list says it for each channel";
        }
    }
    for (const char* name : {"--out", "--view", "--from-pcap", "--latency", "--latency-out", "--times"}) {
        if (app.count(name) != 0) {
            return std::string(name) + " is for one feed: not with --channels" +
                   (std::string(name) == "--out" ? ", which has --out-dir" : "");
        }
    }
    if (options.late && options.first_sequence > 0) {
        return "--from does not go with --late, where the Snap-Shot says where to begin";
    }
    return options.decode && options.out_dir.empty() ? "--decode needs --out-dir with --channels" : "";
}

// The checked texts as socket addresses. A name may resolve differently the second time, or no longer.
std::string resolve_addresses(Options& options) {
    std::string error;
    if (!options.retrans.empty() &&
        !receiver::parse_endpoint(options.retrans_address, options.retrans, error)) {
        return "--retrans: " + error;
    }
    if (!options.snapshot.empty() &&
        !receiver::parse_endpoint(options.snapshot_address, options.snapshot, error)) {
        return "--snapshot: " + error;
    }
    return "";
}

int refuse(const std::string& reason) {
    report(reason);
    return static_cast<int>(ExitStatus::bad_options);
}

}  // namespace

bool parse_line_option(LineOption& line, const std::string& text, std::string& error) {
    const std::size_t equals = text.find('=');
    line.name = text.substr(0, equals);
    if (equals == std::string::npos || !is_line_name(line.name)) {
        error = "'" + text + "' does not begin with a name of 1 to 32 letters, digits, '-' or '_', and '='";
        return false;
    }
    std::string address = text.substr(equals + 1);
    const std::size_t at = address.find('@');
    line.iface = at == std::string::npos ? "" : address.substr(at + 1);
    address.resize(std::min(at, address.size()));
    const std::size_t colon = address.find(':');
    line.group = address.substr(0, colon);
    std::string port = colon == std::string::npos ? "" : address.substr(colon + 1);
    error = check_group(line.group);
    if (error.empty()) {
        error = check_port(port);
    }
    if (error.empty() && at != std::string::npos) {
        error = check_interface(line.iface);
    }
    if (!error.empty()) {
        error += "; right is NAME=GROUP:PORT[@IFACE]";
        return false;
    }
    std::from_chars(port.data(), port.data() + port.size(), line.port);
    return true;
}

int parse_options(Options& options, int argc, const char* const* argv) {
    CLI::App app("Receives the feed, puts it in order and writes what it carries.", "tessel-listen");
    app.set_version_flag("--version", version_line("tessel-listen"));
    app.option_defaults()->take_last();  // a later occurrence wins, as with the feed itself
    std::vector<std::string> line_texts;
    declare_addresses(app, options, line_texts);
    declare_channels(app, options);
    declare_run(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code() == 0 ? app.exit(error) : refuse(error.what());
    }
    std::string reason = take_lines(options, line_texts);
    if (reason.empty() && !line_texts.empty() && app.count("--mcast") + app.count("--port") != 0) {
        reason = "--line does not go with --mcast and --port: it says both";
    }
    if (reason.empty()) {
        reason = check_channels(app, options);
    }
    if (reason.empty()) {
        reason = check_combination(options);
    }
    if (reason.empty()) {
        reason = resolve_addresses(options);
    }
    if (!reason.empty()) {
        return refuse(reason);
    }
    options.iface_given = app.count("--iface") != 0;
    options.from_given = app.count("--from") != 0;
    if (!options.from_given) {
        const bool from_start =
            !options.retrans.empty() && options.snapshot.empty() && options.from_pcap.empty();
        options.first_sequence = from_start ? 1 : 0;
    }
    options.latency = options.latency || !options.latency_out.empty();
    if (options.decode && options.out.empty() && options.channels.empty()) {
        options.out = "-";
    }
    return -1;
}

}  // namespace tessel::listen
