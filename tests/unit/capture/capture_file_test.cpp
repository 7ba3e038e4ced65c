#include "capture/capture_file.h"

#include "support/test_market.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::capture {
namespace {

using testing::read_file;
using testing::TempFolder;

std::uint32_t little32(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t byte = 4; byte-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes[at + byte]);
    }
    return value;
}

TEST(CaptureFile, NewFile_IsClassicPcapWithNanoseconds) {
    const TempFolder folder;
    CaptureFile capture;
    std::string error;
    ASSERT_TRUE(open_capture(capture, folder.path("a.pcap"), error)) << error;
    const unsigned char frame[] = {1, 2, 3};
    write_frame(capture, 1'767'623'400'000'000'123, frame);
    EXPECT_EQ(capture.frames, 1u);
    ASSERT_TRUE(close_capture(capture, error)) << error;
    const std::string bytes = read_file(folder.path("a.pcap"));
    ASSERT_EQ(bytes.size(), 24u + 16 + 3);
    EXPECT_EQ(capture.bytes, bytes.size());
    EXPECT_EQ(little32(bytes, 0), 0xa1b23c4du);
    EXPECT_EQ(little32(bytes, 20), 1u) << "Ethernet";
    EXPECT_EQ(little32(bytes, 24), 1'767'623'400u);
    EXPECT_EQ(little32(bytes, 28), 123u);
    EXPECT_EQ(little32(bytes, 32), 3u);
    EXPECT_EQ(little32(bytes, 36), 3u);
}

TEST(CaptureFile, Stamps_AlwaysRise) {
    CaptureFile capture;
    std::string error;
    ASSERT_TRUE(open_capture(capture, "", error));
    const unsigned char frame[] = {1};
    write_frame(capture, 5'000, frame);
    write_frame(capture, 5'000, frame);
    EXPECT_EQ(capture.last_ns, 5'100u);
    write_frame(capture, 5'150, frame);
    EXPECT_EQ(capture.last_ns, 5'200u);
    write_frame(capture, 9'000, frame);
    EXPECT_EQ(capture.last_ns, 9'000u);
    EXPECT_EQ(capture.bytes, 24u + 4 * 17) << "counted without a file, too";
}

TEST(CaptureFile, Failures_NameTheFile) {
    CaptureFile capture;
    std::string error;
    EXPECT_FALSE(open_capture(capture, "/nonexistent/a.pcap", error));
    EXPECT_EQ(error, "/nonexistent/a.pcap: No such file or directory");
    CaptureFile full;
    ASSERT_TRUE(open_capture(full, "/dev/full", error));
    EXPECT_FALSE(close_capture(full, error));
    EXPECT_EQ(error, "/dev/full: No space left on device");
}

}  // namespace
}  // namespace tessel::capture
