#pragma once

#include <string_view>

namespace tessel::certify {

// The style sheet of the HTML report. It loads nothing.
extern const std::string_view report_style;

}  // namespace tessel::certify
