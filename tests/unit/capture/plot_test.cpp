#include "capture/plot.h"

#include <gtest/gtest.h>

namespace tessel::capture {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

TEST(CapturePlot, LongRun_MemoryDoesNotGrow) {
    PlotTally plot;
    begin_plot(plot, 3600 * 24 * 365 * second);
    EXPECT_EQ(plot.messages.size(), plot_bins_max);
    begin_plot(plot, second / 2);
    EXPECT_EQ(plot.messages.size(), 1u);
    begin_plot(plot, 10 * second + 1);
    EXPECT_EQ(plot.messages.size(), 11u);
}

TEST(CapturePlot, Counts_FallIntoTheirMoment) {
    PlotTally plot;
    begin_plot(plot, 10 * second);
    MoldPublisher publisher;
    FeedStats stats;
    publisher.messages_sequenced = 40;
    count_pass(plot, 0, publisher, stats);
    publisher.messages_sequenced = 100;
    publisher.faults_dropped = 2;
    stats.halts = 1;
    count_pass(plot, 4 * second, publisher, stats);
    count_pass(plot, 11 * second, publisher, stats);  // at the end, after the last tick
    EXPECT_EQ(plot.messages, (std::vector<std::uint64_t>{40, 0, 0, 0, 60, 0, 0, 0, 0, 0}));
    EXPECT_EQ(plot.events[4][0], 2u);
    EXPECT_EQ(plot.events[4][3], 1u);
    EXPECT_EQ(plot.events[9][0], 0u);
}

TEST(CapturePlot, SizesBeyondTheLastBin_AreInIt) {
    PlotTally plot;
    begin_plot(plot, second);
    for (const std::size_t length : {20u, 99u, 100u, 1500u, 65'000u}) {
        count_packet(plot, length);
    }
    EXPECT_EQ(plot.sizes[0], 2u);
    EXPECT_EQ(plot.sizes[1], 1u);
    EXPECT_EQ(plot.sizes[14], 2u);
}

TEST(CapturePlot, Drawing_NamesWhatHappenedAndEscapesTheTitle) {
    PlotTally plot;
    begin_plot(plot, 60 * second);
    MoldPublisher publisher;
    FeedStats stats;
    publisher.messages_sequenced = 1234;
    stats.pauses = 3;
    count_pass(plot, 30 * second, publisher, stats);
    const std::string svg = draw_plot(plot, "A<B&C");
    EXPECT_EQ(svg.find("<svg "), 0u);
    EXPECT_NE(svg.find(">A&lt;B&amp;C</text>"), std::string::npos);
    EXPECT_NE(svg.find("<title>3 LULD pause at 30s</title>"), std::string::npos);
    EXPECT_NE(svg.find(">2000</text>"), std::string::npos) << "the rates' scale";
    EXPECT_EQ(svg, draw_plot(plot, "A<B&C"));
    EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
}

}  // namespace
}  // namespace tessel::capture
