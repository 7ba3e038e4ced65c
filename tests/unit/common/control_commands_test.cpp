#include "common/control_commands.h"

#include "app/control_channel.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::common {
namespace {

std::string refusal(std::string_view line) {
    std::string error;
    EXPECT_FALSE(check_control_command(line, error)) << line;
    return error;
}

void accepted(std::string_view line) {
    std::string error;
    EXPECT_TRUE(check_control_command(line, error)) << error;
}

TEST(ControlCommands, EveryCommandOfTheList_IsKnownToTheFeed) {
    tessel::testing::TestMarket market;
    std::int32_t interval_ms = 100;
    for (const ControlCommand& command : control_commands()) {
        const std::string line(command.word);
        const ControlReply reply = handle_command({&market.engine, &interval_ms}, line.data(), line.size());
        EXPECT_EQ(reply.text.find("unknown command"), std::string::npos) << reply.text;
        EXPECT_TRUE(command.usage.starts_with(command.word));
    }
}

TEST(ControlCommands, FormsThatTheFeedTakes_AreAccepted) {
    for (const char* line :
         {"pause", "resume", "resume AAPL", "drop", "drop 3", "rate -1", "trf -2", "mwcb 1", "stop",
          "rate 4294967295", "halt AAPL", "mark before-the-halt", "wipeout P", "  stats  "}) {
        accepted(line);
    }
}

TEST(ControlCommands, Slips_AreRefusedInWords) {
    EXPECT_EQ(refusal("hlat AAPL"), "unknown command 'hlat'; did you mean 'halt'?");
    EXPECT_EQ(refusal("frobnicate"), "unknown command 'frobnicate'");
    EXPECT_EQ(refusal(""), "unknown command ''");
    EXPECT_EQ(refusal("halt"), "'halt' needs an argument: write 'halt SYM'");
    EXPECT_EQ(refusal("drop three"), "'drop' takes a whole number of at most 32 bits, not 'three'");
    EXPECT_EQ(refusal("rate 4294967296"), "'rate' takes a whole number of at most 32 bits, not '4294967296'");
    EXPECT_EQ(refusal("pause AAPL"), "'pause' takes no argument, not 'AAPL'");
    EXPECT_EQ(refusal("halt AAPL MSFT"), "'halt' takes one argument at most, not 'MSFT' as well");
}

TEST(ControlCommands, LengthOfADatagram_IsTheLimit) {
    accepted("mark " + std::string(control_command_bytes_max - 5, 'x'));
    EXPECT_EQ(refusal("mark " + std::string(control_command_bytes_max - 4, 'x')),
              "a command of 512 bytes is too long: at most 511");
    EXPECT_EQ(refusal(std::string_view("halt A\0B", 8)), "a command holds no NUL byte");
}

}  // namespace
}  // namespace tessel::common
