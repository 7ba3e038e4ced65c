#pragma once

#include "certify/report_summary.h"

#include <string>

namespace tessel::certify {

// The section of a case in the HTML report, closed or open: verdict, reason, the first differences in
// context, the message's bytes and fields, the end of the handler's output, the load curve, how to run it
// alone. Of several results the first ones that do not pass are shown.
std::string case_section(const CaseSummary& summary, bool matrix, bool open);

}  // namespace tessel::certify
