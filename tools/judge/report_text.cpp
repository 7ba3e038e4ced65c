#include "common/nearest_word.h"
#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::judge {

namespace {

void add_row(std::string& text, std::string_view name, const std::string& value) {
    text += fmt::format("{:<12} {}\n", name, value);
}

// What is said of OUTPUT's runs when it has more than the truth.
std::string output_runs_note(const Result& result) {
    if (result.output_run == 0) {
        const auto without = std::count_if(result.runs.begin(), result.runs.end(),
                                           [](const RunResult& run) { return run.truth_run == 0; });
        return without == 0 ? "" : fmt::format(", {} of OUTPUT without a run in TRUTH", without);
    }
    std::string note = fmt::format(", which is run {} of OUTPUT", result.output_run);
    const std::size_t repeats = result.runs.size() - 1;
    if (repeats != 0) {
        note += fmt::format(", {} of OUTPUT the same again", repeats);
    }
    if (result.output_runs_not_judged != 0) {
        note += fmt::format(", {} of OUTPUT not judged", result.output_runs_not_judged);
    }
    return note;
}

std::string unexpected_row(const Totals& totals) {
    std::string row = grouped(totals.unexpected);
    if (totals.unexpected != 0) {
        row += fmt::format(" ({} repeated, {} with a sequence number that no truth line has, {} too late)",
                           grouped(totals.repeated), grouped(totals.unknown), grouped(totals.too_late));
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
    const std::string_view gap = difference.in_gap ? " (inside an open gap)" : "";
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
            text += fmt::format("{}: mismatched in {}{}\n", place, member_list(difference.members), gap);
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

std::string runs_note(const Options& options, const Result& result) {
    if (result.truth_runs < 2 && result.output_runs < 2) {
        return "";
    }
    std::string note = fmt::format("TRUTH holds {} run{}, OUTPUT {}; ", result.truth_runs,
                                   result.truth_runs == 1 ? "" : "s", result.output_runs);
    std::size_t first = 0;
    std::size_t last = 0;
    for (const RunResult& run : result.runs) {
        first = first == 0 ? run.truth_run : first;
        last = std::max(last, run.truth_run);
    }
    if (options.run != 0) {
        note += fmt::format("judged run {} as asked", options.run);
    } else {
        note += first == last ? fmt::format("judged run {}", first)
                              : fmt::format("judged runs {} to {}", first, last);
    }
    return note + output_runs_note(result);
}

std::string_view verdict_word(Verdict verdict) {
    switch (verdict) {
        case Verdict::agrees: return "AGREES";
        case Verdict::differs: return "DIFFERS";
        case Verdict::nothing_compared: break;
    }
    return "NOTHING COMPARED";
}

std::string unknown_member_note(const std::string& name) {
    return "which no truth line has" + common::did_you_mean(name, member_names);
}

std::string torn_line_note(const TornLineAt& torn) {
    std::string note = fmt::format("torn: {}:{}: {} bytes of a line that was never finished are left out",
                                   torn.file, torn.line.line_number, torn.line.bytes);
    return torn.line.seq == 0 ? note : note + fmt::format(" (seq {})", torn.line.seq);
}

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
    std::string reason;
    if (!read_line(text, line, reason)) {
        return "(line cut)";
    }
    return std::string(member_text(line, text, member));
}

std::string verdict_sentence(const Result& result) {
    const Totals& totals = result.totals;
    if (verdict(result) == Verdict::nothing_compared) {
        return fmt::format(
            "OUTPUT gives no member that truth lines have; {} of {} truth lines have a line there.",
            grouped(totals.matched), grouped(totals.truth_lines));
    }
    if (verdict(result) == Verdict::agrees) {
        return fmt::format("All {} truth lines have their line in OUTPUT, and every member given agrees.",
                           grouped(totals.truth_lines));
    }
    return fmt::format(
        "Of {} truth lines {} are matched, {} mismatched and {} missing; unexpected lines in OUTPUT: {}.",
        grouped(totals.truth_lines), grouped(totals.matched), grouped(totals.mismatched),
        grouped(totals.missing), grouped(totals.unexpected));
}

void add_latencies(std::string& text, const Result& result) {
    const auto add = [&](const std::string& name, const LatencyHistogram& histogram) {
        add_row(
            text, "latency",
            fmt::format("{}: {} messages, p50 {}, p90 {}, p99 {}, p99.9 {}, max {}", name,
                        grouped(histogram.total), readable_time(latency_percentile(histogram, 50)),
                        readable_time(latency_percentile(histogram, 90)),
                        readable_time(latency_percentile(histogram, 99)),
                        readable_time(latency_percentile(histogram, 99.9)), readable_time(histogram.max)));
    };
    for (const LatencyResult& latency : result.latencies) {
        add(latency.name, latency.direct);
        if (latency.recovered.total != 0) {
            add(latency.name + " recovered", latency.recovered);
        }
        if (latency.before_sip != 0) {
            add_row(text, "latency",
                    fmt::format("{}: {} times before the SIP time are not counted", latency.name,
                                grouped(latency.before_sip)));
        }
    }
}

std::string text_report(const Options& options, const std::vector<Channel>& channels) {
    const auto agreeing = std::count_if(channels.begin(), channels.end(), [](const Channel& channel) {
        return verdict(channel.result) == Verdict::agrees;
    });
    std::string text;
    for (const std::string& about : options.about) {
        text += fmt::format("about: {}\n", about);
    }
    text += fmt::format("{}: {} of {} channels agree.\n\n", verdict_word(verdict(channels)), agreeing,
                        channels.size());
    const auto add = [&](std::string_view name, std::string_view word, const Totals& totals) {
        text += fmt::format("{:<16} {:<16} {:>13} {:>13} {:>11} {:>11} {:>11}\n", name, word,
                            grouped(totals.truth_lines), grouped(totals.matched), grouped(totals.mismatched),
                            grouped(totals.missing), grouped(totals.unexpected));
    };
    text += fmt::format("{:<16} {:<16} {:>13} {:>13} {:>11} {:>11} {:>11}\n", "channel", "verdict",
                        "truth lines", "matched", "mismatched", "missing", "unexpected");
    for (const Channel& channel : channels) {
        add(channel.name, verdict_word(verdict(channel.result)), channel.result.totals);
    }
    add("all", verdict_word(verdict(channels)), add_up(channels).totals);
    for (const Channel& channel : channels) {
        for (const std::string& name : channel.result.unknown_members) {
            text += fmt::format("not compared: channel {}: member '{}', {}\n", channel.name, name,
                                unknown_member_note(name));
        }
    }
    return text;
}

std::string text_report(const Options& options, const Result& result) {
    const Totals& totals = result.totals;
    std::string text;
    for (const std::string& about : options.about) {
        text += fmt::format("about: {}\n", about);
    }
    text += fmt::format("{}: {}\n", verdict_word(verdict(result)), verdict_sentence(result));
    for (const std::string& name : result.unknown_members) {
        text += fmt::format("not compared: member '{}', {}\n", name, unknown_member_note(name));
    }
    if (result.more_unknown_members) {
        text += "not compared: further members that no truth line has\n";
    }
    for (const TornLineAt& torn : result.torn_lines) {
        text += torn_line_note(torn) + "\n";
    }
    text += "\n";
    add_row(text, "truth lines", grouped(totals.truth_lines));
    add_row(text, "output lines", grouped(totals.output_lines));
    add_row(text, "matched", grouped(totals.matched));
    add_row(text, "mismatched", grouped(totals.mismatched));
    add_members(text, result);
    add_row(text, "missing", grouped(totals.missing));
    if (totals.longest_missing != 0) {
        add_row(text, "longest gap",
                fmt::format("{} truth lines in a row, sequence {} to {}", grouped(totals.longest_missing),
                            totals.longest_missing_first, totals.longest_missing_last));
    }
    add_row(text, "unexpected", unexpected_row(totals));
    if (options.from_first || options.to_last) {
        add_row(text, "left out",
                fmt::format("{} truth lines {}", grouped(totals.left_out),
                            options.from_first && options.to_last ? "before OUTPUT's first or after its last"
                            : options.from_first                  ? "before OUTPUT's first"
                                                                  : "after OUTPUT's last"));
    }
    std::uint64_t compared = 0;
    for (const MemberCount& count : result.members) {
        compared += count.compared;
    }
    add_row(text, "compared", fmt::format("{} members", grouped(compared)));
    if (totals.torn != 0) {
        add_row(text, "torn", fmt::format("{} output lines for torn truth lines", grouped(totals.torn)));
    }
    add_latencies(text, result);
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
