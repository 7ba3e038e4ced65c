#include "reference/generated.h"
#include "reference/message_texts.h"
#include "wire/packet_table.h"

#include <map>
#include <stdexcept>

namespace tessel::reference {

namespace {

using layout::Block;
using layout::Field;
using layout::Kind;
using layout::LocatedField;
using layout::Message;

constexpr std::string_view conventions =
    R"(# Messages

Every message of the feed, byte by byte. This page is made by `scripts/generate` from the layout table
that the programs use (`src/wire/layout.h`). The samples are what a run with the default options sends, or
another run for kinds that it lacks; the two kinds that the feed never sends are encoded for this page.
[vectors.md](vectors.md) has many more messages, for the tests of a decoder;
[book-building.md](book-building.md) says how the messages become a market.

## Conventions

- **Integers** are unsigned and big-endian.
- **Prices** are cents (2 bytes, unsigned) in short forms and millionths of a dollar (8 bytes, signed) in
  long forms: 190.01 is 19001 or 190010000. An instrument of a few cents can have negative prices. 0 means
  that there is no price.
- **Sizes** of quotes are shares. Sizes of trades and volumes are millionths of a share, in 8 bytes, in
  both forms.
- **Times** are nanoseconds since 1970-01-01 00:00 UTC, in 8 bytes; 0 means that there is none.
- **Texts** are ASCII, padded with blanks on the right and cut to the field's width. Each of the four sale
  conditions has its place: their blanks count.
- **Letters** are one ASCII character. A code that this page does not list may arrive; treat it as
  unknown.
- A message is found by its **category** and **type**, bytes 1 and 2. Its length is that of its fixed part
  and of the appendages that its indicators announce, nothing else.
- Messages carry no sequence number: the packet's number is that of its first message, and each message in
  it has the next one.
- The lines under "Decoded" are those of `tessel-listen --decode` without the sequence number: prices in
  millionths in both forms, times in nanoseconds, padding removed from texts.

)";

constexpr std::string_view mold_text =
    R"(## Packets: MoldUDP64

The multicast feed and the replies of the retransmission service are MoldUDP64 packets of at most 1,500
bytes: a header, then as many message blocks as its count says. Messages are numbered from 1; a packet
without messages is a heartbeat, sent after a second of silence, whose number is that of the next message.
No end-of-session packet is sent.

)";

constexpr std::string_view soup_text =
    R"(## Packets: SoupBinTCP

The Snap-Shot service speaks SoupBinTCP over TCP. The client sends a Login Request; the server answers
with Login Accepted, then the Snap-Shot as Sequenced Data packets of one message each, the last one an
[end of snapshot](#end_of_snapshot), then a heartbeat every second. The server ends a session whose client
sends nothing for 15 seconds.

)";

std::string cell(std::string_view text) {
    std::string out;
    for (const char c : text) {
        out += c == '|' ? "\\|" : std::string(1, c);
    }
    return out;
}

std::string type_text(const Field& field) {
    switch (field.kind) {
        case Kind::letter: return "letter";
        case Kind::text: return "text";
        case Kind::conditions: return "conditions";
        case Kind::integer: return "integer";
        case Kind::cents: return "price, cents";
        case Kind::millionths: return "price, millionths";
        case Kind::shares: return "millionths of a share";
        case Kind::time: return "time, ns";
    }
    return {};
}

// The name of the codes that a field holds: that of the first field which uses them.
struct CodeNames {
    std::map<const layout::Code*, std::string> names;
    std::vector<std::pair<std::string, const Field*>> order;
};

std::string meaning_text(CodeNames& codes, const Block& block, const Field& field) {
    std::string text(field.title);
    if (!field.note.empty()) {
        text += "; " + std::string(field.note);
    }
    if (field.codes.empty()) {
        return text;
    }
    const auto [found, is_new] = codes.names.emplace(field.codes.data(), flat_name(block, field));
    if (is_new) {
        codes.order.emplace_back(found->second, &field);
    }
    return text + " ([codes](#codes-" + found->second + "))";
}

std::string value_text(const std::string& message, const LocatedField& located) {
    const Kind kind = located.field->kind;
    if (kind != Kind::letter && kind != Kind::text && kind != Kind::conditions) {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(message.data());
        const std::uint64_t value = integer_at(bytes, located);
        return kind == Kind::millionths ? std::to_string(static_cast<std::int64_t>(value))
                                        : std::to_string(value);
    }
    return "`\"" + message.substr(located.offset, located.field->width) + "\"`";
}

std::string field_rows(CodeNames& codes, const Block& block) {
    std::string out = "| offset | width | field | type | meaning |\n|---|---|---|---|---|\n";
    for (const Field& field : block.fields) {
        out += "| " + std::to_string(field.offset) + " | " + std::to_string(field.width) + " | `" +
               std::string(field.name) + "` | " + type_text(field) + " | " +
               cell(meaning_text(codes, block, field)) + " |\n";
    }
    return out + "\n";
}

// The fields of the fixed part, with their values in the sample.
std::string sample_rows(CodeNames& codes, const Sample& sample) {
    std::vector<LocatedField> fields;
    locate_fields(fields, reinterpret_cast<const unsigned char*>(sample.message.data()),
                  sample.message.size());
    std::string out =
        "| offset | width | field | type | meaning | in the sample |\n|---|---|---|---|---|---|\n";
    for (const LocatedField& located : fields) {
        if (located.block == &layout::header_block || located.offset >= sample.layout->bytes) {
            continue;
        }
        const std::string object =
            located.block->object.empty() ? "" : std::string(located.block->object) + ".";
        out += "| " + std::to_string(located.offset) + " | " + std::to_string(located.field->width) + " | `" +
               object + std::string(located.field->name) + "` | " + type_text(*located.field) + " | " +
               cell(meaning_text(codes, *located.block, *located.field)) + " | " +
               cell(value_text(sample.message, located)) + " |\n";
    }
    return out + "\n";
}

const MessageText& text_of(const Message& message) {
    for (const MessageText& text : message_texts) {
        if (text.kind == message.kind) {
            return text;
        }
    }
    throw std::runtime_error("no text for " + std::string(message.kind));
}

std::string category_text(char category) {
    for (const layout::Code& code : layout::category_codes) {
        if (code.value[0] == category) {
            return std::string(code.meaning);
        }
    }
    return {};
}

std::string overview() {
    std::string out =
        "## All messages\n\n| category | type | message | bytes | what it says |\n|---|---|---|---|---|\n";
    for (const Message& message : layout::messages) {
        out += std::string("| ") + message.category + " " + category_text(message.category) + " | " +
               message.type + " | [" + std::string(message.kind) + "](#" + std::string(message.kind) +
               ") | " + std::to_string(message.bytes) +
               (message.is_open() ? " and [appendages](#appendages)" : "") + " | " +
               std::string(text_of(message).purpose) + " |\n";
    }
    return out + "\n";
}

std::string packets(CodeNames& codes) {
    std::string out(mold_text);
    out += "Header, 20 bytes:\n\n" + field_rows(codes, {layout::mold_header_fields});
    out += "Message block:\n\n" + field_rows(codes, {layout::mold_block_fields});
    out += "Request to the retransmission service, 20 bytes; the replies are packets as above:\n\n" +
           field_rows(codes, {layout::mold_request_fields});
    out += soup_text;
    out += "Every packet:\n\n" + field_rows(codes, {layout::soup_header_fields});
    for (const layout::SoupPayload& payload : layout::soup_payloads) {
        for (const layout::Code& code : layout::soup_codes) {
            if (code.value[0] == payload.type) {
                out += std::string(code.meaning) + " (" + payload.type + "):\n\n";
            }
        }
        out += field_rows(codes, {payload.fields});
    }
    return out;
}

std::string message_section(CodeNames& codes, const Sample& sample) {
    const Message& message = *sample.layout;
    const MessageText& text = text_of(message);
    std::string out = "<a id=\"" + std::string(message.kind) + "\"></a>\n### " + std::string(message.title) +
                      " (category " + message.category + ", type " + message.type + ", `" +
                      std::string(message.kind) + "`)\n\n";
    out += std::string(text.purpose) + "\n\n- **Sent:** " + std::string(text.sent) + "\n- **Truth log:** " +
           std::string(text.truth) + "\n- **Length:** " + std::to_string(message.bytes) + " bytes" +
           (message.is_open() ? ", then [appendages](#appendages)" : "") + ".\n\n";
    if (message.blocks.empty()) {
        out += "The [header](#header) is the whole message.\n\n";
    } else {
        out += "After the [header](#header):\n\n" + sample_rows(codes, sample);
    }
    out += "Sample:\n\n```hex\n" + hex_of(sample.message) + "\n```\n\nDecoded:\n\n```json\n" +
           json_of(sample.message) + "\n```\n\n";
    if (!sample.truth_line.empty()) {
        out += "Its line in the truth log:\n\n```json\n" + sample.truth_line + "\n```\n\n";
    }
    return out;
}

std::string appendage_sections(CodeNames& codes) {
    std::string out =
        "<a id=\"appendages\"></a>\n## Appendages\n\nWhat follows the fixed part of a quotation message, in "
        "this order. "
        "Each is there when its indicator has the value; offsets count from where it starts.\n\n";
    for (const layout::Appendage& appendage : layout::appendages) {
        out +=
            "### " + std::string(appendage.title) + ": `" + std::string(appendage.indicator) + "` is \"" +
            appendage.value + "\"\n\n" + std::to_string(bytes_of(appendage.block.fields)) + " bytes" +
            (appendage.block.repeated ? ", as many times as `odd_lot_count` says." : ".") +
            (appendage.block.object.empty() ? ""
                                            : " Decoded as `" + std::string(appendage.block.object) + "`.") +
            "\n\n" + field_rows(codes, appendage.block);
    }
    return out;
}

std::string code_sections(const CodeNames& codes) {
    std::string out = "## Codes\n\n";
    for (const auto& [name, field] : codes.order) {
        out += "<a id=\"codes-" + name + "\"></a>\n### " + std::string(field->title) +
               "\n\n| code | meaning |\n|---|---|\n";
        for (const layout::Code& code : field->codes) {
            out += "| `\"" + cell(code.value) + "\"` | " + cell(code.meaning) + " |\n";
        }
        out += "\n";
    }
    out.pop_back();
    return out;
}

}  // namespace

GeneratedFile make_messages_page() {
    CodeNames codes;
    std::string text(conventions);
    text += overview();
    text += packets(codes);
    text += "## Header\n\nEvery message begins with these 29 bytes.\n\n" +
            field_rows(codes, layout::header_block);
    char category = ' ';
    for (const Sample& sample : make_samples()) {
        if (sample.layout->category != category) {
            category = sample.layout->category;
            std::string title = category_text(category);
            title[0] = static_cast<char>(title[0] - 'a' + 'A');
            text += "## " + title + " messages\n\n";
        }
        text += message_section(codes, sample);
    }
    text += appendage_sections(codes);
    text += code_sections(codes);
    return {"docs/messages.md", text};
}

}  // namespace tessel::reference
