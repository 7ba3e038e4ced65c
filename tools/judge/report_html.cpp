#include "judge/markup.h"
#include "judge/report.h"
#include "judge/report_chart.h"

#include <fmt/format.h>

namespace tessel::judge {

namespace {

// The page's whole style. Verdicts and series keep their colors apart from one another for every kind of
// color vision; the dark variant only changes their lightness. The page's tests look for these colors in
// a picture of it.
constexpr std::string_view style = R"css(
:root { color-scheme: light dark; --page: #f4f6f8; --card: #ffffff; --ink: #18212b; --soft: #5b6875;
  --line: #d9dfe5;
  --agrees: #17703f; --differs: #b3261e; --nothing: #8a5a00;
  --missing: #d9480f; --mismatched: #6741d9; --unexpected: #1971c2; }
@media (prefers-color-scheme: dark) {
  :root { --page: #12171c; --card: #1b2229; --ink: #e8edf2; --soft: #9aa7b4; --line: #333d47;
    --agrees: #1f7a48; --differs: #b73a32; --nothing: #8f640f; --missing: #ff8c42; --mismatched: #9f85ff;
    --unexpected: #5aa9f0; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--page); color: var(--ink);
  font: 15px/1.5 system-ui, "DejaVu Sans", sans-serif; }
main { max-width: 1080px; margin: 0 auto; padding: 24px 20px 48px; }
h1 { font-size: 30px; margin: 0; letter-spacing: .01em; }
h2 { font-size: 17px; margin: 0 0 12px; }
h3 { font-size: 14px; margin: 12px 0 4px; color: var(--soft); font-weight: 600; }
p { margin: 6px 0 0; }
.verdict { border-radius: 12px; padding: 22px 26px; color: #ffffff; }
.verdict.agrees { background: var(--agrees); } .verdict.differs { background: var(--differs); }
.verdict.nothing { background: var(--nothing); } .about { color: var(--soft); margin: 0 0 12px; }
.notes { border-left: 4px solid var(--nothing); }
.verdict p { font-size: 16px; }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(148px, 1fr)); gap: 12px;
  margin: 16px 0; }
.tile, section { background: var(--card); border: 1px solid var(--line); border-radius: 12px; }
.tile { padding: 12px 16px; } .tile b { display: block; font-size: 20px; font-variant-numeric: tabular-nums; }
.tile span { color: var(--soft); font-size: 13px; } .tile small { display: block; color: var(--soft); }
.tile.missing b { color: var(--missing); } .tile.mismatched b { color: var(--mismatched); }
.tile.unexpected b { color: var(--unexpected); }
section { padding: 18px 20px; margin-top: 16px; overflow-x: auto; }
svg { display: block; width: 100%; height: auto; }
svg text { font: 12px system-ui, "DejaVu Sans", sans-serif; fill: var(--soft); }
svg .curve { fill: none; stroke-width: 2; } svg .dashed { stroke-dasharray: 5 4; }
svg .c0 { stroke: var(--unexpected); } svg .c1 { stroke: var(--missing); }
svg .c2 { stroke: var(--mismatched); }
svg .grid { stroke: var(--line); } svg .axis { stroke: var(--soft); } svg .quiet { font-size: 14px; }
svg .missing, .key.missing { fill: var(--missing); background: var(--missing); }
svg .mismatched, .key.mismatched { fill: var(--mismatched); background: var(--mismatched); }
svg .unexpected, .key.unexpected { fill: var(--unexpected); background: var(--unexpected); }
.legend { color: var(--soft); font-size: 13px; margin: 0 0 6px; }
.key { display: inline-block; width: 12px; height: 12px; border-radius: 3px; margin: 0 6px -1px 0; }
.legend span + .key { margin-left: 18px; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th { text-align: left; color: var(--soft); font-size: 13px; font-weight: 600; }
th, td { padding: 6px 14px 6px 0; border-bottom: 1px solid var(--line); vertical-align: top; }
tr:last-child td { border-bottom: 0; } table.narrow { width: auto; min-width: 50%; }
td.number, th.number { text-align: right; }
code, pre { font: 12.5px/1.5 ui-monospace, "DejaVu Sans Mono", monospace; }
pre { white-space: pre-wrap; overflow-wrap: anywhere; margin: 2px 0 0; }
.values td { border: 0; padding: 0 12px 0 0; } .values { width: auto; } .where { color: var(--soft); }
details summary { cursor: pointer; color: var(--soft); }
footer { color: var(--soft); font-size: 13px; margin-top: 18px; }
)css";

void add_tile(std::string& page, std::string_view name, std::uint64_t number, std::string_view color,
              const std::string& note = "") {
    page +=
        fmt::format(R"(<div class="tile {}"><span>{}</span><b>{}</b>{}</div>)", number == 0 ? "" : color,
                    name, grouped(number), note.empty() ? "" : "<small>" + escaped_markup(note) + "</small>");
}

void add_tiles(std::string& page, const Options& options, const Result& result) {
    const Totals& totals = result.totals;
    page += R"(<div class="tiles">)";
    add_tile(page, "truth lines", totals.truth_lines, "",
             options.from_first || options.to_last ? grouped(totals.left_out) + " left out" : "");
    add_tile(page, "output lines", totals.output_lines, "");
    add_tile(page, "matched", totals.matched, "");
    add_tile(page, "mismatched", totals.mismatched, "mismatched");
    add_tile(page, "missing", totals.missing, "missing",
             totals.longest_missing == 0
                 ? ""
                 : fmt::format("longest gap {}: {} to {}", grouped(totals.longest_missing),
                               totals.longest_missing_first, totals.longest_missing_last));
    add_tile(page, "unexpected", totals.unexpected, "unexpected",
             totals.repeated == 0 ? "" : grouped(totals.repeated) + " repeated");
    page += "</div>\n";
}

void add_legend(std::string& page, const Totals& totals) {
    page += R"(<div class="legend">)";
    const auto add_key = [&](std::string_view name, std::uint64_t lines) {
        if (lines != 0) {
            page += fmt::format(R"(<i class="key {0}"></i><span>{0} ({1})</span>)", name, grouped(lines));
        }
    };
    add_key("missing", totals.missing);
    add_key("mismatched", totals.mismatched);
    add_key("unexpected", totals.unexpected);
    page += "</div>";
}

void add_charts(std::string& page, const Result& result) {
    page += "<section><h2>Over the run</h2>";
    add_legend(page, result.totals);
    std::size_t uncharted = 0;
    for (const RunResult& run : result.runs) {
        if (run.buckets.empty()) {
            ++uncharted;
            continue;
        }
        if (result.runs.size() > 1) {
            page += fmt::format("<h3>Run {}</h3>", run.truth_run);
        }
        page += run_chart(run);
    }
    if (uncharted != 0) {
        page += fmt::format("<p>{} more, without a chart.</p>", uncharted);
    }
    page += "</section>\n";
}

void add_latencies(std::string& page, const Result& result) {
    if (result.latencies.empty()) {
        return;
    }
    page +=
        R"(<section><h2>Latency</h2><p class="where">From the SIP time of a message to the time in the )"
        R"(handler's line. Included: what waits in the feed's packet, the network, the handler. Messages )"
        R"(that were recovered are apart.</p>)" +
        latency_chart(result.latencies) +
        R"(<table><tr><th>member</th><th class="number">messages</th><th class="number">p50</th>)"
        R"(<th class="number">p90</th><th class="number">p99</th><th class="number">p99.9</th>)"
        R"(<th class="number">max</th></tr>)";
    const auto add = [&](const std::string& name, const LatencyHistogram& histogram) {
        page += fmt::format(R"(<tr><td><code>{}</code></td><td class="number">{}</td>)", escaped_markup(name),
                            grouped(histogram.total));
        for (const double percent : {50.0, 90.0, 99.0, 99.9, 100.0}) {
            page += fmt::format(R"(<td class="number">{}</td>)",
                                readable_time(latency_percentile(histogram, percent)));
        }
        page += "</tr>";
    };
    for (const LatencyResult& latency : result.latencies) {
        add(latency.name, latency.direct);
        if (latency.recovered.total != 0) {
            add(latency.name + " recovered", latency.recovered);
        }
    }
    page += "</table></section>\n";
}

void add_runs(std::string& page, const Options& options, const Result& result) {
    if (result.truth_runs < 2 && result.runs.size() < 2) {
        return;
    }
    page += fmt::format(
        "<section><h2>Runs</h2><p>The truth log holds {}, the output {}.</p><p>{}.</p>"
        R"(<table><tr><th>run</th><th class="number">first sequence</th><th class="number">last</th>)"
        R"(<th class="number">truth lines</th><th class="number">mismatched</th>)"
        R"(<th class="number">missing</th><th class="number">unexpected</th></tr>)",
        result.truth_runs, result.output_runs, escaped_markup(runs_note(options, result)));
    for (const RunResult& run : result.runs) {
        page += fmt::format(R"(<tr><td>{}</td>)",
                            run.truth_run == 0 ? "not in the truth log" : grouped(run.truth_run));
        for (const std::uint64_t number :
             {run.truth.lowest, run.truth.highest, run.totals.truth_lines, run.totals.mismatched,
              run.totals.missing, run.totals.unexpected}) {
            page += fmt::format(R"(<td class="number">{}</td>)", grouped(number));
        }
        page += "</tr>";
    }
    page += "</table></section>\n";
}

void add_members(std::string& page, const Result& result) {
    page += R"(<section><h2>Members</h2><table class="narrow"><tr><th>member</th>)"
            R"(<th class="number">compared</th><th class="number">mismatched</th></tr>)";
    for (std::size_t member = 0; member != member_count; ++member) {
        const MemberCount& count = result.members[member];
        if (count.compared != 0) {
            page += fmt::format(
                R"(<tr><td><code>{}</code></td><td class="number">{}</td><td class="number">{}</td></tr>)",
                member_names[member], grouped(count.compared), grouped(count.mismatched));
        }
    }
    page += "</table>";
    page += "</section>\n";
}

// What a reader must not miss: members that were not compared, lines that were left out.
void add_notes(std::string& page, const Result& result) {
    if (result.unknown_members.empty() && result.torn_lines.empty()) {
        return;
    }
    page += R"(<section class="notes"><h2>Not compared</h2>)";
    for (const std::string& name : result.unknown_members) {
        page += fmt::format("<p>Member <code>{}</code>, {}</p>", escaped_markup(name),
                            escaped_markup(unknown_member_note(name)));
    }
    if (result.more_unknown_members) {
        page += "<p>Further members that no truth line has.</p>";
    }
    for (const TornLineAt& torn : result.torn_lines) {
        page += fmt::format("<p>{}.</p>", escaped_markup(torn_line_note(torn)));
    }
    page += "</section>\n";
}

std::string what(const Difference& difference) {
    switch (difference.kind) {
        case DifferenceKind::missing:
            return difference.lines == 1 ? "missing"
                                         : fmt::format("missing, {} lines", grouped(difference.lines));
        case DifferenceKind::unexpected: return escaped_markup("unexpected: " + difference.reason);
        case DifferenceKind::mismatched: break;
    }
    return "mismatched in " + member_list(difference.members) +
           (difference.in_gap ? ", inside an open gap" : "");
}

void add_values(std::string& page, const Difference& difference) {
    page += R"(<table class="values">)";
    for (std::size_t member = 0; member != member_count; ++member) {
        if ((difference.members >> member & 1U) != 0) {
            const std::string expected = shown_value(difference.truth_text, member);
            page += fmt::format(
                "<tr><td><code>{}</code></td><td>truth <code>{}</code></td>"
                "<td>output <code>{}</code></td></tr>",
                member_names[member], escaped_markup(expected.empty() ? "has none" : expected),
                escaped_markup(shown_value(difference.output_text, member)));
        }
    }
    page += "</table>";
}

void add_line(std::string& page, std::string_view name, std::uint64_t line, const std::string& text) {
    if (line != 0) {
        page += fmt::format(R"(<pre><span class="where">{} line {}</span> {}</pre>)", name, line,
                            escaped_markup(text));
    }
}

void add_differences(std::string& page, const Result& result) {
    if (result.differences_found == 0) {
        return;
    }
    page += fmt::format(
        R"(<section><h2>Differences</h2><p class="where">The first {} of {}; )"
        "missing lines in a row are one, mismatches are shown by one example a member and symbol.</p>"
        R"(<table><tr><th>run</th><th>sequence</th><th>what</th></tr>)",
        result.differences.size(), grouped(result.differences_found));
    for (const Difference& difference : result.differences) {
        page += fmt::format(
            "<tr><td>{}</td><td>{}{}</td><td>{}", difference.run, difference.seq,
            difference.seq_last == difference.seq ? "" : fmt::format(" to {}", difference.seq_last),
            what(difference));
        if (difference.members != 0) {
            add_values(page, difference);
        }
        page += "<details><summary>the lines</summary>";
        add_line(page, "truth", difference.truth_line, difference.truth_text);
        add_line(page, "output", difference.output_line, difference.output_text);
        page += "</details></td></tr>\n";
    }
    page += "</table></section>\n";
}

std::string_view title_of(Verdict decided) {
    switch (decided) {
        case Verdict::agrees: return "Agrees";
        case Verdict::differs: return "Differs";
        case Verdict::nothing_compared: break;
    }
    return "Nothing compared";
}

}  // namespace

std::string html_report(const Options& options, const Result& result) {
    const Verdict decided = verdict(result);
    const std::string_view word = title_of(decided);
    const std::string_view look = decided == Verdict::agrees    ? "agrees"
                                  : decided == Verdict::differs ? "differs"
                                                                : "nothing";
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">";
    page += fmt::format("<title>{}: {}</title><style>{}</style></head>\n<body><main>\n", word,
                        escaped_markup(options.output_path), style);
    for (const std::string& about : options.about) {
        page += fmt::format("<p class=\"about\">{}</p>\n", escaped_markup(about));
    }
    page += fmt::format("<div class=\"verdict {}\"><h1>{}</h1><p>{}</p></div>\n", look, word,
                        escaped_markup(verdict_sentence(result)));
    add_notes(page, result);
    add_tiles(page, options, result);
    add_charts(page, result);
    add_latencies(page, result);
    add_runs(page, options, result);
    add_members(page, result);
    add_differences(page, result);
    page +=
        fmt::format("<footer>truth <code>{}</code>, output <code>{}</code></footer>\n</main></body></html>\n",
                    escaped_markup(options.truth_path), escaped_markup(options.output_path));
    return page;
}

}  // namespace tessel::judge
