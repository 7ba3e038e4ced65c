#include "certify/whole_file.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>

namespace tessel::certify {

namespace {

class WholeFile : public testing::Test {
protected:
    void SetUp() override {
        folder = testing::TempDir() + "/whole-" + std::to_string(::getpid());
        std::filesystem::create_directories(folder);
    }
    void TearDown() override {
        std::filesystem::remove_all(folder);
    }
    static std::string text_of(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::size_t files() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }
    std::string folder;
};

}  // namespace

TEST_F(WholeFile, File_IsReplacedAndNothingElseIsLeft) {
    std::string error;
    ASSERT_TRUE(write_whole_file(folder + "/a", "one", error)) << error;
    ASSERT_TRUE(write_whole_file(folder + "/a", "two", error)) << error;
    EXPECT_EQ(text_of(folder + "/a"), "two");
    EXPECT_EQ(files(), 1U);
}

TEST_F(WholeFile, SymbolicLink_StaysOne) {
    std::ofstream(folder + "/real") << "old";
    std::filesystem::create_symlink(folder + "/real", folder + "/link");
    std::string error;
    ASSERT_TRUE(write_whole_file(folder + "/link", "new", error)) << error;
    EXPECT_TRUE(std::filesystem::is_symlink(folder + "/link"));
    EXPECT_EQ(text_of(folder + "/real"), "new");
}

TEST_F(WholeFile, FolderThatIsMissing_IsAnErrorWithThePath) {
    std::string error;
    EXPECT_FALSE(write_whole_file(folder + "/none/a", "x", error));
    EXPECT_EQ(error, folder + "/none/a: No such file or directory");
    EXPECT_FALSE(write_whole_file(folder, "x", error));
    EXPECT_EQ(error, folder + ": Is a directory");
}

TEST_F(WholeFile, FullDevice_LeavesTheOldFile) {
    std::string error;
    EXPECT_FALSE(write_whole_file("/dev/full", "x", error));
    EXPECT_EQ(error, "/dev/full: No space left on device");
    ASSERT_TRUE(write_whole_file("/dev/null", "x", error)) << error;
    struct stat facts {};
    ASSERT_EQ(::stat("/dev/null", &facts), 0);
    EXPECT_TRUE(S_ISCHR(facts.st_mode));
}

}  // namespace tessel::certify
