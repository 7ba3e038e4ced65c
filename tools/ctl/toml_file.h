#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A configuration file in TOML, taken apart into its entries. What an entry means is not known here.
namespace tessel::ctl {

enum class ValueKind { text, integer, number, flag, texts, numbers, other };

struct TextItem {
    std::string text;
    std::uint32_t line = 0;
};

struct TomlEntry {
    std::string table;  // "feed" for an entry of [feed], empty for one outside every table
    std::string key;
    std::uint32_t line = 0;
    std::uint32_t element = 0;  // which table of an array of tables [[table]], the first is 1; 0: of [table]
    ValueKind kind = ValueKind::other;
    std::string text;             // a text as it is; an integer, a number or a flag in its decimal form
    std::vector<TextItem> texts;  // of an array of texts, or of numbers in their decimal form
};

constexpr std::size_t toml_bytes_max = std::size_t{16} << 20;

// Takes `text` apart, entries in the order of their lines. `name` is that of the file, for messages. A table
// within a table, a date or an array of anything but texts or numbers is an entry of the kind `other`. False
// with "NAME:LINE: ..." in `error` when the text is no TOML.
bool read_toml(std::string_view text, const std::string& name, std::vector<TomlEntry>& entries,
               std::string& error);

// The same, with the tables of an array of tables [[NAME]] taken apart, too: entries with an `element`.
bool read_toml_with_arrays(std::string_view text, const std::string& name, std::vector<TomlEntry>& entries,
                           std::string& error);

}  // namespace tessel::ctl
