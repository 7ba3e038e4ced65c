#include "console/run.h"

#include "base/clock.h"
#include "console/board.h"
#include "console/doors.h"
#include "console/metrics.h"
#include "console/reception.h"
#include "console/report.h"
#include "console/textfile.h"
#include "console/thread_name.h"
#include "console/web_server.h"

#include <pthread.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <thread>
#include <utility>

namespace tessel::console {

namespace {

constexpr std::int64_t textfile_interval_s = 5;

// The signals that end the program: blocked in every thread, waited for by the first.
sigset_t block_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Everything that one run holds.
struct Console {
    Board board;
    Reception reception;
    Site site;
    WebServer server;
    std::atomic<bool> stop{false};
};

bool open_console(Console& console, const Options& options, std::string& error) {
    if (!open_reception(console.reception, options.reception, console.board, error)) {
        return false;
    }
    Site& site = console.site;
    site.board = &console.board;
    site.session = options.reception.session;
    site.has_relay = !options.control.relay.empty();
    site.read_only = options.read_only;
    site.started_ms = static_cast<std::int64_t>(steady_ms());
    site.send_command = [settings = options.control](CommandTarget target, const std::string& command) {
        return send_control_command(settings, target, command);
    };
    site.rules.token = make_token();
    if (site.rules.token.empty()) {
        error = "the system has no random numbers for a token";
        return false;
    }
    if (!open_web_server(console.server, site, options.http_host, options.http_port, error)) {
        error = "--http: " + error + "; is another console there?";
        return false;
    }
    site.rules.host = options.http_host;
    site.rules.port = console.server.port;
    site.rules.every_address = options.http_host == "0.0.0.0";
    site.rules.metrics_open = options.metrics_open;
    return true;
}

std::string current_metrics(Console& console, bool running) {
    return metrics_text(*latest_picture(console.board), latest_control(console.board), running);
}

// Waits for a signal, and writes the metrics meanwhile.
void wait_for_end(Console& console, const Options& options, const sigset_t& signals) {
    const timespec interval{textfile_interval_s, 0};
    bool failed = false;
    while (sigtimedwait(&signals, nullptr, options.textfile.empty() ? nullptr : &interval) < 0) {
        std::string error;
        if (options.textfile.empty() ||
            write_textfile(options.textfile, current_metrics(console, true), error)) {
            failed = false;
        } else if (!failed) {
            failed = true;
            report(error);
        }
    }
}

void announce(const Console& console, const Options& options) {
    if (!is_loopback(options.http_host)) {
        report("other hosts can reach " + options.http_host +
               ": the connection is not encrypted, and who has the token sees and steers the feed");
    }
    std::printf("http://%s:%u/?token=%s\n", options.http_host.c_str(), unsigned{console.server.port},
                console.site.rules.token.c_str());
    std::fflush(stdout);
}

}  // namespace

int run_console(const Options& options) {
    const sigset_t signals = block_stop_signals();
    // Not on the stack: a connection that does not end in time may outlive this function.
    auto console = std::make_unique<Console>();
    std::string error;
    if (!open_console(*console, options, error)) {
        report(error);
        return 1;
    }
    poll_control(options.control, console->board);
    if (!options.textfile.empty() &&
        !write_textfile(options.textfile, current_metrics(*console, true), error)) {
        report(error);
        return 1;
    }
    std::thread receiving([&] {
        name_thread("receiver");
        run_reception(console->reception, console->stop);
    });
    std::thread polling([&] {
        name_thread("control");
        run_control_polling(options.control, console->board);
    });
    std::thread serving([&] {
        name_thread("server");
        run_web_server(console->server);
    });
    announce(*console, options);
    wait_for_end(*console, options, signals);
    console->stop = true;
    stop_board(console->board);
    stop_web_server(console->server);
    serving.join();
    polling.join();
    receiving.join();
    close_reception(console->reception);
    if (!options.textfile.empty() &&
        !write_textfile(options.textfile, current_metrics(*console, false), error)) {
        report(error);
    }
    if (console->server.connections != 0) {
        static_cast<void>(console.release());  // which that connection's thread still uses
    }
    return 0;
}

}  // namespace tessel::console
