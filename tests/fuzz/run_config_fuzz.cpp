// Any text as the configuration of a run: it is refused with a place and a reason, or gives a command line
// that the feed takes.

#include "app/config.h"
#include "ctl/run_config.h"
#include "fuzz_check.h"

#include <cstddef>
#include <string>
#include <vector>

using namespace tessel::ctl;
using tessel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find("symbols_file") != std::string::npos) {
        return 0;  // would read files of this machine
    }
    RunConfig config;
    std::vector<std::string> faults;
    if (!read_run_config(text, "t", "", config, faults)) {
        check(!faults.empty() && faults.size() <= faults_listed_max, "a refusal has its reasons");
        for (const std::string& fault : faults) {
            check(fault.starts_with("t:"), "a fault names file and line");
            check(fault.size() <= 300, "a fault is one short line");
        }
        return 0;
    }
    check(faults.empty(), "what is taken has no fault");
    const std::vector<std::string> arguments = feed_arguments(config);
    std::vector<const char*> words;
    for (const std::string& argument : arguments) {
        words.push_back(argument.c_str());
    }
    tessel::FeedConfig feed;
    std::string error;
    check(tessel::parse_command_line(static_cast<int>(words.size()), words.data(), feed, error), error);
    check(scenario_text(config).find('\0') == std::string::npos, "the scenario is a text");
    return 0;
}
