#include "wire/layout.h"

#include "support/hand_made.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace tessel::layout {
namespace {

using receiver::MessageKind;
using namespace receiver::hand_made;

std::vector<LocatedField> fields_of(const std::string& message) {
    std::vector<LocatedField> fields;
    locate_fields(fields, raw(message), message.size());
    return fields;
}

// The kinds and lengths once more, from the decoder's tests: a table that lost a message would agree with
// itself.
TEST(Layout, EveryHandMadeMessage_IsCoveredToItsLastByte) {
    std::set<std::string_view> kinds;
    for (const auto& [kind, data] : one_of_each()) {
        std::vector<LocatedField> fields;
        EXPECT_EQ(locate_fields(fields, raw(data), data.size()), data.size()) << kind_name(kind);
        std::size_t at = 0;
        for (const LocatedField& located : fields) {
            EXPECT_EQ(located.offset, at) << kind_name(kind) << ' ' << located.field->name;
            at += located.field->width;
        }
        EXPECT_EQ(at, data.size()) << kind_name(kind);
        const Message* const message = find_message(data[1], data[2]);
        ASSERT_NE(message, nullptr) << kind_name(kind);
        EXPECT_EQ(message->kind, kind_name(kind));
        kinds.insert(message->kind);
    }
    EXPECT_EQ(kinds.size(), std::size(messages));
}

TEST(Layout, FieldNames_AreUniqueInEachMessage) {
    for (const auto& [kind, data] : one_of_each()) {
        std::set<std::string> names;
        for (const LocatedField& located : fields_of(data)) {
            const std::string name = std::string(located.block->prefix) + std::string(located.field->name) +
                                     std::to_string(located.entry);
            EXPECT_TRUE(names.insert(name).second) << kind_name(kind) << ' ' << name;
        }
    }
}

TEST(Layout, Codes_FitTheirFieldsAndAreUnique) {
    for (const auto& [kind, data] : one_of_each()) {
        for (const LocatedField& located : fields_of(data)) {
            std::set<std::string_view> values;
            for (const Code& code : located.field->codes) {
                EXPECT_LE(code.value.size(), located.field->width) << located.field->name;
                EXPECT_FALSE(code.meaning.empty()) << located.field->name << ' ' << code.value;
                EXPECT_TRUE(values.insert(code.value).second) << located.field->name << ' ' << code.value;
            }
        }
    }
}

// The typed decoder has its own offsets; both must find the same numbers in each part of a message.
TEST(Layout, IntegersOfEachPart_AreThoseThatTheDecoderReads) {
    receiver::Message decoded;
    const std::string quote = one_of_each()[15].second;
    ASSERT_TRUE(decode(decoded, quote));
    const auto value = [&](std::string_view prefix, std::string_view name) {
        for (const LocatedField& located : fields_of(quote)) {
            if (located.block->prefix == prefix && located.field->name == name) {
                return integer_at(raw(quote), located);
            }
        }
        ADD_FAILURE() << prefix << name;
        return std::uint64_t{0};
    };
    EXPECT_EQ(value("", "bid"), static_cast<std::uint64_t>(decoded.quote.bid));
    EXPECT_EQ(value("", "ask_size"), decoded.quote.ask_size);
    EXPECT_EQ(value("", "adf_time"), decoded.quote.adf_time_ns);
    EXPECT_EQ(value("nbbo_", "ask"), static_cast<std::uint64_t>(decoded.nbbo.ask));
    EXPECT_EQ(value("best_odd_lot_", "bid_size"), decoded.best_odd_lot.bid_size);
    EXPECT_EQ(value("odd_lot_", "price"), static_cast<std::uint64_t>(decoded.odd_lots[0].price));
}

TEST(Layout, TruncatedOrUnknownMessage_HasTheFieldsThatLieWithinIt) {
    for (const auto& [kind, data] : one_of_each()) {
        for (std::size_t length = 0; length < data.size(); ++length) {
            // A buffer of exactly this size, so that a read past the end is one past an allocation.
            const std::vector<unsigned char> cut(data.begin(),
                                                 data.begin() + static_cast<std::ptrdiff_t>(length));
            std::vector<LocatedField> fields;
            EXPECT_NE(locate_fields(fields, cut.data(), length), length == 29 ? 0 : length);
            for (const LocatedField& located : fields) {
                EXPECT_LE(located.offset + located.field->width, length);
            }
        }
    }
    EXPECT_EQ(find_message('X', 'Y'), nullptr);
    EXPECT_EQ(fields_of(header('X', 'Y', 'Q').data + "more").size(), std::size(header_fields));
}

// A list whose count promises more entries than the message holds ends with the message.
TEST(Layout, CountBeyondTheMessage_IsNotFollowed) {
    QuoteHand quote;
    quote.odd_lot_list = '3';
    quote.odd_lot_count = 65535;
    quote.appendages.assign(30, 'Q');
    const std::string message = quote_long(quote);
    std::vector<LocatedField> fields;
    EXPECT_NE(locate_fields(fields, raw(message), message.size()), message.size());
    EXPECT_EQ(fields.back().entry, 2u);
    EXPECT_LE(fields.back().offset + fields.back().field->width, message.size());
}

}  // namespace
}  // namespace tessel::layout
