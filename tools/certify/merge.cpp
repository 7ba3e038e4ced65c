#include "certify/merge.h"

#include "certify/campaign.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string_view>
#include <tuple>

namespace tessel::certify {

namespace {

constexpr std::size_t file_bytes_max = std::size_t{4} << 30;
constexpr std::size_t gaps_max = 10;

// A pipe has no size, so the end is where reading ends.
bool read_whole(const std::string& path, std::string& text, std::string& error) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    char block[65536];
    ssize_t size = 0;
    while ((size = ::read(file, block, sizeof block)) != 0) {
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 || text.size() > file_bytes_max) {
            error = path + ": " + (size < 0 ? std::strerror(errno) : "too large for a file of results");
            break;
        }
        text.append(block, static_cast<std::size_t>(size));
    }
    ::close(file);
    return error.empty();
}

// What the file says of itself must fit: seeds of its jobs alone, each of them, no case twice.
std::string check_campaign(const Certificate& certificate) {
    const Campaign& campaign = certificate.campaign;
    const std::set<std::uint64_t> done(campaign.done.begin(), campaign.done.end());
    std::set<std::uint64_t> seeds;
    for (const CaseResult& result : certificate.cases) {
        if (result.seed < campaign.first || result.seed > campaign.last ||
            !done.contains(job_of(campaign, result.seed))) {
            return fmt::format("seed {} is not of its job", result.seed);
        }
        seeds.insert(result.seed);
    }
    // One by one: a file that claims a million seeds and has none ends at the first.
    for (const std::uint64_t job : campaign.done) {
        for (std::uint64_t offset = job - 1; offset <= campaign.last - campaign.first;
             offset += campaign.jobs) {
            if (!seeds.contains(campaign.first + offset)) {
                return fmt::format("seed {} of its job has no result", campaign.first + offset);
            }
        }
    }
    return "";
}

using Key = std::tuple<std::uint64_t, std::string, std::string>;  // seed, handler, case

Key key_of(const CaseResult& result) {
    return {result.seed, result.handler, result.name};
}

// Which of two results of the same case, seed and handler counts, so that the order of the files does not
// matter.
int weight(Verdict verdict) {
    switch (verdict) {
        case Verdict::fail: return 3;
        case Verdict::pass: return 2;
        case Verdict::skipped: return 1;
        case Verdict::error: break;
    }
    return 0;
}

// Why `file` does not belong to the files before it; "" when it does.
std::string mismatch(const Certificate& file, const Certificate& all, const std::string& first_path) {
    if (file.tool != all.tool) {
        return fmt::format("is of {}, {} of {}", file.tool, first_path, all.tool);
    }
    const Campaign& one = file.campaign;
    const Campaign& other = all.campaign;
    if (one.first != other.first || one.last != other.last || one.jobs != other.jobs) {
        const auto describe = [](const Campaign& campaign) {
            return is_campaign(campaign)
                       ? fmt::format("seeds {}..{} in {} jobs", campaign.first, campaign.last, campaign.jobs)
                       : std::string("no campaign");
        };
        return fmt::format("is of {}, {} of {}", describe(one), first_path, describe(other));
    }
    for (const Handler& handler : file.handlers) {
        for (const Handler& known : all.handlers) {
            if (known.name == handler.name && known.command != handler.command) {
                return fmt::format("has another command of handler '{}' than {}", handler.name, first_path);
            }
        }
    }
    return "";
}

void add_head(const Certificate& file, Certificate& all) {
    for (const Handler& handler : file.handlers) {
        const bool known = std::any_of(all.handlers.begin(), all.handlers.end(),
                                       [&](const Handler& each) { return each.name == handler.name; });
        if (!known) {
            all.handlers.push_back(handler);
        }
    }
    for (const std::string& about : file.about) {
        if (std::find(all.about.begin(), all.about.end(), about) == all.about.end()) {
            all.about.push_back(about);
        }
    }
    std::set<std::uint64_t> done(all.campaign.done.begin(), all.campaign.done.end());
    done.insert(file.campaign.done.begin(), file.campaign.done.end());
    all.campaign.done.assign(done.begin(), done.end());
}

void find_missing_jobs(Merged& merged) {
    Campaign& campaign = merged.certificate.campaign;
    if (!is_campaign(campaign)) {
        return;
    }
    const std::set<std::uint64_t> done(campaign.done.begin(), campaign.done.end());
    for (std::uint64_t job = 1; job <= campaign.jobs; ++job) {
        if (!done.contains(job)) {
            merged.missing_jobs.push_back(job);
        }
    }
    if (merged.missing_jobs.empty()) {
        // Whole, and so the same as one that was never divided.
        campaign.jobs = 1;
        campaign.done = {1};
    }
}

// Jobs that ran other cases than the others: with another --only, or from another catalog.
void find_gaps(Merged& merged) {
    if (!is_campaign(merged.certificate.campaign)) {
        return;
    }
    std::set<std::pair<std::string, std::string>> cases;
    std::map<std::uint64_t, std::set<std::pair<std::string, std::string>>> of_seed;
    for (const CaseResult& result : merged.certificate.cases) {
        cases.emplace(result.handler, result.name);
        of_seed[result.seed].emplace(result.handler, result.name);
    }
    for (const auto& [seed, found] : of_seed) {
        if (found.size() == cases.size()) {
            continue;
        }
        const auto lacking = std::find_if(cases.begin(), cases.end(), [&, &here = found](const auto& each) {
            return !here.contains(each);
        });
        merged.gaps.push_back(
            fmt::format("seed {} has no result of {}, which other seeds have", seed, lacking->second));
        if (merged.gaps.size() == gaps_max) {
            return;
        }
    }
}

}  // namespace

bool read_result_file(const std::string& path, ResultFile& file, std::string& error) {
    file.path = path;
    std::string text;
    error.clear();
    if (!read_whole(path, text, error)) {
        return false;
    }
    if (!parse_certificate(text, file.certificate, error)) {
        error = path + ": " + (error.empty() ? "no file of results" : error);
        return false;
    }
    if (is_campaign(file.certificate.campaign)) {
        error = check_campaign(file.certificate);
    }
    if (!error.empty()) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

bool merge(std::vector<ResultFile> files, Merged& merged, std::string& error) {
    // By job: the result does not depend on the order in which the files were named.
    std::stable_sort(files.begin(), files.end(), [](const ResultFile& one, const ResultFile& two) {
        return one.certificate.campaign.done < two.certificate.campaign.done;
    });
    Certificate& all = merged.certificate;
    std::map<Key, std::size_t> places;
    for (ResultFile& file : files) {
        Certificate& each = file.certificate;
        if (&file == &files.front()) {
            all = each;
            all.cases.clear();
            all.causes.clear();
        }
        const std::string why = mismatch(each, all, files.front().path);
        if (!why.empty()) {
            error = file.path + ": it " + why;
            return false;
        }
        add_head(each, all);
        for (CaseResult& result : each.cases) {
            const auto [place, is_new] = places.emplace(key_of(result), all.cases.size());
            if (is_new) {
                all.cases.push_back(std::move(result));
                continue;
            }
            ++merged.counted_once;
            CaseResult& known = all.cases[place->second];
            if (weight(result.verdict) > weight(known.verdict)) {
                known = std::move(result);
            }
        }
        each.cases.clear();
    }
    if (is_campaign(all.campaign)) {
        order_results(all.cases);
        all.seed = all.campaign.first;
    }
    find_missing_jobs(merged);
    find_gaps(merged);
    return true;
}

std::string missing_job_text(const Campaign& campaign, std::uint64_t job) {
    constexpr std::size_t shown_max = 3;
    Campaign one = campaign;
    one.done = {job};
    const std::vector<std::uint64_t> seeds = seeds_of(one);
    std::string text = fmt::format("job {} of {} is missing: it runs seed{} ", job, campaign.jobs,
                                   seeds.size() == 1 ? "" : "s");
    for (std::size_t index = 0; index != std::min(seeds.size(), shown_max); ++index) {
        text += fmt::format("{}{}", index == 0 ? "" : ", ", seeds[index]);
    }
    return seeds.size() > shown_max ? text + fmt::format(" and {} more", seeds.size() - shown_max) : text;
}

}  // namespace tessel::certify
