#include "console/options.h"

#include "base/version.h"
#include "console/report.h"
#include "receiver/sockets.h"

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <charconv>

namespace tessel::console {

namespace {

constexpr const char* footer = R"(Examples:
  tessel-console                                    a feed with the defaults and --control-port 25180
  tessel-console --retrans 127.0.0.1:25178 --snapshot 127.0.0.1:25179
  tessel-console --feed 239.1.1.1:4001 --iface 10.0.0.2 --read-only
  tessel-console --relay 127.0.0.1:25190            steers a tessel-relay, too
  tessel-console --metrics-open --textfile /var/lib/prometheus/node-exporter
  tessel-console --http 0.0.0.0:8080 --listen-anyway

The first line of standard output is the page's address, with the token that opens it.
Exit status: 0 stopped by a signal, 1 a socket or file failed, 2 a bad command line.)";

// What CLI11 fills in before it is checked.
struct Texts {
    std::string feed = "239.255.25.177:25177";
    std::string retrans;
    std::string snapshot;
    std::string http = "127.0.0.1:8080";
};

// "HOST:PORT" with a port from `port_min` on.
bool split_endpoint(const std::string& text, unsigned port_min, std::string& host, std::uint16_t& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    unsigned number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data() + colon + 1, end, number);
    if (problem != std::errc() || stop != end || colon + 1 == text.size() || number < port_min ||
        number > 65535) {
        return false;
    }
    host = text.substr(0, colon);
    port = static_cast<std::uint16_t>(number);
    return true;
}

bool is_ipv4(const std::string& text) {
    in_addr unused{};
    return inet_pton(AF_INET, text.c_str(), &unused) == 1;
}

bool is_group(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 28) == 0xE;
}

// An empty text is an option that was not given.
bool check_service(const char* name, const std::string& text, bool& has, sockaddr_in& address,
                   std::string& error) {
    has = !text.empty();
    if (has && !receiver::parse_endpoint(address, text, error)) {
        error = std::string(name) + ": " + error;
        return false;
    }
    return true;
}

bool check_http(const Texts& texts, Options& options, std::string& error) {
    if (!split_endpoint(texts.http, 0, options.http_host, options.http_port)) {
        error = "--http: '" + texts.http + "' is not HOST:PORT with a port from 0 to 65535";
        return false;
    }
    if (!is_loopback(options.http_host) && !options.listen_anyway) {
        error = "--http: " + options.http_host +
                " can be reached from other hosts; say --listen-anyway if you mean it: the connection is not "
                "encrypted, and who has the token steers the feed";
        return false;
    }
    return true;
}

bool check(const Texts& texts, Options& options, std::string& error) {
    ReceptionSettings& reception = options.reception;
    if (!split_endpoint(texts.feed, 1, reception.group, reception.port) || !is_group(reception.group)) {
        error = "--feed: '" + texts.feed + "' is not GROUP:PORT, an IPv4 multicast address and a port";
        return false;
    }
    if (!is_ipv4(reception.iface)) {
        error = "--iface: '" + reception.iface + "' is not an IPv4 address";
        return false;
    }
    sockaddr_in unused{};
    bool has = false;
    if (options.control.feed.empty()) {
        error = "--control: it is HOST:PORT, not empty";
        return false;
    }
    return check_service("--retrans", texts.retrans, reception.has_retrans, reception.retrans, error) &&
           check_service("--snapshot", texts.snapshot, reception.has_snapshot, reception.snapshot, error) &&
           check_service("--control", options.control.feed, has, unused, error) &&
           check_service("--relay", options.control.relay, has, unused, error) &&
           check_http(texts, options, error);
}

void declare(CLI::App& app, Options& options, Texts& texts) {
    app.set_version_flag("--version", version_line("tessel-console"));
    app.option_defaults()->take_last();
    app.add_option("--feed", texts.feed, "GROUP:PORT of the feed")->capture_default_str();
    app.add_option("--iface", options.reception.iface, "IPv4 address of the interface to receive on")
        ->capture_default_str();
    app.add_option("--session", options.reception.session, "The feed's session name")->capture_default_str();
    app.add_option("--retrans", texts.retrans, "HOST:PORT of the retransmission service, to close gaps");
    app.add_option("--snapshot", texts.snapshot, "HOST:PORT of the Snap-Shot service, to join late");
    app.add_option("--control", options.control.feed, "HOST:PORT of the feed's control channel")
        ->capture_default_str();
    app.add_option("--relay", options.control.relay, "HOST:PORT of a relay's control channel");
    app.add_option("--http", texts.http, "HOST:PORT to serve the page on; port 0 takes a free one")
        ->capture_default_str();
    app.add_flag("--read-only", options.read_only, "Refuse every command");
    app.add_flag("--listen-anyway", options.listen_anyway,
                 "Allow an --http address that other hosts can reach; nothing is encrypted");
    app.add_flag("--metrics-open", options.metrics_open, "Serve /metrics without the token");
    app.add_option("--textfile", options.textfile, "Write the metrics to DIR/tessel.prom every five seconds")
        ->type_name("DIR");
    app.footer(footer);
}

}  // namespace

bool is_loopback(const std::string& host) {
    in_addr address{};
    if (inet_pton(AF_INET, host.c_str(), &address) == 1) {
        return (ntohl(address.s_addr) >> 24) == 127;
    }
    return host == "localhost";
}

int parse_options(Options& options, int argc, const char* const* argv) {
    Texts texts;
    CLI::App app("Shows a running feed in a browser, steers it, and exports metrics.", "tessel-console");
    declare(app, options, texts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& end) {  // --help, --version
        return app.exit(end);
    } catch (const CLI::ParseError& fault) {
        const std::string text = fault.what();
        report(text.substr(0, text.find('\n')) + "; see tessel-console --help");
        return 2;
    }
    std::string error;
    if (!check(texts, options, error)) {
        report(error);
        return 2;
    }
    return -1;
}

}  // namespace tessel::console
