#pragma once

#include "console/picture.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// Which instruments a client wants to see.
namespace tessel::console {

using QueryParameters = std::vector<std::pair<std::string, std::string>>;  // decoded, in the query's order

enum class SortKey : std::uint8_t { symbol, status, bid, bid_size, ask, ask_size, last, volume };

constexpr std::size_t rows_default = 100;
constexpr std::size_t rows_max = 500;
constexpr std::size_t search_bytes_max = 64;

struct StateQuery {
    std::size_t offset = 0;
    std::size_t limit = rows_default;  // a larger one than rows_max is cut to it
    std::string search;                // part of the symbol, in capital letters or not
    SortKey sort = SortKey::symbol;
    bool descending = false;  // "-volume"
};

// Reads offset, limit, search and sort; other parameters are passed over, and of a repeated one the last
// counts. False with the reason in `error`.
bool parse_state_query(const QueryParameters& parameters, StateQuery& query, std::string& error);

// The last parameter of that name; the fallback when there is none.
std::string parameter(const QueryParameters& parameters, const std::string& name,
                      const std::string& fallback);

// A whole number of at most `most`, in decimal digits. False with the reason in `error`.
bool parse_whole_number(const std::string& name, const std::string& text, std::uint64_t most,
                        std::uint64_t& value, std::string& error);

struct Selection {
    std::vector<std::size_t> rows;  // positions in the list that was given
    std::size_t total = 0;          // all that match the search
};

// The rows that the query wants, in its order; rows that are equal under it keep the order of symbols.
Selection select_rows(const std::vector<Row>& rows, const StateQuery& query);

}  // namespace tessel::console
