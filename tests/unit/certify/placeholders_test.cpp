#include "certify/placeholders.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

TEST(Placeholders, KnownNames_AreReplacedAndOthersStay) {
    const Values values = {{"group", "239.1.2.3"}, {"port", "5"}, {"late", ""}};
    EXPECT_EQ(fill_placeholders("a {group}:{port}{late} {other} {", values), "a 239.1.2.3:5 {other} {");
    EXPECT_EQ(fill_placeholders("awk '{print $1}' {{port}} {port", values), "awk '{print $1}' {5} {port");
    EXPECT_EQ(fill_placeholders("", values), "");
}

TEST(Placeholders, AValue_IsNotLookedIntoAgain) {
    EXPECT_EQ(fill_placeholders("{out}", {{"out", "{group}"}, {"group", "x"}}), "{group}");
}

TEST(Placeholders, Variables_AreTheSameInCapitals) {
    Endpoints endpoints;
    endpoints.group = "239.1.2.3";
    endpoints.port = 5;
    endpoints.session = "S";
    endpoints.retrans = "h:1";
    endpoints.snapshot = "h:2";
    const std::vector<std::string> expected = {
        "TESSEL_GROUP=239.1.2.3", "TESSEL_PORT=5",       "TESSEL_IFACE=127.0.0.1", "TESSEL_SESSION=S",
        "TESSEL_RETRANS=h:1",     "TESSEL_SNAPSHOT=h:2", "TESSEL_OUT=/o",          "TESSEL_CASE=a/b"};
    EXPECT_EQ(handler_environment(handler_values(endpoints, "/o"), "a/b"), expected);
}

}  // namespace
}  // namespace tessel::certify
