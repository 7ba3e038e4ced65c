#pragma once

#include <string>
#include <string_view>
#include <vector>

// The symbols that a plan divides: a file with SYMBOL:PRICE a line; '#' begins a comment.
namespace tessel::channels {

struct SymbolPrice {
    std::string symbol;
    std::string price;  // dollars, as it is written in the file
};

constexpr std::size_t symbol_file_bytes_max = std::size_t{16} << 20;

// Symbols in the order of the lines. `name` is that of the file. False with "NAME:LINE: what is wrong" in
// `error`: a symbol twice, a bad symbol, a price that is missing or bad, no symbol at all.
bool parse_symbol_file(std::string_view text, const std::string& name, std::vector<SymbolPrice>& symbols,
                       std::string& error);

// The same from the file at `path`.
bool read_symbol_file(const std::string& path, std::vector<SymbolPrice>& symbols, std::string& error);

}  // namespace tessel::channels
