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

// The same of numbers, in their decimal form.
bool read_numbers(const toml::array& array, std::vector<TextItem>& numbers) {
    for (const toml::node& item : array) {
        if (const toml::value<std::int64_t>* integer = item.as_integer()) {
            numbers.push_back({std::to_string(integer->get()), item.source().begin.line});
        } else if (const toml::value<double>* number = item.as_floating_point()) {
            numbers.push_back({decimal(number->get()), item.source().begin.line});
        } else {
            return false;
        }
    }
    return true;
}

void read_array(const toml::array& array, TomlEntry& entry) {
    if (read_texts(array, entry.texts)) {
        entry.kind = ValueKind::texts;
        return;
    }
    entry.texts.clear();
    if (read_numbers(array, entry.texts)) {
        entry.kind = ValueKind::numbers;
        return;
    }
    entry.texts.clear();
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
        read_array(*array, entry);
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

// Adds the entries of one table; an empty one is still an entry, so that a table with a wrong name is found.
void read_table(const std::string& name, const toml::table& table, std::uint32_t line, std::uint32_t element,
                std::vector<TomlEntry>& entries) {
    if (table.empty()) {
        TomlEntry empty;
        empty.table = name;
        empty.line = line;
        empty.element = element;
        entries.push_back(std::move(empty));
    }
    for (const auto& [key, node] : table) {
        entries.push_back(read_entry(name, key, node));
        entries.back().element = element;
    }
}

// Whether the node is an array of tables.
bool is_array_of_tables(const toml::node& node) {
    const toml::array* const array = node.as_array();
    if (array == nullptr || array->empty()) {
        return false;
    }
    return std::all_of(array->begin(), array->end(), [](const toml::node& item) { return item.is_table(); });
}

void read_root(const toml::table& root, bool with_arrays, std::vector<TomlEntry>& entries) {
    for (const auto& [key, node] : root) {
        const std::string name(key.str());
        const std::uint32_t line = key.source().begin.line;
        if (const toml::table* table = node.as_table()) {
            read_table(name, *table, line, 0, entries);
        } else if (with_arrays && is_array_of_tables(node)) {
            std::uint32_t element = 0;
            for (const toml::node& item : *node.as_array()) {
                read_table(name, *item.as_table(), item.source().begin.line, ++element, entries);
            }
        } else {
            entries.push_back(read_entry("", key, node));
        }
    }
}

bool read_document(std::string_view text, const std::string& name, bool with_arrays,
                   std::vector<TomlEntry>& entries, std::string& error) {
    entries.clear();
    if (text.size() > toml_bytes_max) {
        error = name + ": larger than " + std::to_string(toml_bytes_max >> 20) + " MiB";
        return false;
    }
    try {
        read_root(toml::parse(text, name), with_arrays, entries);
    } catch (const toml::parse_error& fault) {
        error = name + ":" + std::to_string(fault.source().begin.line) +
                ": no TOML: " + one_line(fault.description());
        return false;
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const TomlEntry& left, const TomlEntry& right) { return left.line < right.line; });
    return true;
}

}  // namespace

bool read_toml(std::string_view text, const std::string& name, std::vector<TomlEntry>& entries,
               std::string& error) {
    return read_document(text, name, false, entries, error);
}

bool read_toml_with_arrays(std::string_view text, const std::string& name, std::vector<TomlEntry>& entries,
                           std::string& error) {
    return read_document(text, name, true, entries, error);
}

}  // namespace tessel::ctl
