#include "certify/merge.h"

#include "certify/campaign.h"
#include "certify/whole_file.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>

namespace tessel::certify {

namespace {

// The file of job J of N over seeds 1..6, with two cases a seed.
ResultFile job_file(std::uint64_t job, std::uint64_t jobs) {
    ResultFile file;
    file.path = "job-" + std::to_string(job) + ".json";
    Certificate& certificate = file.certificate;
    certificate.tool = "tessel-certify 1.0.0";
    certificate.handlers = {{"handler", "./handler"}};
    certificate.campaign = {1, 6, jobs, {job}};
    for (const std::uint64_t seed : seeds_of(certificate.campaign)) {
        for (const char* name : {"loss/b", "join/a"}) {
            CaseResult result;
            result.handler = "handler";
            result.name = name;
            result.group = std::string(name).substr(0, 4);
            result.seed = seed;
            result.verdict = seed == 4 ? Verdict::fail : Verdict::pass;
            certificate.cases.push_back(result);
        }
    }
    return file;
}

Merged merged_of(std::vector<ResultFile> files) {
    Merged merged;
    std::string error;
    EXPECT_TRUE(merge(std::move(files), merged, error)) << error;
    return merged;
}

std::string refusal(std::vector<ResultFile> files) {
    Merged merged;
    std::string error;
    EXPECT_FALSE(merge(std::move(files), merged, error));
    return error;
}

class MergeFiles : public testing::Test {
protected:
    void SetUp() override {
        folder = testing::TempDir() + "/merge-" + std::to_string(::getpid());
        std::filesystem::create_directories(folder);
    }
    void TearDown() override {
        std::filesystem::remove_all(folder);
    }
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(folder + "/" + name) << text;
        return folder + "/" + name;
    }
    std::string folder;
};

}  // namespace

TEST(Merge, AllJobsInAnyOrder_AreTheSameAsOneJob) {
    const std::string one = certificate_json(merged_of({job_file(1, 1)}).certificate);
    EXPECT_EQ(certificate_json(merged_of({job_file(1, 2), job_file(2, 2)}).certificate), one);
    EXPECT_EQ(certificate_json(merged_of({job_file(3, 3), job_file(1, 3), job_file(2, 3)}).certificate), one);
}

TEST(Merge, SameCaseAndSeedTwice_CountsOnce) {
    const Merged merged = merged_of({job_file(1, 2), job_file(2, 2), job_file(1, 2)});
    EXPECT_EQ(merged.certificate.cases.size(), 12U);
    EXPECT_EQ(merged.counted_once, 6U);
    EXPECT_TRUE(merged.missing_jobs.empty());
}

TEST(Merge, OfTwoResults_TheFailureStaysAndTheErrorGivesWay) {
    ResultFile failed = job_file(1, 1);
    failed.certificate.cases[0].verdict = Verdict::fail;
    failed.certificate.cases[1].verdict = Verdict::error;
    for (const bool turned : {false, true}) {
        std::vector<ResultFile> files = {job_file(1, 1), failed};
        if (turned) {
            std::swap(files[0], files[1]);
        }
        const Merged merged = merged_of(files);
        EXPECT_EQ(merged.certificate.cases[0].verdict, Verdict::fail);
        EXPECT_EQ(merged.certificate.cases[1].verdict, Verdict::pass);
    }
}

TEST(Merge, MissingJob_IsNamedWithItsSeeds) {
    const Merged merged = merged_of({job_file(1, 3), job_file(3, 3)});
    EXPECT_EQ(merged.missing_jobs, std::vector<std::uint64_t>{2});
    EXPECT_EQ(missing_job_text(merged.certificate.campaign, 2), "job 2 of 3 is missing: it runs seeds 2, 5");
    EXPECT_EQ(merged.certificate.campaign.done, (std::vector<std::uint64_t>{1, 3}));
    // What is merged so far can be merged with the rest.
    ResultFile part{"part.json", merged.certificate};
    EXPECT_EQ(certificate_json(merged_of({job_file(2, 3), part}).certificate),
              certificate_json(merged_of({job_file(1, 1)}).certificate));
}

TEST(Merge, OtherCasesInOneJob_AreAGap) {
    ResultFile other = job_file(2, 2);
    std::erase_if(other.certificate.cases, [](const CaseResult& each) { return each.name == "join/a"; });
    const Merged merged = merged_of({job_file(1, 2), other});
    ASSERT_EQ(merged.gaps.size(), 3U);
    EXPECT_EQ(merged.gaps[0], "seed 2 has no result of join/a, which other seeds have");
}

TEST(Merge, FileThatDoesNotBelong_IsNamed) {
    ResultFile other = job_file(2, 2);
    other.certificate.campaign.last = 7;
    EXPECT_EQ(refusal({job_file(1, 2), other}),
              "job-2.json: it is of seeds 1..7 in 2 jobs, job-1.json of seeds 1..6 in 2 jobs");
    other = job_file(2, 2);
    other.certificate.tool = "tessel-certify 2.0.0";
    EXPECT_EQ(refusal({job_file(1, 2), other}),
              "job-2.json: it is of tessel-certify 2.0.0, job-1.json of tessel-certify 1.0.0");
    other = job_file(2, 2);
    other.certificate.handlers[0].command = "./another";
    EXPECT_EQ(refusal({job_file(1, 2), other}),
              "job-2.json: it has another command of handler 'handler' than job-1.json");
}

TEST(Merge, RunsOfNoCampaign_AreAddedUp) {
    ResultFile one = job_file(1, 2);
    ResultFile two = job_file(2, 2);
    one.certificate.campaign = two.certificate.campaign = {};
    two.certificate.handlers = {{"other", "./other"}};
    for (CaseResult& result : two.certificate.cases) {
        result.handler = "other";
    }
    const Merged merged = merged_of({one, two});
    EXPECT_EQ(merged.certificate.cases.size(), 12U);
    EXPECT_EQ(merged.certificate.handlers.size(), 2U);
    EXPECT_TRUE(merged.missing_jobs.empty() && merged.gaps.empty());
}

TEST_F(MergeFiles, WrittenFile_IsReadBack) {
    const std::string text = certificate_json(job_file(2, 3).certificate);
    const std::string path = write("a.json", text);
    ResultFile file;
    std::string error;
    ASSERT_TRUE(read_result_file(path, file, error)) << error;
    EXPECT_EQ(certificate_json(file.certificate), text);
}

TEST_F(MergeFiles, BrokenFile_IsRefusedWithItsName) {
    const std::string good = certificate_json(job_file(2, 3).certificate);
    ResultFile odd = job_file(2, 3);
    odd.certificate.cases[0].seed = 1;
    ResultFile thin = job_file(2, 3);
    std::erase_if(thin.certificate.cases, [](const CaseResult& each) { return each.seed == 5; });
    ResultFile wrong = job_file(2, 3);
    wrong.certificate.campaign.done = {3, 2};
    const std::pair<std::string, std::string> broken[] = {
        {"", "no JSON"},
        {good.substr(0, good.size() / 2), "no JSON"},
        {"{}", "has no member"},
        {"[1]", "has no member"},
        {certificate_json(odd.certificate), "seed 1 is not of its job"},
        {certificate_json(thin.certificate), "seed 5 of its job has no result"},
        {certificate_json(wrong.certificate), "do not fit together"},
    };
    for (const auto& [text, reason] : broken) {
        const std::string path = write("broken.json", text);
        ResultFile file;
        std::string error;
        EXPECT_FALSE(read_result_file(path, file, error)) << text;
        EXPECT_TRUE(error.starts_with(path + ": ")) << error;
        EXPECT_NE(error.find(reason), std::string::npos) << error;
    }
    ResultFile file;
    std::string error;
    EXPECT_FALSE(read_result_file(folder + "/none.json", file, error));
    EXPECT_EQ(error, folder + "/none.json: No such file or directory");
}

TEST_F(MergeFiles, EveryCutOfAFile_IsRefused) {
    const std::string good = certificate_json(job_file(2, 3).certificate);
    for (std::size_t size = 0; size < good.size() - 2; size += 37) {
        const std::string path = write("cut.json", good.substr(0, size));
        ResultFile file;
        std::string error;
        EXPECT_FALSE(read_result_file(path, file, error)) << size;
    }
}

}  // namespace tessel::certify
