#include "common/nearest_word.h"

#include <gtest/gtest.h>

#include <array>

namespace tessel::common {
namespace {

constexpr std::array<std::string_view, 4> words = {"drop", "drop_every", "dup", "interval_ms"};

TEST(NearestWord, Slip_FindsTheWordMeant) {
    EXPECT_EQ(nearest_word("dorp", words), "drop");
    EXPECT_EQ(nearest_word("drop-every", words), "drop_every");
    EXPECT_EQ(nearest_word("interval", words), "interval_ms");
    EXPECT_EQ(nearest_word("du", words), "dup");
    EXPECT_EQ(nearest_word("drop", words), "drop");
}

TEST(NearestWord, SomethingElse_FindsNone) {
    EXPECT_EQ(nearest_word("frobnicate", words), "");
    EXPECT_EQ(nearest_word("", words), "");
    EXPECT_EQ(nearest_word(std::string(100'000, 'd'), words), "");
}

TEST(NearestWord, EndOfAnError_NamesIt) {
    EXPECT_EQ(did_you_mean("dorp", words), "; did you mean 'drop'?");
    EXPECT_EQ(did_you_mean("frobnicate", words), "");
}

}  // namespace
}  // namespace tessel::common
