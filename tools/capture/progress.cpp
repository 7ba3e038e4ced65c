#include "capture/progress.h"

#include "base/clock.h"
#include "common/duration.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>

namespace tessel::capture {

namespace {

constexpr std::uint64_t draw_interval_ms = 200;
constexpr unsigned passes_per_look = 64;
constexpr std::size_t bar_columns_max = 30;

double rate_of(const Totals& totals) {
    return static_cast<double>(totals.messages) * 1000.0 /
           static_cast<double>(std::max<std::uint64_t>(totals.work_ms, 1));
}

}  // namespace

std::string summary_line(const Totals& t) {
    return fmt::format(
        "tessel-capture: {} messages, {} packets, {} bytes, {} dropped, {} duplicated, {} reordered; "
        "{} s of market in {:.3f} s, {:.0f} messages/s",
        t.messages, t.packets, t.bytes, t.dropped, t.duplicated, t.reordered,
        static_cast<double>(t.market_ns) / 1e9, static_cast<double>(t.work_ms) / 1e3, rate_of(t));
}

std::string progress_line(const Totals& totals, std::uint64_t duration_ns, std::size_t columns) {
    const double part = std::min(1.0, static_cast<double>(totals.market_ns) /
                                          static_cast<double>(std::max<std::uint64_t>(duration_ns, 1)));
    std::string remaining = "?";
    if (part > 0) {
        const double left_ms = static_cast<double>(totals.work_ms) * (1 - part) / part;
        remaining = common::duration_text(static_cast<std::int64_t>(left_ms / 1e3) * 1'000'000'000);
    }
    const std::string numbers = fmt::format(" {:3.0f} %, {:.2f} million messages/s, {} left", part * 100,
                                            rate_of(totals) / 1e6, remaining);
    if (columns < numbers.size() + 12) {
        return numbers.substr(0, columns);
    }
    const std::size_t bar = std::min(bar_columns_max, columns - numbers.size() - 3);
    const auto full = static_cast<std::size_t>(part * static_cast<double>(bar));
    return "[" + std::string(full, '#') + std::string(bar - full, '.') + "]" + numbers;
}

void begin_progress(Progress& progress) {
    progress.shown = isatty(STDERR_FILENO) != 0;
    progress.start_ms = steady_ms();
    progress.next_ms = progress.start_ms + draw_interval_ms;
}

bool progress_due(Progress& progress) {
    if (!progress.shown || ++progress.passes < passes_per_look) {
        return false;
    }
    progress.passes = 0;
    return steady_ms() >= progress.next_ms;
}

void draw_progress(Progress& progress, const std::string& line) {
    clear_progress(progress);
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    progress.next_ms = steady_ms() + draw_interval_ms;
}

void clear_progress(Progress& progress) {
    if (!progress.shown) {
        return;
    }
    // The bar before what was printed since: standard error is buffered, so this comes first in the end.
    constexpr char clear[] = "\r\x1b[K";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, clear, sizeof clear - 1);
    std::fflush(stderr);
}

}  // namespace tessel::capture
