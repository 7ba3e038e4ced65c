#pragma once

#include <string>
#include <string_view>
#include <vector>

// Lines of the truth log and of a handler, and messages, as HTML. Everything in them is escaped.
namespace tessel::certify {

// A member of a JSON object's outermost level: bytes from the opening quote of its name to the end of its
// value.
struct MemberSpan {
    std::string_view name;  // as it stands in the text, escapes included
    std::size_t begin = 0;
    std::size_t end = 0;
};

// The members of a line, as far as it can be read: it may be cut, or no JSON at all.
std::vector<MemberSpan> member_spans(std::string_view line);

// The line with the members named in `members` ("nbbo, status") inside <mark>.
std::string marked_line(std::string_view line, std::string_view members);

// Hexadecimal digits as rows of 16 bytes: offset, bytes, characters. Text that is not hexadecimal is shown as
// it is.
std::string hex_rows(std::string_view hex);

// The members of a JSON object as the rows of a table; "" when it is no object.
std::string field_rows(std::string_view object);

}  // namespace tessel::certify
