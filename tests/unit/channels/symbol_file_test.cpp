#include "channels/symbol_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace tessel::channels {
namespace {

std::string reason_for(std::string_view text) {
    std::vector<SymbolPrice> symbols;
    std::string error;
    EXPECT_FALSE(parse_symbol_file(text, "s.txt", symbols, error)) << text;
    return error;
}

TEST(SymbolFile, LinesWithCommentsAndBlanks_AreReadInOrder) {
    std::vector<SymbolPrice> symbols;
    std::string error;
    ASSERT_TRUE(parse_symbol_file("# names\nMSFT:410.00\r\n\n  AAPL:190 # a comment\nBRK.A:712000", "s.txt",
                                  symbols, error))
        << error;
    ASSERT_EQ(symbols.size(), 3U);
    EXPECT_EQ(symbols[0].symbol, "MSFT");
    EXPECT_EQ(symbols[0].price, "410.00");
    EXPECT_EQ(symbols[1].symbol, "AAPL");
    EXPECT_EQ(symbols[1].price, "190");
    EXPECT_EQ(symbols[2].symbol, "BRK.A");
}

TEST(SymbolFile, FaultyLines_AreRefusedWithFileAndLine) {
    EXPECT_EQ(reason_for("A:1\nB:2\nA:3\n"), "s.txt:3: symbol 'A' is in line 1 already");
    EXPECT_EQ(reason_for("A:1\n\nB:0\n"), "s.txt:3: price of B: '0' is out of range: 0.01 to 1000000000");
    EXPECT_EQ(reason_for("A:x\n"), "s.txt:1: price of A: 'x' is no number");
    EXPECT_EQ(reason_for("A:\n"), "s.txt:1: price of A: '' is no number");
    EXPECT_EQ(reason_for("A\n"), "s.txt:1: 'A' has no price: write A:PRICE");
    EXPECT_TRUE(reason_for("A B:1\n").starts_with("s.txt:1: 'A B:1' has no good symbol"));
    EXPECT_EQ(reason_for("# nothing\n"), "s.txt: no symbols; a line is SYMBOL:PRICE");
    EXPECT_EQ(reason_for(""), "s.txt: no symbols; a line is SYMBOL:PRICE");
}

TEST(SymbolFile, FileThatIsNotThere_IsRefusedWithItsName) {
    std::vector<SymbolPrice> symbols;
    std::string error;
    EXPECT_FALSE(read_symbol_file("/nowhere/symbols.txt", symbols, error));
    EXPECT_EQ(error, "/nowhere/symbols.txt: No such file or directory");
}

}  // namespace
}  // namespace tessel::channels
