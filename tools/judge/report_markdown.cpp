#include "judge/markup.h"
#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::judge {

namespace {

constexpr std::size_t shown_differences_max = 10;
constexpr std::size_t shown_value_bytes_max = 120;

// A value inside a table: one line, and nothing in it is markup.
std::string cell(std::string_view text) {
    std::string cut(text.substr(0, shown_value_bytes_max));
    if (cut.size() != text.size()) {
        cut += " ...";
    }
    std::string safe;
    for (const char c : escaped_markup(cut)) {
        constexpr std::string_view special = "\\`*_{}[]()!|~";
        if (special.find(c) != std::string_view::npos) {
            safe += '\\';
        }
        safe += c == '\n' || c == '\t' ? ' ' : c;
    }
    return safe;
}

void add_totals_table(std::string& text, const Totals& totals) {
    text += fmt::format(
        "| truth lines | output lines | matched | mismatched | missing | unexpected |\n"
        "|---:|---:|---:|---:|---:|---:|\n"
        "| {} | {} | {} | {} | {} | {} |\n",
        grouped(totals.truth_lines), grouped(totals.output_lines), grouped(totals.matched),
        grouped(totals.mismatched), grouped(totals.missing), grouped(totals.unexpected));
}

void add_examples(std::string& text, const Result& result) {
    if (result.examples.empty()) {
        return;
    }
    text += "\n| seq | symbol | member | truth | output | lines |\n|---:|---|---|---|---|---:|\n";
    const std::size_t shown = std::min(result.examples.size(), shown_differences_max);
    for (std::size_t index = 0; index != shown; ++index) {
        const MemberDifference& example = result.examples[index];
        text += fmt::format("| {} | {} | {} | {} | {}{} | {} |\n", example.seq, cell(example.symbol),
                            cell(member_names[example.member]),
                            example.truth.empty() ? "has none" : cell(example.truth), cell(example.output),
                            example.in_gap ? " (inside an open gap)" : "", grouped(example.lines));
    }
    if (shown != result.examples.size()) {
        text += fmt::format("\n{} more members and symbols.\n", grouped(result.examples.size() - shown));
    }
}

}  // namespace

std::string markdown_report(const Options& options, const Result& result) {
    std::string text = fmt::format("## tessel-judge: {}\n\n", verdict_word(verdict(result)));
    for (const std::string& about : options.about) {
        text += fmt::format("{}\n\n", cell(about));
    }
    text += fmt::format("{}\n\n", cell(verdict_sentence(result)));
    for (const std::string& name : result.unknown_members) {
        text += fmt::format("- not compared: member {}, {}\n", cell(name), cell(unknown_member_note(name)));
    }
    for (const TornLineAt& torn : result.torn_lines) {
        text += fmt::format("- {}\n", cell(torn_line_note(torn)));
    }
    if (!result.unknown_members.empty() || !result.torn_lines.empty()) {
        text += "\n";
    }
    add_totals_table(text, result.totals);
    add_examples(text, result);
    return text;
}

}  // namespace tessel::judge
