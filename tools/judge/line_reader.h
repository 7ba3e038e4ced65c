#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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

// Part of a line's text: of the line itself, or of `Line::rewritten` when that is not empty.
struct Span {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;  // of a member's value, 0: the line does not have the member
};

// A member whose name no truth line has. It is never compared.
struct UnknownMember {
    Span name;
    Span value;  // its JSON text
};

// One line, parsed. Values stay text until they have to be compared.
struct Line {
    std::uint64_t seq = 0;
    // {"mark":"LABEL","seq":N}: a label put between messages; `seq` is the message before it.
    bool mark = false;
    std::array<Span, member_count> members{};
    std::vector<UnknownMember> unknown_members;  // in the line's order, repeated ones too
    std::string rewritten;  // the line in plain form, when the quick reader did not handle it
};

// Parses one line (no line feed at its end). Any bytes are allowed; false with a reason in `error` when the
// line is not a JSON object, has no whole-number `seq` in 0 .. 2^64-1, or has `seq` or a truth line's member
// twice. Ordinary lines go through a scanner made for them, all others (escapes, nested objects, letters
// outside ASCII) through a JSON library. The feed writes a mark's label without escaping, so a mark line is
// recognized by its beginning and end alone.
bool read_line(std::string_view text, Line& out, std::string& error);

// The two ways inside `read_line`, separate so that a test can compare them; both expect an empty `out`.
// False from the quick one means "not handled here", not that the line is invalid.
bool read_line_quickly(std::string_view text, Line& out);
bool read_line_fully(std::string_view text, Line& out, std::string& error);

// Only the sequence number, for lines that begin {"seq":N or {"seq": N, false for all others.
bool peek_sequence(std::string_view text, std::uint64_t& seq);

// Finds the whole line that a run wrote after the torn last line of an earlier run, which has no line feed:
// the offset of the first {"seq": or {"mark": past the beginning from which `text` is a valid line, 0 when
// there is none.
std::size_t find_line_after_torn(std::string_view text);

// The text that a span of the line is part of; `text` is what the line was read from.
std::string_view span_text(const Line& line, std::string_view text, Span span);

// The JSON text of a member, empty when the line does not have it.
std::string_view member_text(const Line& line, std::string_view text, std::size_t member);

}  // namespace tessel::judge
