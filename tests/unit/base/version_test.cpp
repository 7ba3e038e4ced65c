#include "base/version.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

namespace tessel {
namespace {

TEST(Version, ReadFromTheProgram_IsTheOneThatTheProjectDeclares) {
    std::ifstream file(TESSEL_SOURCE_DIR "/CMakeLists.txt");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::smatch found;
    ASSERT_TRUE(std::regex_search(text, found, std::regex(R"(project\(tessel VERSION ([0-9.]+) )")));
    EXPECT_EQ(version(), found[1].str());
}

TEST(Version, Commit_IsAHashOrUnknown) {
    const std::string text(commit());
    EXPECT_TRUE(std::regex_match(text, std::regex("[0-9a-f]{10,40}(-dirty)?|unknown"))) << text;
}

TEST(Version, LineOfAProgram_NamesItAndItsVersionAndCommit) {
    EXPECT_EQ(version_line("tessel-judge"),
              "tessel-judge " + std::string(version()) + " (" + std::string(commit()) + ")");
}

}  // namespace
}  // namespace tessel
