#include "channels/symbol_file.h"

#include "channels/files.h"
#include "common/symbol_entry.h"

#include <algorithm>
#include <map>

namespace tessel::channels {

namespace {

constexpr std::string_view white_space = " \t\r";

// The line without its comment and the blanks around it.
std::string_view content_of(std::string_view line) {
    line = line.substr(0, line.find('#'));
    line = line.substr(0, line.find_last_not_of(white_space) + 1);
    line.remove_prefix(std::min(line.find_first_not_of(white_space), line.size()));
    return line;
}

// What is wrong with an entry; empty when nothing is.
std::string entry_error(std::string_view entry) {
    std::string error = common::symbol_error(entry);
    if (error.empty() && entry.find(':') == std::string_view::npos) {
        error = "'" + std::string(entry) + "' has no price: write " + std::string(entry) + ":PRICE";
    }
    return error;
}

}  // namespace

bool parse_symbol_file(std::string_view text, const std::string& name, std::vector<SymbolPrice>& symbols,
                       std::string& error) {
    std::map<std::string, std::size_t, std::less<>> lines;  // of each symbol
    std::size_t number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view entry = content_of(text.substr(at, end - at));
        at = end + 1;
        ++number;
        if (entry.empty()) {
            continue;
        }
        error = entry_error(entry);
        const std::string symbol(common::symbol_of(entry));
        if (error.empty()) {
            const auto [before, is_new] = lines.insert({symbol, number});
            if (!is_new) {
                error = "symbol '" + symbol + "' is in line " + std::to_string(before->second) + " already";
            }
        }
        if (!error.empty()) {
            error = name + ":" + std::to_string(number) + ": " + error;
            return false;
        }
        symbols.push_back({symbol, std::string(entry.substr(symbol.size() + 1))});
    }
    if (symbols.empty()) {
        error = name + ": no symbols; a line is SYMBOL:PRICE";
    }
    return error.empty();
}

bool read_symbol_file(const std::string& path, std::vector<SymbolPrice>& symbols, std::string& error) {
    std::string text;
    return read_text_file(path, symbol_file_bytes_max, text, error) &&
           parse_symbol_file(text, path, symbols, error);
}

}  // namespace tessel::channels
