#pragma once

#include "wire/layout.h"
#include "wire/message_writer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace tessel::testing {

// One row of a layout table: offset, width and the bytes that must be there, worked out here and not by
// the encoder.
struct Field {
    std::size_t offset = 0;
    std::size_t width = 0;
    std::string bytes;
    bool is_number = false;
};

// A big-endian integer field.
inline Field number(std::size_t offset, std::size_t width, std::uint64_t value) {
    std::string bytes;
    for (std::size_t at = width; at > 0; --at) {
        bytes.push_back(static_cast<char>(value >> (8 * (at - 1)) & 0xff));
    }
    return {offset, width, bytes, true};
}

// A text field, written out in full with its padding.
inline Field text(std::size_t offset, const std::string& value) {
    return {offset, value.size(), value, false};
}

using Layout = std::vector<Field>;

// The common header: its five letters, the two times and the token.
inline Layout header_layout(const std::string& letters, std::uint64_t sip_time,
                            std::uint64_t participant_time, std::uint64_t token = 0) {
    return {text(0, letters), number(5, 8, sip_time), number(13, 8, participant_time), number(21, 8, token)};
}

inline Layout joined(Layout first, const Layout& rest) {
    first.insert(first.end(), rest.begin(), rest.end());
    return first;
}

// The rows moved up by `by` bytes: an appendage's table counts from its own start.
inline Layout shifted(Layout rows, std::size_t by) {
    for (Field& row : rows) {
        row.offset += by;
    }
    return rows;
}

inline std::string hex(const std::string& bytes) {
    std::ostringstream out;
    for (const char byte : bytes) {
        out << std::hex << std::setw(2) << std::setfill('0') << (static_cast<unsigned>(byte) & 0xffu) << ' ';
    }
    return out.str();
}

inline std::string content(const MessageWriter& writer) {
    return {reinterpret_cast<const char*>(writer.bytes.get()), writer.size};
}

// Every row must hold, and the rows must cover the message from its first byte to its last without a gap.
inline void expect_layout(const MessageWriter& writer, const Layout& rows) {
    const std::string message = content(writer);
    std::size_t at = 0;
    for (const Field& row : rows) {
        ASSERT_EQ(row.offset, at) << "the table has a gap or an overlap";
        ASSERT_LE(row.offset + row.width, message.size());
        EXPECT_EQ(hex(message.substr(row.offset, row.width)), hex(row.bytes))
            << "field at offset " << row.offset;
        at += row.width;
    }
    EXPECT_EQ(at, message.size());
}

// The same, and the layout table has fields at the same places: a number is one field, and a row of text is
// one or more.
inline void expect_message(const MessageWriter& writer, const Layout& rows) {
    expect_layout(writer, rows);
    std::vector<layout::LocatedField> fields;
    EXPECT_EQ(layout::locate_fields(fields, writer.bytes.get(), writer.size), writer.size);
    std::size_t next = 0;
    for (const Field& row : rows) {
        for (std::size_t at = row.offset; at < row.offset + row.width; ++next) {
            ASSERT_LT(next, fields.size()) << "the layout table has no field at offset " << at;
            EXPECT_EQ(fields[next].offset, at) << fields[next].field->name;
            const bool is_text = fields[next].field->kind == layout::Kind::letter ||
                                 fields[next].field->kind == layout::Kind::text ||
                                 fields[next].field->kind == layout::Kind::conditions;
            EXPECT_TRUE(!row.is_number || (!is_text && fields[next].field->width == row.width))
                << fields[next].field->name;
            at += fields[next].field->width;
        }
    }
    EXPECT_EQ(next, fields.size());
}

// A writer that was used before, full of bytes that must not shine through.
inline MessageWriter used_writer() {
    MessageWriter writer;
    begin_message(writer, {}, 4096);
    for (std::size_t at = 0; at < writer.size; ++at) {
        put_u8(writer.bytes.get(), at, '\xee');
    }
    return writer;
}

}  // namespace tessel::testing
