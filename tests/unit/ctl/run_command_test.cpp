#include "ctl/run_command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel::ctl {
namespace {

TEST(RunCommand, ShellWords_KeepWhatTheyHold) {
    EXPECT_EQ(shell_word("AAPL:190.00,MSFT:410"), "AAPL:190.00,MSFT:410");
    EXPECT_EQ(shell_word(""), "''");
    EXPECT_EQ(shell_word("a b"), "'a b'");
    EXPECT_EQ(shell_word("it's $x"), "'it'\\''s $x'");
}

TEST(RunCommand, CommandLine_HasScenarioProgramAndOptions) {
    RunConfig config;
    std::vector<std::string> faults;
    ASSERT_TRUE(read_run_config("[feed]\nport = 1\nsession = \"A B\"\n[scenario]\nname = \"x y\"\n", "t", "",
                                config, faults));
    EXPECT_EQ(command_line(config, "/usr/bin/tessel"),
              "TESSEL_SCENARIO='name=x y' /usr/bin/tessel --port 1 --session 'A B'");
}

}  // namespace
}  // namespace tessel::ctl
