#pragma once

#include "console/board.h"

#include <string>

// The metrics in Prometheus' text format. Its library is used here and nowhere else.
namespace tessel::console {

constexpr const char* metrics_content_type = "text/plain; version=0.0.4; charset=utf-8";

// All metrics of one moment. `running` false: the console is about to end, and nothing hears the feed any
// longer.
std::string metrics_text(const Picture& picture, const ControlPicture& control, bool running);

}  // namespace tessel::console
