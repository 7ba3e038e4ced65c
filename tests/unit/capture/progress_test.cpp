#include "capture/progress.h"

#include <gtest/gtest.h>

namespace tessel::capture {
namespace {

TEST(CaptureProgress, Summary_HasEveryFigure) {
    Totals totals;
    totals.messages = 7'000'000;
    totals.packets = 500'000;
    totals.bytes = 600'000'000;
    totals.dropped = 1;
    totals.duplicated = 2;
    totals.reordered = 3;
    totals.market_ns = 23'400'000'000'000;
    totals.work_ms = 3'500;
    EXPECT_EQ(summary_line(totals),
              "tessel-capture: 7000000 messages, 500000 packets, 600000000 bytes, 1 dropped, 2 duplicated, 3 "
              "reordered; 23400 s of market in 3.500 s, 2000000 messages/s");
    totals.market_ns = 1'500'000'000;
    totals.work_ms = 0;
    EXPECT_NE(summary_line(totals).find("; 1.5 s of market in 0.000 s, "), std::string::npos);
}

TEST(CaptureProgress, Line_FitsTheTerminalAndSaysWhatIsLeft) {
    Totals totals;
    totals.messages = 3'000'000;
    totals.market_ns = 25;
    totals.work_ms = 1'000;
    EXPECT_EQ(progress_line(totals, 100, 79),
              "[#######.......................]  25 %, 3.00 million messages/s, 3s left");
    for (std::size_t columns = 0; columns < 100; ++columns) {
        EXPECT_LE(progress_line(totals, 100, columns).size(), columns);
    }
    totals.market_ns = 0;
    EXPECT_NE(progress_line(totals, 100, 79).find("? left"), std::string::npos);
}

}  // namespace
}  // namespace tessel::capture
