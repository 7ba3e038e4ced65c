#include "listen/terminal_view.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

namespace tessel::listen {

using receiver::Market;
using receiver::SequencerCounters;

namespace {

using namespace receiver::hand_made;

Market market_of(int instruments) {
    Market market;
    for (int i = 0; i < instruments; ++i) {
        const std::string symbol = "SYM" + std::to_string(i);
        for (const std::string& data :
             {directory_short(symbol), price_band(symbol, 'A', 9'500'000, 10'500'000)}) {
            receiver::apply_message(market, raw(data), data.size(), 1);
        }
    }
    return market;
}

std::vector<std::string> lines_of(const std::string& picture) {
    std::vector<std::string> lines;
    std::istringstream in(picture);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(TerminalView, Screen_ShowsNbboLastVolumeStatusAndBand) {
    Market market = market_of(1);
    QuoteHand quote;
    quote.symbol = "SYM0";
    quote.nbbo = '4';
    for (const std::string& data : {quote_short(quote), trading_action("SYM0", 'H', 1, "T1"),
                                    trade_long('N', "SYM0", 1, 190'020'000, 300, "@   ")}) {
        receiver::apply_message(market, raw(data), data.size(), 7);
    }
    const auto lines = lines_of(render_view(market, {}, {}, {24, 132}));
    ASSERT_EQ(lines.size(), 3u);
    for (const char* part : {"SYM0", "190.01 Q x Q 190.03", "190.02", "300", "H T1", "9.50 / 10.50"}) {
        EXPECT_NE(lines[1].find(part), std::string::npos) << part << " in " << lines[1];
    }
    EXPECT_EQ(lines[2].find("seq 7"), 0u);
}

TEST(TerminalView, FitsTheTerminal_AndCountsWhatDoesNot) {
    SequencerCounters counters;
    counters.gaps = 3;
    ViewStatus status;
    status.kernel_drops = 4;
    const auto lines = lines_of(render_view(market_of(50), counters, status, {10, 100}));
    EXPECT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[8], "... and 43 more");
    EXPECT_NE(lines[9].find("gaps 3"), std::string::npos);
    EXPECT_NE(lines[9].find("kernel drops 4"), std::string::npos);
    for (const std::string& line : lines_of(render_view(market_of(50), counters, status, {10, 20}))) {
        EXPECT_LE(line.size(), 20u);
    }
}

TEST(TerminalView, BytesOfASymbol_CannotSteerTheTerminal) {
    Market market;
    const std::string data = directory_short("\x1b[2J\x07");
    receiver::apply_message(market, raw(data), data.size(), 1);
    EXPECT_EQ(render_view(market, {}, {}, {24, 80}).find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace tessel::listen
