#include "wire/quote_messages.h"

#include "unit/wire/layout_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {
namespace {

using testing::content;
using testing::expect_message;
using testing::header_layout;
using testing::joined;
using testing::Layout;
using testing::number;
using testing::shifted;
using testing::text;
using testing::used_writer;

constexpr std::uint64_t sip_time = 1'700'000'000'123'456'789;
constexpr std::uint64_t participant_time = 1'700'000'000'000'000'001;

constexpr std::array<OddLotQuote, 2> two_orders{
    {{'Q', 'B', 189'900'000, 40, "ABCD"}, {'Q', 'A', 190'200'000, 7, "EF"}}};

// A quote in which no two fields have the same value.
QuoteRecord full_quote() {
    QuoteRecord record;
    record.header.market_center = 'D';
    record.header.sub_market_center = 'b';
    record.header.sip_time = sip_time;
    record.header.participant_time = participant_time;
    record.header.participant_token = 77;
    record.adf_time = 1'699'999'999'999'999'999;
    record.symbol = "AAPL";
    record.bid = 190'000'000;
    record.ask = 190'010'000;
    record.bid_size = 300;
    record.ask_size = 65'534;
    record.condition = 'R';
    record.sip_flag = 'E';
    record.luld_bbo = 'a';
    record.retail = 'c';
    record.nbbo_ind = '0';
    record.luld_nbbo = 'd';
    record.adf_mpid_ind = ' ';
    record.odd_best_ind = '0';
    record.odd_list_ind = '0';
    record.nbbo_condition = 'n';
    record.nbbo_bid_market_center = 'P';
    record.nbbo_ask_market_center = 'Z';
    record.nbbo_bid = 190'020'000;
    record.nbbo_ask = 190'030'000;
    record.nbbo_bid_size = 400;
    record.nbbo_ask_size = 500;
    record.bid_mpid = "ABCD";
    record.ask_mpid = "XY";
    record.odd_bid_market_center = 'K';
    record.odd_ask_market_center = 'V';
    record.odd_bid = 190'040'000;
    record.odd_ask = 190'050'000;
    record.odd_bid_size = 11;
    record.odd_ask_size = 22;
    record.odd_bid_mpid = "MPI1";
    record.odd_ask_mpid = "M2";
    record.odd_lots = two_orders.data();
    record.odd_lot_count = two_orders.size();
    return record;
}

Layout quote_header(char type) {
    return header_layout(std::string("1Q") + type + "Db", sip_time, participant_time, 77);
}

Layout short_body(char nbbo, char best, char list) {
    return {text(29, "AAPL "),    number(34, 2, 19000), number(36, 2, 300), number(38, 2, 19001),
            number(40, 2, 65534), text(42, "R"),        text(43, "E"),      text(44, "a"),
            text(45, "c"),        text(46, {nbbo}),     text(47, "d"),      text(48, {best}),
            text(49, {list}),     number(50, 2, 2)};
}

Layout long_body(char nbbo, char adf, char best, char list) {
    return {number(29, 8, 1'699'999'999'999'999'999),
            text(37, "AAPL       "),
            number(48, 8, 190'000'000),
            number(56, 4, 300),
            number(60, 8, 190'010'000),
            number(68, 4, 65534),
            text(72, "R"),
            text(73, "E"),
            text(74, "a"),
            text(75, "c"),
            text(76, {nbbo}),
            text(77, "d"),
            text(78, {adf}),
            text(79, {best}),
            text(80, {list}),
            number(81, 2, 2)};
}

const Layout short_nbbo = {text(0, "n"), text(1, "P"),        number(2, 2, 19002), number(4, 2, 400),
                           text(6, "Z"), number(7, 2, 19003), number(9, 2, 500)};
const Layout long_nbbo = {text(0, "n"),       text(1, "P"),  number(2, 8, 190'020'000),
                          number(10, 4, 400), text(14, "Z"), number(15, 8, 190'030'000),
                          number(23, 4, 500)};
const Layout adf_mpids = {text(0, "ABCD"), text(4, "XY  ")};
const Layout short_best = {text(0, "K"), number(1, 2, 19004), number(3, 2, 11),
                           text(5, "V"), number(6, 2, 19005), number(8, 2, 22)};
const Layout long_best = {text(0, "K"),  number(1, 8, 190'040'000),  number(9, 2, 11),
                          text(11, "V"), number(12, 8, 190'050'000), number(20, 2, 22)};
const Layout mpid_best = joined(long_best, {text(22, "MPI1"), text(26, "M2  ")});
const Layout short_list = {text(0, "Q"), text(1, "B"), number(2, 2, 18990), number(4, 2, 40),
                           text(6, "Q"), text(7, "A"), number(8, 2, 19020), number(10, 2, 7)};
const Layout long_list = {text(0, "Q"),  text(1, "B"),  number(2, 8, 189'900'000),  number(10, 2, 40),
                          text(12, "Q"), text(13, "A"), number(14, 8, 190'200'000), number(22, 2, 7)};
const Layout mpid_list = {
    text(0, "Q"),  text(1, "B"),  number(2, 8, 189'900'000),  number(10, 2, 40), text(12, "ABCD"),
    text(16, "Q"), text(17, "A"), number(18, 8, 190'200'000), number(26, 2, 7),  text(28, "EF  ")};

std::size_t built_size(const QuoteRecord& record, char type) {
    MessageWriter writer = used_writer();
    build_quote(writer, record, type);
    return writer.size;
}

TEST(ShortQuote, NoAppendages_52Bytes) {
    MessageWriter writer = used_writer();
    build_quote(writer, full_quote(), 'C');
    EXPECT_EQ(writer.size, 52u);
    expect_message(writer, joined(quote_header('C'), short_body('0', '0', '0')));
}

TEST(ShortQuote, AllAppendagesShort_NbboThenBestOddLotThenList) {
    QuoteRecord record = full_quote();
    record.nbbo_ind = '2';
    record.odd_best_ind = '2';
    record.odd_list_ind = '2';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'C');
    Layout expected = joined(quote_header('C'), short_body('2', '2', '2'));
    expected = joined(expected, shifted(short_nbbo, 52));
    expected = joined(expected, shifted(short_best, 52 + 11));
    expected = joined(expected, shifted(short_list, 52 + 11 + 10));
    expect_message(writer, expected);
    EXPECT_EQ(writer.size, 52u + 11u + 10u + 12u);
}

TEST(ShortQuote, AdfMpidIndicator_IsNotPartOfIt) {
    QuoteRecord record = full_quote();
    record.adf_mpid_ind = '2';
    EXPECT_EQ(built_size(record, 'C'), 52u);
}

TEST(LongQuote, NoAppendages_83Bytes) {
    MessageWriter writer = used_writer();
    build_quote(writer, full_quote(), 'D');
    EXPECT_EQ(writer.size, 83u);
    expect_message(writer, joined(quote_header('D'), long_body('0', ' ', '0', '0')));
}

TEST(LongQuote, OfTheAdfWithLongNbboAndNoOddLots_118Bytes) {
    QuoteRecord record = full_quote();
    record.nbbo_ind = '3';
    record.adf_mpid_ind = '2';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'D');
    Layout expected = joined(quote_header('D'), long_body('3', '2', '0', '0'));
    expected = joined(expected, shifted(long_nbbo, 83));
    expected = joined(expected, shifted(adf_mpids, 83 + 27));
    expect_message(writer, expected);
    EXPECT_EQ(writer.size, 118u);
}

TEST(LongQuote, AllAppendagesWithMpids_NbboThenAdfThenBestOddLotThenList) {
    QuoteRecord record = full_quote();
    record.nbbo_ind = '3';
    record.adf_mpid_ind = '2';
    record.odd_best_ind = '5';
    record.odd_list_ind = '5';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'D');
    Layout expected = joined(quote_header('D'), long_body('3', '2', '5', '5'));
    expected = joined(expected, shifted(long_nbbo, 83));
    expected = joined(expected, shifted(adf_mpids, 83 + 27));
    expected = joined(expected, shifted(mpid_best, 83 + 27 + 8));
    expected = joined(expected, shifted(mpid_list, 83 + 27 + 8 + 30));
    expect_message(writer, expected);
}

TEST(LongQuote, LongOddLotForms_SizesStay16Bits) {
    QuoteRecord record = full_quote();
    record.odd_best_ind = '3';
    record.odd_list_ind = '3';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'D');
    Layout expected = joined(quote_header('D'), long_body('0', ' ', '3', '3'));
    expected = joined(expected, shifted(long_best, 83));
    expected = joined(expected, shifted(long_list, 83 + 22));
    expect_message(writer, expected);
}

TEST(LongQuote, PricesBeyondTheShortRangeAndBelowZero_AreExact) {
    QuoteRecord record = full_quote();
    record.bid = -10'000;
    record.ask = 1'000'000'000'000;
    record.ask_size = 0xfffffffe;
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'D');
    Layout expected = long_body('0', ' ', '0', '0');
    expected[2] = number(48, 8, static_cast<std::uint64_t>(-10'000));
    expected[4] = number(60, 8, 1'000'000'000'000);
    expected[5] = number(68, 4, 0xfffffffe);
    expect_message(writer, joined(quote_header('D'), expected));
}

TEST(MpidQuote, EveryField_In77BytesWithTheBidMpidAndNoAppendages) {
    QuoteRecord record = full_quote();
    record.nbbo_ind = '3';
    record.adf_mpid_ind = '2';
    record.odd_best_ind = '5';
    record.odd_list_ind = '5';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'M');
    EXPECT_EQ(writer.size, 77u);
    expect_message(writer, joined(quote_header('M'),
                                  {number(29, 8, 1'699'999'999'999'999'999), text(37, "AAPL       "),
                                   number(48, 8, 190'000'000), number(56, 4, 300), number(60, 8, 190'010'000),
                                   number(68, 4, 65534), text(72, "R"), text(73, "ABCD")}));
}

TEST(OddLotUpdate, ShortForm_39BytesThenBestOddLotAndList) {
    QuoteRecord record = full_quote();
    record.nbbo_ind = '3';  // has no place in this message
    record.odd_best_ind = '2';
    record.odd_list_ind = '2';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'A');
    Layout expected = joined(quote_header('A'), {text(29, "AAPL "), text(34, "E"), text(35, "2"),
                                                 text(36, "2"), number(37, 2, 2)});
    expected = joined(expected, shifted(short_best, 39));
    expected = joined(expected, shifted(short_list, 39 + 10));
    expect_message(writer, expected);
}

TEST(OddLotUpdate, LongForm_53BytesThenBestOddLotAndList) {
    QuoteRecord record = full_quote();
    record.adf_mpid_ind = '2';  // nor has this
    record.odd_best_ind = '5';
    record.odd_list_ind = '3';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'B');
    Layout expected =
        joined(quote_header('B'), {number(29, 8, 1'699'999'999'999'999'999), text(37, "AAPL       "),
                                   text(48, "E"), text(49, "5"), text(50, "3"), number(51, 2, 2)});
    expected = joined(expected, shifted(mpid_best, 53));
    expected = joined(expected, shifted(long_list, 53 + 30));
    expect_message(writer, expected);
}

TEST(QuoteAppendages, EveryIndicatorByte_HasItsLength) {
    for (int byte = 0; byte < 256; ++byte) {
        const char indicator = static_cast<char>(byte);
        QuoteRecord nbbo = full_quote();
        nbbo.nbbo_ind = indicator;
        EXPECT_EQ(built_size(nbbo, 'D') - 83, indicator == '2' ? 11u : indicator == '3' ? 27u : 0u) << byte;
        QuoteRecord adf = full_quote();
        adf.adf_mpid_ind = indicator;
        EXPECT_EQ(built_size(adf, 'D') - 83, indicator == '2' ? 8u : 0u) << byte;
        QuoteRecord best = full_quote();
        best.odd_best_ind = indicator;
        EXPECT_EQ(built_size(best, 'D') - 83, indicator == '2'   ? 10u
                                              : indicator == '3' ? 22u
                                              : indicator == '5' ? 30u
                                                                 : 0u)
            << byte;
        QuoteRecord list = full_quote();
        list.odd_list_ind = indicator;
        EXPECT_EQ(built_size(list, 'D') - 83, indicator == '2'   ? 2 * 6u
                                              : indicator == '3' ? 2 * 12u
                                              : indicator == '5' ? 2 * 16u
                                                                 : 0u)
            << byte;
    }
}

TEST(QuoteAppendages, ListNotWritten_CountStillTellsTheEntries) {
    QuoteRecord record = full_quote();
    record.odd_list_ind = '4';
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'C');
    expect_message(writer, joined(quote_header('C'), short_body('0', '0', '4')));
}

TEST(QuoteAppendages, ListOfNoEntries_WritesNothing) {
    QuoteRecord record = full_quote();
    record.odd_list_ind = '5';
    record.odd_lots = nullptr;
    record.odd_lot_count = 0;
    MessageWriter writer = used_writer();
    build_quote(writer, record, 'D');
    Layout expected = long_body('0', ' ', '0', '5');
    expected.back() = number(81, 2, 0);
    expect_message(writer, joined(quote_header('D'), expected));
}

TEST(QuoteAppendages, LongListOfAThousandEntries_GrowsTheBuffer) {
    const std::vector<OddLotQuote> orders(1000, OddLotQuote{'Z', 'A', 10'000, 99, "MPID"});
    QuoteRecord record = full_quote();
    record.odd_list_ind = '5';
    record.odd_lots = orders.data();
    record.odd_lot_count = orders.size();
    MessageWriter writer;
    build_quote(writer, record, 'D');
    ASSERT_EQ(writer.size, 83u + 16'000u);
    EXPECT_EQ(content(writer).substr(81, 2), "\x03\xe8");
    EXPECT_EQ(content(writer).substr(83 + 16 * 999), std::string("ZA\0\0\0\0\0\0\x27\x10\0\x63MPID", 16));
}

TEST(Quote, UnknownTypeLetter_EmptyMessage) {
    for (int byte = 0; byte < 256; ++byte) {
        const char type = static_cast<char>(byte);
        const bool known = std::string("ABCDM").find(type) != std::string::npos;
        EXPECT_EQ(built_size(full_quote(), type) == 0, !known) << byte;
    }
}

TEST(Quote, FreshRecord_StartsWithBlankIndicatorsAndNoAppendages) {
    MessageWriter writer = used_writer();
    build_quote(writer, QuoteRecord{}, 'D');
    EXPECT_EQ(content(writer).substr(72, 9), "    0  00");
    EXPECT_EQ(content(writer).substr(0, 5), "1QD  ");
}

TEST(LongQuotePutInPlace, PutInPlace_IsTheBuiltMessageAndTouchesNothingAfterIt) {
    const OddLotQuote orders[] = {{'D', 'B', 10'010'000, 17, "NITE"}, {'D', 'A', 10'020'000, 99, "GSCO"}};
    std::size_t longest = 0;
    for (const char nbbo : {'0', '1', '3', '4'}) {
        for (const char mpid : {' ', '2'}) {
            for (const char best : {'0', '3', '5'}) {
                for (const char list : {'0', '3', '5'}) {
                    QuoteRecord record;
                    record.header = {'1', ' ', ' ', 'D', ' ', 11, 12, 13};
                    record.adf_time = 14;
                    record.symbol = "AAPL       ";
                    record.bid = 10'000'000;
                    record.ask = 10'030'000;
                    record.bid_size = 70'000;
                    record.ask_size = 300;
                    record.nbbo_ind = nbbo;
                    record.nbbo_bid = 10'000'000;
                    record.nbbo_ask_size = 5;
                    record.adf_mpid_ind = mpid;
                    record.bid_mpid = "NITE";
                    record.ask_mpid = "GSCO";
                    record.odd_best_ind = best;
                    record.odd_bid = 10'010'000;
                    record.odd_list_ind = list;
                    record.odd_lots = orders;
                    record.odd_lot_count = list == '0' ? 0 : 2;
                    MessageWriter writer;
                    build_quote(writer, record, 'D');
                    std::vector<unsigned char> place(long_quote_bytes_max + 8, 0xEE);
                    const std::size_t length = put_long_quote_message(place.data(), record);
                    ASSERT_EQ(length, writer.size);
                    EXPECT_TRUE(std::equal(writer.bytes.get(), writer.bytes.get() + length, place.begin()));
                    EXPECT_EQ(
                        std::count(place.begin() + static_cast<std::ptrdiff_t>(length), place.end(), 0xEE),
                        static_cast<std::ptrdiff_t>(place.size() - length));
                    longest = std::max(longest, length);
                }
            }
        }
    }
    EXPECT_EQ(longest, long_quote_bytes_max);
}

}  // namespace
}  // namespace tessel
