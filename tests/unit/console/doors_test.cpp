#include "console/doors.h"

#include "support/console_site.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

namespace tessel::console {
namespace {

using nlohmann::json;
using testing::TestSite;

std::string header_of(const Reply& reply, const std::string& name) {
    for (const auto& [each, value] : reply.headers) {
        if (each == name) {
            return value;
        }
    }
    return "";
}

TEST(ConsoleDoors, EveryDoorWithoutToken_401ButHealth) {
    TestSite test;
    for (const char* path : {"/", "/api/state", "/api/instruments/AAPL", "/api/events", "/api/counters",
                             "/metrics", "/index.html", "/nothing"}) {
        Request request = test.request("GET", path);
        request.authorization = "";
        const Reply reply = test.ask(request);
        EXPECT_EQ(reply.status, 401) << path;
        EXPECT_EQ(header_of(reply, "WWW-Authenticate"), "Bearer");
    }
    Request command = test.request("POST", "/api/command");
    command.authorization = "Bearer wrong";
    command.body = R"({"command":"stop"})";
    EXPECT_EQ(test.ask(command).status, 401);
    EXPECT_TRUE(test.commands.empty());
    Request health = test.request("GET", "/healthz");
    health.authorization = "";
    EXPECT_EQ(test.ask(health).status, 200);
}

TEST(ConsoleDoors, TokenInEveryPlace_LetsIn) {
    TestSite test;
    Request bare = test.request("GET", "/api/state");
    bare.authorization = "";
    Request query = bare;
    query.query = {{"token", test.site.rules.token}};
    EXPECT_EQ(test.ask(query).status, 200);
    Request cookie = bare;
    cookie.cookies = cookie_name(test.site.rules) + "=" + test.site.rules.token;
    EXPECT_EQ(test.ask(cookie).status, 200);
    cookie.cookies = cookie_name(test.site.rules) + "=" + test.site.rules.token + "x";
    EXPECT_EQ(test.ask(cookie).status, 401);
    query.query = {{"token", ""}};
    EXPECT_EQ(test.ask(query).status, 401);
}

TEST(ConsoleDoors, PageAskedWithToken_SetsStrictCookie) {
    TestSite test;
    const Reply page = test.ask(test.request("GET", "/", {{"token", test.site.rules.token}}));
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.content_type, "text/html; charset=utf-8");
    EXPECT_EQ(header_of(page, "Set-Cookie"), cookie_name(test.site.rules) + "=" + test.site.rules.token +
                                                 "; Path=/; HttpOnly; SameSite=Strict");
    EXPECT_EQ(header_of(test.ask(test.request("GET", "/")), "Set-Cookie"), "");
}

TEST(ConsoleDoors, ForeignHostOrOrigin_403EvenWithToken) {
    TestSite test;
    for (const char* path : {"/", "/api/state", "/healthz", "/metrics", "/nothing"}) {
        Request request = test.request("GET", path);
        request.host = "evil.example:8080";
        EXPECT_EQ(test.ask(request).status, 403) << path;
        request.host = std::nullopt;
        EXPECT_EQ(test.ask(request).status, 403) << path;
        request = test.request("GET", path);
        request.origin = "http://evil.example";
        EXPECT_EQ(test.ask(request).status, 403) << path;
        request.origin = "null";
        EXPECT_EQ(test.ask(request).status, 403) << path;
    }
    Request own = test.request("GET", "/api/state");
    own.origin = "http://127.0.0.1:8080";
    EXPECT_EQ(test.ask(own).status, 200);
}

TEST(ConsoleDoors, Metrics_OpenOnlyWhenAsked) {
    TestSite test;
    Request request = test.request("GET", "/metrics");
    request.authorization = "";
    EXPECT_EQ(test.ask(request).status, 401);
    test.site.rules.metrics_open = true;
    const Reply reply = test.ask(request);
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.body.find("tessel_up 1\n"), std::string::npos);
}

TEST(ConsoleDoors, OtherMethodsAndPaths_405And404) {
    TestSite test;
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "", "get"}) {
        const Reply reply = test.ask(test.request(method, "/api/state"));
        EXPECT_EQ(reply.status, 405) << method;
        EXPECT_EQ(header_of(reply, "Allow"), "GET, HEAD");
    }
    EXPECT_EQ(test.ask(test.request("HEAD", "/api/state")).status, 200);
    EXPECT_EQ(test.ask(test.request("HEAD", "/api/events")).status, 405);
    EXPECT_EQ(test.ask(test.request("GET", "/api/command")).status, 405);
    for (const char* path : {"/nothing", "", "//", "/../index.html", "/api", "/api/state/",
                             "/api/instruments", "/api/instruments/", "index.html", "/API/STATE"}) {
        EXPECT_EQ(test.ask(test.request("GET", path)).status, 404) << path;
    }
}

TEST(ConsoleDoors, State_HasEveryMember) {
    TestSite test;
    const Reply reply = test.ask(test.request("GET", "/api/state", {{"limit", "2"}}));
    ASSERT_EQ(reply.status, 200);
    const json state = json::parse(reply.body);
    EXPECT_EQ(state["feed"]["up"], true);
    EXPECT_EQ(state["feed"]["session"], "UTPBENCH01");
    EXPECT_EQ(state["counters"].size(), 24u);
    EXPECT_EQ(state["total"], 3);
    ASSERT_EQ(state["instruments"].size(), 2u);
    const json& row = state["instruments"][0];
    EXPECT_EQ(row["symbol"], "AAPL");
    EXPECT_EQ(row["status"], "T");
    EXPECT_EQ(row["band"], json::parse("[180.5,199.5]"));
    EXPECT_NEAR(row["bid"].get<double>(), 190.0, 1.0);
    EXPECT_EQ(test.ask(test.request("GET", "/api/state", {{"limit", "x"}})).status, 400);
}

TEST(ConsoleDoors, Instrument_QuotesTradesAndHalts) {
    TestSite test;
    const Reply reply = test.ask(test.request("GET", "/api/instruments/MSFT"));
    ASSERT_EQ(reply.status, 200);
    const json document = json::parse(reply.body);
    EXPECT_EQ(document["symbol"], "MSFT");
    EXPECT_EQ(document["quotes"].size(), 7u);
    EXPECT_FALSE(document["trades"].empty());
    EXPECT_TRUE(document["halts"].empty());
    EXPECT_EQ(test.ask(test.request("GET", "/api/instruments/msft")).status, 404);
    EXPECT_EQ(test.ask(test.request("GET", "/api/instruments/" + std::string(5000, 'A'))).status, 404);
}

TEST(ConsoleDoors, ReceiverGone_InstrumentIs503) {
    TestSite test;
    test.stop = true;
    test.receiver.join();
    stop_board(test.board);
    EXPECT_EQ(test.ask(test.request("GET", "/api/instruments/AAPL")).status, 503);
    test.receiver = std::thread([] {});
}

TEST(ConsoleDoors, Command_ReachesTheFeedAndIsMarked) {
    TestSite test;
    const Reply reply = test.command(R"({"command":"halt AAPL"})");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(json::parse(reply.body), json::parse(R"({"ok":true,"reply":"ok done"})"));
    EXPECT_EQ(test.command(R"({"command":"stats","to":"relay"})").status, 200);
    ASSERT_EQ(test.commands.size(), 2u);
    EXPECT_EQ(test.commands[0], "halt AAPL");
    EXPECT_EQ(test.commands[1], "relay: stats");
    ASSERT_EQ(latest_marks(test.board).size(), 1u);
    EXPECT_EQ(latest_marks(test.board)[0].text, "halt AAPL");
}

TEST(ConsoleDoors, CommandRefusedByTheFeed_OkIsFalseAndNothingMarked) {
    TestSite test;
    test.answer = {true, false, "err unknown symbol"};
    const Reply reply = test.command(R"({"command":"halt NONE"})");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(json::parse(reply.body), json::parse(R"({"ok":false,"reply":"err unknown symbol"})"));
    EXPECT_TRUE(latest_marks(test.board).empty());
}

TEST(ConsoleDoors, FeedSilent_502) {
    TestSite test;
    test.answer = {false, false, "nobody answers"};
    EXPECT_EQ(test.command(R"({"command":"pause"})").status, 502);
}

TEST(ConsoleDoors, WrongBodies_400AndNothingSent) {
    TestSite test;
    for (const char* body :
         {"", "null", "[]", "{}", "\"halt\"", "{\"command\":1}", "{\"command\":\"\"}", "{\"command\":\"  \"}",
          "{\"command\":\"halt\\nAAPL\"}", "{\"command\":\"a\\u0000\"}", "{\"command\":\"a\\u007f\"}",
          "{\"command\":\"a\\u0085\"}", "{\"command\":\"a\"", "{\"command\":\"a\"}x",
          "{\"command\":\"a\",\"more\":1}", "{\"command\":\"a\",\"to\":\"moon\"}", "{\"Command\":\"a\"}",
          "{\"command\":\"\xff\"}"}) {
        EXPECT_EQ(test.command(body).status, 400) << body;
    }
    EXPECT_EQ(test.command("{\"command\":\"" + std::string(512, 'a') + "\"}").status, 400);
    EXPECT_TRUE(test.commands.empty());
    EXPECT_EQ(test.command("{\"command\":\"" + std::string(511, 'a') + "\"}").status, 200);
}

TEST(ConsoleDoors, ReadOnly_EveryCommandIs403) {
    TestSite test;
    test.site.read_only = true;
    EXPECT_EQ(test.command(R"({"command":"stats"})").status, 403);
    EXPECT_EQ(test.command("nothing").status, 403);
    EXPECT_TRUE(test.commands.empty());
}

TEST(ConsoleDoors, SeventeenthStream_503UntilOneEnds) {
    TestSite test;
    for (int at = 0; at < streams_max; ++at) {
        EXPECT_TRUE(test.ask(test.request("GET", "/api/events")).stream.has_value());
    }
    const Reply refused = test.ask(test.request("GET", "/api/events"));
    EXPECT_EQ(refused.status, 503);
    EXPECT_FALSE(refused.stream.has_value());
    EXPECT_EQ(test.ask(test.request("GET", "/api/state")).status, 200);
    test.site.streams.fetch_sub(1);
    EXPECT_TRUE(test.ask(test.request("GET", "/api/events")).stream.has_value());
    test.site.streams = 0;
    EXPECT_EQ(test.ask(test.request("GET", "/api/events", {{"sort", "x"}})).status, 400);
    EXPECT_EQ(test.ask(test.request("GET", "/api/events", {{"backlog", "x"}})).status, 400);
    EXPECT_EQ(test.ask(test.request("GET", "/api/events", {{"symbol", std::string(65, 'A')}})).status, 400);
    EXPECT_EQ(test.site.streams, 0);
}

TEST(ConsoleDoors, StreamStep_StateMarketAndInstrument) {
    TestSite test;
    Reply reply = test.ask(test.request("GET", "/api/events", {{"symbol", "AAPL"}, {"backlog", "2"}}));
    ASSERT_TRUE(reply.stream.has_value());
    const std::string text = stream_text(test.site, *reply.stream);
    EXPECT_EQ(text.find("event: market\ndata: {\"kind\":\"band\",\"symbol\":\"MSFT\""), 0u) << text;
    EXPECT_NE(text.find("\n\nevent: instrument\ndata: {\"symbol\":\"AAPL\""), std::string::npos);
    EXPECT_NE(text.find("\n\nevent: state\ndata: {\"feed\""), std::string::npos);
    EXPECT_TRUE(text.ends_with("}\n\n"));
    EXPECT_EQ(stream_text(test.site, *reply.stream).find("event: market"), std::string::npos);
    reply.stream->symbol = "NONE";
    EXPECT_NE(stream_text(test.site, *reply.stream).find("event: instrument\ndata: null\n\n"),
              std::string::npos);
    test.site.streams = 0;
}

TEST(ConsoleDoors, MoreEventsThanAStepSends_SkippedSaysHowMany) {
    TestSite test;
    StreamPlan plan;
    plan.next_event = events_end(test.board);
    std::vector<MarketEvent> events(250);
    add_events(test.board, events);
    EXPECT_EQ(stream_text(test.site, plan).find("event: skipped\ndata: {\"count\":50}\n\nevent: market"), 0u);
}

TEST(ConsoleDoors, HostileTexts_StayInsideTheirJson) {
    TestSite test({.symbols = "A<b>\":1,\x80\xff:2,</script>:3"});
    const Reply state = test.ask(test.request("GET", "/api/state"));
    EXPECT_EQ(json::parse(state.body)["total"], 3);
    EXPECT_EQ(state.body.find('\n'), std::string::npos);
    EXPECT_EQ(test.ask(test.request("GET", "/api/instruments/A<b>\"")).status, 200);
    EXPECT_EQ(test.ask(test.request("GET", "/api/instruments/\x80\xff")).status, 200);
    EXPECT_EQ(test.ask(test.request("GET", "/api/instruments/</script>")).status, 200);
    add_mark(test.board, {1, "command", "mark \xff<script>\n\nevent: x"});
    StreamPlan plan;
    plan.next_event = events_end(test.board);
    const std::string text = stream_text(test.site, plan);
    EXPECT_EQ(text.find("\n\nevent: x"), std::string::npos);
}

TEST(ConsoleDoors, EveryReply_SameSecurityHeaders) {
    std::string all;
    for (const auto& [name, value] : common_headers()) {
        all += name + ": " + value + "\n";
        EXPECT_EQ(name.find("Access-Control"), std::string::npos);
    }
    EXPECT_NE(all.find("Content-Security-Policy: default-src 'self'"), std::string::npos);
    EXPECT_NE(all.find("X-Content-Type-Options: nosniff"), std::string::npos);
}

}  // namespace
}  // namespace tessel::console
