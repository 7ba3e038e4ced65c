#include "judge/markup.h"
#include "judge/report.h"

#include <fmt/format.h>

namespace tessel::judge {

namespace {

struct Cases {
    std::string xml;
    std::size_t tests = 0;
    std::size_t failures = 0;
};

// Adds a test case; it failed when there is a message.
void add_case(Cases& cases, std::string_view name, const std::string& message,
              const std::string& details = "") {
    ++cases.tests;
    cases.xml += fmt::format(R"(  <testcase classname="tessel-judge" name="{}")", escaped_markup(name));
    if (message.empty()) {
        cases.xml += "/>\n";
        return;
    }
    ++cases.failures;
    cases.xml += fmt::format("><failure message=\"{}\">{}</failure></testcase>\n", escaped_markup(message),
                             escaped_markup(details));
}

std::string examples_of(const Result& result, std::size_t member) {
    constexpr std::size_t shown_max = 20;
    std::string text;
    std::size_t shown = 0;
    for (const MemberDifference& example : result.examples) {
        if (example.member == member && shown++ != shown_max) {
            text += fmt::format("run {} seq {} symbol {}: truth {}, output {}{} ({} lines)\n", example.run,
                                example.seq, example.symbol.empty() ? "none" : example.symbol,
                                example.truth.empty() ? "has none" : example.truth, example.output,
                                example.in_gap ? ", inside an open gap" : "", grouped(example.lines));
            if (shown == shown_max) {
                break;
            }
        }
    }
    return text;
}

void add_member_cases(Cases& cases, const Result& result) {
    for (std::size_t member = 0; member != member_count; ++member) {
        const MemberCount& count = result.members[member];
        if (count.compared == 0) {
            continue;
        }
        const std::string message =
            count.mismatched == 0
                ? ""
                : fmt::format("{} of {} values differ", grouped(count.mismatched), grouped(count.compared));
        add_case(cases, fmt::format("member {}", member_names[member]), message, examples_of(result, member));
    }
}

std::string unknown_names(const Result& result) {
    std::string text;
    for (const std::string& name : result.unknown_members) {
        text += fmt::format("member '{}', {}\n", name, unknown_member_note(name));
    }
    return text;
}

}  // namespace

std::string junit_report(const Options& options, const Result& result) {
    const Totals& totals = result.totals;
    Cases cases;
    add_case(cases, "missing lines",
             totals.missing == 0 ? ""
                                 : fmt::format("{} of {} truth lines have no line in OUTPUT",
                                               grouped(totals.missing), grouped(totals.truth_lines)));
    add_case(cases, "unexpected lines",
             totals.unexpected == 0
                 ? ""
                 : fmt::format("{} lines of OUTPUT have no truth line: {} repeated, {} unknown, "
                               "{} too late",
                               grouped(totals.unexpected), grouped(totals.repeated), grouped(totals.unknown),
                               grouped(totals.too_late)));
    add_case(cases, "members compared",
             verdict(result) == Verdict::nothing_compared ? verdict_sentence(result) : "",
             unknown_names(result));
    add_member_cases(cases, result);

    std::string properties;
    for (const std::string& about : options.about) {
        properties += fmt::format("   <property name=\"about\" value=\"{}\"/>\n", escaped_markup(about));
    }
    if (!properties.empty()) {
        properties = "  <properties>\n" + properties + "  </properties>\n";
    }
    return fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<testsuites>\n"
        " <testsuite name=\"tessel-judge\" tests=\"{}\" failures=\"{}\" errors=\"0\" skipped=\"0\">\n"
        "{}{}"
        "  <system-out>{}: {}</system-out>\n"
        " </testsuite>\n"
        "</testsuites>\n",
        cases.tests, cases.failures, properties, cases.xml, verdict_word(verdict(result)),
        escaped_markup(verdict_sentence(result)));
}

}  // namespace tessel::judge
