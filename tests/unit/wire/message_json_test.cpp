#include "wire/message_json.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

namespace tessel::layout {
namespace {

using namespace receiver::hand_made;
using receiver::MessageKind;

std::string json_of(const std::string& message, std::uint64_t sequence) {
    std::string line;
    append_message_json(line, raw(message), message.size(), sequence);
    return line;
}

TEST(MessageJson, Trade_ByName) {
    const std::string line = json_of(trade_short('D', 'N', 5, 19001, 200, "@   "), 42);
    EXPECT_EQ(
        line,
        R"({"seq":42,"kind":"trade_short","version":"1","category":"T","type":"M","market_center":"D",)"
        R"("sub_market_center":"N","sip_time_ns":1,"participant_time_ns":2,"participant_token":3,)"
        R"("trf_time_ns":2,"symbol":"AAPL","id":5,"price":190010000,"size":200000000,"conditions":"@   ",)"
        R"("trade_through_exempt":" ","consolidated_change":"7","participant_change":"7"})"
        "\n");
}

TEST(MessageJson, EveryKind_IsOneLineWithItsKind_AndOddBytesAreEscaped) {
    for (const auto& [kind, data] : one_of_each()) {
        const std::string line = json_of(data, 1);
        EXPECT_NE(line.find(std::string("\"kind\":\"") + kind_name(kind)), std::string::npos);
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
    const std::string odd = trading_action("A\"\x01\xff", 'H', 1, "T1");
    const std::string line = json_of(odd, 1);
    EXPECT_NE(line.find(R"("symbol":"A\"\u0001\u00ff")"), std::string::npos) << line;
}

TEST(MessageJson, UndecodedMessage_IsShownAsBytes) {
    std::string line;
    append_undecoded_json(line, raw("1X"), 2, 9, "no \"such\" thing");
    EXPECT_EQ(line,
              "{\"seq\":9,\"kind\":\"unknown\",\"error\":\"no \\\"such\\\" thing\",\"bytes\":\"3158\"}\n");
}

}  // namespace
}  // namespace tessel::layout
