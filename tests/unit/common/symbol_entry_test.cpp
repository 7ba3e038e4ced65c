#include "common/symbol_entry.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::common {
namespace {

TEST(SymbolEntry, SymbolsWithBadPrices_AreFound) {
    for (const char* entry : {"A:0.01", "A", "BRK.A:712000", "ABCDEFGHIJK:1", "A:1e3"}) {
        EXPECT_EQ(symbol_error(entry), "") << entry;
    }
    for (const char* entry : {"A:0", "A:-1", "A:", "A:1x", "A: 1", "A:nan", "A:inf", "A:1e300", "A:0x1", ":1",
                              "", "ABCDEFGHIJKL:1", "A B:1", "A\":1", "A:1:2"}) {
        EXPECT_NE(symbol_error(entry), "") << entry;
    }
}

TEST(SymbolEntry, LongEntry_IsQuotedShortly) {
    EXPECT_LE(symbol_error(std::string(100'000, 'A')).size(), 160U);
    EXPECT_LE(symbol_error("A:" + std::string(100'000, '9')).size(), 160U);
    EXPECT_EQ(symbol_error("A:\x1b[2J"), "price of A: '?[2J' is no number");
}

}  // namespace
}  // namespace tessel::common
