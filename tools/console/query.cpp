#include "console/query.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <numeric>
#include <string_view>

namespace tessel::console {

namespace {

struct SortName {
    std::string_view name;
    SortKey key;
};

constexpr SortName sort_names[] = {
    {"symbol", SortKey::symbol}, {"status", SortKey::status},     {"bid", SortKey::bid},
    {"ask", SortKey::ask},       {"bid_size", SortKey::bid_size}, {"ask_size", SortKey::ask_size},
    {"last", SortKey::last},     {"volume", SortKey::volume},
};

bool parse_sort(std::string_view text, StateQuery& query, std::string& error) {
    std::string_view name = text;
    const bool descending = name.starts_with('-');
    if (descending) {
        name.remove_prefix(1);
    }
    for (const SortName& each : sort_names) {
        if (each.name == name) {
            query.sort = each.key;
            query.descending = descending;
            return true;
        }
    }
    error = "sort: it is one of";
    for (const SortName& each : sort_names) {
        error += " " + std::string(each.name);
    }
    error += ", with - before it for the largest first";
    return false;
}

char upper(char letter) {
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

bool contains(std::string_view symbol, std::string_view wanted) {
    return std::search(symbol.begin(), symbol.end(), wanted.begin(), wanted.end(),
                       [](char one, char other) { return upper(one) == other; }) != symbol.end();
}

// What a row is sorted by; symbols are in order already.
std::int64_t sort_value(const Row& row, SortKey key) {
    switch (key) {
        case SortKey::status: return static_cast<unsigned char>(row.status);
        case SortKey::bid: return row.bid;
        case SortKey::bid_size: return row.bid_size;
        case SortKey::ask: return row.ask;
        case SortKey::ask_size: return row.ask_size;
        case SortKey::last: return row.last;
        case SortKey::volume:
            return static_cast<std::int64_t>(std::min<std::uint64_t>(row.volume, INT64_MAX));
        case SortKey::symbol: break;
    }
    return 0;
}

}  // namespace

std::string parameter(const QueryParameters& parameters, const std::string& name,
                      const std::string& fallback) {
    const auto found = std::find_if(parameters.rbegin(), parameters.rend(),
                                    [&name](const auto& each) { return each.first == name; });
    return found == parameters.rend() ? fallback : found->second;
}

bool parse_whole_number(const std::string& name, const std::string& text, std::uint64_t most,
                        std::uint64_t& value, std::string& error) {
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    if (problem == std::errc::result_out_of_range && stop == end) {
        value = most + 1;
    } else if (problem != std::errc() || stop != end) {
        error = name + ": it is a whole number from 0 to " + std::to_string(most);
        return false;
    }
    if (value > most) {
        error = name + ": it is at most " + std::to_string(most);
        return false;
    }
    return true;
}

bool parse_state_query(const QueryParameters& parameters, StateQuery& query, std::string& error) {
    constexpr std::uint64_t number_max = 1'000'000'000;
    query = {};
    std::uint64_t offset = 0;
    std::uint64_t limit = 0;
    if (!parse_whole_number("offset", parameter(parameters, "offset", "0"), number_max, offset, error) ||
        !parse_whole_number("limit", parameter(parameters, "limit", std::to_string(rows_default)), number_max,
                            limit, error) ||
        !parse_sort(parameter(parameters, "sort", "symbol"), query, error)) {
        return false;
    }
    query.offset = offset;
    query.limit = std::min<std::size_t>(limit, rows_max);
    query.search = parameter(parameters, "search", "");
    if (query.search.size() > search_bytes_max) {
        error = "search: it has at most " + std::to_string(search_bytes_max) + " bytes";
        return false;
    }
    return true;
}

Selection select_rows(const std::vector<Row>& rows, const StateQuery& query) {
    Selection selection;
    std::vector<std::size_t> matching;
    if (query.search.empty()) {
        matching.resize(rows.size());
        std::iota(matching.begin(), matching.end(), std::size_t{0});
    } else {
        std::string wanted = query.search;
        std::transform(wanted.begin(), wanted.end(), wanted.begin(), upper);
        for (std::size_t at = 0; at < rows.size(); ++at) {
            if (contains(rows[at].symbol, wanted)) {
                matching.push_back(at);
            }
        }
    }
    selection.total = matching.size();
    const std::size_t first = std::min(query.offset, matching.size());
    const std::size_t last = first + std::min(query.limit, matching.size() - first);
    const auto begin = matching.begin();
    if (query.sort == SortKey::symbol) {
        if (query.descending) {
            std::reverse(begin, matching.end());
        }
    } else {
        std::partial_sort(begin, begin + static_cast<std::ptrdiff_t>(last), matching.end(),
                          [&rows, &query](std::size_t one, std::size_t other) {
                              const std::int64_t a = sort_value(rows[one], query.sort);
                              const std::int64_t b = sort_value(rows[other], query.sort);
                              return a != b ? (query.descending ? a > b : a < b) : one < other;
                          });
    }
    selection.rows.assign(begin + static_cast<std::ptrdiff_t>(first),
                          begin + static_cast<std::ptrdiff_t>(last));
    return selection;
}

}  // namespace tessel::console
