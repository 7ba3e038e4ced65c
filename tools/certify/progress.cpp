#include "certify/progress.h"

#include "certify/case_run.h"
#include "certify/time_limits.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>

namespace tessel::certify {

namespace {

constexpr double period_seconds = 0.25;
constexpr std::size_t columns_default = 80;

std::size_t columns() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : columns_default;
}

void clear_line(const Progress& progress) {
    if (progress.terminal) {
        std::fputs("\r\x1b[K", stderr);
    }
}

}  // namespace

std::string printable(const std::string& text) {
    std::string out = text;
    for (char& letter : out) {
        const auto code = static_cast<unsigned char>(letter);
        letter = code < 0x20 || code == 0x7f ? ' ' : letter;
    }
    return out;
}

void begin_progress(Progress& progress, const std::vector<const Case*>& cases, unsigned jobs) {
    progress.terminal = isatty(STDERR_FILENO) != 0;
    progress.jobs = jobs;
    progress.total = cases.size();
    progress.cases = cases;
    progress.started = steady_seconds();
    for (const Case* each : cases) {
        progress.expected_left += expected_seconds(*each);
    }
}

void note_started(Progress& progress, const Case& each) {
    progress.running.push_back(each.name);
}

void note_done(Progress& progress, const CaseResult& result) {
    const auto running = std::find(progress.running.begin(), progress.running.end(), result.name);
    if (running != progress.running.end()) {
        progress.running.erase(running);
    }
    for (const Case* each : progress.cases) {
        if (each->name == result.name) {
            progress.expected_left -= expected_seconds(*each);
            break;
        }
    }
    ++progress.done;
    progress.failed += result.verdict == Verdict::fail || result.verdict == Verdict::error ? 1 : 0;
    if (!progress.terminal || result.verdict == Verdict::fail || result.verdict == Verdict::error) {
        clear_line(progress);
        const std::string reason = result.reason.empty() ? "" : ": " + result.reason;
        const std::string handler = result.handler == "handler" ? "" : result.handler + ": ";
        const std::string line =
            fmt::format("[{}/{}] {}{} {} ({:.1f} s){}", progress.done, progress.total, handler, result.name,
                        verdict_word(result.verdict), result.seconds, reason);
        fmt::print(stderr, "{}\n", printable(line));
    }
}

void show_progress(Progress& progress) {
    const double now = steady_seconds();
    if (!progress.terminal || now < progress.shown + period_seconds) {
        return;
    }
    progress.shown = now;
    const double left = std::max(1.0, progress.expected_left / progress.jobs);
    std::string line = fmt::format("{} of {} done, {} failed, about {:.0f} s left:", progress.done,
                                   progress.total, progress.failed, left);
    for (const std::string& name : progress.running) {
        line += " " + name;
    }
    fmt::print(stderr, "\r{}\x1b[K", printable(line).substr(0, columns() - 1));
    std::fflush(stderr);
}

void end_progress(Progress& progress) {
    clear_line(progress);
    std::fflush(stderr);
}

}  // namespace tessel::certify
