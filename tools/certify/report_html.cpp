#include "certify/report_case.h"
#include "certify/report_chart.h"
#include "certify/report_style.h"
#include "certify/report_summary.h"
#include "certify/reports.h"
#include "judge/markup.h"
#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace tessel::certify {

namespace {

using judge::escaped_markup;
using judge::grouped;

constexpr std::size_t open_sections_max = 12;
constexpr std::size_t cases_of_cause_max = 24;

// The share of cases that pass as a ring.
std::string ring(const Counts& counts) {
    constexpr double circumference = 2 * 3.14159265 * 46;
    const std::uint64_t tried = counts.all() - counts.of(Verdict::skipped);
    const double share =
        tried == 0 ? 0 : static_cast<double>(counts.of(Verdict::pass)) / static_cast<double>(tried);
    // Never 100 % as long as one case does not pass.
    const int percent = static_cast<int>(share * 100);
    return fmt::format(
        R"svg(<svg class="ring" viewBox="0 0 104 104" aria-hidden="true"><circle cx="52" cy="52" r="46"/>)svg"
        R"svg(<circle class="share" cx="52" cy="52" r="46" stroke-dasharray="{:.1f} {:.1f}" )svg"
        R"svg(transform="rotate(-90 52 52)"/><text text-anchor="middle" x="52" y="60">{} %</text></svg>)svg",
        circumference * share, circumference, percent);
}

void add_tile(std::string& page, std::string_view look, std::string_view name, const std::string& number) {
    page += fmt::format(R"(<div class="tile {}"><b>{}</b><span>{}</span></div>)", look, number, name);
}

void add_head(std::string& page, const Certificate& certificate, const Counts& counts) {
    page += fmt::format(R"(<div class="verdict {}">{}<div><h1>{}</h1>)", verdict_word(overall(counts)),
                        ring(counts), escaped_markup(headline(certificate)));
    for (const Handler& handler : certificate.handlers) {
        page += fmt::format("<p>{}<code>{}</code></p>",
                            certificate.handlers.size() > 1 ? escaped_markup(handler.name) + ": " : "",
                            escaped_markup(handler.command));
    }
    page += "</div></div>\n<div class=\"tiles\">";
    for (const auto& [verdict, name] : {std::pair<Verdict, std::string_view>{Verdict::pass, "pass"},
                                        {Verdict::fail, "fail"},
                                        {Verdict::error, "could not be run"},
                                        {Verdict::skipped, "skipped"}}) {
        const bool any = counts.of(verdict) != 0;
        add_tile(page, any ? verdict_word(verdict) : "none", name, grouped(counts.of(verdict)));
    }
    std::uint64_t lines = 0;
    for (const CaseResult& result : certificate.cases) {
        lines += result.matched;
    }
    add_tile(page, "none", "lines matched", grouped(lines));
    page += "</div>\n";
}

// The sections that a cause leads to: by the names that causes use.
using Anchors = std::map<std::string, std::string>;

Anchors anchors_of(const std::vector<CaseSummary>& cases, bool matrix) {
    Anchors anchors;
    for (const CaseSummary& summary : cases) {
        const CaseResult& result = summary.first();
        anchors.emplace(matrix ? result.handler + ": " + result.name : result.name, anchor_of(result));
    }
    return anchors;
}

void add_causes(std::string& page, const Certificate& certificate, const Anchors& anchors) {
    if (certificate.causes.empty()) {
        return;
    }
    page += "<section class=\"causes\"><h2>Likely causes</h2><ol>\n";
    for (const Cause& cause : certificate.causes) {
        page += fmt::format("<li><b>{}</b>", escaped_markup(cause.text));
        const std::size_t shown = std::min(cause.cases.size(), cases_of_cause_max);
        for (std::size_t index = 0; index != shown; ++index) {
            const auto anchor = anchors.find(cause.cases[index]);
            const std::string name = escaped_markup(cause.cases[index]);
            page += index == 0 ? "" : ", ";
            page +=
                anchor == anchors.end() ? name : fmt::format(R"(<a href="#{}">{}</a>)", anchor->second, name);
        }
        if (shown != cause.cases.size()) {
            page += fmt::format(" and {} more", cause.cases.size() - shown);
        }
        page += "</li>\n";
    }
    page += "</ol></section>\n";
}

// With one handler a chart of all load cases, with several a chart a case that compares the handlers.
void add_load(std::string& page, const std::vector<CaseSummary>& cases, bool matrix) {
    std::map<std::string, std::vector<LoadSeries>> charts;
    for (const CaseSummary& summary : cases) {
        const CaseResult& result = summary.first();
        if (!result.curve.empty()) {
            charts[matrix ? result.name : ""].push_back(
                {matrix ? result.handler : result.name, result.curve, result.highest_rate});
        }
    }
    if (charts.empty()) {
        return;
    }
    page += "<section><h2>Load: messages a second against missing messages</h2>\n";
    for (const auto& [name, series] : charts) {
        page += name.empty() ? "" : fmt::format("<h4><code>{}</code></h4>", escaped_markup(name));
        page += load_chart(series);
        if (series.size() > load_series_max) {
            page += fmt::format(R"(<p class="soft">{} more in their sections.</p>)",
                                series.size() - load_series_max);
        }
    }
    page += "</section>\n";
}

void add_matrix(std::string& page, const Certificate& certificate, const std::vector<CaseSummary>& cases) {
    const std::vector<std::string> handlers = handler_names(certificate);
    if (handlers.size() < 2) {
        return;
    }
    page += R"(<section><h2>Every case, by handler</h2><div class="wide" tabindex="0"><table class="matrix">)"
            R"(<tr><th scope="col">case</th>)";
    for (const std::string& handler : handlers) {
        page += fmt::format(R"(<th scope="col">{}</th>)", escaped_markup(handler));
    }
    page += "</tr>\n";
    for (std::size_t at = 0; at != cases.size();) {
        const CaseResult& first = cases[at].first();
        page += fmt::format(R"(<tr><td><code>{}</code> <span class="soft">{}</span></td>)",
                            escaped_markup(first.name), escaped_markup(one_line(first.title, 100)));
        for (const std::string& handler : handlers) {
            if (at == cases.size() || cases[at].first().name != first.name ||
                cases[at].first().handler != handler) {
                page += "<td></td>";
                continue;
            }
            const CaseSummary& summary = cases[at];
            page += fmt::format(R"(<td><a href="#{}"><span class="badge {}">{}</span></a></td>)",
                                anchor_of(summary.first()), verdict_word(summary.verdict),
                                verdict_word(summary.verdict));
            ++at;
        }
        page += "</tr>\n";
    }
    page += "</table></div></section>\n";
}

void add_cases(std::string& page, const std::vector<CaseSummary>& cases, bool matrix) {
    // Radio buttons without a script: the style hides what the chosen one leaves out.
    page += R"(<section class="cases" id="cases"><h2>Cases</h2>)"
            R"(<input type="radio" name="show" id="show-all" checked>)"
            R"(<input type="radio" name="show" id="show-not"><input type="radio" name="show" id="show-pass">)"
            R"(<label class="filter for-all" for="show-all">all</label> )"
            R"(<label class="filter for-not" for="show-not">not passed</label> )"
            R"(<label class="filter for-pass" for="show-pass">passed</label>)"
            "\n";
    const auto passed = [](const CaseSummary& summary) {
        return summary.verdict == Verdict::pass || summary.verdict == Verdict::skipped;
    };
    std::size_t shown = 0;
    for (const CaseSummary& summary : cases) {
        if (!passed(summary)) {
            page += shown == 0 ? "<h3>not passed</h3>\n" : "";
            page += case_section(summary, matrix, shown < open_sections_max);
            ++shown;
        }
    }
    std::string group;
    for (const CaseSummary& summary : cases) {
        if (!passed(summary)) {
            continue;
        }
        if (summary.first().group != group) {
            group = summary.first().group;
            page += fmt::format("<h3>{}</h3>\n", escaped_markup(group));
        }
        page += case_section(summary, matrix, false);
    }
    page += "</section>\n";
}

}  // namespace

std::string html_report(const Certificate& certificate) {
    const std::vector<CaseSummary> cases = summaries(certificate);
    const Counts counts = counts_of(certificate);
    const bool matrix = handler_names(certificate).size() > 1;
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">";
    page += fmt::format("<title>{}</title><style>{}</style></head>\n<body><main>\n",
                        escaped_markup(headline(certificate)), report_style);
    page += "<a class=\"skip\" href=\"#cases\">Skip to the cases</a>\n";
    add_head(page, certificate, counts);
    add_causes(page, certificate, anchors_of(cases, matrix));
    page += "<section><h2>By group</h2>" + group_chart(certificate, cases) + "</section>\n";
    add_load(page, cases, matrix);
    add_matrix(page, certificate, cases);
    add_cases(page, cases, matrix);
    page += fmt::format("<footer>{}, seed {}", escaped_markup(certificate.tool), certificate.seed);
    for (const std::string& about : certificate.about) {
        page += "<br>" + escaped_markup(about);
    }
    return page + "</footer>\n</main></body></html>\n";
}

}  // namespace tessel::certify
