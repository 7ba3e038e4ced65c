#include "certify/load_run.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tessel::certify {
namespace {

std::string value_of(const std::vector<std::string>& words, const std::string& option) {
    const auto found = std::find(words.rbegin(), words.rend(), option);
    return found == words.rend() || found == words.rbegin() ? "" : *(found - 1);
}

TEST(LoadCase, OfARate_HasItsSymbolsAndInterval) {
    Case each;
    each.name = "load/steady";
    const Case slow = case_of_rate(each, 10'000);
    EXPECT_EQ(slow.generated_symbols, 35U);  // 10,000 / (2.98 x 95)
    EXPECT_EQ(value_of(slow.feed_options, "--interval-ms"), "10");
    EXPECT_EQ(case_of_rate(each, 100).generated_symbols, 1U);
    EXPECT_EQ(case_of_rate(each, 100'000'000).generated_symbols, 9'000U);
}

}  // namespace
}  // namespace tessel::certify
