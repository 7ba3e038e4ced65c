#include "ctl/toml_file.h"

#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace tessel::ctl {

namespace {

std::string decimal(double value) {
    char digits[64];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
    return {digits, end.ptr};
}

// An array whose items are all texts, which an empty one is, too.
bool read_texts(const toml::array& array, std::vector<TextItem>& texts) {
    for (const toml::node& item : array) {
        const toml::value<std::string>* text = item.as_string();
        if (text == nullptr) {
            return false;
        }
        texts.push_back({text->get(), item.source().begin.line});
    }
    return true;
}

TomlEntry read_entry(std::string table, const toml::key& key, const toml::node& node) {
    TomlEntry entry;
    entry.table = std::move(table);
    entry.key = std::string(key.str());
    entry.line = key.source().begin.line;
    if (const toml::value<std::string>* text = node.as_string()) {
        entry.kind = ValueKind::text;
        entry.text = text->get();
    } else if (const toml::value<std::int64_t>* integer = node.as_integer()) {
        entry.kind = ValueKind::integer;
        entry.text = std::to_string(integer->get());
    } else if (const toml::value<double>* number = node.as_floating_point()) {
        entry.kind = ValueKind::number;
        entry.text = decimal(number->get());
    } else if (const toml::value<bool>* flag = node.as_boolean()) {
        entry.kind = ValueKind::flag;
        entry.text = flag->get() ? "true" : "false";
    } else if (const toml::array* array = node.as_array()) {
        entry.kind = read_texts(*array, entry.texts) ? ValueKind::texts : ValueKind::other;
    }
    return entry;
}

// The library's description of a fault as one short line.
std::string one_line(std::string_view description) {
    constexpr std::size_t shown_bytes_max = 120;
    std::string text(description.substr(0, shown_bytes_max));
    std::replace_if(
        text.begin(), text.end(), [](unsigned char letter) { return letter < ' ' || letter > '~'; }, ' ');
    return text;
}

}  // namespace

bool read_toml(std::string_view text, const std::string& name, std::vector<TomlEntry>& entries,
               std::string& error) {
    entries.clear();
    if (text.size() > toml_bytes_max) {
        error = name + ": larger than " + std::to_string(toml_bytes_max >> 20) + " MiB";
        return false;
    }
    toml::table root;
    try {
        root = toml::parse(text, name);
    } catch (const toml::parse_error& fault) {
        error = name + ":" + std::to_string(fault.source().begin.line) +
                ": no TOML: " + one_line(fault.description());
        return false;
    }
    for (const auto& [key, node] : root) {
        const toml::table* table = node.as_table();
        if (table == nullptr) {
            entries.push_back(read_entry("", key, node));
            continue;
        }
        if (table->empty()) {  // still an entry, so that a table with a wrong name is found
            TomlEntry empty;
            empty.table = std::string(key.str());
            empty.line = key.source().begin.line;
            entries.push_back(std::move(empty));
        }
        for (const auto& [inner_key, inner_node] : *table) {
            entries.push_back(read_entry(std::string(key.str()), inner_key, inner_node));
        }
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const TomlEntry& left, const TomlEntry& right) { return left.line < right.line; });
    return true;
}

}  // namespace tessel::ctl
