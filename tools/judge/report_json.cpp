#include "judge/report.h"

#include <nlohmann/json.hpp>

namespace tessel::judge {

namespace {

using Json = nlohmann::ordered_json;

// A value of a line as it is there; as text when it was cut or is a number beyond a double.
Json value_of(const std::string& text) {
    if (text.empty()) {
        return nullptr;
    }
    Json value = Json::parse(text, nullptr, false);
    return value.is_discarded() ? Json(text) : value;
}

Json totals_of(const Totals& totals) {
    return {{"truth_lines", totals.truth_lines},
            {"output_lines", totals.output_lines},
            {"matched", totals.matched},
            {"mismatched", totals.mismatched},
            {"missing", totals.missing},
            {"unexpected", totals.unexpected},
            {"repeated", totals.repeated},
            {"unknown", totals.unknown},
            {"too_late", totals.too_late},
            {"left_out", totals.left_out},
            {"longest_gap", totals.longest_missing}};
}

Json members_of(const Result& result) {
    Json members = Json::object();
    for (std::size_t member = 0; member != member_count; ++member) {
        const MemberCount& count = result.members[member];
        if (count.compared != 0) {
            members[std::string(member_names[member])] = {{"compared", count.compared},
                                                          {"mismatched", count.mismatched}};
        }
    }
    return members;
}

Json differences_of(const Result& result) {
    Json differences = Json::array();
    for (const MemberDifference& example : result.examples) {
        differences.push_back({{"run", example.run},
                               {"seq", example.seq},
                               {"symbol", value_of(example.symbol)},
                               {"member", member_names[example.member]},
                               {"truth", value_of(example.truth)},
                               {"output", value_of(example.output)},
                               {"in_gap", example.in_gap},
                               {"lines", example.lines}});
    }
    return differences;
}

// Stretches of missing lines and single unexpected ones, the first of them.
void add_line_differences(Json& report, const Result& result) {
    report["gaps"] = Json::array();
    report["unexpected_lines"] = Json::array();
    for (const Difference& difference : result.differences) {
        if (difference.kind == DifferenceKind::missing) {
            report["gaps"].push_back({{"run", difference.run},
                                      {"first", difference.seq},
                                      {"last", difference.seq_last},
                                      {"lines", difference.lines}});
        } else if (difference.kind == DifferenceKind::unexpected) {
            report["unexpected_lines"].push_back({{"run", difference.run},
                                                  {"seq", difference.seq},
                                                  {"line", difference.output_line},
                                                  {"reason", difference.reason}});
        }
    }
}

Json runs_of(const Result& result) {
    Json runs = Json::array();
    for (const RunResult& run : result.runs) {
        Json entry = {{"run", run.truth_run}, {"first", run.truth.lowest}, {"last", run.truth.highest}};
        entry.update(totals_of(run.totals));
        runs.push_back(std::move(entry));
    }
    return runs;
}

Json torn_lines_of(const Result& result) {
    Json lines = Json::array();
    for (const TornLineAt& torn : result.torn_lines) {
        lines.push_back({{"file", torn.file},
                         {"line", torn.line.line_number},
                         {"bytes", torn.line.bytes},
                         {"seq", torn.line.seq}});
    }
    return lines;
}

// What a single judgment and the sum of several have: the counts, after the verdict.
Json counts_of(Verdict decided, const Result& result) {
    std::uint64_t compared = 0;
    for (const MemberCount& count : result.members) {
        compared += count.compared;
    }
    Json report = {{"verdict", verdict_word(decided)}};
    report.update(totals_of(result.totals));
    report["compared_members"] = compared;
    report["members"] = members_of(result);
    return report;
}

Json latency_of(const LatencyHistogram& histogram) {
    return {{"count", histogram.total},
            {"p50", latency_percentile(histogram, 50)},
            {"p90", latency_percentile(histogram, 90)},
            {"p99", latency_percentile(histogram, 99)},
            {"p99_9", latency_percentile(histogram, 99.9)},
            {"max", histogram.max}};
}

Json latencies_of(const Result& result) {
    Json latencies = Json::object();
    for (const LatencyResult& latency : result.latencies) {
        latencies[latency.name] = latency_of(latency.direct);
        latencies[latency.name]["before_sip"] = latency.before_sip;
        latencies[latency.name + "_recovered"] = latency_of(latency.recovered);
    }
    return latencies;
}

Json judgment_of(const Result& result) {
    Json report = counts_of(verdict(result), result);
    report["unknown_members"] = result.unknown_members;
    report["differences"] = differences_of(result);
    report["more_differences"] = result.more_examples;
    add_line_differences(report, result);
    report["runs"] = runs_of(result);
    report["truth_runs"] = result.truth_runs;
    report["output_runs"] = result.output_runs;
    report["output_runs_not_judged"] = result.output_runs_not_judged;
    report["torn_lines"] = torn_lines_of(result);
    return report;
}

std::string text_of(const Json& report) {
    return report.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string json_report(const Options& options, const Result& result) {
    Json report = judgment_of(result);
    if (!result.latencies.empty()) {
        report["latency"] = latencies_of(result);
    }
    report["about"] = options.about;
    return text_of(report);
}

std::string json_report(const Options& options, const std::vector<Channel>& channels) {
    Json report = counts_of(verdict(channels), add_up(channels));
    report["channels"] = Json::array();
    for (const Channel& channel : channels) {
        Json entry = {{"name", channel.name}};
        entry.update(judgment_of(channel.result));
        report["channels"].push_back(std::move(entry));
    }
    report["about"] = options.about;
    return text_of(report);
}

}  // namespace tessel::judge
