#include "base/clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace tessel {
namespace {

std::uint64_t system_now_ns() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

TEST(Clock, SimulatedWall_EachReadingMovesItByTheStep) {
    Clock clock;
    clock.simulated = true;
    clock.simulated_wall_ns = 1000;
    clock.wall_step_ns = 7;
    EXPECT_EQ(wall_ns(clock), 1000u);
    EXPECT_EQ(wall_ns(clock), 1007u);
    EXPECT_EQ(wall_ns(clock), 1014u);
}

TEST(Clock, SimulatedWallWithoutStep_StandsStill) {
    Clock clock;
    clock.simulated = true;
    clock.simulated_wall_ns = 5;
    EXPECT_EQ(wall_ns(clock), 5u);
    EXPECT_EQ(wall_ns(clock), 5u);
}

TEST(Clock, SimulatedSteady_OnlyTheTestMovesIt) {
    Clock clock;
    clock.simulated = true;
    clock.simulated_steady_ms = 250;
    EXPECT_EQ(steady_ms(clock), 250u);
    EXPECT_EQ(wall_ns(clock), 0u);
    EXPECT_EQ(steady_ms(clock), 250u);
    clock.simulated_steady_ms += 1000;
    EXPECT_EQ(steady_ms(clock), 1250u);
}

TEST(Clock, RealWall_IsNanosecondsOfTheSystemClock) {
    Clock clock;
    const std::uint64_t before = system_now_ns();
    const std::uint64_t read = wall_ns(clock);
    const std::uint64_t after = system_now_ns();
    EXPECT_LE(before, read);
    EXPECT_LE(read, after);
}

TEST(Clock, RealSteady_IsMillisecondsOfTheMonotonicClock) {
    const Clock clock;
    const auto now_ms = [] {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    };
    const std::uint64_t before = now_ms();
    const std::uint64_t read = steady_ms(clock);
    const std::uint64_t after = now_ms();
    EXPECT_LE(before, read);
    EXPECT_LE(read, after);
}

}  // namespace
}  // namespace tessel
