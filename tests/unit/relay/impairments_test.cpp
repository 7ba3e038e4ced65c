#include "relay/impairments.h"

#include <gtest/gtest.h>

namespace tessel::relay {
namespace {

Impairments set(std::initializer_list<const char*> assignments) {
    Impairments impairments;
    for (const char* assignment : assignments) {
        std::string error;
        EXPECT_TRUE(set_impairment(impairments, assignment, true, error)) << assignment << ": " << error;
    }
    return impairments;
}

std::string error_of(const char* assignment) {
    Impairments impairments = set({"drop=3%", "delay=5ms"});
    std::string error;
    EXPECT_FALSE(set_impairment(impairments, assignment, true, error)) << assignment;
    EXPECT_EQ(impairments.drop, 0.03) << "nothing changes";
    EXPECT_EQ(impairments.delays.size(), 1u);
    return error;
}

TEST(Impairments, EveryKey_IsReadWithItsUnits) {
    const Impairments i = set({"drop=1.5%", "burst=0.5%:20%", "every=100", "seq=500-510+900", "dup=2%",
                               "reorder=3%:4", "rate=2.5Gbit", "queue=17", "bits=0.1%", "truncate=4%",
                               "foreign=5%", "dark=10s..12s", "payload=1400"});
    EXPECT_DOUBLE_EQ(i.drop, 0.015);
    EXPECT_DOUBLE_EQ(i.burst_begin, 0.005);
    EXPECT_DOUBLE_EQ(i.burst_end, 0.2);
    EXPECT_EQ(i.every, 100u);
    EXPECT_EQ(i.sequences, (std::vector<std::pair<std::uint64_t, std::uint64_t>>{{500, 510}, {900, 900}}));
    EXPECT_DOUBLE_EQ(i.duplicate, 0.02);
    EXPECT_DOUBLE_EQ(i.reorder, 0.03);
    EXPECT_EQ(i.reorder_distance, 4u);
    EXPECT_DOUBLE_EQ(i.rate_bits, 2.5e9);
    EXPECT_EQ(i.queue_packets, 17u);
    EXPECT_DOUBLE_EQ(i.flip_bit, 0.001);
    EXPECT_DOUBLE_EQ(i.truncate, 0.04);
    EXPECT_DOUBLE_EQ(i.foreign, 0.05);
    EXPECT_EQ(i.dark_begin_ns, 10'000'000'000);
    EXPECT_EQ(i.dark_end_ns, 12'000'000'000);
    EXPECT_EQ(i.payload_bytes_max, 1400u);
}

TEST(Impairments, Delays_HaveFourForms_AndAddUp) {
    const Impairments i =
        set({"delay=200us..2ms", "delay=1.5ms", "delay=normal:5ms:1ms", "delay=spike:1%:50ms"});
    ASSERT_EQ(i.delays.size(), 4u);
    EXPECT_EQ(i.delays[0].kind, DelayKind::uniform);
    EXPECT_EQ(i.delays[0].first_ns, 200'000);
    EXPECT_EQ(i.delays[0].second_ns, 2'000'000);
    EXPECT_EQ(i.delays[1].kind, DelayKind::fixed);
    EXPECT_EQ(i.delays[1].first_ns, 1'500'000);
    EXPECT_EQ(i.delays[2].kind, DelayKind::normal);
    EXPECT_EQ(i.delays[2].second_ns, 1'000'000);
    EXPECT_EQ(i.delays[3].kind, DelayKind::spike);
    EXPECT_DOUBLE_EQ(i.delays[3].chance, 0.01);
    EXPECT_EQ(i.delays[3].first_ns, 50'000'000);
}

TEST(Impairments, DelaySetAgain_ReplacesOrAdds_AndZeroTakesItAway) {
    Impairments i = set({"delay=1ms", "delay=2ms"});
    std::string error;
    ASSERT_TRUE(set_impairment(i, "delay=3ms", false, error));
    ASSERT_EQ(i.delays.size(), 1u);
    EXPECT_EQ(i.delays[0].first_ns, 3'000'000);
    ASSERT_TRUE(set_impairment(i, "delay=0", false, error));
    EXPECT_TRUE(is_clean(i));
}

TEST(Impairments, Zeroes_AreClean) {
    EXPECT_TRUE(is_clean(Impairments{}));
    EXPECT_TRUE(is_clean(set({"drop=0%", "burst=0%", "every=0", "seq=0", "dup=0%", "reorder=0%", "rate=0",
                              "bits=0%", "dark=0", "payload=0"})));
    for (const char* one :
         {"drop=1%", "burst=1%:1%", "every=2", "seq=1", "dup=1%", "reorder=1%", "delay=1us", "rate=1Mbit",
          "bits=1%", "truncate=1%", "foreign=1%", "dark=0..1s", "payload=1400"}) {
        EXPECT_FALSE(is_clean(set({one}))) << one;
    }
}

TEST(Impairments, WrongValues_AreRefusedByNameWithWhatWouldBeRight) {
    EXPECT_EQ(error_of("drop=5"), "drop: '5' is no percentage: write 0% to 100%");
    EXPECT_EQ(error_of("drop=101%"), "drop: '101%' is no percentage: write 0% to 100%");
    EXPECT_EQ(error_of("drop=-1%"), "drop: '-1%' is no percentage: write 0% to 100%");
    EXPECT_EQ(error_of("drop=nan%"), "drop: 'nan%' is no percentage: write 0% to 100%");
    EXPECT_EQ(error_of("burst=5%"), "burst: '5%': write P%:R%, the chances to go bad and to recover");
    EXPECT_EQ(error_of("every=x"), "every: 'x' is no whole number from 0 to 18446744073709551615");
    EXPECT_EQ(error_of("seq=9-3"), "seq: '9-3' ends before it begins: write A-B");
    EXPECT_EQ(error_of("reorder=1%:0"), "reorder: '0' is no whole number from 1 to 10000");
    EXPECT_EQ(error_of("delay=normal:5ms"), "delay: 'normal:5ms': write normal:MEAN:DEVIATION");
    EXPECT_EQ(error_of("delay=2ms..1ms"), "delay: '2ms..1ms' ends before it begins");
    EXPECT_EQ(error_of("rate=100"), "rate: '100' is no rate: write 100Mbit, 512kbit or 2.5Gbit");
    EXPECT_EQ(error_of("queue=0"), "queue: '0' is no whole number from 1 to 1000000");
    EXPECT_EQ(error_of("payload=10"), "payload: '10' is no whole number from 200 to 65507");
    EXPECT_EQ(error_of("dorp=1%"), "unknown key 'dorp'; did you mean 'drop'?");
    EXPECT_EQ(error_of("drop"), "'drop' is not KEY=VALUE");
}

}  // namespace
}  // namespace tessel::relay
