// A case file, whatever its bytes: a case within its limits, or reasons of one line each.

#include "certify/case_file.h"
#include "fuzz_check.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tessel::certify::Case;
using tessel::fuzz::check;

void check_case(const Case& out) {
    check(!out.title.empty() && out.title.find('\n') == std::string::npos, "a title of one line");
    check(out.seconds > 0 && out.seconds <= tessel::certify::case_seconds_max, "a time within its limits");
    check(out.late_after >= 0 && out.late_after <= tessel::certify::case_seconds_max, "a start within them");
    check(out.feeds >= 1 && out.feeds <= tessel::certify::case_feeds_max, "as many feeds as there may be");
    check(out.restart_at.size() <= tessel::certify::case_restarts_max, "few restarts");
    check(std::is_sorted(out.restart_at.begin(), out.restart_at.end()), "restarts in their order");
    check(std::is_sorted(out.load.rates.begin(), out.load.rates.end()), "rates that rise");
    for (const std::string& word : out.feed_options) {
        check(word != "--port" && word != "--seed" && word != "--truth-out", "nothing that the run chooses");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    // A case may name a file of symbols, and the target is not to read whatever file it thinks of.
    if (text.find("symbols_file") != std::string::npos) {
        return 0;
    }
    Case out;
    std::vector<std::string> faults;
    const bool good = tessel::certify::read_case(text, "case.toml", "group", "case", out, faults);
    check(good == faults.empty(), "a reason exactly when it is refused");
    for (const std::string& fault : faults) {
        check(fault.starts_with("case.toml"), "the reason names the file");
        check(fault.find('\n') == std::string::npos, "a reason is one line");
    }
    if (good) {
        check_case(out);
    }
    return 0;
}
