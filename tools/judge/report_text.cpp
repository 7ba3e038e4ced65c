#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::judge {

namespace {

std::string runs_note(const Options& options, const Result& result) {
    if (result.truth_runs < 2 && result.output_runs < 2) {
        return "";
    }
    std::string note = fmt::format("TRUTH holds {} run{}, OUTPUT {}; ", result.truth_runs,
                                   result.truth_runs == 1 ? "" : "s", result.output_runs);
    if (options.run != 0) {
        return note + fmt::format("judged run {} as asked", options.run);
    }
    std::size_t first = 0;
    std::size_t without = 0;
    for (const RunResult& run : result.runs) {
        without += run.truth_run == 0 ? 1 : 0;
        first = first == 0 ? run.truth_run : first;
    }
    note += first == result.truth_runs ? fmt::format("judged run {}", first)
                                       : fmt::format("judged runs {} to {}", first, result.truth_runs);
    return without == 0 ? note : note + fmt::format(", {} of OUTPUT without a run in TRUTH", without);
}

void add_row(std::string& text, std::string_view name, const std::string& value) {
    text += fmt::format("{:<12} {}\n", name, value);
}

std::string unexpected_row(const Figures& figures) {
    std::string row = grouped(figures.unexpected);
    if (figures.unexpected != 0) {
        row += fmt::format(" ({} repeated, {} with a sequence number that no truth line has, {} too late)",
                           grouped(figures.repeated), grouped(figures.unknown), grouped(figures.too_late));
    }
    return row;
}

void add_members(std::string& text, const Result& result) {
    for (std::size_t member = 0; member != member_count; ++member) {
        const MemberCount& count = result.members[member];
        if (count.mismatched != 0) {
            text += fmt::format("  {:<12} {} of {} compared\n", member_names[member],
                                grouped(count.mismatched), grouped(count.compared));
        }
    }
}

void add_difference(std::string& text, const Options& options, std::size_t number,
                    const Difference& difference) {
    const std::string place = fmt::format("{:>2}. run {} seq {}", number, difference.run, difference.seq);
    switch (difference.kind) {
        case DifferenceKind::missing:
            text += difference.lines == 1 ? fmt::format("{}: missing\n", place)
                                          : fmt::format("{} to {}: missing, {} lines\n", place,
                                                        difference.seq_last, grouped(difference.lines));
            break;
        case DifferenceKind::unexpected:
            text += fmt::format("{}: unexpected ({})\n", place, difference.reason);
            break;
        case DifferenceKind::mismatched:
            text += fmt::format("{}: mismatched in {}\n", place, member_list(difference.members));
            break;
    }
    if (difference.truth_line != 0) {
        text += fmt::format("    truth   {}:{}: {}\n", options.truth_path, difference.truth_line,
                            difference.truth_text);
    }
    if (difference.output_line != 0) {
        text += fmt::format("    output  {}:{}: {}\n", options.output_path, difference.output_line,
                            difference.output_text);
    }
    for (std::size_t member = 0; member != member_count; ++member) {
        if ((difference.members >> member & 1U) != 0) {
            const std::string expected = shown_value(difference.truth_text, member);
            text += fmt::format("    {}: truth {}, output {}\n", member_names[member],
                                expected.empty() ? "has none" : expected,
                                shown_value(difference.output_text, member));
        }
    }
}

}  // namespace

std::string grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t place = digits.size(); place > 3;) {
        place -= 3;
        digits.insert(place, ",");
    }
    return digits;
}

std::string member_list(std::uint32_t members) {
    std::string list;
    for (std::size_t member = 0; member != member_count; ++member) {
        if ((members >> member & 1U) != 0) {
            list += list.empty() ? "" : ", ";
            list += member_names[member];
        }
    }
    return list;
}

std::string shown_value(const std::string& text, std::size_t member) {
    Line line;
    if (!read_line(text, line, nullptr)) {
        return "(line cut)";
    }
    return std::string(member_text(line, text, member));
}

std::string verdict_sentence(const Result& result) {
    const Figures& figures = result.figures;
    if (agrees(result)) {
        return fmt::format("All {} truth lines have their line in OUTPUT, and every member given agrees.",
                           grouped(figures.truth_lines));
    }
    return fmt::format(
        "Of {} truth lines {} are matched, {} mismatched and {} missing; unexpected lines in OUTPUT: {}.",
        grouped(figures.truth_lines), grouped(figures.matched), grouped(figures.mismatched),
        grouped(figures.missing), grouped(figures.unexpected));
}

std::string text_report(const Options& options, const Result& result) {
    const Figures& figures = result.figures;
    std::string text =
        fmt::format("{}: {}\n\n", agrees(result) ? "AGREES" : "DIFFERS", verdict_sentence(result));
    add_row(text, "truth lines", grouped(figures.truth_lines));
    add_row(text, "output lines", grouped(figures.output_lines));
    add_row(text, "matched", grouped(figures.matched));
    add_row(text, "mismatched", grouped(figures.mismatched));
    add_members(text, result);
    add_row(text, "missing", grouped(figures.missing));
    if (figures.longest_missing != 0) {
        add_row(text, "longest gap",
                fmt::format("{} truth lines in a row, sequence {} to {}", grouped(figures.longest_missing),
                            figures.longest_missing_first, figures.longest_missing_last));
    }
    add_row(text, "unexpected", unexpected_row(figures));
    if (options.from_first || options.to_last) {
        add_row(text, "left out",
                fmt::format("{} truth lines {}", grouped(figures.left_out),
                            options.from_first && options.to_last ? "before OUTPUT's first or behind its last"
                            : options.from_first                  ? "before OUTPUT's first"
                                                                  : "behind OUTPUT's last"));
    }
    std::uint64_t compared = 0;
    for (const MemberCount& count : result.members) {
        compared += count.compared;
    }
    add_row(text, "compared", fmt::format("{} members", grouped(compared)));
    for (const std::string& name : result.foreign) {
        add_row(text, "not compared", fmt::format("member '{}': no truth line has one", name));
    }
    if (const std::string note = runs_note(options, result); !note.empty()) {
        add_row(text, "runs", note);
    }
    if (result.differences_found != 0) {
        const std::size_t shown = std::min(result.differences.size(), differences_printed_max);
        text += fmt::format("\n{} of {} difference{}:\n", shown, grouped(result.differences_found),
                            result.differences_found == 1 ? "" : "s");
        for (std::size_t index = 0; index != shown; ++index) {
            add_difference(text, options, index + 1, result.differences[index]);
        }
    }
    return text;
}

}  // namespace tessel::judge
