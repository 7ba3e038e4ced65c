#include "certify/traffic_kinds.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

std::string error_of(const std::string& kind, std::map<std::string, std::string> values) {
    TrafficSettings settings;
    std::string error;
    EXPECT_FALSE(read_traffic_settings({kind, std::move(values)}, settings, error));
    return error;
}

TEST(TrafficKinds, WhatIsLeftOut_HasItsDefault) {
    TrafficSettings settings;
    std::string error;
    ASSERT_TRUE(read_traffic_settings({"foreign_session", {}}, settings, error)) << error;
    EXPECT_EQ(number_of(settings, "every"), 1U);
    EXPECT_EQ(text_of(settings, "change"), "all");
    ASSERT_TRUE(read_traffic_settings({"retrans_silent", {}}, settings, error)) << error;
    EXPECT_EQ(number_of(settings, "requests"), 0U);
}

TEST(TrafficKinds, WhatIsGiven_IsRead) {
    TrafficSettings settings;
    std::string error;
    ASSERT_TRUE(read_traffic_settings({"malformed", {{"every", "3"}, {"how", "length"}}}, settings, error));
    EXPECT_EQ(settings.kind, TrafficKind::malformed);
    EXPECT_EQ(number_of(settings, "every"), 3U);
    EXPECT_EQ(text_of(settings, "how"), "length");
    ASSERT_TRUE(read_traffic_settings({"unknown_type", {{"from", "QM"}, {"to", "Z9"}}}, settings, error));
    EXPECT_EQ(text_of(settings, "to"), "Z9");
}

TEST(TrafficKinds, Mistakes_AreNamedWithWhatWouldBeRight) {
    EXPECT_EQ(error_of("forein_session", {}),
              "traffic: unknown kind 'forein_session'; did you mean 'foreign_session'?");
    EXPECT_EQ(error_of("empty", {{"evry", "3"}}), "traffic empty: unknown key 'evry'; did you mean 'every'?");
    EXPECT_EQ(error_of("empty", {{"every", "0"}}),
              "traffic empty: every: '0'; write a whole number, 1 to 1000000000");
    EXPECT_EQ(error_of("delay", {}),
              "traffic delay: ms: there is none; write a whole number, 1 to 1000000000");
    EXPECT_EQ(error_of("malformed", {{"how", "torn"}}),
              "traffic malformed: how: 'torn'; write one of cut count length header");
    EXPECT_EQ(
        error_of("unknown_type", {{"from", "QM"}}),
        "traffic unknown_type: to: there is none; write the two characters of a category and type, such "
        "as \"QM\"");
    EXPECT_EQ(error_of("unknown_type", {{"from", "Q"}, {"to", "ZZ"}}),
              "traffic unknown_type: from: 'Q'; write the two characters of a category and type, such as "
              "\"QM\"");
    EXPECT_NE(error_of("retrans_lossy", {{"every", "1"}}), "");  // nothing would ever come
}

TEST(TrafficKinds, ServicesAndChangesStandBetween_AdditionsDoNot) {
    EXPECT_FALSE(stands_between(TrafficKind::foreign_session));
    EXPECT_FALSE(stands_between(TrafficKind::late_heartbeat));
    EXPECT_TRUE(stands_between(TrafficKind::delay));
    EXPECT_TRUE(stands_between(TrafficKind::retrans_silent));
    EXPECT_TRUE(stands_between(TrafficKind::snapshot_half));
}

}  // namespace
}  // namespace tessel::certify
