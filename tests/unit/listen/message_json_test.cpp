#include "listen/message_json.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

namespace tessel::listen {
namespace {

using namespace receiver::hand_made;

TEST(ListenMessageJson, Trade_ByName) {
    Message message;
    ASSERT_TRUE(decode(message, trade_short('D', 'N', 5, 19001, 200, "@   ")));
    std::string line;
    append_message_json(line, message, 42);
    EXPECT_EQ(
        line,
        R"({"seq":42,"kind":"trade_short","version":"1","category":"T","type":"M","market_center":"D",)"
        R"("sub_market_center":"N","sip_time_ns":1,"participant_time_ns":2,"participant_token":3,)"
        R"("trf_time_ns":2,"symbol":"AAPL","id":5,"price":190010000,"size":200000000,"conditions":"@   ",)"
        R"("trade_through_exempt":" ","consolidated_change":"7","participant_change":"7"})"
        "\n");
}

TEST(ListenMessageJson, EveryKind_IsOneLineWithItsKind_AndOddBytesAreEscaped) {
    for (const auto& [kind, data] : one_of_each()) {
        Message message;
        ASSERT_TRUE(decode(message, data));
        std::string line;
        append_message_json(line, message, 1);
        EXPECT_NE(line.find(std::string("\"kind\":\"") + kind_name(kind)), std::string::npos);
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
    const std::string odd = trading_action("A\"\x01\xff", 'H', 1, "T1");
    Message message;
    ASSERT_TRUE(decode(message, odd));
    std::string line;
    append_message_json(line, message, 1);
    EXPECT_NE(line.find(R"("symbol":"A\"\u0001\u00ff")"), std::string::npos) << line;
}

TEST(ListenMessageJson, UndecodedMessage_IsShownAsBytes) {
    std::string line;
    append_undecoded_json(line, raw("1X"), 2, 9, "no \"such\" thing");
    EXPECT_EQ(line,
              "{\"seq\":9,\"kind\":\"unknown\",\"error\":\"no \\\"such\\\" thing\",\"bytes\":\"3158\"}\n");
}

}  // namespace
}  // namespace tessel::listen
