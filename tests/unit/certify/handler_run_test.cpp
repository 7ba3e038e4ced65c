#include "certify/handler_run.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

// Wait statuses as the kernel makes them: the exit status in the second byte, a signal in the first.
constexpr int exited(int status) {
    return status << 8;
}

TEST(HandlerEnd, ItsReason_NamesStatusOrSignal) {
    EXPECT_EQ(end_text(exited(3)), "handler ended with status 3");
    EXPECT_EQ(end_text(exited(0)), "handler ended with status 0");
    EXPECT_EQ(end_text(11), "handler was killed by signal 11");
    EXPECT_EQ(end_text(exited(139)), "handler was killed by signal 11");
    EXPECT_EQ(end_text(exited(200)), "handler ended with status 200");
    EXPECT_TRUE(is_not_supported(exited(127)));
    EXPECT_FALSE(is_not_supported(127));
}

TEST(HandlerEnd, ASignalThatWasNotSent_IsACrash) {
    EXPECT_TRUE(is_crash(11));
    EXPECT_TRUE(is_crash(exited(134)));
    for (const int status : {2, 15, 9, exited(130), exited(143), exited(0), exited(1)}) {
        EXPECT_FALSE(is_crash(status)) << status;
    }
}

}  // namespace
}  // namespace tessel::certify
