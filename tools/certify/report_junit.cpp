#include "certify/report_summary.h"
#include "certify/reports.h"
#include "judge/markup.h"

#include <fmt/format.h>

#include <set>

namespace tessel::certify {

namespace {

using judge::escaped_markup;

// What a reader of a CI page needs to go on: how to run the case alone, where its files are, the first
// difference.
std::string details_of(const CaseResult& result) {
    std::string text;
    if (!result.command.empty()) {
        text += "run alone: " + result.command + "\n";
    }
    if (!result.folder.empty()) {
        text += "files: " + result.folder + "\n";
    }
    text +=
        fmt::format("truth lines {}, matched {}, mismatched {}, missing {}, unexpected {}\n",
                    result.truth_lines, result.matched, result.mismatched, result.missing, result.unexpected);
    for (const ShownDifference& difference : result.examples) {
        text += fmt::format("\nseq {}: {}{}{}\n  truth  {}\n  output {}\n", difference.seq, difference.kind,
                            difference.members.empty() ? "" : " in " + difference.members,
                            difference.in_gap ? ", inside an open gap" : "",
                            difference.truth.empty() ? "has no line" : difference.truth,
                            difference.output.empty() ? "has no line" : difference.output);
        if (!difference.message_decoded.empty()) {
            text += "  message " + difference.message_decoded + "\n";
        }
    }
    return text;
}

// `seed_in_name`: the case occurs more than once, and its results must be told apart.
void add_case(std::string& xml, const CaseResult& result, bool seed_in_name) {
    const std::string name = seed_in_name ? fmt::format("{} seed {}", result.name, result.seed) : result.name;
    xml +=
        fmt::format(R"(  <testcase classname="{}" name="{}" time="{:.3f}")",
                    escaped_markup("tessel-certify." + result.group), escaped_markup(name), result.seconds);
    const std::string reason = escaped_markup(result.reason);
    switch (result.verdict) {
        case Verdict::pass: xml += "/>\n"; return;
        case Verdict::skipped: xml += fmt::format("><skipped message=\"{}\"/>", reason); break;
        case Verdict::fail:
            xml += fmt::format("><failure message=\"{}\">{}</failure>", reason,
                               escaped_markup(details_of(result)));
            break;
        case Verdict::error:
            xml +=
                fmt::format("><error message=\"{}\">{}</error>", reason, escaped_markup(details_of(result)));
            break;
    }
    if (!result.log_tail.empty()) {
        xml += fmt::format("<system-out>{}</system-out>", escaped_markup(result.log_tail));
    }
    xml += "</testcase>\n";
}

void add_property(std::string& xml, std::string_view name, std::string_view value) {
    xml += fmt::format("   <property name=\"{}\" value=\"{}\"/>\n", name, escaped_markup(value));
}

std::string properties_of(const Certificate& certificate, const std::string& handler) {
    std::string xml = "  <properties>\n";
    for (const Handler& each : certificate.handlers) {
        if (each.name == handler) {
            add_property(xml, "handler", each.command);
        }
    }
    add_property(xml, "seed", fmt::format("{}", certificate.seed));
    for (const std::string& about : certificate.about) {
        add_property(xml, "about", about);
    }
    for (const Cause& cause : certificate.causes) {
        add_property(xml, "likely cause", cause.text);
    }
    return xml + "  </properties>\n";
}

}  // namespace

std::string junit_report(const Certificate& certificate) {
    const std::vector<CaseSummary> cases = summaries(certificate);
    std::set<const CaseResult*> repeated;
    for (const CaseSummary& summary : cases) {
        if (summary.results.size() > 1) {
            repeated.insert(summary.results.begin(), summary.results.end());
        }
    }
    const Counts all = counts_of(certificate);
    std::string xml = fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<testsuites name=\"{}\" tests=\"{}\" failures=\"{}\" errors=\"{}\" skipped=\"{}\">\n",
        escaped_markup(certificate.tool), all.all(), all.of(Verdict::fail), all.of(Verdict::error),
        all.of(Verdict::skipped));
    const bool matrix = handler_names(certificate).size() > 1;
    for (const std::string& handler : handler_names(certificate)) {
        for (const std::string& group : group_names(certificate)) {
            const Counts counts = counts_of(certificate, handler, group);
            if (counts.all() == 0) {
                continue;
            }
            double seconds = 0;
            std::string inner;
            for (const CaseResult& result : certificate.cases) {
                if (result.handler == handler && result.group == group) {
                    add_case(inner, result, repeated.contains(&result));
                    seconds += result.seconds;
                }
            }
            xml += fmt::format(
                " <testsuite name=\"{}\" tests=\"{}\" failures=\"{}\" errors=\"{}\" skipped=\"{}\" "
                "time=\"{:.3f}\">\n{}{} </testsuite>\n",
                escaped_markup(matrix ? handler + ": " + group : group), counts.all(),
                counts.of(Verdict::fail), counts.of(Verdict::error), counts.of(Verdict::skipped), seconds,
                properties_of(certificate, handler), inner);
        }
    }
    return xml + "</testsuites>\n";
}

}  // namespace tessel::certify
