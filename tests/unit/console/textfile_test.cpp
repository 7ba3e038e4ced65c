#include "console/textfile.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tessel::console {
namespace {

TEST(ConsoleTextfile, WrittenTwice_ReplacedAndNothingBesideIt) {
    const tessel::testing::TempFolder folder;
    const std::string directory = std::filesystem::path(folder.path("x")).parent_path();
    std::string error;
    ASSERT_TRUE(write_textfile(directory, "one\n", error)) << error;
    ASSERT_TRUE(write_textfile(directory, "two\n", error)) << error;
    EXPECT_EQ(tessel::testing::read_file(folder.path("tessel.prom")), "two\n");
    EXPECT_FALSE(std::filesystem::exists(folder.path("tessel.prom.tmp")));
}

TEST(ConsoleTextfile, NoSuchFolder_SaidWithItsName) {
    std::string error;
    EXPECT_FALSE(write_textfile("/nonexistent/folder", "text", error));
    EXPECT_EQ(error, "--textfile: '/nonexistent/folder/tessel.prom.tmp': No such file or directory");
}

TEST(ConsoleTextfile, NameTakenByAFolder_SaidAndNothingLeft) {
    const tessel::testing::TempFolder folder;
    const std::string directory = std::filesystem::path(folder.path("x")).parent_path();
    std::filesystem::create_directories(folder.path("tessel.prom/inside"));
    std::string error;
    EXPECT_FALSE(write_textfile(directory, "text", error));
    EXPECT_FALSE(std::filesystem::exists(folder.path("tessel.prom.tmp")));
}

}  // namespace
}  // namespace tessel::console
