#include "certify/report_summary.h"
#include "certify/reports.h"
#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::certify {

namespace {

constexpr std::size_t name_width_max = 40;
constexpr std::size_t reason_bytes_max = 160;
constexpr std::size_t cases_of_cause_max = 4;

std::string_view color_of(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass: return "\x1b[32m";
        case Verdict::fail: return "\x1b[1;31m";
        case Verdict::error: return "\x1b[1;35m";
        case Verdict::skipped: break;
    }
    return "\x1b[33m";
}

std::string colored(std::string_view text, std::string_view code, bool color) {
    return color ? fmt::format("{}{}\x1b[0m", code, text) : std::string(text);
}

std::string_view word_of(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass: return "PASS";
        case Verdict::fail: return "FAIL";
        case Verdict::error: return "ERROR";
        case Verdict::skipped: break;
    }
    return "SKIP";
}

std::size_t name_width(const std::vector<CaseSummary>& cases) {
    std::size_t width = 4;
    for (const CaseSummary& summary : cases) {
        width = std::max(width, std::min(summary.first().name.size(), name_width_max));
    }
    return width;
}

// The reason of the worst result, and how many there are.
std::string note_of(const CaseSummary& summary) {
    const auto worst = std::find_if(summary.results.begin(), summary.results.end(),
                                    [&](const CaseResult* each) { return each->verdict == summary.verdict; });
    std::string note = one_line((*worst)->reason, reason_bytes_max);
    if (summary.results.size() > 1) {
        const std::uint64_t alike = summary.counts.of(summary.verdict);
        note =
            fmt::format("{} of {} runs{}{}{}", judge::grouped(alike), judge::grouped(summary.results.size()),
                        summary.verdict == Verdict::pass ? "" : ", " + seeds_with(summary, summary.verdict),
                        note.empty() ? "" : ": ", note);
    }
    if (summary.first().highest_rate != 0 || !summary.first().curve.empty()) {
        note += fmt::format("{}{} messages a second without loss", note.empty() ? "" : "; ",
                            judge::grouped(summary.first().highest_rate));
    }
    if (!summary.first().note.empty()) {
        note += "; " + one_line(summary.first().note, 200);
    }
    return note;
}

std::string list_of_cases(const std::vector<CaseSummary>& cases, bool color) {
    std::string text;
    const std::size_t width = name_width(cases);
    for (const CaseSummary& summary : cases) {
        text += fmt::format(
            "{}  {:<{}}  {:6.1f} s  {}\n",
            colored(fmt::format("{:<5}", word_of(summary.verdict)), color_of(summary.verdict), color),
            one_line(summary.first().name, name_width_max), width, summary.first().seconds, note_of(summary));
        while (text.size() > 1 && text[text.size() - 2] == ' ') {
            text.erase(text.size() - 2, 1);
        }
    }
    return text;
}

// A row a case, a column a handler.
std::string matrix_of_cases(const Certificate& certificate, const std::vector<CaseSummary>& cases,
                            bool color) {
    const std::vector<std::string> handlers = handler_names(certificate);
    const std::size_t width = name_width(cases);
    std::string text = fmt::format("{:<{}}", "case", width);
    std::vector<std::size_t> widths;
    for (const std::string& handler : handlers) {
        const std::string name = one_line(handler, name_width_max);
        widths.push_back(std::max<std::size_t>(name.size(), 5));
        text += fmt::format("  {:<{}}", name, widths.back());
    }
    text += '\n';
    for (std::size_t at = 0; at != cases.size();) {
        const std::string& name = cases[at].first().name;
        text += fmt::format("{:<{}}", one_line(name, name_width_max), width);
        for (std::size_t column = 0; column != handlers.size(); ++column) {
            if (at != cases.size() && cases[at].first().name == name &&
                cases[at].first().handler == handlers[column]) {
                text += "  " + colored(fmt::format("{:<{}}", word_of(cases[at].verdict), widths[column]),
                                       color_of(cases[at].verdict), color);
                ++at;
            } else {
                text += fmt::format("  {:<{}}", "-", widths[column]);
            }
        }
        text += '\n';
    }
    return text;
}

std::string totals_table(const Certificate& certificate) {
    const std::vector<std::string> handlers = handler_names(certificate);
    std::string text =
        fmt::format("{:<24}  {:>7}  {:>7}  {:>7}  {:>7}\n", "group", "pass", "fail", "error", "skipped");
    const auto add = [&](const std::string& name, const Counts& counts) {
        if (counts.all() != 0) {
            text += fmt::format("{:<24}  {:>7}  {:>7}  {:>7}  {:>7}\n", one_line(name, 40),
                                counts.of(Verdict::pass), counts.of(Verdict::fail), counts.of(Verdict::error),
                                counts.of(Verdict::skipped));
        }
    };
    for (const std::string& handler : handlers) {
        for (const std::string& group : group_names(certificate)) {
            add(handlers.size() > 1 ? handler + ": " + group : group, counts_of(certificate, handler, group));
        }
    }
    add("all", counts_of(certificate));
    return text;
}

std::string causes_list(const Certificate& certificate, bool color) {
    std::string text;
    for (const Cause& cause : certificate.causes) {
        text += fmt::format("  {} ", colored(one_line(cause.text, 200), "\x1b[1m", color));
        const std::size_t shown = std::min(cause.cases.size(), cases_of_cause_max);
        for (std::size_t index = 0; index != shown; ++index) {
            text += (index == 0 ? "(" : ", ") + one_line(cause.cases[index], name_width_max);
        }
        if (shown != cause.cases.size()) {
            text += fmt::format(" and {} more", cause.cases.size() - shown);
        }
        text += shown == 0 ? "\n" : ")\n";
    }
    return text.empty() ? "" : "Likely causes\n" + text + "\n";
}

}  // namespace

std::string text_report(const Certificate& certificate, bool color) {
    const std::vector<CaseSummary> cases = summaries(certificate);
    const Verdict verdict = overall(counts_of(certificate));
    std::string text = handler_names(certificate).size() > 1 ? matrix_of_cases(certificate, cases, color)
                                                             : list_of_cases(cases, color);
    text += "\n" + totals_table(certificate) + "\n" + causes_list(certificate, color);
    return text + colored(headline(certificate), color_of(verdict), color) + "\n";
}

}  // namespace tessel::certify
