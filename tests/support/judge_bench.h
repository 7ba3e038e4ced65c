#pragma once

#include "judge/judge.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

// Two files in a separate folder, and a judge over them.
struct Bench {
    std::filesystem::path folder;
    Options options;
    Result result;
    std::string error;

    Bench() {
        std::string name = std::filesystem::temp_directory_path() / "judge_test.XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        folder = name;
        options.truth_path = folder / "truth.jsonl";
        options.output_path = folder / "output.jsonl";
    }
    ~Bench() {
        std::filesystem::remove_all(folder);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    bool run(std::string_view truth, std::string_view output) {
        std::ofstream(options.truth_path) << truth;
        std::ofstream(options.output_path) << output;
        result = Result{};
        return judge(options, result, error);
    }
};

inline std::string line(std::uint64_t seq, std::string_view status = "T") {
    return "{\"seq\":" + std::to_string(seq) + ",\"symbol\":\"AAPL\",\"status\":\"" + std::string(status) +
           "\"}\n";
}

inline std::string lines(const std::vector<std::uint64_t>& numbers, std::string_view status = "T") {
    std::string text;
    for (const std::uint64_t seq : numbers) {
        text += line(seq, status);
    }
    return text;
}

inline std::string stretch(std::uint64_t first, std::uint64_t last, std::string_view status = "T") {
    std::string text;
    for (std::uint64_t seq = first; seq <= last; ++seq) {
        text += line(seq, status);
    }
    return text;
}

inline void expect_totals(const Result& result, std::uint64_t matched, std::uint64_t mismatched,
                          std::uint64_t missing, std::uint64_t unexpected) {
    EXPECT_EQ(result.totals.matched, matched);
    EXPECT_EQ(result.totals.mismatched, mismatched);
    EXPECT_EQ(result.totals.missing, missing);
    EXPECT_EQ(result.totals.unexpected, unexpected);
    EXPECT_EQ(verdict(result), mismatched + missing + unexpected == 0 ? Verdict::agrees : Verdict::differs);
}

}  // namespace tessel::judge
