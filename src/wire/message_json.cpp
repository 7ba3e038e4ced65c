#include "wire/message_json.h"

#include "wire/layout.h"

#include <charconv>
#include <vector>

namespace tessel::layout {

namespace {

constexpr std::int64_t millionths_per_cent = 10'000;
constexpr std::size_t usual_fields = 64;  // more than any message has without a long odd-lot list
constexpr char hex_digits[] = "0123456789abcdef";

void append_name(std::string& out, std::string_view name, std::string_view suffix = {}) {
    if (out.back() != '{' && out.back() != '[') {
        out += ',';
    }
    out += '"';
    out += name;
    out += suffix;
    out += "\":";
}

template <class Integer>
void append_integer(std::string& out, Integer value) {
    char text[24];
    const std::to_chars_result end = std::to_chars(text, text + sizeof text, value);
    out.append(text, end.ptr);
}

// Bytes outside printable ASCII are written as \u00XX: a message may hold any byte.
void append_text(std::string& out, std::string_view value) {
    out += '"';
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte > 0x7e) {
            out += "\\u00";
            out += hex_digits[byte >> 4];
            out += hex_digits[byte & 15];
        } else {
            out += c;
        }
    }
    out += '"';
}

std::string_view text_at(const unsigned char* bytes, const LocatedField& located) {
    std::size_t width = located.field->width;
    while (located.field->kind == Kind::text && width > 0 && bytes[located.offset + width - 1] == ' ') {
        --width;
    }
    return {reinterpret_cast<const char*>(bytes) + located.offset, width};
}

void append_field(std::string& out, const unsigned char* bytes, const LocatedField& located) {
    const Field& field = *located.field;
    append_name(out, field.name, field.kind == Kind::time ? "_ns" : "");
    switch (field.kind) {
        case Kind::letter:
        case Kind::text:
        case Kind::conditions: append_text(out, text_at(bytes, located)); break;
        case Kind::cents:
            append_integer(out, static_cast<std::int64_t>(integer_at(bytes, located)) * millionths_per_cent);
            break;
        case Kind::millionths:
            append_integer(out, static_cast<std::int64_t>(integer_at(bytes, located)));
            break;
        case Kind::integer:
        case Kind::shares:
        case Kind::time: append_integer(out, integer_at(bytes, located)); break;
    }
}

// Ends the object that `before` is in and begins the one that `next` is in; either is null at the ends.
void change_object(std::string& out, const LocatedField* before, const LocatedField* next) {
    const Block* const old_block = before == nullptr ? nullptr : before->block;
    const Block* const new_block = next == nullptr ? nullptr : next->block;
    if (before == nullptr && next == nullptr) {
        return;
    }
    if (before != nullptr && next != nullptr && old_block == new_block && before->entry == next->entry) {
        return;
    }
    if (old_block != nullptr && !old_block->object.empty()) {
        out += '}';
        if (old_block->repeated && old_block != new_block) {
            out += ']';
        }
    }
    if (new_block == nullptr || new_block->object.empty()) {
        return;
    }
    if (old_block == new_block) {
        out += ",{";
        return;
    }
    append_name(out, new_block->object);
    out += new_block->repeated ? "[{" : "{";
}

void begin_line(std::string& out, std::uint64_t sequence, std::string_view kind) {
    out += "{\"seq\":";
    append_integer(out, sequence);
    out += ",\"kind\":\"";
    out += kind;
    out += '"';
}

}  // namespace

void append_message_json(std::string& out, const unsigned char* bytes, std::size_t length,
                         std::uint64_t sequence) {
    std::vector<LocatedField> fields;
    fields.reserve(usual_fields);
    locate_fields(fields, bytes, length);
    const Message* const message =
        length < 3 ? nullptr : find_message(static_cast<char>(bytes[1]), static_cast<char>(bytes[2]));
    begin_line(out, sequence, message == nullptr ? "unknown" : message->kind);
    const LocatedField* before = nullptr;
    for (const LocatedField& located : fields) {
        change_object(out, before, &located);
        append_field(out, bytes, located);
        before = &located;
    }
    change_object(out, before, nullptr);
    out += "}\n";
}

void append_undecoded_json(std::string& out, const unsigned char* bytes, std::size_t length,
                           std::uint64_t sequence, std::string_view error) {
    begin_line(out, sequence, "unknown");
    append_name(out, "error");
    append_text(out, error);
    append_name(out, "bytes");
    out += '"';
    for (std::size_t at = 0; at < length; ++at) {
        out += hex_digits[bytes[at] >> 4];
        out += hex_digits[bytes[at] & 15];
    }
    out += "\"}\n";
}

}  // namespace tessel::layout
