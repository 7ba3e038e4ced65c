#pragma once

#include "wire/field_table.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

// Every message's layout, written down once: sizes, names, titles, units and codes. The JSON lines of
// `tessel-listen --decode`, the Wireshark dissector, the message reference and the names in test differences
// are made from it. The encoders (wire/*_messages) and the typed decoder (wire/message_decoder) have separate
// offsets on purpose: a mistake in one of the three shows as a difference from the other two.
namespace tessel::layout {

// Fields that follow each other. The same fields may be part of several messages, at different offsets.
struct Block {
    std::span<const Field> fields;
    std::uint16_t offset = 0;            // from the start of the message; 0 in an appendage
    std::string_view object = {};        // the JSON object that holds the fields; empty: the message's own
    std::string_view prefix = {};        // put before the names where no objects nest
    std::string_view title_prefix = {};  // put before the titles
    bool repeated = false;               // as often as the field "odd_lot_count" says
};

// A part that follows a quotation message's fixed part when one of its fields, the indicator, has this value.
struct Appendage {
    std::string_view indicator;
    char value = ' ';
    Block block;
    std::string_view title;
};

// Where the fields that announce appendages are; 0 in messages that lack them.
struct Indicators {
    std::uint16_t nbbo = 0;
    std::uint16_t adf_mpid = 0;
    std::uint16_t best_odd_lot = 0;
    std::uint16_t odd_lot_list = 0;
    std::uint16_t odd_lot_count = 0;
};

struct Message {
    char category = ' ';
    char type = ' ';
    std::string_view kind;  // the name of the message
    std::string_view title;
    std::span<const Block> blocks;  // after the header
    std::uint16_t bytes = 0;        // header included, appendages not
    Indicators indicators;

    // Whether appendages may follow.
    constexpr bool is_open() const {
        return indicators.odd_lot_count != 0;
    }
};

// clang-format off
inline constexpr Block header_block = {header_fields};
inline constexpr Block quote_short_blocks[] = {{quote_short_fields}};
inline constexpr Block quote_long_blocks[] = {{quote_long_fields}};
inline constexpr Block mpid_quote_blocks[] = {{mpid_quote_fields}};
inline constexpr Block odd_lots_short_blocks[] = {{odd_lots_short_fields}};
inline constexpr Block odd_lots_long_blocks[] = {{odd_lots_long_fields}};
inline constexpr Block trade_short_blocks[] = {{trade_short_fields}};
inline constexpr Block trade_long_blocks[] = {{report_head_fields}, {trade_fields, 48}, {changes_fields, 79}};
inline constexpr Block cancel_error_blocks[] = {
    {report_head_fields}, {function_fields}, {trade_fields, 49},
    {statistics_fields, 80, "consolidated", "consolidated_", "Consolidated "}, {revision_fields, 112},
    {statistics_fields, 114, "participant", "participant_", "Participant "},
};
inline constexpr Block correction_blocks[] = {
    {report_head_fields}, {trade_fields, 48}, {trade_fields, 79, "corrected", "corrected_", "Corrected "},
    {statistics_fields, 110, "consolidated", "consolidated_", "Consolidated "}, {revision_fields, 142},
    {statistics_fields, 144, "participant", "participant_", "Participant "},
};
inline constexpr Block as_of_blocks[] = {{report_head_fields}, {trade_fields, 48}, {as_of_fields}};
inline constexpr Block decline_level_blocks[] = {{decline_level_fields}};
inline constexpr Block directory_short_blocks[] = {{directory_fields}};
inline constexpr Block directory_long_blocks[] = {{directory_fields}, {directory_more_fields}};
inline constexpr Block indicator_blocks[] = {{indicator_fields}};
inline constexpr Block trading_action_blocks[] = {{trading_action_fields}};
inline constexpr Block price_band_blocks[] = {{price_band_fields}};
inline constexpr Block collar_blocks[] = {{collar_fields}};
inline constexpr Block mwcb_status_blocks[] = {{mwcb_status_fields}};
inline constexpr Block end_of_snapshot_blocks[] = {{end_of_snapshot_fields}};

constexpr Block nbbo_block(std::span<const Field> fields) {
    return {fields, 0, "nbbo", "nbbo_"};
}

// The first `count` fields.
constexpr Block best_odd_lot_block(std::span<const Field> fields, std::size_t count) {
    return {fields.first(count), 0, "best_odd_lot", "best_odd_lot_", "Best Odd-Lot "};
}

constexpr Block odd_lot_block(std::span<const Field> fields, std::size_t count) {
    return {fields.first(count), 0, "odd_lots", "odd_lot_", "Odd-Lot ", true};
}

// In the order in which they follow the fixed part; of one indicator at most one follows.
inline constexpr Appendage appendages[] = {
    {"nbbo_indicator", '2', nbbo_block(nbbo_short_fields), "NBBO"},
    {"nbbo_indicator", '3', nbbo_block(nbbo_long_fields), "NBBO"},
    {"adf_mpid_indicator", '2', {adf_mpid_fields}, "ADF MPIDs"},
    {"best_odd_lot_indicator", '2', best_odd_lot_block(best_odd_lot_short_fields, 6), "Best odd-lot quote"},
    {"best_odd_lot_indicator", '3', best_odd_lot_block(best_odd_lot_long_fields, 6), "Best odd-lot quote"},
    {"best_odd_lot_indicator", '5', best_odd_lot_block(best_odd_lot_long_fields, 8), "Best odd-lot quote"},
    {"odd_lot_list_indicator", '2', odd_lot_block(odd_lot_short_fields, 4), "Odd-lot order"},
    {"odd_lot_list_indicator", '3', odd_lot_block(odd_lot_long_fields, 4), "Odd-lot order"},
    {"odd_lot_list_indicator", '5', odd_lot_block(odd_lot_long_fields, 5), "Odd-lot order"},
};
// clang-format on

// Bytes from the start of the block's fields to their end.
constexpr std::uint16_t bytes_of(std::span<const Field> fields) {
    return static_cast<std::uint16_t>(fields.back().offset + fields.back().width - fields.front().offset);
}

constexpr std::uint16_t offset_of(std::span<const Block> blocks, std::string_view name) {
    for (const Block& block : blocks) {
        for (const Field& field : block.fields) {
            if (block.object.empty() && field.name == name) {
                return static_cast<std::uint16_t>(block.offset + field.offset);
            }
        }
    }
    return 0;
}

constexpr Message message_of(char category, char type, std::string_view kind, std::string_view title,
                             std::span<const Block> blocks) {
    std::uint16_t bytes = bytes_of(header_fields);
    for (const Block& block : blocks) {
        bytes = static_cast<std::uint16_t>(bytes + bytes_of(block.fields));
    }
    return {category,
            type,
            kind,
            title,
            blocks,
            bytes,
            {offset_of(blocks, "nbbo_indicator"), offset_of(blocks, "adf_mpid_indicator"),
             offset_of(blocks, "best_odd_lot_indicator"), offset_of(blocks, "odd_lot_list_indicator"),
             offset_of(blocks, "odd_lot_count")}};
}

// All messages of the feed and of its Snap-Shot service, the most frequent ones first in each category.
inline constexpr Message messages[] = {
    message_of('Q', 'C', "quote_short", "Short quote", quote_short_blocks),
    message_of('Q', 'D', "quote_long", "Long quote", quote_long_blocks),
    message_of('Q', 'M', "mpid_quote", "MPID quote", mpid_quote_blocks),
    message_of('Q', 'A', "odd_lots_short", "Short odd-lot update", odd_lots_short_blocks),
    message_of('Q', 'B', "odd_lots_long", "Long odd-lot update", odd_lots_long_blocks),
    message_of('T', 'M', "trade_short", "Short trade report", trade_short_blocks),
    message_of('T', 'N', "trade_long", "Long trade report", trade_long_blocks),
    message_of('T', 'O', "cancel_error", "Trade cancel or error", cancel_error_blocks),
    message_of('T', 'P', "correction", "Trade correction", correction_blocks),
    message_of('T', 'Q', "as_of", "As-of trade", as_of_blocks),
    message_of('A', 'H', "trading_action", "Trading action", trading_action_blocks),
    message_of('A', 'P', "price_band", "LULD price band", price_band_blocks),
    message_of('A', 'E', "collar", "LULD auction collar", collar_blocks),
    message_of('A', 'D', "mwcb_status", "Circuit breaker status", mwcb_status_blocks),
    message_of('A', 'C', "decline_levels", "Circuit breaker decline levels", decline_level_blocks),
    message_of('A', 'B', "directory_short", "Short issue symbol directory", directory_short_blocks),
    message_of('A', 'F', "directory_long", "Long issue symbol directory", directory_long_blocks),
    message_of('A', 'V', "indicator", "Instrument indicator", indicator_blocks),
    message_of('A', 'S', "end_of_snapshot", "End of snapshot", end_of_snapshot_blocks),
    message_of('C', 'I', "start_of_day", "Start of day", {}),
    message_of('C', 'O', "session_open", "Session open", {}),
    message_of('C', 'P', "wipe_out", "Quote wipe-out", {}),
};

// Null when there is none of that category and type.
constexpr const Message* find_message(char category, char type) {
    for (const Message& message : messages) {
        if (message.category == category && message.type == type) {
            return &message;
        }
    }
    return nullptr;
}

// The length of a message without appendages, header included, in bytes.
consteval std::size_t message_bytes(char category, char type) {
    return find_message(category, type)->bytes;
}

// The length of an appendage, or of one entry of a list.
consteval std::size_t appendage_bytes(std::string_view indicator, char value) {
    for (const Appendage& each : appendages) {
        if (each.indicator == indicator && each.value == value) {
            return bytes_of(each.block.fields);
        }
    }
    return 0;
}

// A field of one message in hand.
struct LocatedField {
    const Field* field = nullptr;
    const Block* block = nullptr;
    std::size_t offset = 0;  // from the start of the message
    std::size_t entry = 0;   // of a repeated appendage, from 0
};

// Replaces `out` by the fields of the message, in the order of its bytes, and returns where its layout ends:
// `length` for a message that fits its layout. Fields that do not lie within `length` bytes are left out; a
// message of unknown category and type has the header's fields alone.
std::size_t locate_fields(std::vector<LocatedField>& out, const unsigned char* bytes, std::size_t length);

// The field's unsigned value; for kinds that hold an integer.
std::uint64_t integer_at(const unsigned char* bytes, const LocatedField& located);

}  // namespace tessel::layout
