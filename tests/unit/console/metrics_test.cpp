#include "console/metrics.h"

#include "base/version.h"
#include "console/counter_texts.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tessel::console {
namespace {

Picture some_picture() {
    Picture picture;
    picture.up = true;
    picture.next_sequence = 42;
    picture.receiver.messages = 41;
    picture.receiver.lost = 3;
    picture.rows = std::make_shared<const std::vector<Row>>(2);
    LatencyPicture& latency = picture.latency[0];
    latency.total = 10;
    latency.sum_ns = 1'500'000'000;
    latency.within.fill(4);
    latency.within.back() = 9;
    return picture;
}

bool has_line(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(ConsoleMetrics, EveryCounterOfStats_HasItsMetric) {
    ControlPicture control;
    for (const CounterText& each : counter_texts()) {
        control.counters.counters.emplace_back(each.name, 7);
    }
    control.counters.dropped = 5;
    const std::string text = metrics_text(some_picture(), control, true);
    for (const CounterText& each : counter_texts()) {
        EXPECT_TRUE(has_line(text, "tessel_" + std::string(each.name) + "_total 7")) << each.name;
        EXPECT_TRUE(has_line(text, "# TYPE tessel_" + std::string(each.name) + "_total counter"))
            << each.name;
    }
    EXPECT_EQ(counter_texts().size(), 24u);
    EXPECT_TRUE(has_line(text, "tessel_packets_dropped_total 5"));
    EXPECT_TRUE(has_line(text, "tessel_packets_sent_total 0"));
    EXPECT_TRUE(has_line(text, "tessel_packets_duplicated_total 0"));
    EXPECT_TRUE(has_line(text, "tessel_packets_reordered_total 0"));
}

TEST(ConsoleMetrics, ReceiverAndLatency_AsCounted) {
    const std::string text = metrics_text(some_picture(), {}, true);
    EXPECT_TRUE(has_line(text, "tessel_up 1"));
    EXPECT_TRUE(has_line(text, "tessel_control_up 0"));
    EXPECT_TRUE(has_line(text, "tessel_receiver_messages_total 41"));
    EXPECT_TRUE(has_line(text, "tessel_receiver_lost_total 3"));
    EXPECT_TRUE(has_line(text, "tessel_instruments 2"));
    EXPECT_TRUE(has_line(text, "# TYPE tessel_latency_seconds histogram"));
    EXPECT_TRUE(has_line(text, "tessel_latency_seconds_count{stage=\"sip_to_kernel\"} 10"));
    EXPECT_TRUE(has_line(text, "tessel_latency_seconds_sum{stage=\"sip_to_kernel\"} 1.5"));
    EXPECT_TRUE(has_line(text, "tessel_latency_seconds_bucket{stage=\"sip_to_kernel\",le=\"0.001\"} 4"));
    EXPECT_TRUE(has_line(text, "tessel_latency_seconds_bucket{stage=\"sip_to_kernel\",le=\"5\"} 9"));
    EXPECT_TRUE(has_line(text, "tessel_latency_seconds_bucket{stage=\"sip_to_kernel\",le=\"+Inf\"} 10"));
    EXPECT_NE(text.find("tessel_build_info{version=\"" + std::string(version()) + "\""), std::string::npos);
}

TEST(ConsoleMetrics, ConsoleEnding_NothingIsUp) {
    ControlPicture control;
    control.up = true;
    EXPECT_TRUE(has_line(metrics_text(some_picture(), control, true), "tessel_control_up 1"));
    const std::string text = metrics_text(some_picture(), control, false);
    EXPECT_TRUE(has_line(text, "tessel_up 0"));
    EXPECT_TRUE(has_line(text, "tessel_control_up 0"));
}

}  // namespace
}  // namespace tessel::console
