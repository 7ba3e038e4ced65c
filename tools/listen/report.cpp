#include "listen/report.h"

#include "listen/stop_signals.h"

#include <unistd.h>
#include <cerrno>

namespace tessel::listen {

namespace {

constexpr std::string_view prefix = "tessel-listen: ";
constexpr std::string_view cut_mark = "...";

thread_local std::string label;  // "ch01: ", or empty

void write_line(std::string line) {
    line += '\n';
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t count = write(STDERR_FILENO, rest.data(), rest.size());
        if (count > 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR || stop_signals() > 1) {
            return;
        }
    }
}

}  // namespace

std::string report_line(std::string_view text, std::size_t most) {
    std::string line(prefix);
    line += label;
    line += text;
    for (char& letter : line) {
        if (static_cast<unsigned char>(letter) < ' ' || letter == '\x7f') {
            letter = '?';
        }
    }
    if (line.size() > most) {
        line.resize(most - cut_mark.size());
        line += cut_mark;
    }
    return line;
}

void label_reports(std::string_view name) {
    label = name;
    label += name.empty() ? "" : ": ";
}

void report(std::string_view text) {
    write_line(report_line(text, error_line_max));
}

void report_summary(std::string_view text) {
    write_line(report_line(text, prefix.size() + label.size() + text.size()));
}

}  // namespace tessel::listen
