#include "capture/run.h"

#include "app/feed.h"
#include "capture/late_join.h"
#include "capture/plot.h"
#include "capture/progress.h"
#include "capture/repair.h"
#include "capture/wire.h"
#include "common/control_commands.h"
#include "common/timeline.h"
#include "files/zstd_file.h"

#include <fmt/format.h>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

namespace tessel::capture {

namespace {

constexpr std::uint64_t ms_ns = 1'000'000;
constexpr std::uint64_t steady_start_ms = 1'000'000;  // any value far from 0, which means "never" to timers
constexpr std::uint64_t overdue_wait_ns = ms_ns;      // until the pass for what came up during a pass
constexpr std::uint64_t tail_ns_max = 60'000 * ms_ns;
constexpr std::uint16_t request_port = 50'000;
constexpr std::uint16_t first_join_port = 50'001;
constexpr Mac client_mac{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};

// Everything that one capture is made with. It must stay where it is: the sinks point at it.
struct Capture {
    Options options;
    Feed feed;
    Wire wire;
    Repair repair;
    std::vector<LateJoin> joins;
    common::Timeline timeline;
    common::TimelineCursor cursor;
    std::FILE* truth = nullptr;
    std::FILE* svg = nullptr;
    PlotTally plot;
    Progress progress;
    std::uint64_t now_ns = 0;  // of the pass, since the start
    bool stopped = false;      // by a command of the timeline
};

void say(const std::string& text) {
    std::fputs(("tessel-capture: " + text + "\n").c_str(), stderr);
}

void take_packet(void* context, const unsigned char* packet, std::size_t length) {
    Capture& capture = *static_cast<Capture*>(context);
    record_udp(capture.wire, capture.wire.feed, capture.wire.group, {packet, length});
    if (capture.repair.wanted) {
        hear_multicast(capture.repair, {packet, length});
    }
    if (capture.plot.bin_ns != 0) {
        count_packet(capture.plot, length);
    }
}

void take_truth_line(void* context, const char* line, std::size_t length) {
    fwrite_unlocked(line, 1, length, static_cast<Capture*>(context)->truth);
}

// The receiver's address: beside that of the feed, or the same on the loopback network.
std::uint32_t client_address(std::uint32_t source) {
    if (source >> 24 == 127) {
        return source;
    }
    return (source & 0xff) < 0xfe ? source + 1 : source - 1;
}

void lay_out_network(Capture& capture) {
    const Options& options = capture.options;
    Wire& wire = capture.wire;
    wire.clock = &capture.feed.clock;
    wire.builder.vlan = options.vlan;
    wire.feed = {options.source_address, options.source_port, options.source_mac};
    wire.group = {options.group_address, options.feed.port,
                  is_multicast(options.group_address) ? multicast_mac(options.group_address) : client_mac};
    wire.retransmission = {options.source_address, options.feed.retrans_port, options.source_mac};
    wire.snapshot = {options.source_address, options.feed.snapshot_port, options.source_mac};
    wire.client = {client_address(options.source_address), request_port, client_mac};
    capture.joins.resize(options.joins_ns.size());
    for (std::size_t at = 0; at < capture.joins.size(); ++at) {
        LateJoin& join = capture.joins[at];
        join.wire = &wire;
        join.at_ns = static_cast<std::uint64_t>(options.joins_ns[at]);
        join.client = wire.client;
        join.client.port = static_cast<std::uint16_t>(first_join_port + at % 15'000);
    }
}

// Whether the symbols that the timeline names exist; a slip would otherwise only show in the result.
bool check_symbols(const Capture& capture, std::string& error) {
    InstrumentList instruments;
    (void)build_instruments(capture.options.feed.symbols, instruments, error);
    for (const common::TimelineCommand& command : capture.timeline.commands) {
        const std::size_t word_end = command.text.find_first_of(" \t");
        const common::ControlCommand* const known =
            common::find_control_command(std::string_view(command.text).substr(0, word_end));
        const std::size_t begin = command.text.find_first_not_of(" \t", word_end);
        if (known == nullptr || begin == std::string::npos ||
            (known->argument != common::Argument::symbol &&
             known->argument != common::Argument::optional_symbol)) {
            continue;
        }
        const std::string symbol =
            command.text.substr(begin, command.text.find_first_of(" \t", begin) - begin);
        if (std::none_of(instruments.begin(), instruments.end(),
                         [&symbol](const Instrument& each) { return each.symbol == symbol; })) {
            error = fmt::format("{}:{}: no such symbol: '{}'", capture.timeline.name, command.line, symbol);
            return false;
        }
    }
    return true;
}

// Opens what is to be written; false, with the reason printed, when one of them cannot be.
bool open_outputs(Capture& capture) {
    std::string error;
    const Options& options = capture.options;
    if (!open_capture(capture.wire.file, options.pcap, error)) {
        say(error);
        return false;
    }
    if (!options.truth_out.empty()) {
        capture.truth = files::open_for_writing(options.truth_out, error);
        if (capture.truth == nullptr) {
            say(error);
            return false;
        }
        capture.feed.engine.truth.sink = {take_truth_line, &capture};
        capture.feed.engine.truth.enabled = true;
    }
    if (!options.plot.empty()) {
        capture.svg = files::open_for_writing(options.plot, error);
        if (capture.svg == nullptr) {
            say(error);
            return false;
        }
        begin_plot(capture.plot, static_cast<std::uint64_t>(options.duration_ns));
    }
    return true;
}

// Sets the feed up at the start of the run; false, with the reason printed, when it cannot be.
bool start(Capture& capture) {
    Feed& feed = capture.feed;
    const Options& options = capture.options;
    feed.offline = true;
    feed.config = options.feed;
    feed.config.truth_out.clear();
    feed.clock = {true, static_cast<std::uint64_t>(options.start_ns), reading_ns, steady_start_ms};
    feed.publisher.sink = {take_packet, &capture};
    if (options.retransmit) {
        begin_repair(capture.repair, capture.wire, feed.publisher, options.feed.session);
    }
    tessel::ExitStatus status = tessel::ExitStatus::stopped;
    std::string error;
    if (!start_feed(feed, status, error)) {
        std::fputs(error.c_str(), stderr);
        return false;
    }
    if (feed.interval_ms == 0) {
        feed.interval_ms = shortest_interval_ms;
    }
    return true;
}

std::uint64_t since_start_ns(const Capture& capture, std::uint64_t steady) {
    return steady == UINT64_MAX ? UINT64_MAX : (steady - capture.feed.start_ms) * ms_ns;
}

// When the next pass has something to do, nanoseconds since the start.
std::uint64_t next_pass_ns(const Capture& capture) {
    const std::uint64_t feed_ms = next_due_ms(capture.feed);
    std::uint64_t due = feed_ms < capture.feed.start_ms ? 0 : since_start_ns(capture, feed_ms);
    due = std::min(due, common::next_timed_ns(capture.timeline, capture.cursor));
    const auto& by_sequence = capture.timeline.by_sequence;
    if (capture.cursor.by_sequence < by_sequence.size() &&
        by_sequence[capture.cursor.by_sequence].moment <= capture.feed.publisher.next_sequence) {
        due = 0;
    }
    for (const LateJoin& join : capture.joins) {
        due = join.state == LateJoin::State::waiting ? std::min(due, join.at_ns) : due;
    }
    const std::int64_t repair_ms = next_repair_ms(capture.repair);
    if (repair_ms != INT64_MAX) {
        due = std::min(due, static_cast<std::uint64_t>(repair_ms) * ms_ns);
    }
    // What became due during the last pass is for the next, as in a loop that takes some time for each.
    return due > capture.now_ns ? due : capture.now_ns + overdue_wait_ns;
}

void set_time(Capture& capture, std::uint64_t now_ns) {
    Clock& clock = capture.feed.clock;
    capture.now_ns = now_ns;
    clock.simulated_steady_ms = capture.feed.start_ms + now_ns / ms_ns;
    clock.simulated_wall_ns =
        std::max(clock.simulated_wall_ns, static_cast<std::uint64_t>(capture.options.start_ns) + now_ns);
    capture.repair.now_ms = static_cast<std::int64_t>(now_ns / ms_ns);
}

// The timeline's part of a pass: what the control channel would have waiting.
void run_commands(Capture& capture) {
    std::vector<const common::TimelineCommand*> due;
    common::take_due(capture.timeline, capture.cursor, capture.now_ns, capture.feed.publisher.next_sequence,
                     due);
    for (const common::TimelineCommand* command : due) {
        const ControlReply reply = handle_command({&capture.feed.engine, &capture.feed.interval_ms},
                                                  command->text.data(), command->text.size());
        if (reply.text.starts_with("err")) {
            say(fmt::format("{}:{}: {}", capture.timeline.name, command->line,
                            reply.text.substr(0, reply.text.find('\n'))));
        }
        capture.stopped = capture.stopped || reply.stop;
        if (capture.stopped) {
            return;
        }
    }
}

void begin_due_joins(Capture& capture) {
    for (LateJoin& join : capture.joins) {
        if (join.state == LateJoin::State::waiting && join.at_ns <= capture.now_ns) {
            begin_join(join, capture.feed.snapshot, capture.options.feed.session,
                       static_cast<std::int64_t>(capture.feed.clock.simulated_steady_ms));
        }
    }
}

void after_pass(Capture& capture) {
    for (LateJoin& join : capture.joins) {
        step_join(join);
    }
    if (capture.repair.wanted) {
        step_repair(capture.repair, static_cast<std::int64_t>(capture.now_ns / ms_ns));
    }
    if (capture.plot.bin_ns != 0) {
        count_pass(capture.plot, capture.now_ns, capture.feed.publisher, capture.feed.scenario.stats);
    }
}

Totals totals_of(const Capture& capture) {
    const MoldPublisher& publisher = capture.feed.publisher;
    Totals totals;
    totals.messages = publisher.messages_sequenced;
    totals.packets = capture.wire.file.frames;
    totals.bytes = capture.wire.file.bytes;
    totals.dropped = publisher.faults_dropped;
    totals.duplicated = publisher.faults_duplicated;
    totals.reordered = publisher.faults_reordered;
    totals.market_ns = capture.now_ns;
    totals.work_ms = steady_ms() - capture.progress.start_ms;
    return totals;
}

bool outputs_failed(const Capture& capture) {
    return capture_failed(capture.wire.file) || (capture.truth != nullptr && std::ferror(capture.truth) != 0);
}

// The passes from the start to the end of the run.
void run_passes(Capture& capture) {
    const auto end_ns = static_cast<std::uint64_t>(capture.options.duration_ns);
    constexpr std::size_t columns = 79;
    std::uint64_t due = 0;
    while (due < end_ns && !outputs_failed(capture)) {
        set_time(capture, due);
        run_commands(capture);
        if (capture.stopped) {
            return;
        }
        begin_due_joins(capture);
        run_one_pass(capture.feed, capture.feed.clock.simulated_steady_ms);
        after_pass(capture);
        if (progress_due(capture.progress)) {
            draw_progress(capture.progress, progress_line(totals_of(capture), end_ns, columns));
        }
        due = next_pass_ns(capture);
    }
    set_time(capture, std::max(capture.now_ns, end_ns));
}

bool any_open_join(const Capture& capture) {
    return std::any_of(capture.joins.begin(), capture.joins.end(), [](const LateJoin& join) {
        return join.state == LateJoin::State::logged_in || join.state == LateJoin::State::logged_out;
    });
}

// What is under way at the end is completed, so that a capture accounts for every number: a packet that is
// open or held back, or that nobody could miss yet because none came after it; a session; requests.
void finish_exchanges(Capture& capture) {
    MoldPublisher& publisher = capture.feed.publisher;
    const bool hidden_loss =
        capture.repair.wanted && capture.repair.sequencer.highest < publisher.next_sequence;
    if (publisher.packet_count != 0 || !publisher.held_packet.empty() || hidden_loss) {
        send_heartbeat(publisher);
    }
    const std::uint64_t limit_ns = capture.now_ns + tail_ns_max;
    while (capture.now_ns < limit_ns &&
           (any_open_join(capture) || !nothing_missing(capture.repair.sequencer))) {
        set_time(capture, capture.now_ns + overdue_wait_ns);
        service_snapshots(capture.feed.snapshot, capture.feed.engine,
                          static_cast<std::int64_t>(capture.feed.clock.simulated_steady_ms));
        after_pass(capture);
    }
}

bool close_truth(Capture& capture) {
    if (capture.truth == nullptr) {
        return true;
    }
    const bool good = std::fclose(capture.truth) == 0;
    capture.truth = nullptr;
    if (!good) {
        say(capture.options.truth_out + ": " + std::strerror(errno));
    }
    return good;
}

bool write_plot(Capture& capture) {
    if (capture.svg == nullptr) {
        return true;
    }
    const std::string svg = draw_plot(
        capture.plot, fmt::format("{}: {} messages, seed {}", capture.options.feed.session,
                                  capture.feed.publisher.messages_sequenced, capture.options.feed.seed));
    const bool whole = std::fwrite(svg.data(), 1, svg.size(), capture.svg) == svg.size();
    const bool closed = std::fclose(capture.svg) == 0;
    capture.svg = nullptr;
    if (!whole || !closed) {
        say(capture.options.plot + ": " + std::strerror(errno));
    }
    return whole && closed;
}

bool close_outputs(Capture& capture) {
    std::string error;
    const bool captured = close_capture(capture.wire.file, error);
    if (!captured) {
        say(error);
    }
    const bool logged = close_truth(capture);
    const bool drawn = write_plot(capture);
    return captured && logged && drawn;
}

}  // namespace

ExitStatus make_capture(const Options& options) {
    std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is a file that cannot be written
    std::signal(SIGXFSZ, SIG_IGN);
    const auto capture = std::make_unique<Capture>();
    capture->options = options;
    std::string error;
    if (!options.script.empty() && !common::read_timeline(options.script, capture->timeline, error)) {
        say(error);
        return ExitStatus::bad_options;
    }
    if (!check_symbols(*capture, error)) {
        say(error);
        return ExitStatus::bad_options;
    }
    begin_progress(capture->progress);
    lay_out_network(*capture);
    if (!open_outputs(*capture)) {
        return ExitStatus::not_written;
    }
    // The feed prints line by line; a run of hours within seconds would spend its time on that.
    static char lines[std::size_t{64} << 10];
    std::setvbuf(stderr, lines, _IOFBF, sizeof lines);
    if (!start(*capture)) {
        return ExitStatus::bad_options;
    }
    run_passes(*capture);
    finish_exchanges(*capture);
    clear_progress(capture->progress);
    if (const std::string left = common::unplayed_text(capture->timeline, capture->cursor); !left.empty()) {
        say(left);
    }
    const bool written = close_outputs(*capture);
    Totals totals = totals_of(*capture);
    totals.market_ns = std::min(totals.market_ns, static_cast<std::uint64_t>(options.duration_ns));
    std::fputs((summary_line(totals) + "\n").c_str(), stderr);
    std::fflush(stderr);
    return written ? ExitStatus::written : ExitStatus::not_written;
}

}  // namespace tessel::capture
