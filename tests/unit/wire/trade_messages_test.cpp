#include "wire/trade_messages.h"

#include "unit/wire/layout_check.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel {
namespace {

using testing::expect_message;
using testing::header_layout;
using testing::joined;
using testing::Layout;
using testing::number;
using testing::text;
using testing::used_writer;

constexpr std::uint64_t sip_time = 1'700'000'000'123'456'789;
constexpr std::uint64_t participant_time = 1'700'000'000'000'000'001;

MessageHeader trade_header(char market_center, char sub_market_center) {
    MessageHeader header;
    header.market_center = market_center;
    header.sub_market_center = sub_market_center;
    header.sip_time = sip_time;
    header.participant_time = participant_time;
    return header;
}

TradeReport some_trade() {
    TradeReport report;
    report.header = trade_header('D', 'N');
    report.trf_time = participant_time;
    report.symbol = "MSFT";
    report.trade_id = 0x0102030405060708;
    report.price = 655'350'000;
    report.size = 1'900'000'000;
    report.conditions = "@F I";
    report.trade_through_exempt = 'X';
    report.consolidated_change = '7';
    report.participant_change = '4';
    return report;
}

TEST(TradeReport, ShortForm_67BytesWithAnEightByteSize) {
    MessageWriter writer = used_writer();
    build_trade(writer, some_trade(), true);
    EXPECT_EQ(writer.size, 67u);
    expect_message(
        writer, joined(header_layout("1TMDN", sip_time, participant_time),
                       {number(29, 8, participant_time), text(37, "MSFT "), number(42, 8, 0x0102030405060708),
                        number(50, 2, 65535), number(52, 8, 1'900'000'000), text(60, "@F I"), text(64, "X"),
                        text(65, "7"), text(66, "4")}));
}

TEST(TradeReport, LongForm_81Bytes) {
    TradeReport report = some_trade();
    report.symbol = "LONGSYMBOL12";
    report.price = -1'230'001;
    MessageWriter writer = used_writer();
    build_trade(writer, report, false);
    EXPECT_EQ(writer.size, 81u);
    expect_message(
        writer,
        joined(header_layout("1TNDN", sip_time, participant_time),
               {number(29, 8, participant_time), text(37, "LONGSYMBOL1"), number(48, 8, 0x0102030405060708),
                number(56, 8, static_cast<std::uint64_t>(-1'230'001)), number(64, 8, 1'900'000'000),
                text(72, "@F I"), text(76, "X"), number(77, 2, 0), text(79, "7"), text(80, "4")}));
}

TEST(TradeReport, OfficialClose_SizeZeroAndBlankFlag) {
    TradeReport report;
    report.header = trade_header('Q', ' ');
    report.symbol = "A";
    report.trade_id = 1;
    report.price = 10'000;
    report.conditions = "@  M";
    MessageWriter writer = used_writer();
    build_trade(writer, report, true);
    expect_message(writer,
                   joined(header_layout("1TMQ ", sip_time, participant_time),
                          {number(29, 8, 0), text(37, "A    "), number(42, 8, 1), number(50, 2, 1),
                           number(52, 8, 0), text(60, "@  M"), text(64, " "), text(65, "0"), text(66, "0")}));
}

const StatisticsRecord consolidated_after = {191'000'000, 189'000'000, 190'500'000, 7'000'000'000};
const StatisticsRecord participant_after = {190'900'000, 189'100'000, 190'400'000, 3'000'000'001};

TEST(CancelError, EveryField_In146BytesWithBothStatistics) {
    CancelRecord record;
    record.header = trade_header('D', 'B');
    record.trf_time = participant_time;
    record.symbol = "TSLA";
    record.function = 'E';
    record.trade_id = 4711;
    record.price = 250'010'000;
    record.size = 100'000'000;
    record.conditions = "@   ";
    record.trade_through_exempt = 'X';
    record.consolidated = consolidated_after;
    record.last_market_center = 'P';
    record.participant = participant_after;
    MessageWriter writer = used_writer();
    build_cancel(writer, record);
    EXPECT_EQ(writer.size, 146u);
    expect_message(writer, joined(header_layout("1TODB", sip_time, participant_time),
                                  {number(29, 8, participant_time), text(37, "TSLA       "), text(48, "E"),
                                   number(49, 8, 4711), number(57, 8, 250'010'000),
                                   number(65, 8, 100'000'000), text(73, "@   "), text(77, "X"),
                                   number(78, 2, 0), number(80, 8, 191'000'000), number(88, 8, 189'000'000),
                                   number(96, 8, 190'500'000), number(104, 8, 7'000'000'000), text(112, "7"),
                                   text(113, "P"), number(114, 8, 190'900'000), number(122, 8, 189'100'000),
                                   number(130, 8, 190'400'000), number(138, 8, 3'000'000'001)}));
}

TEST(CancelError, OfTheOnlyTrade_ZeroStatisticsAndBlankCenter) {
    CancelRecord record;
    record.header = trade_header('Q', ' ');
    record.symbol = "AAPL";
    MessageWriter writer = used_writer();
    build_cancel(writer, record);
    Layout expected =
        joined(header_layout("1TOQ ", sip_time, participant_time),
               {number(29, 8, 0), text(37, "AAPL       "), text(48, "C"), number(49, 8, 0), number(57, 8, 0),
                number(65, 8, 0), text(73, "    "), text(77, " "), number(78, 2, 0)});
    expected = joined(expected, {text(80, std::string(32, '\0')), text(112, "7"), text(113, " "),
                                 text(114, std::string(32, '\0'))});
    expect_message(writer, expected);
}

TEST(Correction, EveryField_In176BytesWithTheOldAndTheNewTrade) {
    CorrectionRecord record;
    record.header = trade_header('D', 'Q');
    record.trf_time = participant_time;
    record.symbol = "AAPL";
    record.old_trade_id = 10;
    record.old_price = 10'000;
    record.old_size = 200'000'000;
    record.new_trade_id = 12;
    record.new_price = 0;
    record.new_size = 300'000'000;
    record.conditions = "@ Z ";
    record.trade_through_exempt = 'X';
    record.consolidated = consolidated_after;
    record.last_market_center = 'K';
    record.participant = participant_after;
    MessageWriter writer = used_writer();
    build_correction(writer, record);
    EXPECT_EQ(writer.size, 176u);
    expect_message(
        writer, joined(header_layout("1TPDQ", sip_time, participant_time), {number(29, 8, participant_time),
                                                                            text(37, "AAPL       "),
                                                                            number(48, 8, 10),
                                                                            number(56, 8, 10'000),
                                                                            number(64, 8, 200'000'000),
                                                                            text(72, "@ Z "),
                                                                            text(76, "X"),
                                                                            number(77, 2, 0),
                                                                            number(79, 8, 12),
                                                                            number(87, 8, 0),
                                                                            number(95, 8, 300'000'000),
                                                                            text(103, "@ Z "),
                                                                            text(107, "X"),
                                                                            number(108, 2, 0),
                                                                            number(110, 8, 191'000'000),
                                                                            number(118, 8, 189'000'000),
                                                                            number(126, 8, 190'500'000),
                                                                            number(134, 8, 7'000'000'000),
                                                                            text(142, "7"),
                                                                            text(143, "K"),
                                                                            number(144, 8, 190'900'000),
                                                                            number(152, 8, 189'100'000),
                                                                            number(160, 8, 190'400'000),
                                                                            number(168, 8, 3'000'000'001)}));
}

TEST(AsOfTrade, EveryField_In88BytesWithoutAnIdAndWithItsFixedLetters) {
    AsOfRecord record;
    record.header = trade_header('D', 'Q');
    record.trf_time = participant_time;
    record.symbol = "MSFT";
    record.price = 409'970'000;
    record.size = 300'000'000;
    record.execution_time_ns = participant_time - 86'400'000'000'000;
    MessageWriter writer = used_writer();
    build_as_of(writer, record);
    EXPECT_EQ(writer.size, 88u);
    expect_message(writer, joined(header_layout("1TQDQ", sip_time, participant_time),
                                  {number(29, 8, participant_time), text(37, "MSFT       "), number(48, 8, 0),
                                   number(56, 8, 409'970'000), number(64, 8, 300'000'000), text(72, "@   "),
                                   text(76, " "), number(77, 2, 0), text(79, "A"),
                                   number(80, 8, 1'699'913'600'000'000'001)}));
}

}  // namespace
}  // namespace tessel
