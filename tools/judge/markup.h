#pragma once

#include <string>
#include <string_view>

namespace tessel::judge {

// A text for an HTML or XML page, inside an element or an attribute: markup is escaped; control characters,
// bytes that are no UTF-8 and characters that XML does not allow are replaced, since a page with them would
// not be well-formed.
std::string escaped_markup(std::string_view text);

}  // namespace tessel::judge
