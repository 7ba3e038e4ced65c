#include "certify/campaign.h"

#include <algorithm>
#include <functional>
#include <map>
#include <tuple>

namespace tessel::certify {

namespace {

bool read_number(std::string_view text, std::uint64_t& number) {
    const bool digits =
        !text.empty() && text.size() <= 20 && text.find_first_not_of("0123456789") == std::string_view::npos;
    if (!digits) {
        return false;
    }
    number = 0;
    for (const char c : text) {
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (number > (UINT64_MAX - digit) / 10) {
            return false;
        }
        number = number * 10 + digit;
    }
    return true;
}

std::string quoted(std::string_view text) {
    constexpr std::size_t shown_max = 60;
    return "'" + std::string(text.substr(0, shown_max)) + (text.size() > shown_max ? "...'" : "'");
}

}  // namespace

bool parse_campaign(std::string_view text, Campaign& campaign, std::string& error) {
    constexpr std::string_view name = "seeds=";
    const std::size_t dots = text.find("..");
    if (!text.starts_with(name) || dots == std::string_view::npos ||
        !read_number(text.substr(name.size(), dots - name.size()), campaign.first) ||
        !read_number(text.substr(dots + 2), campaign.last)) {
        error = quoted(text) + " is no range of seeds, as in seeds=1..1000";
        return false;
    }
    if (campaign.last < campaign.first) {
        error = quoted(text) + " ends before it begins";
        return false;
    }
    if (campaign.last - campaign.first >= campaign_seeds_max) {
        error = quoted(text) + " has more than 100,000,000 seeds";
        return false;
    }
    campaign.jobs = 1;
    campaign.done = {1};
    return true;
}

bool parse_job(std::string_view text, Campaign& campaign, std::string& error) {
    const std::size_t slash = text.find('/');
    std::uint64_t job = 0;
    std::uint64_t jobs = 0;
    if (slash == std::string_view::npos || !read_number(text.substr(0, slash), job) ||
        !read_number(text.substr(slash + 1), jobs) || job == 0 || job > jobs) {
        error = quoted(text) + " is no job, as in 3/8: the third of eight";
        return false;
    }
    const std::uint64_t seeds = campaign.last - campaign.first + 1;
    if (jobs > seeds) {
        error = quoted(text) + ": there are " + std::to_string(seeds) + " seeds, so at most as many jobs";
        return false;
    }
    if (jobs > campaign_jobs_max) {
        error = quoted(text) + ": there are at most 100,000 jobs";
        return false;
    }
    campaign.jobs = jobs;
    campaign.done = {job};
    return true;
}

bool is_valid(const Campaign& campaign) {
    const bool range = campaign.first <= campaign.last && campaign.last - campaign.first < campaign_seeds_max;
    const bool jobs = campaign.jobs != 0 && campaign.jobs <= campaign_jobs_max && range &&
                      campaign.jobs <= campaign.last - campaign.first + 1;
    const bool done =
        !campaign.done.empty() && campaign.done.front() != 0 && campaign.done.back() <= campaign.jobs &&
        std::adjacent_find(campaign.done.begin(), campaign.done.end(), std::greater_equal<>()) ==
            campaign.done.end();
    return jobs && done;
}

bool is_campaign(const Campaign& campaign) {
    return campaign.jobs != 0;
}

std::uint64_t job_of(const Campaign& campaign, std::uint64_t seed) {
    return (seed - campaign.first) % campaign.jobs + 1;
}

std::vector<std::uint64_t> seeds_of(const Campaign& campaign) {
    std::vector<std::uint64_t> seeds;
    const std::uint64_t count = campaign.last - campaign.first + 1;
    for (const std::uint64_t job : campaign.done) {
        for (std::uint64_t offset = job - 1; offset < count; offset += campaign.jobs) {
            seeds.push_back(campaign.first + offset);
        }
    }
    std::sort(seeds.begin(), seeds.end());
    return seeds;
}

void order_results(std::vector<CaseResult>& results) {
    std::map<std::string, std::size_t> cases;
    std::map<std::string, std::size_t> handlers;
    for (const CaseResult& result : results) {
        cases.emplace(result.name, cases.size());
        handlers.emplace(result.handler, handlers.size());
    }
    std::stable_sort(results.begin(), results.end(), [&](const CaseResult& one, const CaseResult& two) {
        return std::tuple(one.seed, cases[one.name], handlers[one.handler]) <
               std::tuple(two.seed, cases[two.name], handlers[two.handler]);
    });
}

}  // namespace tessel::certify
