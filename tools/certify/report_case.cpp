#include "certify/report_case.h"

#include "certify/report_chart.h"
#include "certify/report_lines.h"
#include "judge/markup.h"
#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::certify {

namespace {

using judge::escaped_markup;
using judge::grouped;

constexpr std::size_t results_shown_max = 3;
constexpr std::size_t summary_bytes_max = 160;

void add_count(std::string& page, std::string_view name, std::uint64_t number) {
    page += fmt::format(R"(<div class="{}"><dt>{}</dt><dd>{}</dd></div>)", number == 0 ? "none" : name, name,
                        grouped(number));
}

void add_counts(std::string& page, const CaseResult& result) {
    if (result.truth_lines + result.matched + result.mismatched + result.missing + result.unexpected == 0) {
        return;
    }
    page += lines_bar(result) + R"(<dl class="counts">)";
    page += fmt::format("<div><dt>truth lines</dt><dd>{}</dd></div>", grouped(result.truth_lines));
    add_count(page, "matched", result.matched);
    add_count(page, "mismatched", result.mismatched);
    add_count(page, "missing", result.missing);
    add_count(page, "unexpected", result.unexpected);
    page += "</dl>\n";
}

void add_line(std::string& page, std::string_view side, std::string_view line, std::string_view members) {
    page += fmt::format(R"(<tr class="{0}"><th scope="row">{0}</th><td>)", side);
    page += line.empty() ? "<span class=\"soft\">no line</span>"
                         : "<code>" + marked_line(line, members) + "</code>";
    page += "</td></tr>";
}

void add_message(std::string& page, const ShownDifference& difference) {
    if (difference.message_hex.empty() && difference.message_decoded.empty()) {
        page += R"(<p class="soft">The feed no longer has this message's bytes.</p>)";
        return;
    }
    page += R"(<details><summary>The message</summary><div class="message">)";
    if (!difference.message_hex.empty()) {
        page += "<pre tabindex=\"0\">" + hex_rows(difference.message_hex) + "</pre>";
    }
    const std::string rows = field_rows(difference.message_decoded);
    if (!rows.empty()) {
        page += "<table class=\"fields\">" + rows + "</table>";
    } else if (!difference.message_decoded.empty()) {
        page += "<pre tabindex=\"0\">" + escaped_markup(difference.message_decoded) + "</pre>";
    }
    page += "</div></details>";
}

void add_differences(std::string& page, const CaseResult& result) {
    if (result.examples.empty()) {
        return;
    }
    page += "<h4>First differences</h4>\n";
    for (const ShownDifference& difference : result.examples) {
        page += fmt::format(
            R"(<article class="difference {}"><h5>Sequence {}{}: {}{}{}</h5>)",
            difference.kind == "missing" || difference.kind == "unexpected" ? difference.kind : "mismatched",
            grouped(difference.seq),
            difference.symbol.empty() ? "" : ", " + escaped_markup(one_line(difference.symbol, 40)),
            escaped_markup(one_line(difference.kind, 40)),
            difference.members.empty()
                ? ""
                : " in <b>" + escaped_markup(one_line(difference.members, 200)) + "</b>",
            difference.in_gap ? R"( <span class="tag">inside an open gap</span>)" : "");
        page += R"(<table class="pair">)";
        add_line(page, "truth", difference.truth, difference.members);
        add_line(page, "handler", difference.output, difference.members);
        page += "</table>";
        add_message(page, difference);
        page += "</article>\n";
    }
}

void add_curve(std::string& page, const CaseResult& result) {
    if (result.curve.empty()) {
        return;
    }
    page += fmt::format("<h4>{} messages a second without loss</h4>\n", grouped(result.highest_rate));
    page += load_chart({{result.name, result.curve, result.highest_rate}});
    if (!result.note.empty()) {
        page += fmt::format("<p>{}</p>\n", escaped_markup(result.note));
    }
    page += R"(<table class="narrow"><tr><th class="number">messages a second</th>)"
            R"(<th class="number">missing</th></tr>)";
    for (const LoadPoint& point : result.curve) {
        page += fmt::format(R"(<tr><td class="number">{}</td><td class="number">{}</td></tr>)",
                            grouped(point.rate), grouped(point.missing));
    }
    page += "</table>\n";
}

void add_result(std::string& page, const CaseResult& result, bool with_seed) {
    if (with_seed) {
        page += fmt::format("<h4>Seed {}: {}</h4>", result.seed, verdict_word(result.verdict));
    }
    if (!result.reason.empty()) {
        page += fmt::format(R"(<p class="reason">{}</p>)", escaped_markup(result.reason));
    }
    add_counts(page, result);
    add_curve(page, result);
    add_differences(page, result);
    if (!result.log_tail.empty()) {
        page += fmt::format(R"(<details{}><summary>The end of the handler's output</summary>)"
                            R"(<pre tabindex="0">{}</pre></details>)",
                            result.examples.empty() ? " open" : "", escaped_markup(result.log_tail));
    }
    if (!result.command.empty()) {
        page += fmt::format(R"(<h4>Run it alone</h4><pre class="command" tabindex="0">{}</pre>)",
                            escaped_markup(result.command));
    }
    if (!result.folder.empty()) {
        page += fmt::format(R"(<p class="soft">Files: <code>{}</code></p>)", escaped_markup(result.folder));
    }
}

// The results to be shown: those with the case's verdict, or the only one.
std::vector<const CaseResult*> shown_results(const CaseSummary& summary) {
    std::vector<const CaseResult*> shown;
    for (const CaseResult* result : summary.results) {
        if (result->verdict == summary.verdict && shown.size() != results_shown_max) {
            shown.push_back(result);
        }
    }
    if (summary.verdict == Verdict::pass) {
        shown.resize(1);
    }
    return shown;
}

}  // namespace

std::string case_section(const CaseSummary& summary, bool matrix, bool open) {
    const std::vector<const CaseResult*> shown = shown_results(summary);
    const CaseResult& result = *shown.front();
    const std::string_view word = verdict_word(summary.verdict);
    std::string page = fmt::format(
        R"(<details class="case {}" id="{}"{}><summary><span class="badge {}">{}</span> <code>{}</code>)"
        R"( <span class="title">{}</span><span class="soft time">{:.1f} s</span>)",
        word, anchor_of(summary.first()), open ? " open" : "", word, word,
        escaped_markup(
            one_line(matrix ? result.handler + ": " + result.name : result.name, summary_bytes_max)),
        escaped_markup(one_line(result.title, summary_bytes_max)), result.seconds);
    if (!result.reason.empty() && !open) {
        page += fmt::format(R"(<span class="why">{}</span>)",
                            escaped_markup(one_line(result.reason, summary_bytes_max)));
    }
    page += "</summary><div class=\"body\">\n";
    if (summary.results.size() > 1) {
        page += fmt::format("<p>{} runs: {} pass", grouped(summary.results.size()),
                            grouped(summary.counts.of(Verdict::pass)));
        for (const Verdict verdict : {Verdict::fail, Verdict::error, Verdict::skipped}) {
            if (summary.counts.of(verdict) != 0) {
                page += fmt::format(", {} {} ({})", grouped(summary.counts.of(verdict)),
                                    verdict_word(verdict), seeds_with(summary, verdict));
            }
        }
        page += ".</p>\n";
    }
    for (const CaseResult* each : shown) {
        add_result(page, *each, summary.results.size() > 1);
    }
    return page + "</div></details>\n";
}

}  // namespace tessel::certify
