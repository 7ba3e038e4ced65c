#include "wire/admin_messages.h"

#include "unit/wire/layout_check.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel {
namespace {

using testing::content;
using testing::expect_message;
using testing::header_layout;
using testing::joined;
using testing::Layout;
using testing::number;
using testing::text;
using testing::used_writer;

constexpr AdminTimes times = {1'700'000'000'123'456'789, 1'700'000'000'000'000'001};

Layout admin_header(const std::string& letters) {
    return header_layout(letters, times.sip_time, times.participant_time);
}

TEST(ControlMessages, HeaderAlone_29Bytes) {
    MessageWriter writer = used_writer();
    build_start_of_day(writer, times);
    expect_message(writer, admin_header("1CIE "));
    build_session_open(writer, times, 'Z');
    expect_message(writer, admin_header("1COZ "));
    build_wipe_out(writer, times, 'K');
    expect_message(writer, admin_header("1CPK "));
    EXPECT_EQ(writer.size, 29u);
}

TEST(DeclineLevels, EveryField_In53BytesWithSevenThirteenAndTwentyPercentBelow5000) {
    MessageWriter writer = used_writer();
    build_decline_levels(writer, times);
    EXPECT_EQ(writer.size, 53u);
    expect_message(writer,
                   joined(admin_header("1ACE "), {number(29, 8, 4'650'000'000), number(37, 8, 4'350'000'000),
                                                  number(45, 8, 4'000'000'000)}));
}

DirectoryRecord some_directory() {
    DirectoryRecord record;
    record.times = times;
    record.symbol = "AAPL";
    record.issue_name = "AAPL COMMON STOCK";
    return record;
}

Layout short_directory_layout(const std::string& letters) {
    return joined(admin_header(letters),
                  {text(29, "AAPL       "), text(40, "           "),
                   text(51, "AAPL COMMON STOCK             "), text(81, "C"), text(82, "C "), text(84, "Q"),
                   text(85, "P"), text(86, "N"), number(87, 2, 100), text(89, "N")});
}

TEST(Directory, ShortForm_90Bytes) {
    MessageWriter writer = used_writer();
    encode_directory(writer, some_directory(), false);
    EXPECT_EQ(writer.size, 90u);
    expect_message(writer, short_directory_layout("1ABQ "));
}

TEST(Directory, LongForm_117BytesThatBeginLikeTheShortForm) {
    MessageWriter writer = used_writer();
    encode_directory(writer, some_directory(), true);
    EXPECT_EQ(writer.size, 117u);
    expect_message(writer,
                   joined(short_directory_layout("1AFQ "),
                          {text(90, "N"), text(91, "0"), text(92, "3"), text(93, "T"), text(94, "      "),
                           text(100, "0"), number(101, 8, 0), number(109, 8, 0)}));
}

TEST(Directory, OfAHaltedInstrument_TellsStateReasonAndIndicator) {
    DirectoryRecord record = some_directory();
    record.trading_state = 'H';
    record.trading_reason = "LUDP";
    record.indicator = '4';
    MessageWriter writer = used_writer();
    encode_directory(writer, record, true);
    EXPECT_EQ(content(writer).substr(93, 8), "HLUDP  4");
}

TEST(Directory, SymbolBeyond11LettersIsCut_IssueNameTo30) {
    DirectoryRecord record = some_directory();
    record.symbol = "ABCDEFGHIJKLMNOPQRST";
    record.issue_name = "ABCDEFGHIJKLMNOPQRST COMMON STOCK";
    MessageWriter writer = used_writer();
    encode_directory(writer, record, false);
    EXPECT_EQ(content(writer).substr(29, 22), "ABCDEFGHIJK           ");
    EXPECT_EQ(content(writer).substr(51, 31), "ABCDEFGHIJKLMNOPQRST COMMON STC");
}

TEST(Indicator, EveryField_In41Bytes) {
    MessageWriter writer = used_writer();
    build_indicator(writer, times, "TSLA", '0');
    EXPECT_EQ(writer.size, 41u);
    expect_message(writer, joined(admin_header("1AVQ "), {text(29, "TSLA       "), text(40, "0")}));
}

TEST(TradingAction, EveryField_In59Bytes) {
    MessageWriter writer = used_writer();
    build_trading_action(writer, times, "MSFT", 'H', 0x01020304, 1'700'000'000'000'000'009, "T1");
    EXPECT_EQ(writer.size, 59u);
    expect_message(writer, joined(admin_header("1AHQ "),
                                  {text(29, "MSFT       "), text(40, "H"), number(41, 4, 0x01020304),
                                   number(45, 8, 1'700'000'000'000'000'009), text(53, "T1    ")}));
}

TEST(TradingAction, ReasonBeyondSixLetters_IsCut) {
    MessageWriter writer = used_writer();
    build_trading_action(writer, times, "MSFT", 'P', 1, 2, "REASON7");
    EXPECT_EQ(content(writer).substr(53), "REASON");
}

TEST(PriceBand, EveryField_In65BytesLowerBandFirst) {
    MessageWriter writer = used_writer();
    build_price_band(writer, times, "AAPL", 'A', 1'700'000'000'000'000'009, 180'500'000, 199'500'000);
    EXPECT_EQ(writer.size, 65u);
    expect_message(writer,
                   joined(admin_header("1APE "),
                          {text(29, "AAPL       "), text(40, "A"), number(41, 8, 1'700'000'000'000'000'009),
                           number(49, 8, 180'500'000), number(57, 8, 199'500'000)}));
}

TEST(Collar, EveryField_In69BytesReferenceThenUpperThenLower) {
    MessageWriter writer = used_writer();
    build_collar(writer, times, "AAPL", 3, 190'000'000, 199'500'000, 180'500'000);
    EXPECT_EQ(writer.size, 69u);
    expect_message(writer,
                   joined(admin_header("1AEQ "),
                          {text(29, "AAPL       "), number(40, 4, 3), number(44, 8, 190'000'000),
                           number(52, 8, 199'500'000), number(60, 8, 180'500'000), number(68, 1, 0)}));
}

TEST(CircuitBreakerStatus, LevelAsADigit_AboveThreeIsThree) {
    const std::pair<std::uint32_t, char> rows[] = {{0, '0'}, {1, '1'}, {2, '2'},
                                                   {3, '3'}, {4, '3'}, {4294967295u, '3'}};
    for (const auto& [level, digit] : rows) {
        MessageWriter writer = used_writer();
        build_mwcb_status(writer, times, level);
        EXPECT_EQ(writer.size, 30u);
        expect_message(writer, joined(admin_header("1ADE "), {text(29, {digit})}));
    }
}

TEST(EndOfSnapshot, EveryField_In37BytesWithTheSpinTimeInBothStamps) {
    MessageWriter writer = used_writer();
    build_end_of_snapshot(writer, 1'700'000'000'000'000'555, 0x0102030405060708);
    EXPECT_EQ(writer.size, 37u);
    expect_message(writer,
                   joined(header_layout("1ASE ", 1'700'000'000'000'000'555, 1'700'000'000'000'000'555),
                          {number(29, 8, 0x0102030405060708)}));
}

}  // namespace
}  // namespace tessel
