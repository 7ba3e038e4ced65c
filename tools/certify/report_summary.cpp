#include "certify/report_summary.h"

#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

namespace tessel::certify {

namespace {

constexpr std::size_t seeds_shown_max = 3;

void count(Counts& counts, Verdict verdict) {
    ++counts.by_verdict[static_cast<std::size_t>(verdict)];
}

template <typename Key>
std::vector<std::string> in_order(const Certificate& certificate, Key key) {
    std::vector<std::string> names;
    std::set<std::string_view> seen;
    for (const CaseResult& result : certificate.cases) {
        if (seen.insert(key(result)).second) {
            names.push_back(key(result));
        }
    }
    return names;
}

}  // namespace

std::vector<CaseSummary> summaries(const Certificate& certificate) {
    std::map<std::string_view, std::size_t> cases;
    std::map<std::string_view, std::size_t> handlers;
    for (const CaseResult& result : certificate.cases) {
        cases.emplace(result.name, cases.size());
        handlers.emplace(result.handler, handlers.size());
    }
    std::map<std::pair<std::size_t, std::size_t>, CaseSummary> found;
    for (const CaseResult& result : certificate.cases) {
        CaseSummary& summary = found[{cases[result.name], handlers[result.handler]}];
        summary.results.push_back(&result);
        count(summary.counts, result.verdict);
    }
    std::vector<CaseSummary> all;
    for (auto& [place, summary] : found) {
        summary.verdict = overall(summary.counts);
        all.push_back(std::move(summary));
    }
    return all;
}

std::vector<std::string> group_names(const Certificate& certificate) {
    return in_order(certificate, [](const CaseResult& result) -> const std::string& { return result.group; });
}

std::vector<std::string> handler_names(const Certificate& certificate) {
    return in_order(certificate,
                    [](const CaseResult& result) -> const std::string& { return result.handler; });
}

Counts counts_of(const Certificate& certificate, std::string_view handler, std::string_view group) {
    Counts counts;
    for (const CaseResult& result : certificate.cases) {
        if ((handler.empty() || result.handler == handler) && (group.empty() || result.group == group)) {
            count(counts, result.verdict);
        }
    }
    return counts;
}

Verdict overall(const Counts& counts) {
    for (const Verdict verdict : {Verdict::fail, Verdict::error, Verdict::pass}) {
        if (counts.of(verdict) != 0) {
            return verdict;
        }
    }
    return Verdict::skipped;
}

std::string headline(const Certificate& certificate) {
    const Counts counts = counts_of(certificate);
    const std::size_t cases = summaries(certificate).size();
    std::string text =
        cases == counts.all()
            ? fmt::format("{} of {} {}", judge::grouped(counts.of(Verdict::pass)), judge::grouped(cases),
                          cases == 1 ? "case" : "cases")
            : fmt::format("{} of {} runs of {} {}", judge::grouped(counts.of(Verdict::pass)),
                          judge::grouped(counts.all()), judge::grouped(cases), cases == 1 ? "case" : "cases");
    text += counts.of(Verdict::pass) == 1 ? " passes" : " pass";
    if (counts.of(Verdict::fail) != 0) {
        text += fmt::format(", {} fail", judge::grouped(counts.of(Verdict::fail)));
    }
    if (counts.of(Verdict::error) != 0) {
        text += fmt::format(", {} could not be run", judge::grouped(counts.of(Verdict::error)));
    }
    if (counts.of(Verdict::skipped) != 0) {
        text += fmt::format(", {} skipped", judge::grouped(counts.of(Verdict::skipped)));
    }
    return text;
}

std::string seeds_with(const CaseSummary& summary, Verdict verdict) {
    std::vector<std::uint64_t> seeds;
    for (const CaseResult* result : summary.results) {
        if (result->verdict == verdict) {
            seeds.push_back(result->seed);
        }
    }
    if (seeds.empty()) {
        return "";
    }
    std::sort(seeds.begin(), seeds.end());
    const bool more = seeds.size() > seeds_shown_max + 1;
    const std::size_t shown = more ? seeds_shown_max : seeds.size();
    std::string text = seeds.size() == 1 ? "seed " : "seeds ";
    for (std::size_t index = 0; index != shown; ++index) {
        const bool last = !more && index + 1 == shown && shown > 1;
        text += fmt::format("{}{}", index == 0 ? "" : last ? " and " : ", ", seeds[index]);
    }
    return more ? text + fmt::format(" and {} more", judge::grouped(seeds.size() - shown)) : text;
}

std::string one_line(std::string_view text, std::size_t bytes_max) {
    std::size_t size = std::min(text.size(), bytes_max);
    while (size != text.size() && size != 0 && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) {
        --size;
    }
    std::string line(text.substr(0, size));
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = ' ';
        }
    }
    return size == text.size() ? line : line + " ...";
}

}  // namespace tessel::certify
