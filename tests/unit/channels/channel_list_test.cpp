#include "channels/channel_list.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace tessel::channels {
namespace {

const Channel whole{"ch01",
                    "239.255.26.1",
                    26'000,
                    "127.0.0.1",
                    "TESSELCH01",
                    "127.0.0.1:26001",
                    "127.0.0.1:26002",
                    "127.0.0.1:26003",
                    7,
                    "ch01.toml",
                    {"AAPL", "MSFT"}};

std::string reason_for(std::string_view text, Needs needs) {
    ChannelList list;
    std::string error;
    EXPECT_FALSE(parse_channel_list(text, "list", needs, list, error)) << text;
    return error;
}

TEST(ChannelList, TextOfAList_IsReadAgain) {
    Channel second = whole;
    second.name = "ch02";
    second.seed = (std::uint64_t{1} << 53) - 1;
    second.symbols = {};
    const std::string text = channel_list_text({whole, second});
    ChannelList list;
    std::string error;
    ASSERT_TRUE(parse_channel_list(text, "list", Needs::addresses, list, error)) << error;
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(channel_list_text(list), text);
    EXPECT_EQ(list[0].port, 26'000);
    EXPECT_EQ(list[0].control, "127.0.0.1:26003");
    EXPECT_EQ(list[1].seed, second.seed);
    EXPECT_EQ(list[0].symbols, whole.symbols);
}

TEST(ChannelList, InvalidLists_AreRefusedWithAReason) {
    for (const Needs needs : {Needs::names, Needs::addresses}) {
        EXPECT_EQ(reason_for("{", needs), "list: not JSON: broken at byte 2");
        EXPECT_EQ(reason_for("[]", needs), "list: not a channel list of version 1");
        EXPECT_EQ(reason_for(R"({"channels":[{"name":"a"}]})", needs),
                  "list: not a channel list of version 1");
        EXPECT_EQ(reason_for(R"({"version":2,"channels":[{"name":"a"}]})", needs),
                  "list: not a channel list of version 1");
        EXPECT_EQ(reason_for(R"({"version":1})", needs), "list: no channels in the list");
        EXPECT_EQ(reason_for(R"({"version":1,"channels":[]})", needs), "list: no channels in the list");
        EXPECT_EQ(reason_for(R"({"version":1,"channels":[3]})", needs),
                  "list: channel 1 has no name that can be a file's");
        EXPECT_EQ(reason_for(std::string(100'000, '['), needs), "list: nested too deep");
    }
    for (const std::string_view name :
         {R"("")", R"("../x")", R"("a/b")", R"(".")", "7", "null", R"("a\u0000")"}) {
        EXPECT_EQ(
            reason_for(R"({"version":1,"channels":[{"name":)" + std::string(name) + "}]}", Needs::names),
            "list: channel 1 has no name that can be a file's");
    }
    EXPECT_EQ(reason_for(R"({"version":1,"channels":[{"name":"a"},{"name":"a"}]})", Needs::names),
              "list: channel 'a' is there twice");
}

TEST(ChannelList, NamesAlone_AreEnoughForWhoNeedsNoMore) {
    ChannelList list;
    std::string error;
    ASSERT_TRUE(parse_channel_list(R"({"version":1,"channels":[{"name":"b","port":"x"},{"name":"a"}]})",
                                   "list", Needs::names, list, error))
        << error;
    EXPECT_EQ(list[0].name, "b");
    EXPECT_EQ(list[1].name, "a");
}

TEST(ChannelList, BadAddresses_AreRefusedWithTheMember) {
    struct Case {
        Channel channel;
        const char* reason;
    };
    std::vector<Case> cases(9, {whole, ""});
    cases[0].channel.group = "10.0.0.1";
    cases[0].reason = "no 'group' that is an IPv4 multicast address";
    cases[1].channel.port = 0;
    cases[1].reason = "no 'port' from 1 to 65535";
    cases[2].channel.iface = "eth0";
    cases[2].reason = "no 'iface' that is an IPv4 address";
    cases[3].channel.session = "";
    cases[3].reason = "no 'session' of 1 to 10 printable characters";
    cases[4].channel.session = "12345678901";
    cases[4].reason = "no 'session' of 1 to 10 printable characters";
    cases[5].channel.retrans = "127.0.0.1";
    cases[5].reason = "no 'retrans' that is HOST:PORT";
    cases[6].channel.snapshot = ":1";
    cases[6].reason = "no 'snapshot' that is HOST:PORT";
    cases[7].channel.control = "h:65536";
    cases[7].reason = "no 'control' that is HOST:PORT";
    cases[8].channel.control = "h:";
    cases[8].reason = "no 'control' that is HOST:PORT";
    for (const Case& each : cases) {
        EXPECT_EQ(reason_for(channel_list_text({each.channel}), Needs::addresses),
                  std::string("list: channel 'ch01' has ") + each.reason);
    }
    EXPECT_EQ(reason_for(R"({"version":1,"channels":[{"name":"a","group":"239.1.1.1","port":70000}]})",
                         Needs::addresses),
              "list: channel 'a' has no 'port' from 1 to 65535");
}

TEST(ChannelList, ChannelOfASymbol_IsFound) {
    Channel second = whole;
    second.name = "ch02";
    second.symbols = {"TSLA"};
    const ChannelList list = {whole, second};
    EXPECT_EQ(channel_of_symbol(list, "TSLA"), &list[1]);
    EXPECT_EQ(channel_of_symbol(list, "MSFT"), &list[0]);
    EXPECT_EQ(channel_of_symbol(list, "TSL"), nullptr);
}

}  // namespace
}  // namespace tessel::channels
