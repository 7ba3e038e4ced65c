#include "listen/ip_fragments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace tessel::listen {
namespace {

using Body = std::vector<unsigned char>;

constexpr std::int64_t second = 1'000'000'000;

Body add(FragmentTable& table, std::uint16_t id, std::size_t offset, bool more, const Body& bytes,
         std::int64_t time_ns = 0) {
    return add_fragment(table, {1, 2, id, 17}, time_ns, offset, more, bytes.data(), bytes.size());
}

TEST(IpFragments, AnyOrderWithRepeatsAndOverlaps_GivesTheBody_Seed4) {
    std::mt19937 draw(4);
    Body body(4000);
    std::generate(body.begin(), body.end(), [&] { return static_cast<unsigned char>(draw()); });
    for (int round = 0; round < 200; ++round) {
        std::vector<std::pair<std::size_t, std::size_t>> pieces;
        for (std::size_t at = 0; at < body.size();) {
            const std::size_t end = std::min(body.size(), at + 8 * (1 + draw() % 100));
            pieces.emplace_back(at, end);
            at = end - (end < body.size() && draw() % 3 == 0 && end - at > 8 ? 8 : 0);
        }
        pieces.push_back(pieces[draw() % pieces.size()]);
        std::shuffle(pieces.begin(), pieces.end(), draw);
        FragmentTable table;
        int completed = 0;
        for (const auto& [begin, end] : pieces) {
            const Body part(body.begin() + static_cast<std::ptrdiff_t>(begin),
                            body.begin() + static_cast<std::ptrdiff_t>(end));
            const Body got = add(table, 9, begin, end < body.size(), part);
            if (!got.empty()) {
                EXPECT_EQ(got, body);
                ++completed;
            }
        }
        EXPECT_EQ(completed, 1) << round;
    }
}

TEST(IpFragments, TooManyPackets_TheOldestMakesRoom) {
    FragmentTable table;
    for (std::size_t id = 0; id <= fragmented_packets_max; ++id) {
        add(table, static_cast<std::uint16_t>(id), 0, true, Body(8, 'a'), static_cast<std::int64_t>(id));
    }
    EXPECT_EQ(table.packets.size(), fragmented_packets_max);
    EXPECT_EQ(table.never_completed, 1u);
    EXPECT_TRUE(add(table, 0, 8, false, Body(8, 'b')).empty()) << "its beginning is gone";
    EXPECT_FALSE(add(table, 5, 8, false, Body(8, 'b')).empty());
}

TEST(IpFragments, OldFragments_AreNotJoinedWithNewOnes) {
    FragmentTable table;
    add(table, 1, 0, true, Body(8, 'a'), 0);
    EXPECT_TRUE(add(table, 1, 8, false, Body(8, 'b'), 31 * second).empty());
    EXPECT_EQ(table.never_completed, 1u);
    abandon_fragments(table);
    EXPECT_EQ(table.never_completed, 2u);
}

TEST(IpFragments, WhatCannotBelongToAPacket_IsIgnored) {
    FragmentTable table;
    EXPECT_TRUE(add(table, 1, 0, true, {}).empty());
    EXPECT_TRUE(add(table, 1, 65'528, false, Body(8, 'a')).empty());
    EXPECT_TRUE(table.packets.empty());
}

}  // namespace
}  // namespace tessel::listen
