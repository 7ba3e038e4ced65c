#include "certify/causes.h"

#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

namespace tessel::certify {

namespace {

constexpr std::uint64_t cause_lines_min = 3;   // fewer lines always have something in common
constexpr std::size_t cause_cases_min = 3;     // the same for cases without findings
constexpr double most_lines = 0.8;             // "40 of 44 mismatches are ..."
constexpr std::size_t causes_of_kind_max = 3;  // of each handler and kind of finding
constexpr std::size_t causes_max = 20;

// Facts by how much they say when several are shared, most first. Unknown facts are between the two lists.
constexpr std::string_view telling_facts[] = {"last_before_silence", "first_of_run", "retransmitted",
                                              "nbbo_indicator", "in_gap"};
constexpr std::string_view plain_facts[] = {"category", "type", "market_center"};
// Constant, or different in every message.
constexpr std::string_view empty_facts[] = {
    "version", "participant_token", "sip_time", "participant_time", "seq", "length"};

template <std::size_t size>
bool is_one_of(const std::string_view (&names)[size], std::string_view name) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// How many values each fact has in all findings: one whose value never changes explains little.
using Variety = std::map<std::string, std::set<std::string>>;

int rank(const Trait& trait, const Variety& variety) {
    const auto* const known = std::find(std::begin(telling_facts), std::end(telling_facts), trait.name);
    if (known != std::end(telling_facts)) {
        return static_cast<int>(known - std::begin(telling_facts));
    }
    constexpr int after_known = static_cast<int>(std::size(telling_facts));
    if (trait.name == "message") {
        return after_known + 1;
    }
    if (trait.name == "member") {
        return after_known + 2;
    }
    if (trait.name == "symbol") {
        return after_known + 3;
    }
    if (is_one_of(plain_facts, trait.name)) {
        return after_known + 5;
    }
    const auto found = variety.find(trait.name);
    return found != variety.end() && found->second.size() > 1 ? after_known : after_known + 4;
}

// The findings of one kind in one result.
struct Evidence {
    const CaseResult* result = nullptr;
    std::map<Trait, std::uint64_t> lines_with;
    std::uint64_t lines = 0;  // of all findings; a line with two differing members counts twice
};

void add_finding(Evidence& evidence, const Finding& finding) {
    evidence.lines += finding.lines;
    for (const Trait& trait : traits_of(finding)) {
        evidence.lines_with[trait] += finding.lines;
    }
}

bool has_every_line(const Evidence& evidence, const Trait& trait) {
    const auto found = evidence.lines_with.find(trait);
    return found != evidence.lines_with.end() && found->second == evidence.lines;
}

std::uint64_t all_lines(const std::vector<Evidence>& evidence) {
    std::uint64_t lines = 0;
    for (const Evidence& each : evidence) {
        lines += each.lines;
    }
    return lines;
}

// A trait and what it explains.
struct Explanation {
    Trait trait;
    std::uint64_t lines = 0;             // that have the trait
    std::uint64_t whole_lines = 0;       // of the results in which every line has it
    std::vector<const Evidence*> whole;  // these results
};

std::vector<Explanation> explanations_of(const std::vector<Evidence>& evidence) {
    std::map<Trait, Explanation> found;
    for (const Evidence& each : evidence) {
        for (const auto& [trait, lines] : each.lines_with) {
            Explanation& explanation = found[trait];
            explanation.lines += lines;
            if (lines == each.lines) {
                explanation.whole_lines += lines;
                explanation.whole.push_back(&each);
            }
        }
    }
    std::vector<Explanation> explanations;
    for (auto& [trait, explanation] : found) {
        explanation.trait = trait;
        explanations.push_back(std::move(explanation));
    }
    return explanations;
}

// A fact that says much and holds for half of what is left comes before a kind of message or a member that
// holds for more: of two bugs in quotes, each is to be named.
bool says_much(const Explanation& explanation, std::uint64_t left) {
    return is_one_of(telling_facts, explanation.trait.name) && 2 * explanation.whole_lines >= left;
}

bool explains_more(const Explanation& one, const Explanation& two, std::uint64_t left,
                   const Variety& variety) {
    if (says_much(one, left) != says_much(two, left)) {
        return says_much(one, left);
    }
    if (one.whole.size() != two.whole.size()) {
        return one.whole.size() > two.whole.size();
    }
    if (one.whole_lines != two.whole_lines) {
        return one.whole_lines > two.whole_lines;
    }
    if (one.lines != two.lines) {
        return one.lines > two.lines;
    }
    return rank(one.trait, variety) < rank(two.trait, variety);
}

// The lines of that kind that were counted in the results.
std::uint64_t counted_lines(const std::vector<const Evidence*>& evidence, std::string_view kind) {
    std::uint64_t lines = 0;
    for (const Evidence* each : evidence) {
        const CaseResult& result = *each->result;
        const std::uint64_t counted = kind == "mismatched" ? result.mismatched
                                      : kind == "missing"  ? result.missing
                                                           : result.unexpected;
        lines += counted != 0 ? counted : each->lines;
    }
    return lines;
}

std::string lines_word(std::string_view kind) {
    return kind == "mismatched" ? "mismatches" : fmt::format("{} lines", kind);
}

std::string name_in_cause(const Certificate& certificate, const CaseResult& result) {
    return certificate.handlers.size() > 1 ? result.handler + ": " + result.name : result.name;
}

Cause cause_of(const Certificate& certificate, std::string text,
               const std::vector<const CaseResult*>& results) {
    Cause cause{.text = std::move(text), .cases = {}};
    for (const CaseResult* result : results) {
        const std::string name = name_in_cause(certificate, *result);
        if (std::find(cause.cases.begin(), cause.cases.end(), name) == cause.cases.end()) {
            cause.cases.push_back(name);
        }
    }
    return cause;
}

// What else holds for every finding that the best trait explains, of the traits that help to place it.
std::string other_traits(const std::vector<Explanation>& explanations, const Explanation& best,
                         std::string_view kind) {
    std::string text;
    for (const std::string_view name : {"message", "member", "symbol"}) {
        for (const Explanation& other : explanations) {
            const bool covers = other.trait.name == name && other.trait != best.trait &&
                                std::all_of(best.whole.begin(), best.whole.end(), [&](const Evidence* each) {
                                    return has_every_line(*each, other.trait);
                                });
            if (covers) {
                text += ", " + trait_phrase(other.trait, kind);
            }
        }
    }
    return text;
}

std::vector<const CaseResult*> results_of(const std::vector<const Evidence*>& evidence) {
    std::vector<const CaseResult*> results;
    results.reserve(evidence.size());
    for (const Evidence* each : evidence) {
        results.push_back(each->result);
    }
    return results;
}

// A trait of most lines, though of no result's whole findings.
void explain_most(const Certificate& certificate, std::string_view kind,
                  const std::vector<Evidence>& evidence, const std::vector<Explanation>& explanations,
                  const Variety& variety, std::vector<Cause>& causes) {
    const auto most = std::min_element(
        explanations.begin(), explanations.end(), [&](const Explanation& one, const Explanation& two) {
            return one.lines != two.lines ? one.lines > two.lines
                                          : rank(one.trait, variety) < rank(two.trait, variety);
        });
    const std::uint64_t left = all_lines(evidence);
    if (most->lines < cause_lines_min ||
        static_cast<double>(most->lines) < most_lines * static_cast<double>(left)) {
        return;
    }
    std::vector<const CaseResult*> results;
    for (const Evidence& each : evidence) {
        if (each.lines_with.contains(most->trait)) {
            results.push_back(each.result);
        }
    }
    const std::string what = kind == "mismatched" ? "differing values" : lines_word(kind);
    causes.push_back(cause_of(certificate,
                              fmt::format("{} of {} {} are {}", judge::grouped(most->lines),
                                          judge::grouped(left), what, trait_phrase(most->trait, kind)),
                              results));
}

// Adds one cause and takes the results that it explains out of `evidence`; false when nothing explains
// enough.
bool explain_next(const Certificate& certificate, std::string_view kind, const Variety& variety,
                  bool everything, std::vector<Evidence>& evidence, std::vector<Cause>& causes) {
    const std::vector<Explanation> explanations = explanations_of(evidence);
    if (explanations.empty()) {
        return false;
    }
    const std::uint64_t left = all_lines(evidence);
    const Explanation& best = *std::min_element(explanations.begin(), explanations.end(),
                                                [&](const Explanation& one, const Explanation& two) {
                                                    return explains_more(one, two, left, variety);
                                                });
    if (best.whole_lines < cause_lines_min) {
        explain_most(certificate, kind, evidence, explanations, variety, causes);
        return false;
    }
    const bool of_all = everything && best.whole.size() == evidence.size();
    const std::vector<const CaseResult*> results = results_of(best.whole);
    causes.push_back(
        cause_of(certificate,
                 fmt::format("all {} {}{} are {}{}", judge::grouped(counted_lines(best.whole, kind)),
                             lines_word(kind), of_all ? "" : " of these cases",
                             trait_phrase(best.trait, kind), other_traits(explanations, best, kind)),
                 results));
    const std::set<const CaseResult*> explained(results.begin(), results.end());
    std::erase_if(evidence, [&](const Evidence& each) { return explained.contains(each.result); });
    return !evidence.empty();
}

void add_finding_causes(const Certificate& certificate, const std::string& handler, const Variety& variety,
                        std::vector<Cause>& causes) {
    for (const std::string_view kind : {"mismatched", "missing", "unexpected"}) {
        std::vector<Evidence> evidence;
        for (const CaseResult& result : certificate.cases) {
            Evidence each{.result = &result, .lines_with = {}, .lines = 0};
            for (const Finding& finding : result.findings) {
                if (result.handler == handler && result.verdict == Verdict::fail && finding.kind == kind) {
                    add_finding(each, finding);
                }
            }
            if (each.lines != 0) {
                evidence.push_back(std::move(each));
            }
        }
        for (std::size_t found = 0; found != causes_of_kind_max; ++found) {
            if (!explain_next(certificate, kind, variety, found == 0, evidence, causes)) {
                break;
            }
        }
    }
}

// Cases that fail for the same reason, numbers aside, and whose lines do not differ: handlers that die or
// hang.
void add_reason_causes(const Certificate& certificate, const std::string& handler,
                       std::vector<Cause>& causes) {
    std::map<std::string, std::vector<const CaseResult*>> alike;
    for (const CaseResult& result : certificate.cases) {
        const bool failed = result.verdict == Verdict::fail || result.verdict == Verdict::error;
        if (result.handler == handler && failed && result.findings.empty() && !result.reason.empty()) {
            alike[reason_pattern(result.reason)].push_back(&result);
        }
    }
    for (const auto& entry : alike) {
        const std::vector<const CaseResult*>& results = entry.second;
        if (results.size() < 2) {
            continue;
        }
        const bool same = std::all_of(results.begin(), results.end(), [&](const CaseResult* each) {
            return each->reason == results.front()->reason;
        });
        Cause cause = cause_of(certificate, "", results);
        cause.text = cause.cases.size() == 1 ? fmt::format("{} fails each time: {}", cause.cases.front(),
                                                           same ? results.front()->reason : entry.first)
                                             : fmt::format("{} cases: {}", cause.cases.size(),
                                                           same ? results.front()->reason : entry.first);
        causes.push_back(std::move(cause));
    }
}

// "every case of group join fails, and no other case": where the handler's weakness lies as a whole.
void add_group_causes(const Certificate& certificate, const std::string& handler,
                      std::vector<Cause>& causes) {
    std::map<std::string, std::vector<const CaseResult*>> failed;
    std::map<std::string, std::size_t> tried;
    std::size_t all_failed = 0;
    for (const CaseResult& result : certificate.cases) {
        if (result.handler != handler || result.verdict == Verdict::skipped) {
            continue;
        }
        ++tried[result.group];
        if (result.verdict != Verdict::pass) {
            failed[result.group].push_back(&result);
            ++all_failed;
        }
    }
    for (const auto& [group, results] : failed) {
        if (results.size() == tried[group] && results.size() >= cause_cases_min && tried.size() > 1) {
            causes.push_back(cause_of(certificate,
                                      fmt::format("every case of group {} fails{}", group,
                                                  results.size() == all_failed ? ", and no other case" : ""),
                                      results));
        }
    }
}

}  // namespace

std::vector<Trait> traits_of(const Finding& finding) {
    std::vector<Trait> traits;
    for (const auto& [name, value] : finding.facts) {
        const bool says_nothing = value.empty() || value == "false" || is_one_of(empty_facts, name);
        if (!says_nothing && name != "symbol" && name != "member" && name != "message") {
            traits.push_back({name, value});
        }
    }
    if (!finding.message.empty()) {
        traits.push_back({"message", finding.message});
    }
    if (!finding.member.empty()) {
        traits.push_back({"member", finding.member});
    }
    if (!finding.symbol.empty()) {
        traits.push_back({"symbol", finding.symbol});
    }
    return traits;
}

std::string trait_phrase(const Trait& trait, std::string_view kind) {
    const std::string_view in = kind == "mismatched" ? "in" : "of";
    std::string words = trait.name;
    std::replace(words.begin(), words.end(), '_', ' ');
    if (trait.name == "nbbo_indicator") {
        return fmt::format("{} messages with NBBO indicator {}", in, trait.value);
    }
    if (trait.name == "in_gap" && trait.value == "true") {
        return "inside an open gap";
    }
    if (trait.name == "last_before_silence" && trait.value == "true") {
        return "the last before silence";
    }
    if (trait.name == "retransmitted" && trait.value == "true") {
        return fmt::format("{} messages whose packet was lost", in);
    }
    if (trait.name == "message") {
        return fmt::format("{} {} messages", in, trait.value);
    }
    if (trait.name == "member" || trait.name == "symbol") {
        return fmt::format("of {} {}", trait.name, trait.value);
    }
    if (trait.value == "true") {
        return fmt::format("{} messages with {}", in, words);
    }
    return fmt::format("{} messages with {} {}", in, words, trait.value);
}

std::string reason_pattern(std::string_view reason) {
    const auto is_digit = [&](std::size_t at) {
        return at < reason.size() && reason[at] >= '0' && reason[at] <= '9';
    };
    std::string pattern;
    for (std::size_t at = 0; at != reason.size(); ++at) {
        if (!is_digit(at)) {
            pattern += reason[at];
            continue;
        }
        pattern += 'N';
        while (is_digit(at + 1) || (at + 1 < reason.size() &&
                                    (reason[at + 1] == ',' || reason[at + 1] == '.') && is_digit(at + 2))) {
            ++at;
        }
    }
    return pattern;
}

std::vector<Cause> likely_causes(const Certificate& certificate) {
    Variety variety;
    std::vector<std::string> handlers;
    for (const CaseResult& result : certificate.cases) {
        for (const Finding& finding : result.findings) {
            for (const auto& [name, value] : finding.facts) {
                variety[name].insert(value);
            }
        }
        if (std::find(handlers.begin(), handlers.end(), result.handler) == handlers.end()) {
            handlers.push_back(result.handler);
        }
    }
    std::vector<Cause> causes;
    for (const std::string& handler : handlers) {
        add_finding_causes(certificate, handler, variety, causes);
        add_reason_causes(certificate, handler, causes);
        add_group_causes(certificate, handler, causes);
    }
    std::stable_sort(causes.begin(), causes.end(),
                     [](const Cause& one, const Cause& two) { return one.cases.size() > two.cases.size(); });
    if (causes.size() > causes_max) {
        causes.resize(causes_max);
    }
    return causes;
}

}  // namespace tessel::certify
