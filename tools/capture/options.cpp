#include "capture/options.h"

#include "base/version.h"
#include "capture/start_time.h"
#include "common/duration.h"
#include "common/nearest_word.h"
#include "market/instrument.h"

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <algorithm>
#include <iostream>
#include <map>

namespace tessel::capture {

namespace {

struct FeedOption {
    const char* name;
    const char* value;
    const char* help;
};

// Those of the feed's options that make market, faults, session, group and ports. The feed reads their values
// itself, so that what it takes is taken here.
constexpr FeedOption feed_options[] = {
    {"--mcast", "GROUP", "Multicast group: the destination of the packets [239.255.25.177]"},
    {"--port", "PORT", "UDP port of the group [25177]"},
    {"--iface", "ADDRESS", "Accepted for the feed's sake; the source is --src-ip"},
    {"--retrans-port", "PORT", "Port of the retransmission service [25178]"},
    {"--snapshot-port", "PORT", "Port of the Snap-Shot service [25179]"},
    {"--session", "TEXT", "MoldUDP64 session, at most 10 characters [UTPBENCH01]"},
    {"--symbols", "LIST", "SYMBOL:PRICE,... [AAPL:190.00,MSFT:410.00,TSLA:250.00]"},
    {"--participants", "LETTERS", "Market centers that quote [QNPZKVD]"},
    {"--interval-ms", "MS", "A tick every MS milliseconds; 0: every 5; negative: never [100]"},
    {"--step-bps", "NUMBER", "Price step of a tick in basis points [0.8]"},
    {"--seed", "NUMBER", "Seed of the market [7]"},
    {"--drop-every", "N", "Drop every Nth packet"},
    {"--drop-burst", "START[:COUNT]", "Drop COUNT packets (1) from number START on"},
    {"--dup-every", "N", "Send every Nth packet twice"},
    {"--reorder-every", "N", "Hold every Nth packet back for one packet"},
};

// Those that a capture has no use for, and what serves instead. Declared to be refused with a reason.
constexpr std::pair<const char*, const char*> refused_options[] = {
    {"--control-port", "a capture has no control channel; give its commands in a timeline with --script"},
    {"--book-out", "a capture writes no book file; make it from the capture, or run the feed"},
    {"--bbo-out", "a capture writes no BBO file; make it from the capture, or run the feed"},
};

// Texts of the options that need more than CLI11's checks.
struct Texts {
    std::map<std::string, std::string> feed;  // by option
    std::string refused;
    bool quiet = false;
    std::string start = "2026-01-05T09:30:00-05:00";
    std::string duration = "1m";
    std::vector<std::string> joins;
    std::string source_ip = "127.0.0.1";
    std::string source_mac = "02:00:00:00:00:01";
};

constexpr char examples[] =
    "Examples:\n"
    "  tessel-capture --duration 6h30m --pcap day.pcap.zst --truth-out day.jsonl.zst\n"
    "  tessel-capture --duration 1m --drop-every 10 --retransmit --pcap loss.pcap --truth-out loss.jsonl\n"
    "  tessel-capture --duration 2m --script day.timeline --join-at 30s --pcap late.pcap\n"
    "A duration is a sum of numbers with h, m, s, ms (6h30m, 1.5s); a bare number is seconds. Files are\n"
    "replaced; a name that ends in .zst is compressed, - is standard output. TESSEL_SCENARIO as for tessel.\n"
    "Exit status: 0 written, 1 a file could not be written, 2 bad options, times or timeline.";

void declare(CLI::App& app, Options& o, Texts& texts) {
    const char* const market = "The feed's options";
    for (const FeedOption& option : feed_options) {
        app.add_option(option.name, texts.feed[option.name], option.help)
            ->type_name(option.value)
            ->group(market);
    }
    app.add_flag("--quiet", texts.quiet, "Print no line for the events of the market")->group(market);
    app.add_option("--start", texts.start, "Time of the start, RFC 3339 with an offset or Z")
        ->type_name("TIME")
        ->capture_default_str();
    app.add_option("--duration", texts.duration, "How long the market runs")
        ->type_name("DURATION")
        ->capture_default_str();
    app.add_option("--pcap", o.pcap, "Capture file to write")->type_name("FILE");
    app.add_option("--truth-out", o.truth_out, "Truth log to write")->type_name("FILE");
    app.add_option("--script", o.script, "Timeline to play: '+2.5s halt AAPL', 'at seq 10000 drop 3'")
        ->type_name("FILE");
    app.add_option("--join-at", texts.joins, "Record a Snap-Shot session that begins then; may be repeated")
        ->type_name("DURATION")
        ->take_all();
    app.add_flag("--retransmit", o.retransmit, "Record requests for what was damaged, and the replies");
    app.add_option("--src-ip", texts.source_ip, "Address of the feed and its services")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--src-port", o.source_port, "UDP port that the packets come from")
        ->check(CLI::Range(1, 65'535))
        ->capture_default_str();
    app.add_option("--src-mac", texts.source_mac, "Ethernet address that the packets come from")
        ->type_name("MAC")
        ->capture_default_str();
    app.add_option("--vlan", o.vlan, "Tag the frames with this VLAN, 1 to 4094")
        ->check(CLI::Range(1, int{vlan_max}));
    app.add_option("--plot", o.plot, "SVG to draw: rates, packet sizes, faults and events over the run")
        ->type_name("FILE");
    for (const auto& [name, reason] : refused_options) {
        app.add_option(name, texts.refused)->group("");
    }
    app.footer(examples);
}

bool parse_address(const std::string& text, std::uint32_t& address) {
    in_addr parsed{};
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) {
        return false;
    }
    address = ntohl(parsed.s_addr);
    return true;
}

// The feed's messages are lines that begin with its name; ours begin with ours.
std::string without_name(const std::string& line) {
    constexpr std::string_view name = "tessel: ";
    const std::size_t begin = line.starts_with(name) ? name.size() : 0;
    return line.substr(begin, line.find('\n', begin) - begin);
}

// Has the feed read those of its options that were given.
std::string read_feed_options(const CLI::App& app, const Texts& texts, FeedConfig& config) {
    std::vector<const char*> words;
    for (const auto& [name, value] : texts.feed) {
        if (app.get_option(name)->count() != 0) {
            words.push_back(name.c_str());
            words.push_back(value.c_str());
        }
    }
    if (texts.quiet) {
        words.push_back("--quiet");
    }
    std::string error;
    if (!parse_command_line(static_cast<int>(words.size()), words.data(), config, error)) {
        return without_name(error);
    }
    std::uint64_t burst_start = 0;
    std::uint32_t burst_length = 0;
    if (!split_drop_burst(config.drop_burst, burst_start, burst_length, error)) {
        return without_name(error);
    }
    InstrumentList instruments;
    if (!build_instruments(config.symbols, instruments, error)) {
        return "--symbols: " + error;
    }
    return "";
}

std::string read_times(const Texts& texts, Options& o) {
    std::string error;
    if (!parse_start_time(texts.start, o.start_ns, error)) {
        return "--start: " + error;
    }
    if (!common::parse_duration(texts.duration, o.duration_ns, error)) {
        return "--duration: " + error;
    }
    if (o.duration_ns >= time_end_ns - o.start_ns) {
        return "--duration: '" + texts.duration + "' reaches beyond 2106-02-07, which a capture cannot hold";
    }
    for (const std::string& text : texts.joins) {
        std::int64_t join_ns = 0;
        if (!common::parse_duration(text, join_ns, error)) {
            return "--join-at: " + error;
        }
        if (join_ns >= o.duration_ns) {
            return "--join-at: '" + text + "' is not before the end of the run (--duration " +
                   texts.duration + ")";
        }
        o.joins_ns.push_back(join_ns);
    }
    std::stable_sort(o.joins_ns.begin(), o.joins_ns.end());
    return "";
}

std::string check_outputs(const Options& o) {
    const std::pair<const char*, const std::string*> outputs[] = {
        {"--pcap", &o.pcap}, {"--truth-out", &o.truth_out}, {"--plot", &o.plot}};
    bool any = false;
    for (const auto& [name, path] : outputs) {
        any = any || !path->empty();
        for (const auto& [other, other_path] : outputs) {
            if (name != other && !path->empty() && *path == *other_path && *path != "/dev/null") {
                return std::string(name) + " and " + other + " both go to '" + *path + "'";
            }
        }
    }
    return any ? "" : "nothing to write: give --pcap FILE, --truth-out FILE or --plot FILE";
}

// What CLI11 cannot check by itself; empty when all is well.
std::string check(const CLI::App& app, const Texts& texts, Options& o) {
    for (const auto& [name, reason] : refused_options) {
        if (app.get_option(name)->count() != 0) {
            return std::string(name) + ": " + reason;
        }
    }
    if (std::string fault = read_feed_options(app, texts, o.feed); !fault.empty()) {
        return fault;
    }
    if (std::string fault = read_times(texts, o); !fault.empty()) {
        return fault;
    }
    if (!parse_address(texts.source_ip, o.source_address) || is_multicast(o.source_address)) {
        return "--src-ip: '" + texts.source_ip + "' is not the IPv4 address of a host";
    }
    if (!parse_address(o.feed.mcast, o.group_address)) {
        return "--mcast: '" + o.feed.mcast + "' is not an IPv4 address";
    }
    if (!parse_mac(texts.source_mac, o.source_mac) || (o.source_mac[0] & 1) != 0) {
        return "--src-mac: '" + texts.source_mac + "' is not a station's address such as 02:00:00:00:00:01";
    }
    if (o.retransmit && o.feed.retrans_port == 0) {
        return "--retransmit needs a retransmission service: --retrans-port is 0";
    }
    if (!o.joins_ns.empty() && o.feed.snapshot_port == 0) {
        return "--join-at needs a Snap-Shot service: --snapshot-port is 0";
    }
    return check_outputs(o);
}

// The first word that is no option and no option's value.
std::string unexpected(const CLI::App& app) {
    const std::vector<std::string> words = app.remaining();
    const std::string& word = *std::find_if(words.begin(), words.end(), [&words](const std::string& each) {
        return each.starts_with("-") || &each == &words.back();
    });
    if (!word.starts_with("-")) {
        return "'" + word + "' belongs to no option; see --help";
    }
    std::vector<std::string> names;
    for (const CLI::Option* const option : app.get_options()) {
        names.push_back(option->get_name());
    }
    const std::vector<std::string_view> views(names.begin(), names.end());
    return "unknown option '" + word + "'" + common::did_you_mean(word, views);
}

}  // namespace

bool parse_mac(const std::string& text, Mac& mac) {
    if (text.size() != 17) {
        return false;
    }
    for (std::size_t at = 0; at < mac.size(); ++at) {
        const std::string octet = text.substr(3 * at, 2);
        if (octet.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            return false;
        }
        if (at + 1 < mac.size() && text[3 * at + 2] != ':' && text[3 * at + 2] != '-') {
            return false;
        }
        mac[at] = static_cast<unsigned char>(std::stoul(octet, nullptr, 16));
    }
    return true;
}

int parse_options(Options& options, int argc, const char* const* argv) {
    constexpr std::uint16_t default_source_port = 45'177;
    options.source_port = default_source_port;
    Texts texts;
    CLI::App app("Makes the capture file and the truth log of a run of the feed, without waiting for it.",
                 "tessel-capture");
    app.option_defaults()->take_last();  // a later occurrence wins, as with the feed itself
    app.set_version_flag("--version", version_line("tessel-capture"));
    declare(app, options, texts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError&) {
        std::cerr << "tessel-capture: " << unexpected(app) << '\n';
        return static_cast<int>(ExitStatus::bad_options);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);
        }
        std::cerr << "tessel-capture: " << error.what() << '\n';
        return static_cast<int>(ExitStatus::bad_options);
    }
    const std::string fault = check(app, texts, options);
    if (!fault.empty()) {
        std::cerr << "tessel-capture: " << fault << '\n';
        return static_cast<int>(ExitStatus::bad_options);
    }
    return -1;
}

}  // namespace tessel::capture
