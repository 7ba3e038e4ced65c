#include "certify/campaign.h"

#include <gtest/gtest.h>

#include <set>

namespace tessel::certify {

namespace {

Campaign campaign_of(const std::string& seeds, const std::string& job = "1/1") {
    Campaign campaign;
    std::string error;
    EXPECT_TRUE(parse_campaign(seeds, campaign, error)) << error;
    EXPECT_TRUE(parse_job(job, campaign, error)) << error;
    return campaign;
}

}  // namespace

TEST(Campaign, JobJ_RunsTheSeedsWhoseRemainderIsJMinusOne) {
    EXPECT_EQ(seeds_of(campaign_of("seeds=5..11", "1/3")), (std::vector<std::uint64_t>{5, 8, 11}));
    EXPECT_EQ(seeds_of(campaign_of("seeds=5..11", "3/3")), (std::vector<std::uint64_t>{7, 10}));
    EXPECT_EQ(seeds_of(campaign_of("seeds=0..0")), std::vector<std::uint64_t>{0});
    EXPECT_EQ(seeds_of(campaign_of("seeds=18446744073709551614..18446744073709551615")),
              (std::vector<std::uint64_t>{UINT64_MAX - 1, UINT64_MAX}));
}

TEST(Campaign, AllJobs_HaveEachSeedOnce) {
    for (const std::uint64_t jobs : {1U, 2U, 7U, 100U}) {
        std::multiset<std::uint64_t> seeds;
        for (std::uint64_t job = 1; job <= jobs; ++job) {
            const Campaign campaign =
                campaign_of("seeds=17..116", std::to_string(job) + "/" + std::to_string(jobs));
            EXPECT_TRUE(is_valid(campaign));
            for (const std::uint64_t seed : seeds_of(campaign)) {
                EXPECT_EQ(job_of(campaign, seed), job);
                seeds.insert(seed);
            }
        }
        EXPECT_EQ(seeds.size(), 100U);
        EXPECT_EQ(std::set<std::uint64_t>(seeds.begin(), seeds.end()).size(), 100U);
    }
}

TEST(Campaign, WrongRange_IsRefusedWithItsText) {
    for (const char* text : {"", "1..3", "seeds=", "seeds=1", "seeds=1..", "seeds=..3", "seeds=-1..3",
                             "seeds=1..3x", "seeds=3..1", "seeds=1..18446744073709551616",
                             "seeds=0..18446744073709551615", "seeds=1 ..3", "seeds=1...3", "Seeds=1..3"}) {
        Campaign campaign;
        std::string error;
        EXPECT_FALSE(parse_campaign(text, campaign, error)) << text;
        EXPECT_TRUE(error.starts_with("'" + std::string(text) + "'")) << error;
    }
}

TEST(Campaign, WrongJob_IsRefusedWithItsText) {
    for (const char* text : {"", "1", "0/3", "4/3", "1/0", "a/3", "1/", "/3", "1/3/5", "-1/3", "1/11"}) {
        Campaign campaign = campaign_of("seeds=1..10");
        std::string error;
        EXPECT_FALSE(parse_job(text, campaign, error)) << text;
        EXPECT_TRUE(error.starts_with("'" + std::string(text) + "'")) << error;
    }
}

TEST(Campaign, Results_AreOrderedBySeedThenAsTheyFirstOccur) {
    std::vector<CaseResult> results(5);
    const char* names[] = {"b/x", "a/y", "b/x", "a/y", "b/x"};
    const std::uint64_t seeds[] = {2, 2, 1, 1, 1};
    const char* handlers[] = {"h", "h", "h", "h", "g"};
    for (std::size_t at = 0; at != 5; ++at) {
        results[at].name = names[at];
        results[at].seed = seeds[at];
        results[at].handler = handlers[at];
    }
    order_results(results);
    std::string order;
    for (const CaseResult& result : results) {
        order += std::to_string(result.seed) + result.handler + result.name + " ";
    }
    EXPECT_EQ(order, "1hb/x 1gb/x 1ha/y 2hb/x 2ha/y ");
}

}  // namespace tessel::certify
