#include "console/api_json.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace tessel::console {
namespace {

using nlohmann::json;

// The state of a console with these rows, nothing else.
json state_of(std::vector<Row> rows, const StateView& more = {}) {
    Picture picture;
    picture.rows = std::make_shared<const std::vector<Row>>(std::move(rows));
    const ControlPicture control;
    const std::vector<Mark> marks;
    StateView view = more;
    view.picture = &picture;
    view.control = &control;
    view.marks = &marks;
    return json::parse(state_json(view, StateQuery{}));
}

TEST(ConsoleApiJson, PricesAndVolume_DollarsAndShares) {
    Row row;
    row.symbol = "A";
    row.bid = 190'010'000;
    row.ask = -5'000;
    row.last = 1;
    row.volume = 1'500'000;
    const json whole = state_of({row})["instruments"][0];
    EXPECT_EQ(whole["bid"].dump(), "190.01");
    EXPECT_EQ(whole["ask"].dump(), "-0.005");
    EXPECT_EQ(whole["last"].get<double>(), 1e-6);
    EXPECT_EQ(whole["volume"].dump(), "1.5");
    EXPECT_TRUE(whole["band"].is_null());
    row.volume = 1'200'000'000;
    EXPECT_EQ(state_of({row})["instruments"][0]["volume"].dump(), "1200");
}

TEST(ConsoleApiJson, NothingHeardYet_ZerosAndNulls) {
    const json state = state_of({});
    EXPECT_EQ(state["feed"], json::parse(R"({"up":false,"session":"","next_seq":0,"runs":1})"));
    EXPECT_TRUE(state["latency"].is_null());
    EXPECT_TRUE(state["relay"].is_null());
    EXPECT_EQ(state["counters"]["quotes"], 0);
    EXPECT_EQ(state["total"], 0);
}

TEST(ConsoleApiJson, RelayAsked_ItsStateAndLines) {
    StateView view;
    view.has_relay = true;
    EXPECT_EQ(state_of({}, view)["relay"], json::parse(R"({"up":false,"lines":[]})"));
}

TEST(ConsoleApiJson, Event_OnlyTheMembersThatApply) {
    MarketEvent event;
    event.kind = EventKind::halt;
    event.symbol = "AAPL";
    event.sequence = 7;
    event.sip_ns = 1'500'000'000;
    event.action = 'H';
    event.reason = "T1";
    EXPECT_EQ(event_json(event),
              R"({"kind":"halt","symbol":"AAPL","seq":7,"time":1.5,"action":"H","reason":"T1"})");
    event = {};
    event.kind = EventKind::wipeout;
    event.center = 'Q';
    EXPECT_EQ(event_json(event), R"({"kind":"wipeout","symbol":"","seq":0,"time":0.0,"center":"Q"})");
    event = {};
    event.kind = EventKind::mwcb;
    event.level = '2';
    EXPECT_EQ(event_json(event), R"({"kind":"mwcb","symbol":"","seq":0,"time":0.0,"level":"2"})");
}

TEST(ConsoleApiJson, TextsThatAreNoUtf8_Replaced) {
    EXPECT_EQ(json::parse(error_json("a\xff"))["error"], "a\xef\xbf\xbd");
    CommandAnswer answer{true, false, "err '\xc3('"};
    EXPECT_FALSE(json::parse(reply_json(answer))["reply"].get<std::string>().empty());
}

TEST(ConsoleApiJson, Commands_ReadOnlyInTheirForm) {
    CommandRequest request;
    std::string error;
    ASSERT_TRUE(parse_command(R"({"command":" halt AAPL "})", request, error));
    EXPECT_EQ(request.command, " halt AAPL ");
    EXPECT_EQ(request.target, CommandTarget::feed);
    ASSERT_TRUE(parse_command(R"({"to":"relay","command":"stats"})", request, error));
    EXPECT_EQ(request.target, CommandTarget::relay);
    EXPECT_FALSE(parse_command(std::string(4000, '['), request, error));
    EXPECT_FALSE(parse_command(R"({"to":"feed"})", request = {}, error));
    EXPECT_NE(error.find("no command"), std::string::npos);
}

}  // namespace
}  // namespace tessel::console
