#include "files/zstd_file.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <random>
#include <string>

namespace tessel::files {
namespace {

using testing::read_file;
using testing::TempFolder;

bool write_to(const std::string& path, const std::string& text) {
    std::string error;
    std::FILE* const file = open_for_writing(path, error);
    EXPECT_NE(file, nullptr) << error;
    EXPECT_EQ(std::fwrite(text.data(), 1, text.size(), file), text.size());
    return std::fclose(file) == 0;
}

// Everything until the end or a fault, whose number goes to `fault`.
std::string read_from(const std::string& path, int& fault) {
    std::string error;
    std::FILE* const file = open_for_reading(path, error);
    EXPECT_NE(file, nullptr) << error;
    std::string text;
    char block[1000];
    errno = 0;
    for (std::size_t got = 0; (got = std::fread(block, 1, sizeof block, file)) > 0;) {
        text.append(block, got);
    }
    fault = std::ferror(file) != 0 ? errno : 0;
    std::fclose(file);
    return text;
}

// Compresses to about a third.
std::string letters(std::size_t count) {
    std::mt19937 draw(5);
    std::string text;
    while (text.size() < count) {
        text += static_cast<char>('a' + draw() % 8);
    }
    return text;
}

TEST(ZstdFile, NameDecidesOnWriting_ContentOnReading) {
    const TempFolder folder;
    const std::string text = letters(3'000'000);
    int fault = 0;
    for (const char* name : {"plain", "packed.zst"}) {
        ASSERT_TRUE(write_to(folder.path(name), text));
        EXPECT_EQ(read_from(folder.path(name), fault), text) << name;
        EXPECT_EQ(fault, 0);
    }
    EXPECT_EQ(read_file(folder.path("plain")), text);
    const std::string packed = read_file(folder.path("packed.zst"));
    EXPECT_LT(packed.size(), text.size() / 2);
    std::ofstream(folder.path("other name"), std::ios::binary) << packed << packed;
    EXPECT_EQ(read_from(folder.path("other name"), fault), text + text) << "two frames";
}

TEST(ZstdFile, ShortFiles_AreReadAsTheyAre) {
    const TempFolder folder;
    int fault = 0;
    for (const std::string text : {"", "a", "abc", "\x28\xb5"}) {
        std::ofstream(folder.path("short"), std::ios::binary) << text;
        EXPECT_EQ(read_from(folder.path("short"), fault), text);
        EXPECT_EQ(fault, 0);
    }
    ASSERT_TRUE(write_to(folder.path("empty.zst"), ""));
    EXPECT_EQ(read_from(folder.path("empty.zst"), fault), "");
    EXPECT_EQ(fault, 0);
}

TEST(ZstdFile, ExistingFile_IsReplaced) {
    const TempFolder folder;
    ASSERT_TRUE(write_to(folder.path("file"), "a longer text"));
    ASSERT_TRUE(write_to(folder.path("file"), "short"));
    EXPECT_EQ(read_file(folder.path("file")), "short");
}

TEST(ZstdFile, CutAndDamagedStreams_AreFaults) {
    const TempFolder folder;
    const std::string text = letters(100'000);
    ASSERT_TRUE(write_to(folder.path("whole.zst"), text));
    const std::string packed = read_file(folder.path("whole.zst"));
    int fault = 0;
    std::ofstream(folder.path("cut"), std::ios::binary) << packed.substr(0, packed.size() - 1);
    EXPECT_EQ(read_from(folder.path("cut"), fault).substr(0, 1000), text.substr(0, 1000));
    EXPECT_EQ(fault, EPIPE);
    std::string damaged = packed;
    damaged[damaged.size() / 2] ^= 1;
    std::ofstream(folder.path("damaged"), std::ios::binary) << damaged;
    read_from(folder.path("damaged"), fault);
    EXPECT_EQ(fault, EBADMSG);
}

TEST(ZstdFile, Failures_NameTheFile) {
    const TempFolder folder;
    std::string error;
    EXPECT_EQ(open_for_reading(folder.path("none"), error), nullptr);
    EXPECT_EQ(error, folder.path("none") + ": No such file or directory");
    EXPECT_EQ(open_for_writing(folder.path("none/file.zst"), error), nullptr);
    EXPECT_EQ(error, folder.path("none/file.zst") + ": No such file or directory");
    EXPECT_EQ(open_for_reading(folder.path(""), error), nullptr) << "a folder";
    EXPECT_EQ(error, folder.path("") + ": Is a directory");
}

TEST(ZstdFile, FullDisk_IsReportedAtTheLatestWhenClosed) {
    std::string error;
    for (const char* path : {"/dev/full"}) {
        std::FILE* const file = open_for_writing(path, error);
        ASSERT_NE(file, nullptr) << error;
        std::fputs("text", file);
        errno = 0;
        EXPECT_NE(std::fclose(file), 0);
        EXPECT_EQ(errno, ENOSPC);
    }
    const TempFolder folder;
    ASSERT_EQ(symlink("/dev/full", folder.path("full.zst").c_str()), 0);
    EXPECT_FALSE(write_to(folder.path("full.zst"), "text"));
}

}  // namespace
}  // namespace tessel::files
