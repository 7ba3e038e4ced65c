#include "certify/report_summary.h"
#include "certify/reports.h"
#include "judge/markup.h"
#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::certify {

namespace {

// A CI summary has room for about a megabyte, and nobody reads that.
constexpr std::size_t failures_shown_max = 30;
constexpr std::size_t cases_of_cause_max = 6;
constexpr std::size_t cell_bytes_max = 200;

// Text in a paragraph or a table: one line, and nothing in it is markup.
std::string cell(std::string_view text) {
    std::string safe;
    for (const char c : judge::escaped_markup(one_line(text, cell_bytes_max))) {
        constexpr std::string_view special = "\\`*_{}[]()!|~#@";
        if (special.find(c) != std::string_view::npos && !(c == '#' && safe.ends_with('&'))) {
            safe += '\\';
        }
        safe += c;
    }
    return safe;
}

// Text in a fence that nothing in it can close.
std::string fenced(std::string_view text) {
    std::string fence = "```";
    while (text.find(fence) != std::string_view::npos) {
        fence += '`';
    }
    std::string safe;
    for (const char c : text) {
        const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        safe += control && c != '\n' && c != '\t' ? ' ' : c;
    }
    return fmt::format("{}\n{}{}{}\n", fence, safe, safe.ends_with('\n') ? "" : "\n", fence);
}

std::string_view mark_of(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass: return "✅ pass";
        case Verdict::fail: return "❌ fail";
        case Verdict::error: return "⚠️ error";
        case Verdict::skipped: break;
    }
    return "➖ skipped";
}

std::string totals_table(const Certificate& certificate) {
    const std::vector<std::string> handlers = handler_names(certificate);
    std::string text = "| group | pass | fail | error | skipped |\n|---|---:|---:|---:|---:|\n";
    for (const std::string& handler : handlers) {
        for (const std::string& group : group_names(certificate)) {
            const Counts counts = counts_of(certificate, handler, group);
            if (counts.all() != 0) {
                text += fmt::format(
                    "| {} | {} | {} | {} | {} |\n",
                    cell(handlers.size() > 1 ? handler + ": " + group : group),
                    judge::grouped(counts.of(Verdict::pass)), judge::grouped(counts.of(Verdict::fail)),
                    judge::grouped(counts.of(Verdict::error)), judge::grouped(counts.of(Verdict::skipped)));
            }
        }
    }
    return text + "\n";
}

std::string causes_list(const Certificate& certificate) {
    if (certificate.causes.empty()) {
        return "";
    }
    std::string text = "### Likely causes\n\n";
    for (const Cause& cause : certificate.causes) {
        text += fmt::format("- **{}**", cell(cause.text));
        const std::size_t shown = std::min(cause.cases.size(), cases_of_cause_max);
        for (std::size_t index = 0; index != shown; ++index) {
            text += (index == 0 ? ": " : ", ") + cell(cause.cases[index]);
        }
        if (shown != cause.cases.size()) {
            text += fmt::format(" and {} more", cause.cases.size() - shown);
        }
        text += "\n";
    }
    return text + "\n";
}

std::string matrix(const Certificate& certificate, const std::vector<CaseSummary>& cases) {
    const std::vector<std::string> handlers = handler_names(certificate);
    if (handlers.size() < 2) {
        return "";
    }
    std::string text = "<details><summary>Every case, by handler</summary>\n\n| case |";
    for (const std::string& handler : handlers) {
        text += fmt::format(" {} |", cell(handler));
    }
    text += "\n|---|";
    for (std::size_t column = 0; column != handlers.size(); ++column) {
        text += "---|";
    }
    for (std::size_t at = 0; at != cases.size();) {
        const std::string& name = cases[at].first().name;
        text += fmt::format("\n| {} |", cell(name));
        for (const std::string& handler : handlers) {
            const bool here =
                at != cases.size() && cases[at].first().name == name && cases[at].first().handler == handler;
            text += fmt::format(" {} |", here ? mark_of(cases[at].verdict) : "");
            at += here ? 1 : 0;
        }
    }
    return text + "\n\n</details>\n\n";
}

void add_failure(std::string& text, const Certificate& certificate, const CaseSummary& summary) {
    const CaseResult& result =
        **std::find_if(summary.results.begin(), summary.results.end(),
                       [&](const CaseResult* each) { return each->verdict == summary.verdict; });
    const bool matrix = handler_names(certificate).size() > 1;
    // A line of HTML, in which Markdown is not read.
    const std::string name = matrix ? result.handler + ": " + result.name : result.name;
    text += fmt::format("\n<details><summary>{} <b>{}</b>: {}</summary>\n\n", mark_of(summary.verdict),
                        judge::escaped_markup(one_line(name, cell_bytes_max)),
                        judge::escaped_markup(one_line(result.reason, cell_bytes_max)));
    text += fmt::format("{}\n\n", cell(result.title));
    if (summary.results.size() > 1) {
        text += fmt::format("{} of {} runs, {}\n\n", summary.counts.of(summary.verdict),
                            summary.results.size(), seeds_with(summary, summary.verdict));
    }
    if (!result.examples.empty()) {
        const ShownDifference& difference = result.examples.front();
        text += fmt::format("Sequence {}, {}{}:\n\n", difference.seq, cell(difference.kind),
                            difference.members.empty() ? "" : " in " + cell(difference.members));
        text += fenced(fmt::format("truth  {}\noutput {}",
                                   difference.truth.empty() ? "has no line" : difference.truth,
                                   difference.output.empty() ? "has no line" : difference.output));
    }
    if (!result.command.empty()) {
        text += "\nRun it alone:\n\n" + fenced(result.command);
    }
    text += "\n</details>\n";
}

std::string failures(const Certificate& certificate, const std::vector<CaseSummary>& cases) {
    std::string text;
    std::size_t shown = 0;
    std::size_t left_out = 0;
    for (const CaseSummary& summary : cases) {
        if (summary.verdict != Verdict::fail && summary.verdict != Verdict::error) {
            continue;
        }
        if (shown == failures_shown_max) {
            ++left_out;
            continue;
        }
        ++shown;
        add_failure(text, certificate, summary);
    }
    if (left_out != 0) {
        text += fmt::format("\n{} more that do not pass.\n", judge::grouped(left_out));
    }
    return text.empty() ? "" : "### What does not pass\n" + text;
}

}  // namespace

std::string markdown_report(const Certificate& certificate) {
    const std::vector<CaseSummary> cases = summaries(certificate);
    const Verdict verdict = overall(counts_of(certificate));
    std::string text = fmt::format("## {} {}\n\n", mark_of(verdict).substr(0, mark_of(verdict).find(' ')),
                                   cell(headline(certificate)));
    for (const Handler& handler : certificate.handlers) {
        text += certificate.handlers.size() > 1 ? fmt::format("{}:\n", cell(handler.name)) : "";
        text += fenced(handler.command) + "\n";
    }
    text += fmt::format("{}, seed {}\n\n", cell(certificate.tool), certificate.seed);
    for (const std::string& about : certificate.about) {
        text += fmt::format("{}\n\n", cell(about));
    }
    text += causes_list(certificate);
    text += totals_table(certificate);
    text += matrix(certificate, cases);
    return text + failures(certificate, cases);
}

}  // namespace tessel::certify
