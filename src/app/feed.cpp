#include "app/feed.h"

#include "app/reports.h"
#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "mold/retransmission_server.h"
#include "output/book_file.h"

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cassert>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tessel {

namespace {

constexpr int wait_ms = 5;
// Each of these is due when strictly more time has passed.
constexpr std::uint64_t stats_after_ms = 1999;
constexpr std::uint64_t files_after_ms = 249;
constexpr std::uint64_t summary_after_ms = 9999;

std::atomic<bool> stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler touches it");

void request_stop(int /*signal*/) {
    stop_requested.exchange(true);
}

void ignore_signal(int signal_number) {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigaction(signal_number, &action, nullptr);
}

void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = request_stop;
    action.sa_flags = SA_RESTART;  // a line that waits for its reader is not lost; poll() ends early anyway
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void print(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
}

void open_publisher_of(Feed& feed) {
    const FeedConfig& config = feed.config;
    if (feed.offline) {
        reset_publisher(feed.publisher, feed.clock, config.session);
        return;
    }
    open_publisher(feed.publisher, feed.clock, config.mcast, config.port, config.iface, config.retrans_port,
                   config.session);
}

// Copies the fault settings; false with the error line when the burst cannot be read.
bool set_faults(FaultInjector& faults, const FeedConfig& config, std::string& error) {
    if (!split_drop_burst(config.drop_burst, faults.drop_burst_start, faults.drop_burst_length, error)) {
        return false;
    }
    faults.drop_every = config.drop_every;
    faults.dup_every = config.dup_every;
    faults.reorder_every = config.reorder_every;
    return true;
}

void print_banner(const FeedConfig& config) {
    std::fprintf(stderr,
                 "[tessel] UQDF+UTDF %s:%u (iface %s, MoldUDP64 session %s, retrans %u) \xC2\xB7 "
                 "Snap-Shot/SoupBinTCP :%u \xC2\xB7 participants %s \xC2\xB7 %s\n",
                 config.mcast.c_str(), unsigned{config.port}, config.iface.c_str(), config.session.c_str(),
                 unsigned{config.retrans_port}, unsigned{config.snapshot_port}, config.participants.c_str(),
                 config.symbols.c_str());
}

void tick_when_due(Feed& feed, std::uint64_t now_ms) {
    // Unsigned on purpose: a negative interval becomes so large that it never passes.
    const auto interval = static_cast<std::uint64_t>(std::int64_t{feed.interval_ms});
    if (now_ms - feed.last_tick_ms >= interval) {
        run_tick(feed.engine, now_ms);
        feed.last_tick_ms = now_ms;  // a late tick is not caught up
    }
}

// Whether the run is steered or scripted in any way, which is when the two-second line is wanted.
bool wants_stats_line(const Feed& feed) {
    const Scenario& set = feed.scenario;
    return feed.control_socket >= 0 || set.halt_after != 0 || set.pause_after != 0 || set.mwcb_level != 0 ||
           set.band_every != 0 || set.trf_every != 0 || set.cancel_every != 0 || set.correct_every != 0 ||
           set.odd_lot_every != 0 || set.asof_every != 0;
}

void print_stats_when_due(Feed& feed, std::uint64_t now_ms) {
    if (now_ms - feed.last_stats_ms > stats_after_ms && wants_stats_line(feed)) {
        print("bench: stats " + stats_report(feed.scenario.stats, feed.publisher) + "\n");
        feed.last_stats_ms = now_ms;
    }
}

void send_heartbeat_when_due(Feed& feed, std::uint64_t now_ms) {
    if (static_cast<std::int64_t>(now_ms) - feed.publisher.last_flush_ms >= heartbeat_after_ms) {
        send_heartbeat(feed.publisher);
    }
}

void write_files_when_due(Feed& feed, std::uint64_t now_ms) {
    if (now_ms - feed.last_files_ms <= files_after_ms) {
        return;
    }
    feed.last_files_ms = now_ms;
    if (!feed.config.book_out.empty()) {
        format_book(feed.file_text, feed.engine.instruments, wall_ns(feed.clock));
        replace_file(feed.config.book_out, feed.file_text, feed.reserve);
    }
    if (!feed.config.bbo_out.empty()) {
        format_bbo(feed.file_text, feed.engine.instruments);
        replace_file(feed.config.bbo_out, feed.file_text, feed.reserve);
    }
}

void print_summary_when_due(Feed& feed, std::uint64_t now_ms) {
    if (now_ms - feed.last_summary_ms > summary_after_ms) {
        print(summary_block(feed.scenario.stats, feed.publisher));
        feed.last_summary_ms = now_ms;
    }
}

// Waits for input, at most wait_ms. What it finds is not looked at: the next pass asks every socket anyway.
void wait_for_input(Feed& feed) {
    list_inputs(feed);
    // A signal ends the wait early; the next pass sees what it asked for.
    poll(feed.poll_set.data(), feed.poll_set.size(), wait_ms);
}

}  // namespace

bool start_feed(Feed& feed, ExitStatus& status, std::string& error) {
    const FeedConfig& config = feed.config;
    status = ExitStatus::bad_command_line;
    seed_random(feed.random, config.seed);
    open_publisher_of(feed);
    if (!set_faults(feed.publisher.faults, config, error)) {
        return false;
    }
    feed.scenario = arm_scenario(std::getenv("TESSEL_SCENARIO"));
    init_engine(feed.engine, feed.publisher, feed.random, feed.scenario, feed.clock, config.participants,
                config.step_bps, config.quiet);
    if (!config.truth_out.empty()) {
        open_truth_log(feed.engine.truth, config.truth_out);
    }
    if (config.control_port != 0 && !feed.offline) {
        feed.control_socket = open_control_channel(config.control_port);
    }
    std::string price_error;
    if (!add_instruments(feed.engine, config.symbols, price_error)) {
        error = "tessel: --symbols: " + price_error + "\n";
        return false;
    }
    start_of_day(feed.engine);
    if (!feed.offline) {
        if (!open_listener(feed.snapshot, config.snapshot_port, error)) {
            status = ExitStatus::cannot_listen;
            return false;
        }
        if (!config.book_out.empty() || !config.bbo_out.empty()) {
            open_reserve(feed.reserve);  // before the first connection can take the last descriptor
        }
        print_banner(config);
        catch_stop_signals();  // only now: a signal during start-up ends the process
    }
    feed.interval_ms = config.interval_ms;
    feed.start_ms = steady_ms(feed.clock);
    feed.last_tick_ms = feed.start_ms;
    feed.last_stats_ms = feed.start_ms;
    feed.last_summary_ms = feed.start_ms;
    return true;
}

bool run_one_pass(Feed& feed, std::uint64_t now_ms) {
    // First, so that a command has its effect before the tick that follows it.
    if (feed.control_socket >= 0 &&
        !serve_control_channel(feed.control_socket, {&feed.engine, &feed.interval_ms})) {
        return false;
    }
    // Before the tick, so that a snapshot never contains half a tick.
    service_snapshots(feed.snapshot, feed.engine, static_cast<std::int64_t>(now_ms));
    // Before the tick, which publishes the bands that this makes due.
    fire_scenario_events(feed.engine, feed.marks, feed.start_ms, now_ms);
    tick_when_due(feed, now_ms);
    if (!feed.offline) {
        print_stats_when_due(feed, now_ms);
    }
    // After everything that may flush: heartbeats are only sent when idle.
    send_heartbeat_when_due(feed, now_ms);
    // After the tick, so that its messages can be requested in the same pass.
    serve_retransmissions(feed.publisher);
    write_files_when_due(feed, now_ms);
    if (!feed.offline) {
        print_summary_when_due(feed, now_ms);
    }
    return true;
}

void list_inputs(Feed& feed) {
    feed.poll_set.clear();
    // Without descriptors for it the listener would stay readable, and the loop would never rest; -1 is
    // passed over.
    feed.poll_set.push_back({feed.snapshot.accept_failing ? -1 : feed.snapshot.listener, POLLIN, 0});
    if (feed.control_socket >= 0) {
        feed.poll_set.push_back({feed.control_socket, POLLIN, 0});
    }
    for (const SnapshotConnection& connection : feed.snapshot.connections) {
        assert(connection.fd >= 0);
        feed.poll_set.push_back({connection.fd, POLLIN, 0});
    }
}

std::uint64_t next_due_ms(const Feed& feed) {
    std::uint64_t due = next_scenario_event_ms(feed.scenario, feed.marks, feed.start_ms);
    if (feed.interval_ms >= 0) {
        due = std::min(due, feed.last_tick_ms + static_cast<std::uint64_t>(feed.interval_ms));
    }
    due = std::min(due, static_cast<std::uint64_t>(feed.publisher.last_flush_ms + heartbeat_after_ms));
    return std::min(due, next_snapshot_due_ms(feed.snapshot));
}

int run_feed(int count, const char* const* arguments) {
    // A reader of standard error that goes away and a file that reaches a size limit are write errors, not
    // ends.
    ignore_signal(SIGPIPE);
    ignore_signal(SIGXFSZ);
    const auto feed = std::make_unique<Feed>();
    std::string error;
    if (!parse_command_line(count, arguments, feed->config, error)) {
        print(error);
        return static_cast<int>(ExitStatus::bad_command_line);
    }
    ExitStatus status = ExitStatus::stopped;
    if (!start_feed(*feed, status, error)) {
        print(error);
        return static_cast<int>(status);
    }
    while (!stop_requested.load()) {
        if (!run_one_pass(*feed, steady_ms(feed->clock))) {
            print(faults_summary(feed->publisher) + "\n");
            _exit(static_cast<int>(ExitStatus::stopped));  // a stop by command skips the last words of a run
        }
        wait_for_input(*feed);
    }
    // What is in the open packet stays unsent; the sockets end with the process.
    print(stop_block(feed->scenario.stats, feed->publisher));
    close_truth_log(feed->engine.truth);
    return static_cast<int>(ExitStatus::stopped);
}

}  // namespace tessel
