#include "reference/generated.h"
#include "wire/message_json.h"

#include <algorithm>
#include <set>

namespace tessel::reference {

namespace {

using layout::Kind;
using layout::LocatedField;

constexpr std::uint64_t list_entries = 2;

std::vector<LocatedField> fields_of(const std::string& message) {
    std::vector<LocatedField> fields;
    locate_fields(fields, reinterpret_cast<const unsigned char*>(message.data()), message.size());
    return fields;
}

void put_integer(std::string& message, const LocatedField& located, std::uint64_t value) {
    for (std::size_t at = located.field->width; at > 0; --at, value >>= 8) {
        message[located.offset + at - 1] = static_cast<char>(value);
    }
}

void put_text(std::string& message, const LocatedField& located, std::string_view text) {
    std::string padded(text);
    padded.resize(located.field->width, ' ');
    message.replace(located.offset, padded.size(), padded);
}

// The category and type say what the message is, and an indicator or the count what follows: a vector that
// changed one of them alone would be no message.
bool decides_the_layout(const LocatedField& located) {
    const std::string_view name = located.field->name;
    return name == "category" || name == "type" || name.ends_with("_indicator") || name == "odd_lot_count";
}

bool is_text(Kind kind) {
    return kind == Kind::letter || kind == Kind::text || kind == Kind::conditions;
}

// The least and the greatest integer, and those beside zero and the greatest signed one.
std::vector<std::uint64_t> limits_of(const LocatedField& located) {
    const unsigned bits = 8u * located.field->width;
    const std::uint64_t greatest = bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
    const std::uint64_t middle = greatest >> 1;
    return {0, 1, middle, middle + 1, greatest};
}

std::vector<std::string> texts_of(const LocatedField& located) {
    const std::size_t width = located.field->width;
    std::string widest;
    for (std::size_t at = 0; at < width; ++at) {
        widest += static_cast<char>('A' + at % 26);
    }
    std::vector<std::string> texts = {"", widest, std::string(width, '~')};
    if (width >= 4) {
        texts.emplace_back(" \"\\Z");
    }
    for (const layout::Code& code : located.field->codes) {
        texts.emplace_back(code.value);
    }
    return texts;
}

// The message, and it with each field in turn at its limits and at every code.
void add_variants(std::vector<std::string>& messages, const std::string& base) {
    messages.push_back(base);
    for (const LocatedField& located : fields_of(base)) {
        if (decides_the_layout(located)) {
            continue;
        }
        std::string changed = base;
        if (!is_text(located.field->kind)) {
            for (const std::uint64_t value : limits_of(located)) {
                put_integer(changed, located, value);
                messages.push_back(changed);
            }
            continue;
        }
        for (const std::string& text : texts_of(located)) {
            put_text(changed, located, text.substr(0, located.field->width));
            messages.push_back(changed);
        }
    }
}

// The fixed part of `base` with these indicators, and what they say follows, filled with bytes that differ.
std::string with_appendages(const std::string& base, const layout::Message& layout, std::string_view values,
                            std::uint64_t count) {
    std::string message = base.substr(0, layout.bytes);
    const std::uint16_t offsets[] = {layout.indicators.nbbo, layout.indicators.adf_mpid,
                                     layout.indicators.best_odd_lot, layout.indicators.odd_lot_list};
    for (std::size_t at = 0; at < std::size(offsets); ++at) {
        if (offsets[at] != 0) {
            message[offsets[at]] = values[at];
        }
    }
    message[layout.indicators.odd_lot_count] = static_cast<char>(count >> 8);
    message[layout.indicators.odd_lot_count + 1u] = static_cast<char>(count);
    std::vector<LocatedField> fields;
    const std::size_t length =
        locate_fields(fields, reinterpret_cast<const unsigned char*>(message.data()), message.size());
    message.resize(length, 'N');
    for (const LocatedField& located : fields_of(message)) {
        if (located.offset >= layout.bytes && !is_text(located.field->kind)) {
            put_integer(message, located, 100 * located.offset + located.entry);
        } else if (located.offset >= layout.bytes && !located.field->codes.empty()) {
            put_text(message, located, located.field->codes[located.entry % 2].value);
        } else if (located.offset >= layout.bytes && located.field->kind == Kind::text) {
            put_text(message, located, located.entry == 0 ? "NITE" : "GS");
        }
    }
    return message;
}

// Every indicator with everything it may announce, and the fields of the longest form at their limits.
void add_quotes(std::vector<std::string>& messages, const std::string& base, const layout::Message& layout) {
    // Every pair of two indicators' values occurs, not every combination of all four.
    constexpr std::string_view nbbo_values = "01423";
    constexpr std::string_view best_values = "01235";
    constexpr std::string_view list_values = "04235";
    for (std::size_t nbbo = 0; nbbo < nbbo_values.size(); ++nbbo) {
        for (std::size_t best = 0; best < best_values.size(); ++best) {
            const char list = list_values[(nbbo + best) % list_values.size()];
            for (const char mpid : {' ', '2'}) {
                const std::string values{nbbo_values[nbbo], mpid, best_values[best], list};
                messages.push_back(with_appendages(base, layout, values, list == '0' ? 0 : list_entries));
            }
        }
    }
    add_variants(messages, with_appendages(base, layout, "3255", list_entries));
    messages.push_back(with_appendages(base, layout, "0 04", 65535));
    messages.push_back(with_appendages(base, layout, "0 02", 0));
    messages.push_back(with_appendages(base, layout, "0 05", 80));
}

std::vector<std::string> messages_of(const Sample& sample) {
    std::vector<std::string> messages;
    if (sample.layout->is_open()) {
        messages.push_back(sample.message);
        add_quotes(messages, sample.message, *sample.layout);
    } else {
        add_variants(messages, sample.message);
    }
    std::vector<std::string> unique;
    std::set<std::string> seen;
    for (const std::string& message : messages) {
        if (seen.insert(message).second) {
            unique.push_back(message);
        }
    }
    return unique;
}

}  // namespace

std::string json_of(const std::string& message) {
    std::string line;
    layout::append_message_json(line, reinterpret_cast<const unsigned char*>(message.data()), message.size(),
                                0);
    constexpr std::string_view sequence = "\"seq\":0,";
    line.erase(line.find(sequence), sequence.size());
    line.pop_back();
    return line;
}

std::string hex_of(const std::string& bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

std::vector<GeneratedFile> make_vectors() {
    std::vector<GeneratedFile> files;
    for (const Sample& sample : make_samples()) {
        GeneratedFile file{"vectors/" + std::string(sample.layout->kind) + ".jsonl", {}};
        for (const std::string& message : messages_of(sample)) {
            file.text += "{\"hex\":\"" + hex_of(message) + "\",\"message\":" + json_of(message) + "}\n";
        }
        files.push_back(std::move(file));
    }
    return files;
}

}  // namespace tessel::reference
