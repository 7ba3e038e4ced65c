#include "reference/generated.h"
#include "wire/packet_table.h"

#include <map>
#include <set>
#include <stdexcept>

namespace tessel::reference {

namespace {

using layout::Block;
using layout::Field;
using layout::Kind;

constexpr std::string_view first_mark = "-- Generated from here (scripts/generate).\n";
constexpr std::string_view last_mark = "-- Generated to here.\n";

// How the dissector reads the field; see `kinds` there.
const char* lua_kind(const Field& field) {
    switch (field.kind) {
        case Kind::letter: return "letter";
        case Kind::text: return "text";
        case Kind::conditions: return "padded";
        case Kind::integer: return field.width > 4 ? "number" : "count";
        case Kind::cents:
        case Kind::millionths: return "price";
        case Kind::shares: return "shares";
        case Kind::time: return "time";
    }
    return "";
}

// A Lua string; the table's texts hold no control characters.
std::string lua_text(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

struct Writer {
    std::string text;
    std::string field_list;
    std::string code_tables;
    std::set<std::string> fields_seen;
    std::map<const layout::Code*, std::string> code_names;
};

// Names a code table after the first field that uses it.
void add_codes(Writer& writer, const Field& field, const std::string& name) {
    if (field.codes.empty() || !writer.code_names.emplace(field.codes.data(), name).second) {
        return;
    }
    writer.code_tables += "codes[" + lua_text(name) + "] = {\n";
    for (const layout::Code& code : field.codes) {
        writer.code_tables += "    [" + lua_text(code.value) + "] = " + lua_text(code.meaning) + ",\n";
    }
    writer.code_tables += "}\n";
}

void add_block(Writer& writer, const Block& block) {
    for (const Field& field : block.fields) {
        const std::string name = flat_name(block, field);
        if (writer.fields_seen.insert(name).second) {
            writer.field_list += "    {" + lua_text(name) + ", \"" + lua_kind(field) + "\", " +
                                 lua_text(std::string(block.title_prefix) + std::string(field.title)) +
                                 "},\n";
        }
        add_codes(writer, field, name);
        writer.text += "        {" + std::to_string(block.offset + field.offset) + ", " +
                       std::to_string(field.width) + ", " + lua_text(name);
        if (!field.codes.empty()) {
            writer.text += ", codes[" + lua_text(writer.code_names.at(field.codes.data())) + "]";
        }
        writer.text += "},\n";
    }
}

std::string make_tables() {
    Writer writer;
    writer.text =
        "-- The layouts: offset, width, field, meanings of codes. Every message begins with the header.\n";
    writer.text +=
        "local header_bytes = " + std::to_string(bytes_of(layout::header_fields)) + "\nlocal header = {\n";
    add_block(writer, layout::header_block);
    writer.text +=
        "}\n\n-- By category and type. `quote` marks the messages that appendages may follow.\nlocal layouts "
        "= {\n";
    for (const layout::Message& message : layout::messages) {
        writer.text += std::string("    ") + message.category + message.type +
                       " = {kind = " + lua_text(message.kind) +
                       ", length = " + std::to_string(message.bytes) +
                       (message.is_open() ? ", quote = true" : "") + ",\n";
        for (const Block& block : message.blocks) {
            add_block(writer, block);
        }
        writer.text += "    },\n";
    }
    writer.text +=
        "}\n\n-- What may follow a quote: when the field `indicator` has the value; offsets count from where "
        "it starts.\n"
        "local appendages = {\n";
    for (const layout::Appendage& appendage : layout::appendages) {
        writer.text += "    {indicator = " + lua_text(appendage.indicator) + ", value = \"" +
                       appendage.value + "\", title = " + lua_text(appendage.title) +
                       ",\n        length = " + std::to_string(bytes_of(appendage.block.fields)) +
                       (appendage.block.repeated ? ", repeated = true" : "") + ",\n";
        add_block(writer, appendage.block);
        writer.text += "    },\n";
    }
    return "-- Name, kind and title of every field.\nlocal field_list = {\n" + writer.field_list +
           "}\n\n-- What the codes mean.\nlocal codes = {}\n" + writer.code_tables + "\n" + writer.text +
           "}\n";
}

// SoupBinTCP packet types and payloads; offsets count from the start of the packet.
std::string make_soup_tables() {
    std::string text =
        "\n-- SoupBinTCP: the names of the packet types, and the payloads.\nlocal soup_types = {\n";
    for (const layout::Code& code : layout::soup_codes) {
        text += "    [" + lua_text(code.value) + "] = " + lua_text(code.meaning) + ",\n";
    }
    text += "}\nlocal soup_layouts = {\n";
    for (const layout::SoupPayload& payload : layout::soup_payloads) {
        const std::size_t end = payload.fields.back().offset + payload.fields.back().width;
        text += std::string("    ") + payload.type + " = {length = " + std::to_string(end) + ",\n";
        for (const Field& field : payload.fields) {
            text += "        {" + std::to_string(field.offset) + ", " + std::to_string(field.width) + ", " +
                    lua_text(field.name) + "},\n";
        }
        text += "    },\n";
    }
    return text + "}\n";
}

}  // namespace

GeneratedFile make_dissector(const std::string& lua) {
    const std::size_t first = lua.find(first_mark);
    const std::size_t last = lua.find(last_mark);
    if (first == std::string::npos || last == std::string::npos || last < first) {
        throw std::runtime_error("tools/wireshark/tessel.lua lacks the marks of its generated part");
    }
    return {"tools/wireshark/tessel.lua",
            lua.substr(0, first + first_mark.size()) + make_tables() + make_soup_tables() + lua.substr(last)};
}

}  // namespace tessel::reference
