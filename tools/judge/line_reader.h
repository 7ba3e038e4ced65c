#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessel::judge {

// The members that a truth line can have beside `seq`, in the order of `member_names`.
enum class Member : std::uint8_t {
    secid,
    symbol,
    bid,
    ask,
    nbbo,
    band,
    status,
    ah,
    reason,
    ap,
    trade,
    kind,
    id,
    cancel_error,
    correction,
    asof,
    mwcb,
};

inline constexpr std::array<std::string_view, 17> member_names = {
    "secid", "symbol", "bid",  "ask", "nbbo",         "band",       "status", "ah",   "reason",
    "ap",    "trade",  "kind", "id",  "cancel_error", "correction", "asof",   "mwcb",
};
inline constexpr std::size_t member_count = member_names.size();
static_assert(static_cast<std::size_t>(Member::mwcb) + 1 == member_count);

// The longest line that is read. A truth line with ten levels a side stays under 1,000 bytes; the limit only
// keeps a file without line feeds from filling the memory.
inline constexpr std::size_t line_bytes_max = 1U << 20;

// Arrays inside arrays (levels) need a depth of 3 with the line's own braces; deeper lines are refused so
// that no input can exhaust the stack.
inline constexpr int nesting_max = 16;

// Where one member's JSON text stands: in the line itself, or in `Line::rewritten` when that is not empty.
struct Span {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;  // 0: the line does not have the member
};

// One line, taken apart. Member values stay text until somebody has to compare them.
struct Line {
    std::uint64_t seq = 0;
    bool mark =
        false;  // {"mark":"LABEL","seq":N}: a label put between messages; `seq` is the message before it
    std::array<Span, member_count> members{};
    std::string foreign;    // the first member that no truth line has ("" when none); never compared
    std::string rewritten;  // the line written anew in plain form, when the quick reader could not take it
};

// Takes apart one line (no line feed at its end). Any bytes are allowed; false with a reason in `error` when
// the line is not a JSON object, has no whole-number `seq` in 0 .. 2^64-1, or has `seq` or a truth line's
// member twice. Ordinary lines go through a scanner made for them, all others (escapes, nested objects, other
// letters than ASCII) through a JSON library. A mark's label is written by the feed without escaping, so a
// mark line is known by its two ends alone.
bool read_line(std::string_view text, Line& out, std::string* error);

// The two ways inside `read_line`, separate so that a test can hold one against the other. The quick one says
// false for "not for me", which is no judgment about the line.
bool read_line_quickly(std::string_view text, Line& out);
bool read_line_fully(std::string_view text, Line& out, std::string* error);

// Only the sequence number, for lines that begin {"seq":N or {"seq": N, false for all others.
bool peek_sequence(std::string_view text, std::uint64_t& seq);

// The JSON text of a member, empty when the line does not have it. `text` is the text that the line was read
// from.
std::string_view member_text(const Line& line, std::string_view text, std::size_t member);

}  // namespace tessel::judge
