// One feed from the network, with a view of the market if that is asked for.

#include "listen/live.h"
#include "listen/report.h"
#include "listen/stop_signals.h"
#include "listen/terminal_view.h"

#include <fmt/format.h>

#include <unistd.h>

namespace tessel::listen {

namespace {

// One pass: waits for input, then processes it.
void run_one_pass(Live& live, std::vector<pollfd>& entries) {
    entries.clear();
    const std::int64_t wait_ms = add_wait(live, entries, static_cast<std::int64_t>(steady_ms()));
    poll(entries.data(), entries.size(), static_cast<int>(wait_ms));
    on_input(live);
}

void receive_until_end(Live& live) {
    const auto limit_ms = static_cast<std::int64_t>(live.listener.options.seconds * 1000.0);
    std::int64_t end_ms = limit_ms == 0 ? INT64_MAX : static_cast<std::int64_t>(steady_ms()) + limit_ms;
    std::vector<pollfd> entries;
    while (stop_signals() == 0 && !is_finished(live) && static_cast<std::int64_t>(steady_ms()) < end_ms) {
        run_one_pass(live, entries);
    }
    const int signals = stop_signals();
    end_ms = static_cast<std::int64_t>(steady_ms()) + end_wait_ms(signals);
    begin_end(live);
    while (!is_complete(live) && stop_signals() <= (signals != 0 ? 1 : 0) &&
           static_cast<std::int64_t>(steady_ms()) < end_ms) {
        run_one_pass(live, entries);
    }
    complete_end(live);
}

void report_joined(const Live& live, const Options& options) {
    std::string where;
    for (const LineOption& line : lines_of(options)) {
        where += fmt::format("{}{}{}{}:{} on {}", where.empty() ? "" : ", ", line.name,
                             line.name.empty() ? "" : " ", line.group, line.port,
                             line.iface.empty() ? options.iface : line.iface);
    }
    report_summary(fmt::format("joined {}, session {}, socket buffer {} bytes", where, options.session,
                               live.lines.front().buffer_bytes));
}

}  // namespace

ExitStatus run_live(const Options& options) {
    if (options.view && isatty(STDOUT_FILENO) == 0) {
        report("--view needs a terminal on standard output");
        return ExitStatus::bad_options;
    }
    Live live;
    if (!prepare_live(live, options)) {
        return ExitStatus::bad_options;
    }
    catch_stop_signals();
    report_joined(live, options);
    if (options.view) {
        open_view();
    }
    receive_until_end(live);
    if (options.view) {
        close_view();
    }
    close_live(live);
    return finish_listener(live.listener);
}

}  // namespace tessel::listen
