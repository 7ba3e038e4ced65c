#include "wire/message_writer.h"

#include "unit/wire/layout_check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace tessel {
namespace {

using testing::content;
using testing::expect_layout;
using testing::header_layout;
using testing::hex;
using testing::joined;
using testing::number;
using testing::text;
using testing::used_writer;

// The header and a body of zero bytes.
void begin_zeroed(MessageWriter& writer, const MessageHeader& header, std::size_t body_size) {
    begin_message(writer, header, body_size);
    std::memset(writer.bytes.get() + common_header_bytes, 0, body_size);
}

MessageHeader some_header() {
    MessageHeader header;
    header.category = 'Q';
    header.type = 'C';
    header.market_center = 'N';
    header.sub_market_center = 'B';
    header.sip_time = 0x0102030405060708;
    header.participant_time = 0x1112131415161718;
    header.participant_token = 0x2122232425262728;
    return header;
}

TEST(MessageWriter, Header_EveryFieldAtItsOffset) {
    MessageWriter writer = used_writer();
    begin_message(writer, some_header(), 0);
    EXPECT_EQ(writer.size, common_header_bytes);
    expect_layout(writer, header_layout("1QCNB", 0x0102030405060708, 0x1112131415161718, 0x2122232425262728));
}

TEST(MessageWriter, TimeStamps_MostSignificantByteFirst) {
    MessageWriter writer;
    MessageHeader header;
    header.sip_time = 0x0102030405060708;
    header.participant_time = 0xf1f2f3f4f5f6f7f8;
    begin_message(writer, header, 0);
    EXPECT_EQ(hex(content(writer).substr(5, 16)), "01 02 03 04 05 06 07 08 f1 f2 f3 f4 f5 f6 f7 f8 ");
}

TEST(MessageWriter, BodyBeyondTwiceTheCapacity_GetsAllItAskedFor) {
    MessageWriter writer;
    begin_message(writer, some_header(), 0);
    const std::size_t capacity = writer.capacity;
    begin_message(writer, some_header(), capacity);
    EXPECT_EQ(writer.capacity, 2 * capacity);
    begin_message(writer, some_header(), 1'000'000);
    EXPECT_EQ(writer.size, 1'000'029u);
    EXPECT_GE(writer.capacity, 1'000'029u);
}

TEST(MessageWriter, UsedAgain_AllocatesNothing) {
    MessageWriter writer;
    begin_message(writer, some_header(), 200);
    const unsigned char* const bytes = writer.bytes.get();
    for (std::size_t body = 0; body <= 200; ++body) {
        begin_message(writer, some_header(), body);
        EXPECT_EQ(writer.bytes.get(), bytes);
    }
}

TEST(MessageWriter, Integers_BigEndianInTheirWidth) {
    MessageWriter writer;
    begin_message(writer, some_header(), 19);
    put_u8(writer.bytes.get(), 29, 'z');
    put_u16(writer.bytes.get(), 30, 0x1234);
    put_u32(writer.bytes.get(), 32, 0x89abcdef);
    put_u64(writer.bytes.get(), 36, 0xfedcba9876543210);
    put_size_short(writer.bytes.get(), 44, 0x12345);  // the low 16 bits
    put_size_short(writer.bytes.get(), 46, 65534);
    EXPECT_EQ(hex(content(writer).substr(29)), "7a 12 34 89 ab cd ef fe dc ba 98 76 54 32 10 23 45 ff fe ");
}

TEST(MessageWriter, SizeLong_Takes32Bits) {
    MessageWriter writer;
    begin_message(writer, some_header(), 4);
    put_size_long(writer.bytes.get(), 29, 0xfffefdfc);
    EXPECT_EQ(hex(content(writer).substr(29)), "ff fe fd fc ");
}

TEST(MessageWriter, Price190_19000CentsInShortAndMillionthsInLong) {
    MessageWriter writer;
    begin_message(writer, some_header(), 10);
    put_price_short(writer.bytes.get(), 29, 190'000'000);
    put_price_long(writer.bytes.get(), 31, 190'000'000);
    EXPECT_EQ(hex(content(writer).substr(29)), "4a 38 00 00 00 00 0b 53 2b 80 ");
}

TEST(MessageWriter, ShortPrice_FractionsOfACentAreCutAndHighBitsLost) {
    struct Row {
        std::int64_t price;
        std::uint16_t cents;
    };
    const Row rows[] = {{0, 0},           {9'999, 0},           {10'000, 1},
                        {19'999, 1},      {655'350'000, 65535}, {655'360'000, 0},
                        {655'370'000, 1}, {-10'000, 0xffff},    {-9'999, 0}};
    for (const Row& row : rows) {
        MessageWriter writer;
        begin_message(writer, some_header(), 2);
        put_price_short(writer.bytes.get(), 29, row.price);
        expect_layout(
            writer, joined(header_layout("1QCNB", 0x0102030405060708, 0x1112131415161718, 0x2122232425262728),
                           {number(29, 2, row.cents)}));
    }
}

TEST(MessageWriter, LongPrice_NegativeIsTwosComplement) {
    MessageWriter writer;
    begin_message(writer, some_header(), 8);
    put_price_long(writer.bytes.get(), 29, -10'000);
    EXPECT_EQ(hex(content(writer).substr(29)), "ff ff ff ff ff ff d8 f0 ");
}

TEST(MessageWriter, TwelveLetterSymbolInLongForm_FirstElevenLetters) {
    MessageWriter writer = used_writer();
    begin_zeroed(writer, some_header(), 12);
    put_alpha(writer.bytes.get(), 29, "ABCDEFGHIJKL", 11);
    EXPECT_EQ(content(writer).substr(29), std::string("ABCDEFGHIJK\0", 12));
}

TEST(MessageWriter, ThreeLetterSymbolInShortForm_LettersAndTwoBlanks) {
    MessageWriter writer = used_writer();
    begin_zeroed(writer, some_header(), 6);
    put_alpha(writer.bytes.get(), 29, "IBM", 5);
    EXPECT_EQ(content(writer).substr(29), std::string("IBM  \0", 6));
}

TEST(MessageWriter, Alpha_EveryLengthInEveryWidth) {
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmn";
    for (std::size_t width = 0; width <= 32; ++width) {
        for (std::size_t length = 0; length <= letters.size(); ++length) {
            MessageWriter writer = used_writer();
            begin_zeroed(writer, some_header(), width + 1);
            put_alpha(writer.bytes.get(), 29, std::string_view(letters).substr(0, length), width);
            std::string expected = letters.substr(0, std::min(length, width));
            expected.resize(width, ' ');
            ASSERT_EQ(content(writer).substr(29), expected + '\0')
                << "length " << length << " width " << width;
        }
    }
}

}  // namespace
}  // namespace tessel
