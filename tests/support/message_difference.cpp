#include "support/message_difference.h"

#include "wire/layout.h"

#include <algorithm>
#include <vector>

namespace tessel::testing {

namespace {

using layout::Kind;
using layout::LocatedField;

const unsigned char* raw(const std::string& message) {
    return reinterpret_cast<const unsigned char*>(message.data());
}

std::vector<LocatedField> fields_of(const std::string& message) {
    std::vector<LocatedField> fields;
    locate_fields(fields, raw(message), message.size());
    return fields;
}

std::string value_of(const std::string& message, const LocatedField& located) {
    if (located.offset + located.field->width > message.size()) {
        return "(missing)";
    }
    const Kind kind = located.field->kind;
    if (kind == Kind::letter || kind == Kind::text || kind == Kind::conditions) {
        return "'" + message.substr(located.offset, located.field->width) + "'";
    }
    return std::to_string(integer_at(raw(message), located));
}

}  // namespace

std::string type_name(const std::string& message) {
    const layout::Message* const found =
        message.size() < 29 ? nullptr : layout::find_message(message[1], message[2]);
    std::string name(found == nullptr ? "unknown" : found->kind);
    std::replace(name.begin(), name.end(), '_', '-');
    return name == "mpid-quote" ? "quote-mpid" : name;
}

std::string without_times(std::string message) {
    for (const LocatedField& located : fields_of(message)) {
        if (located.field->kind == Kind::time) {
            message.replace(located.offset, located.field->width, located.field->width, '\0');
        }
    }
    return message;
}

std::string to_hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

std::string from_hex(const std::string& hex) {
    std::string out;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        out += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    }
    return out;
}

std::string difference(const std::string& expected, const std::string& got) {
    if (expected == got) {
        return {};
    }
    std::string where =
        "length: expected " + std::to_string(expected.size()) + " bytes, got " + std::to_string(got.size());
    for (const LocatedField& located : fields_of(expected)) {
        if (value_of(expected, located) != value_of(got, located)) {
            where = std::string(located.block->prefix) + std::string(located.field->name) + " at offset " +
                    std::to_string(located.offset) + ": expected " + value_of(expected, located) + ", got " +
                    value_of(got, located);
            break;
        }
    }
    return type_name(expected) + " expected, " + type_name(got) + " got; " + where + "\nexpected " +
           to_hex(expected) + "\ngot      " + to_hex(got);
}

}  // namespace tessel::testing
