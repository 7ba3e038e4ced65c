#include "certify/kept_files.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

TEST(FileWords, OfAnyName_AreFitForAFolder) {
    EXPECT_EQ(file_word("good-1.2_x"), "good-1.2_x");
    EXPECT_EQ(file_word("../a b<\n"), "_._a_b__");
    EXPECT_EQ(file_word("."), "_");
}

}  // namespace
}  // namespace tessel::certify
