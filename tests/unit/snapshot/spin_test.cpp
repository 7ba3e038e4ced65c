#include "snapshot/spin.h"

#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/quotes.h"
#include "engine/wipe_out.h"
#include "support/test_market.h"
#include "unit/snapshot/spin_views.h"
#include "wire/admin_messages.h"
#include "wire/quote_messages.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tessel {
namespace {

using testing::Bytes;
using testing::get_text;
using testing::get_u32;
using testing::get_u64;
using testing::letters;
using testing::letters_of;
using testing::MarketOptions;
using testing::quote_of;
using testing::spin_of;
using testing::spin_time;
using testing::TestMarket;

struct Quiet {
    testing::StderrCapture log;
};

TEST(Spin, NoTickYet_IsTheStartOfDayState) {
    TestMarket market({.symbols = "A:10,B:20", .participants = "QD"});
    market.start_of_day();
    const std::vector<Bytes> messages = spin_of(market);
    EXPECT_EQ(letters_of(messages),
              (std::vector<std::string>{"CIE ", "COQ ", "COD ", "ABQ ", "AFQ ", "AVQ ", "ABQ ", "AFQ ",
                                        "AVQ ", "ACE ", "APE ", "APE ", "QDD ", "QDQ ", "QDD ", "QDQ "}));
    EXPECT_EQ(market.scenario.stats.snapshots, 1u);
}

TEST(Spin, RetainedMessages_AreByteForByteTheOnesPublished) {
    TestMarket market({.symbols = "A:10", .participants = "QD"});
    market.start_of_day();
    const std::vector<Bytes> messages = spin_of(market);
    EXPECT_EQ(messages.at(0), market.message(1));
    std::vector<Bytes> opens;
    for (const Bytes& message : market.messages(1, market.last())) {
        if (letters(message).substr(0, 2) == "CO") {
            opens.push_back(message);
        }
    }
    EXPECT_EQ(opens, (std::vector<Bytes>{messages.at(1), messages.at(2)}));
}

TEST(Spin, RebuiltMessages_CarryTheSpinTimeInBothStamps) {
    TestMarket market({.participants = "QND"});
    Quiet quiet;
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    luld_pause(market.engine, market.at(1), 0);
    const std::vector<Bytes> messages = spin_of(market);
    std::size_t rebuilt = 0;
    for (const Bytes& message : messages) {
        if (message.at(1) == 'C') {
            continue;
        }
        ++rebuilt;
        EXPECT_EQ(get_u64(message, 5), spin_time) << letters(message);
        EXPECT_EQ(get_u64(message, 13), spin_time) << letters(message);
        EXPECT_EQ(get_u64(message, 21), 0u);
        if (message.at(1) == 'Q') {
            EXPECT_EQ(get_u64(message, 29), message.at(3) == 'D' ? spin_time : 0) << "ADF time stamp";
        }
        if (letters(message) == "AHQ ") {
            EXPECT_EQ(get_u64(message, 45), spin_time) << "action time";
        }
        if (letters(message) == "APE ") {
            EXPECT_EQ(get_u64(message, 41), spin_time) << "effective time";
        }
    }
    EXPECT_EQ(rebuilt, 9u + 2 + 1 + 3 + 1 + 9);
}

TEST(Spin, HaltedInstrument_HasAnActionAndNoCollar_APausedOneHasBoth) {
    TestMarket market({.symbols = "A:10,B:190,C:30", .participants = "Q"});
    Quiet quiet;
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    luld_pause(market.engine, market.at(1), 0);
    const std::vector<Bytes> messages = spin_of(market);
    EXPECT_EQ(letters_of(messages),
              (std::vector<std::string>{"CIE ", "COQ ", "ABQ ", "AFQ ", "AVQ ", "ABQ ", "AFQ ",
                                        "AVQ ", "ABQ ", "AFQ ", "AVQ ", "AHQ ", "AHQ ", "ACE ",
                                        "APE ", "APE ", "APE ", "AEQ ", "QDQ ", "QDQ ", "QDQ "}));
    const Bytes& halted = messages.at(11);
    EXPECT_EQ(get_text(halted, 29, 11), "A          ");
    EXPECT_EQ(halted.at(40), 'H');
    EXPECT_EQ(get_u32(halted, 41), 1u) << "the current action number, not a new one";
    EXPECT_EQ(get_text(halted, 53, 6), "T1    ");
    const Bytes& paused = messages.at(12);
    EXPECT_EQ(paused.at(40), 'P');
    EXPECT_EQ(get_text(paused, 53, 6), "LUDP  ");
    EXPECT_EQ(messages.at(14).at(40), 'D') << "a deactivated band is sent as such";
    EXPECT_EQ(messages.at(16).at(40), 'A');
    const Bytes& collar = messages.at(17);
    EXPECT_EQ(get_text(collar, 29, 11), "B          ");
    EXPECT_EQ(get_u32(collar, 40), 1u);
    EXPECT_EQ(get_u64(collar, 44), 190'000'000u);
    EXPECT_EQ(get_u64(collar, 52), 199'500'000u);
    EXPECT_EQ(get_u64(collar, 60), 180'500'000u);
    EXPECT_EQ(collar.at(68), 0);
    EXPECT_EQ(market.at(0).action_seq, 1u) << "the spin changes nothing";
}

TEST(Spin, Directory_CarriesTheHaltedStateAndItsReason) {
    TestMarket market({.symbols = "A:10", .participants = "Q"});
    Quiet quiet;
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "MWC3", 0);
    const std::vector<Bytes> messages = spin_of(market);
    EXPECT_EQ(messages.at(2).size(), short_directory_bytes);
    EXPECT_EQ(messages.at(3).size(), long_directory_bytes);
    EXPECT_EQ(get_text(messages.at(3), 93, 7), "HMWC3  ");
    EXPECT_EQ(messages.at(4).size(), indicator_bytes);
}

TEST(Spin, InstrumentUnderQuotationOnly_HasAnAction) {
    TestMarket market({.symbols = "A:10", .participants = "Q"});
    Quiet quiet;
    market.start_of_day();
    halt_instrument(market.engine, market.at(0), "T1", 0);
    resume_quotation(market.engine, market.at(0), 1);
    const std::vector<Bytes> messages = spin_of(market);
    EXPECT_EQ(messages.at(5).at(40), 'Q');
    EXPECT_EQ(get_u32(messages.at(5), 41), 2u);
    EXPECT_EQ(get_text(messages.at(5), 53, 6), "T3    ");
}

TEST(Spin, InstrumentWithoutALowerBand_HasNone) {
    TestMarket market({.symbols = "A:0.01", .participants = "Q"});
    market.start_of_day();
    ASSERT_EQ(market.at(0).luld_lower, 0);
    for (const Bytes& message : spin_of(market)) {
        EXPECT_NE(letters(message), "APE ");
    }
}

TEST(Spin, BandWithoutALetter_IsSentAsB) {
    TestMarket market({.symbols = "A:10", .participants = "Q"});
    market.at(0).luld_lower = 9'500'000;
    market.at(0).luld_upper = 10'500'000;
    const std::vector<Bytes> messages = spin_of(market);
    const Bytes& band = messages.back();
    EXPECT_EQ(letters(band), "APE ");
    EXPECT_EQ(band.at(40), 'B');
    EXPECT_EQ(get_u64(band, 49), 9'500'000u);
    EXPECT_EQ(get_u64(band, 57), 10'500'000u);
}

TEST(Spin, NoInstruments_OnlyRetainedMessagesAndDeclineLevels) {
    TestMarket market({.symbols = "", .participants = "QN"});
    market.start_of_day();
    EXPECT_EQ(letters_of(spin_of(market)), (std::vector<std::string>{"CIE ", "COQ ", "CON ", "ACE "}));
}

TEST(Spin, CenterThatNeverQuoted_HasNoQuote) {
    TestMarket market({.symbols = "A:10", .participants = "QN"});
    EXPECT_EQ(letters_of(spin_of(market)), (std::vector<std::string>{"ABQ ", "AFQ ", "AVQ ", "ACE "}));
}

TEST(Spin, Quotes_AreInLetterOrderWithTheirConditionAndABlankSipFlag) {
    TestMarket market({.symbols = "A:10", .participants = "ZQQB"});
    Quiet quiet;
    market.start_of_day();
    wipe_out(market.engine, 'Q');
    const std::vector<Bytes> messages = spin_of(market);
    std::string centers;
    for (const Bytes& message : messages) {
        if (message.at(1) == 'Q') {
            centers += static_cast<char>(message.at(3));
            EXPECT_EQ(message.at(2), 'D') << "always the long form";
            EXPECT_EQ(message.at(73), ' ');
        }
    }
    EXPECT_EQ(centers, "BQZ");
    const Bytes wiped = quote_of(messages, 'Q');
    EXPECT_EQ(get_u64(wiped, 48), 0u) << "a quote that is not present is sent as zeros";
    EXPECT_EQ(get_u32(wiped, 56), 0u);
    EXPECT_EQ(get_u64(wiped, 60), 0u);
    EXPECT_EQ(get_u32(wiped, 68), 0u);
    EXPECT_EQ(wiped.at(72), static_cast<unsigned char>(find_quote(market.at(0), 'Q')->condition));
}

TEST(Spin, TwoInARow_DifferOnlyInTheRebuiltTimeStampsWhenNothingHappened) {
    TestMarket market;
    market.start_of_day();
    market.run_ticks(20);
    SpinBuffer first;
    SpinBuffer second;
    build_spin(first, market.engine, spin_time);
    build_spin(second, market.engine, spin_time);
    ASSERT_EQ(first.size, second.size);
    EXPECT_TRUE(std::equal(first.bytes.data(), first.bytes.data() + first.size, second.bytes.data()));
    EXPECT_EQ(market.scenario.stats.snapshots, 2u);
    build_spin(second, market.engine, spin_time + 1);
    const auto before = spin_messages(first);
    const auto after = spin_messages(second);
    ASSERT_EQ(before.size(), after.size());
    for (std::size_t at = 0; at < before.size(); ++at) {
        const Bytes one(before[at].begin(), before[at].end());
        Bytes two(after[at].begin(), after[at].end());
        if (one.at(1) != 'C') {
            EXPECT_EQ(get_u64(two, 5), spin_time + 1);
            EXPECT_EQ(get_u64(two, 13), spin_time + 1);
            std::copy(one.begin() + 5, one.begin() + 21, two.begin() + 5);
            if (one.at(1) == 'Q' && one.at(3) == 'D') {
                std::copy(one.begin() + 29, one.begin() + 37, two.begin() + 29);
            }
            if (letters(one) == "APE ") {
                std::copy(one.begin() + 41, one.begin() + 49, two.begin() + 41);
            }
        }
        EXPECT_EQ(one, two);
    }
}

TEST(Spin, AnySpin_UsesNoSequenceNumberAndNoDraw) {
    TestMarket market;
    market.start_of_day();
    TestMarket other;
    other.start_of_day();
    spin_of(market);
    EXPECT_EQ(market.last(), other.last());
    market.clock.simulated_wall_ns = other.clock.simulated_wall_ns;
    market.run_ticks(20);
    other.run_ticks(20);
    EXPECT_EQ(market.messages(1, market.last()), other.messages(1, other.last()));
}

// A market whose spin is larger than the buffer that it goes through.
MarketOptions many_symbols() {
    std::string symbols = "S0";
    for (int at = 1; at < 300; ++at) {
        symbols += ",S" + std::to_string(at);
    }
    MarketOptions options;
    options.symbols = symbols;
    return options;
}

void take_piece(void* context, const unsigned char* bytes, std::size_t size) {
    static_cast<std::vector<Bytes>*>(context)->emplace_back(bytes, bytes + size);
}

TEST(Spin, HandedOverInPieces_IsTheSpinAsAWhole) {
    TestMarket market(many_symbols());
    market.start_of_day();
    market.run_ticks(20);
    SpinBuffer whole;
    build_spin(whole, market.engine, spin_time);
    append_end_of_snapshot(whole, spin_time, market.last());
    std::vector<Bytes> pieces;
    SpinBuffer piecewise;
    piecewise.sink = {take_piece, &pieces};
    build_spin(piecewise, market.engine, spin_time);
    append_end_of_snapshot(piecewise, spin_time, market.last());
    EXPECT_EQ(piecewise.bytes_flushed, whole.size);
    EXPECT_EQ(piecewise.size, 0u);
    EXPECT_GE(pieces.size(), 3u);
    Bytes joined;
    for (const Bytes& piece : pieces) {
        EXPECT_LE(piece.size(), spin_buffer_bytes);
        joined.insert(joined.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(joined,
              Bytes(whole.bytes.begin(), whole.bytes.begin() + static_cast<std::ptrdiff_t>(whole.size)));
}

TEST(Spin, ManyLogins_AllocateOnce) {
    TestMarket market(many_symbols());
    market.start_of_day();
    std::vector<Bytes> pieces;
    SpinBuffer spin;
    spin.sink = {take_piece, &pieces};
    build_spin(spin, market.engine, spin_time);
    const unsigned char* const bytes = spin.bytes.data();
    EXPECT_EQ(spin.bytes.size(), spin_buffer_bytes);
    for (int login = 0; login < 100; ++login) {
        market.run_ticks(1);
        pieces.clear();
        build_spin(spin, market.engine, spin_time);
        append_end_of_snapshot(spin, spin_time, market.last());
    }
    EXPECT_EQ(spin.bytes.data(), bytes);
    EXPECT_EQ(spin.bytes.size(), spin_buffer_bytes);
}

TEST(Spin, EndOfSnapshot_Is37BytesWithTheLastSequenceNumber) {
    TestMarket market({.symbols = "", .participants = ""});
    market.start_of_day();
    SpinBuffer spin;
    build_spin(spin, market.engine, spin_time);
    append_end_of_snapshot(spin, spin_time, 0x0102030405060708u);
    const std::span<const unsigned char> view = spin_messages(spin).back();
    const Bytes message(view.begin(), view.end());
    ASSERT_EQ(message.size(), 37u);
    EXPECT_EQ(get_text(message, 0, 5), "1ASE ");
    EXPECT_EQ(get_u64(message, 5), spin_time);
    EXPECT_EQ(get_u64(message, 13), spin_time);
    EXPECT_EQ(get_u64(message, 21), 0u);
    EXPECT_EQ(get_u64(message, 29), 0x0102030405060708u);
    const unsigned char* const packet = spin.bytes.data() + spin.size - 40;
    EXPECT_EQ(packet[0], 0);
    EXPECT_EQ(packet[1], 38) << "type and message";
    EXPECT_EQ(packet[2], 'S');
}

}  // namespace
}  // namespace tessel
