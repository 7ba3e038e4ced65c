#include "certify/campaign.h"
#include "certify/certificate.h"

#include <nlohmann/json.hpp>

#include <array>
#include <limits>

namespace tessel::certify {

namespace {

using Json = nlohmann::ordered_json;

// A file of this form has some hundred bytes a case, and examples of those that fail.
constexpr std::size_t cases_read_max = 10'000'000;

constexpr std::array<std::string_view, 4> verdict_words = {"pass", "fail", "error", "skipped"};

Json finding_json(const Finding& finding) {
    Json facts = Json::array();
    for (const auto& [name, value] : finding.facts) {
        facts.push_back({name, value});
    }
    return {{"kind", finding.kind},       {"member", finding.member}, {"symbol", finding.symbol},
            {"message", finding.message}, {"facts", facts},           {"lines", finding.lines}};
}

Json difference_json(const ShownDifference& shown) {
    return {{"seq", shown.seq},
            {"kind", shown.kind},
            {"symbol", shown.symbol},
            {"members", shown.members},
            {"truth", shown.truth},
            {"output", shown.output},
            {"message_hex", shown.message_hex},
            {"message_decoded", shown.message_decoded},
            {"in_gap", shown.in_gap}};
}

Json case_json(const CaseResult& result) {
    Json json = {{"handler", result.handler},
                 {"name", result.name},
                 {"group", result.group},
                 {"title", result.title},
                 {"verdict", verdict_word(result.verdict)},
                 {"reason", result.reason},
                 {"seconds", result.seconds},
                 {"seed", result.seed},
                 {"command", result.command},
                 {"folder", result.folder},
                 {"truth_lines", result.truth_lines},
                 {"matched", result.matched},
                 {"mismatched", result.mismatched},
                 {"missing", result.missing},
                 {"unexpected", result.unexpected}};
    json["findings"] = Json::array();
    for (const Finding& finding : result.findings) {
        json["findings"].push_back(finding_json(finding));
    }
    json["examples"] = Json::array();
    for (const ShownDifference& shown : result.examples) {
        json["examples"].push_back(difference_json(shown));
    }
    json["log_tail"] = result.log_tail;
    if (!result.curve.empty()) {
        json["curve"] = Json::array();
        for (const LoadPoint& point : result.curve) {
            json["curve"].push_back({point.rate, point.missing});
        }
        json["highest_rate"] = result.highest_rate;
        json["note"] = result.note;
    }
    return json;
}

// Reads the members of an object; the first that is missing or of another kind becomes the reason.
struct ObjectReader {
    const Json& json;
    std::string where;
    std::string& error;
};

const Json* member(ObjectReader& reader, const char* name) {
    const auto found = reader.json.is_object() ? reader.json.find(name) : reader.json.end();
    if (!reader.json.is_object() || found == reader.json.end()) {
        if (reader.error.empty()) {
            reader.error = reader.where + " has no member '" + name + "'";
        }
        return nullptr;
    }
    return &*found;
}

void wrong_kind(ObjectReader& reader, const char* name, const char* kind) {
    if (reader.error.empty()) {
        reader.error = reader.where + ": '" + name + "' is no " + kind;
    }
}

void take(ObjectReader& reader, const char* name, std::string& text) {
    if (const Json* found = member(reader, name)) {
        if (found->is_string()) {
            text = found->get<std::string>();
        } else {
            wrong_kind(reader, name, "text");
        }
    }
}

void take(ObjectReader& reader, const char* name, std::uint64_t& number) {
    if (const Json* found = member(reader, name)) {
        if (found->is_number_unsigned()) {
            number = found->get<std::uint64_t>();
        } else {
            wrong_kind(reader, name, "whole number");
        }
    }
}

void take(ObjectReader& reader, const char* name, double& number) {
    if (const Json* found = member(reader, name)) {
        if (found->is_number()) {
            number = found->get<double>();
        } else {
            wrong_kind(reader, name, "number");
        }
    }
}

void take(ObjectReader& reader, const char* name, bool& flag) {
    if (const Json* found = member(reader, name)) {
        if (found->is_boolean()) {
            flag = found->get<bool>();
        } else {
            wrong_kind(reader, name, "flag");
        }
    }
}

// The member of that name when it is an array; an empty one otherwise.
const Json& array_of(ObjectReader& reader, const char* name) {
    static const Json none = Json::array();
    const Json* found = member(reader, name);
    if (found != nullptr && !found->is_array()) {
        wrong_kind(reader, name, "array");
    }
    return found != nullptr && found->is_array() ? *found : none;
}

void read_texts(ObjectReader& reader, const char* name, std::vector<std::string>& texts) {
    for (const Json& item : array_of(reader, name)) {
        if (!item.is_string()) {
            wrong_kind(reader, name, "array of texts");
            return;
        }
        texts.push_back(item.get<std::string>());
    }
}

Finding read_finding(const Json& json, const std::string& where, std::string& error) {
    Finding finding;
    ObjectReader reader{json, where + ".findings", error};
    take(reader, "kind", finding.kind);
    take(reader, "member", finding.member);
    take(reader, "symbol", finding.symbol);
    take(reader, "message", finding.message);
    take(reader, "lines", finding.lines);
    for (const Json& fact : array_of(reader, "facts")) {
        if (!fact.is_array() || fact.size() != 2 || !fact[0].is_string() || !fact[1].is_string()) {
            wrong_kind(reader, "facts", "array of pairs of texts");
            return finding;
        }
        finding.facts.emplace_back(fact[0].get<std::string>(), fact[1].get<std::string>());
    }
    return finding;
}

ShownDifference read_difference(const Json& json, const std::string& where, std::string& error) {
    ShownDifference shown;
    ObjectReader reader{json, where + ".examples", error};
    take(reader, "seq", shown.seq);
    take(reader, "kind", shown.kind);
    take(reader, "symbol", shown.symbol);
    take(reader, "members", shown.members);
    take(reader, "truth", shown.truth);
    take(reader, "output", shown.output);
    take(reader, "message_hex", shown.message_hex);
    take(reader, "message_decoded", shown.message_decoded);
    take(reader, "in_gap", shown.in_gap);
    return shown;
}

void read_verdict(ObjectReader& reader, Verdict& verdict) {
    std::string word;
    take(reader, "verdict", word);
    for (std::size_t at = 0; at != verdict_words.size(); ++at) {
        if (word == verdict_words[at]) {
            verdict = static_cast<Verdict>(at);
            return;
        }
    }
    wrong_kind(reader, "verdict", "verdict: it is pass, fail, error or skipped");
}

void read_curve(ObjectReader& reader, CaseResult& result) {
    if (!reader.json.is_object() || !reader.json.contains("curve")) {
        return;
    }
    for (const Json& point : array_of(reader, "curve")) {
        if (!point.is_array() || point.size() != 2 || !point[0].is_number_unsigned() ||
            !point[1].is_number_unsigned()) {
            wrong_kind(reader, "curve", "array of pairs of whole numbers");
            return;
        }
        result.curve.push_back({point[0].get<std::uint64_t>(), point[1].get<std::uint64_t>()});
    }
    take(reader, "highest_rate", result.highest_rate);
    take(reader, "note", result.note);
}

CaseResult read_case_result(const Json& json, const std::string& where, std::string& error) {
    CaseResult result;
    ObjectReader reader{json, where, error};
    take(reader, "handler", result.handler);
    take(reader, "name", result.name);
    take(reader, "group", result.group);
    take(reader, "title", result.title);
    read_verdict(reader, result.verdict);
    take(reader, "reason", result.reason);
    take(reader, "seconds", result.seconds);
    take(reader, "seed", result.seed);
    take(reader, "command", result.command);
    take(reader, "folder", result.folder);
    take(reader, "truth_lines", result.truth_lines);
    take(reader, "matched", result.matched);
    take(reader, "mismatched", result.mismatched);
    take(reader, "missing", result.missing);
    take(reader, "unexpected", result.unexpected);
    take(reader, "log_tail", result.log_tail);
    read_curve(reader, result);
    for (const Json& item : array_of(reader, "findings")) {
        result.findings.push_back(read_finding(item, where, error));
    }
    for (const Json& item : array_of(reader, "examples")) {
        result.examples.push_back(read_difference(item, where, error));
    }
    return result;
}

void read_campaign(ObjectReader& reader, Campaign& campaign) {
    if (!reader.json.is_object() || !reader.json.contains("campaign")) {
        return;
    }
    ObjectReader inner{reader.json["campaign"], "campaign", reader.error};
    take(inner, "first", campaign.first);
    take(inner, "last", campaign.last);
    take(inner, "jobs", campaign.jobs);
    for (const Json& job : array_of(inner, "done")) {
        campaign.done.push_back(job.is_number_unsigned() ? job.get<std::uint64_t>() : 0);
    }
    if (reader.error.empty() && !is_valid(campaign)) {
        reader.error = "campaign: seeds, jobs and the jobs that are done do not fit together";
    }
}

Json totals_json(const Certificate& certificate) {
    std::array<std::uint64_t, verdict_words.size()> counts{};
    for (const CaseResult& result : certificate.cases) {
        ++counts[static_cast<std::size_t>(result.verdict)];
    }
    Json totals = Json::object();
    for (std::size_t at = 0; at != counts.size(); ++at) {
        totals[std::string(verdict_words[at])] = counts[at];
    }
    return totals;
}

}  // namespace

std::string_view verdict_word(Verdict verdict) {
    return verdict_words[static_cast<std::size_t>(verdict)];
}

std::string certificate_json(const Certificate& certificate) {
    Json json;
    json["tool"] = certificate.tool;
    json["handler"] = certificate.handlers.empty() ? "" : certificate.handlers.front().command;
    json["handlers"] = Json::array();
    for (const Handler& handler : certificate.handlers) {
        json["handlers"].push_back({{"name", handler.name}, {"command", handler.command}});
    }
    json["seed"] = certificate.seed;
    if (is_campaign(certificate.campaign)) {
        const Campaign& campaign = certificate.campaign;
        json["campaign"] = {{"first", campaign.first},
                            {"last", campaign.last},
                            {"jobs", campaign.jobs},
                            {"done", campaign.done}};
    }
    json["about"] = certificate.about;
    json["cases"] = Json::array();
    for (const CaseResult& result : certificate.cases) {
        json["cases"].push_back(case_json(result));
    }
    json["causes"] = Json::array();
    for (const Cause& cause : certificate.causes) {
        json["causes"].push_back({{"text", cause.text}, {"cases", cause.cases}});
    }
    json["totals"] = totals_json(certificate);
    // What a handler wrote may be no UTF-8.
    return json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

bool parse_certificate(std::string_view text, Certificate& certificate, std::string& error) {
    certificate = {};
    error.clear();
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        error = "no JSON";
        return false;
    }
    ObjectReader reader{json, "the file", error};
    take(reader, "tool", certificate.tool);
    take(reader, "seed", certificate.seed);
    read_campaign(reader, certificate.campaign);
    read_texts(reader, "about", certificate.about);
    for (const Json& item : array_of(reader, "handlers")) {
        Handler handler;
        ObjectReader handler_reader{item, "handlers", error};
        take(handler_reader, "name", handler.name);
        take(handler_reader, "command", handler.command);
        certificate.handlers.push_back(std::move(handler));
    }
    for (const Json& item : array_of(reader, "cases")) {
        if (certificate.cases.size() == cases_read_max) {
            error = "too many cases";
        }
        const std::string where = "case " + std::to_string(certificate.cases.size() + 1);
        certificate.cases.push_back(read_case_result(item, where, error));
        if (!error.empty()) {
            break;
        }
    }
    for (const Json& item : array_of(reader, "causes")) {
        Cause cause;
        ObjectReader cause_reader{item, "causes", error};
        take(cause_reader, "text", cause.text);
        read_texts(cause_reader, "cases", cause.cases);
        certificate.causes.push_back(std::move(cause));
    }
    return error.empty();
}

}  // namespace tessel::certify
