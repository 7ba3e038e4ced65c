#include "listen/options.h"

#include "base/version.h"
#include "receiver/sockets.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace tessel::listen {

namespace {

void declare(CLI::App& app, Options& o) {
    app.set_version_flag("--version", version_line("tessel-listen"));
    app.add_option("--mcast", o.group, "Multicast group")->capture_default_str();
    app.add_option("--port", o.port, "UDP port of the group")->capture_default_str();
    app.add_option("--iface", o.iface, "IPv4 address of the interface to join on")->capture_default_str();
    app.add_option("--session", o.session, "MoldUDP64 session; other sessions are ignored")
        ->capture_default_str();
    app.add_option("--rcvbuf", o.receive_buffer_bytes, "Socket buffer to ask for, in bytes")
        ->check(CLI::Range(4096, 1 << 30))
        ->capture_default_str();
    app.add_option("--retrans", o.retrans, "HOST:PORT to ask for missing messages (default: ask nowhere)");
    app.add_option("--retries", o.retries, "Further attempts after one that brought nothing")
        ->capture_default_str();
    app.add_option("--timeout-ms", o.timeout_ms, "How long a request may go unanswered")
        ->check(CLI::Range(1, 600'000))
        ->capture_default_str();
    app.add_option("--snapshot", o.snapshot,
                   "HOST:PORT of the Snap-Shot service to start from (default: none)");
    app.add_option("--user", o.user, "User name for the Snap-Shot login");
    app.add_option("--password", o.password, "Password for the Snap-Shot login");
    app.add_option(
           "--from", o.first_sequence,
           "Sequence number to begin with, 0 for the first one heard (default: 1 with --retrans and without "
           "--snapshot, else 0)")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--out", o.out, "File to write lines to, - for standard output");
    app.add_flag("--decode", o.decode, "Write every message with all its fields instead of truth lines");
    app.add_flag("--view", o.view, "Show the market live in the terminal");
    app.add_option("--count", o.count, "End after this many messages");
    app.add_option("--seconds", o.seconds, "End after this many seconds")->check(CLI::NonNegativeNumber);
    app.add_option("--from-pcap", o.from_pcap, "Read a capture (classic pcap) instead of the network");
    app.footer("Ends with 0 when nothing is missing, 1 when something is, 2 for a bad command line.");
}

// What CLI11 cannot check by itself; empty when all is well.
std::string check(Options& o) {
    std::string error;
    if (!o.retrans.empty() && !receiver::parse_endpoint(o.retrans_address, o.retrans, error)) {
        return "--retrans: " + error;
    }
    if (!o.snapshot.empty() && !receiver::parse_endpoint(o.snapshot_address, o.snapshot, error)) {
        return "--snapshot: " + error;
    }
    if (!o.snapshot.empty() && o.user.empty() && o.from_pcap.empty()) {
        return "--snapshot needs --user";
    }
    if (o.snapshot.empty() && (!o.user.empty() || !o.password.empty())) {
        return "--user and --password need --snapshot";
    }
    if (o.view && (o.decode || o.out == "-")) {
        return "--view needs standard output for itself: not with --decode or --out -";
    }
    if (!o.snapshot.empty() && o.first_sequence > 0) {
        return "--from does not go with --snapshot, which says where to begin";
    }
    return "";
}

}  // namespace

int parse_options(Options& options, int argc, const char* const* argv) {
    CLI::App app("Receives the feed, puts it in order and writes what it carries.", "tessel-listen");
    app.option_defaults()->take_last();  // a later occurrence wins, as with the feed itself
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitStatus::bad_options);
    }
    const std::string fault = check(options);
    if (!fault.empty()) {
        std::cerr << "tessel-listen: " << fault << '\n';
        return static_cast<int>(ExitStatus::bad_options);
    }
    if (options.first_sequence < 0) {
        const bool from_start =
            !options.retrans.empty() && options.snapshot.empty() && options.from_pcap.empty();
        options.first_sequence = from_start ? 1 : 0;
    }
    if (options.decode && options.out.empty()) {
        options.out = "-";
    }
    return -1;
}

}  // namespace tessel::listen
