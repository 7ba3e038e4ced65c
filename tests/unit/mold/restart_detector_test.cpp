#include "mold/restart_detector.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tessel::receiver {
namespace {

using hand_made::packet;
using hand_made::raw;

std::string texts(std::uint64_t first, std::uint64_t end, const std::string& run = "") {
    std::vector<std::string> blocks;
    for (std::uint64_t i = first; i < end; ++i) {
        blocks.push_back(run + std::to_string(i));
    }
    return packet(first, blocks);
}

// A detector that has received [origin, next).
RestartDetector detector_of(std::uint64_t origin, std::uint64_t next) {
    RestartDetector detector;
    reset_detector(detector, origin);
    for (std::uint64_t i = origin; i < next; ++i) {
        const std::string text = std::to_string(i);
        remember_message(detector, i, raw(text), text.size());
    }
    return detector;
}

// Of a line that was received where reception began.
RestartSigns signs_reached() {
    RestartSigns signs;
    signs.reached = true;
    return signs;
}

TEST(RestartDetector, Fingerprint_DependsOnTheFirst16BytesAndTheLength) {
    const std::string text = "0123456789abcdefXYZ";
    const std::uint32_t whole = fingerprint_message(raw(text), 16);
    for (std::size_t at = 0; at < 16; ++at) {
        std::string other = text;
        other[at] ^= 1;
        EXPECT_NE(fingerprint_message(raw(other), 16), whole) << at;
    }
    EXPECT_NE(fingerprint_message(raw(text), 17), whole);
    EXPECT_NE(fingerprint_message(raw(text), 0), 0u);
}

TEST(RestartDetector, RepeatedPacket_IsTheSame_OneOtherByteIsDifferent) {
    const RestartDetector detector = detector_of(1, 100);
    const std::string same = texts(50, 60);
    EXPECT_EQ(compare_packet(detector, raw(same), 50, 60, 100), PacketMemory::same);
    std::string other = same;
    other.back() = 'x';
    EXPECT_EQ(compare_packet(detector, raw(other), 50, 60, 100), PacketMemory::different);
}

TEST(RestartDetector, NumbersThatWereNeverReceivedOrAreTooOld_AreUnknown) {
    const RestartDetector late = detector_of(100, 200);
    const std::string before = texts(90, 100, "new");
    EXPECT_EQ(compare_packet(late, raw(before), 90, 100, 200), PacketMemory::unknown);
    const std::uint64_t next = remembered_messages + 50;
    const RestartDetector full = detector_of(1, next);
    const std::string old = texts(1, 3, "new");
    EXPECT_EQ(compare_packet(full, raw(old), 1, 3, next), PacketMemory::unknown);
}

TEST(RestartDetector, OldestRememberedNumber_IsCompared_TheOneBeforeItIsNot) {
    const std::uint64_t next = remembered_messages + 50;
    const RestartDetector detector = detector_of(1, next);
    const std::string oldest = texts(50, 51, "new");
    EXPECT_EQ(compare_packet(detector, raw(oldest), 50, 51, next), PacketMemory::different);
    const std::string forgotten = texts(49, 50, "new");
    EXPECT_EQ(compare_packet(detector, raw(forgotten), 49, 50, next), PacketMemory::unknown);
}

TEST(RestartDetector, LostNumbers_AreNotCompared) {
    RestartDetector detector = detector_of(1, 100);
    forget_messages(detector, 50, 10);
    RestartSigns signs = signs_reached();
    const std::string other = texts(50, 60, "new");
    EXPECT_EQ(compare_packet(detector, raw(other), 50, 60, 100), PacketMemory::same);
    EXPECT_EQ(find_restart(detector, signs, raw(other), 50, 60, 100), 0u);
}

TEST(RestartDetector, SuspectsThatDoNotFollowEachOther_ProveNothing) {
    const RestartDetector detector = detector_of(1000, 1100);
    RestartSigns signs = signs_reached();
    const std::string first = texts(500, 510);
    const std::string apart = texts(700, 710);
    EXPECT_EQ(find_restart(detector, signs, raw(first), 500, 510, 1100), 0u);
    EXPECT_EQ(find_restart(detector, signs, raw(apart), 700, 710, 1100), 0u);
    const std::string following = texts(710, 720);
    EXPECT_EQ(find_restart(detector, signs, raw(following), 710, 720, 1100), 700u);
}

TEST(RestartDetector, SuspectBeforeADifferentPacket_BelongsToTheNewRun) {
    const RestartDetector detector = detector_of(1000, 1100);
    RestartSigns signs = signs_reached();
    const std::string unknown = texts(990, 1000, "new");
    const std::string different = texts(1000, 1010, "new");
    EXPECT_EQ(find_restart(detector, signs, raw(unknown), 990, 1000, 1100), 0u);
    EXPECT_EQ(find_restart(detector, signs, raw(different), 1000, 1010, 1100), 990u);
    EXPECT_EQ(find_restart(detector, signs, raw(different), 1000, 1010, 1100), 1000u);
}

TEST(RestartDetector, KnownPacketAfterASuspect_ClearsIt) {
    const RestartDetector detector = detector_of(1000, 1100);
    RestartSigns signs = signs_reached();
    const std::string suspect = texts(500, 510);
    const std::string known = texts(1050, 1060);
    const std::string following = texts(510, 520);
    EXPECT_EQ(find_restart(detector, signs, raw(suspect), 500, 510, 1100), 0u);
    EXPECT_EQ(find_restart(detector, signs, raw(known), 1050, 1060, 1100), 0u);
    EXPECT_EQ(find_restart(detector, signs, raw(following), 510, 520, 1100), 0u);
}

TEST(RestartDetector, NumberOne_IsAProofWhenMoreThanTheDistanceBelow) {
    const std::uint64_t next = 1 + restart_distance_min;
    const RestartDetector detector = detector_of(1000, next + 1);
    const std::string start = texts(1, 2);
    RestartSigns near = signs_reached();
    EXPECT_EQ(find_restart(detector, near, raw(start), 1, 2, next), 0u);
    RestartSigns far = signs_reached();
    EXPECT_EQ(find_restart(detector, far, raw(start), 1, 2, next + 1), 1u);
}

TEST(RestartDetector, NumberOneNearby_IsNoProofByItself) {
    const RestartDetector detector = detector_of(21, 40);
    RestartSigns signs = signs_reached();
    const std::string start = texts(1, 21);
    EXPECT_EQ(find_restart(detector, signs, raw(start), 1, 21, 40), 0u);
}

}  // namespace
}  // namespace tessel::receiver
