// A channel list, whatever its bytes: the judge gets names that are fit to be part of a file name, each once,
// or a reason of one line.

#include "fuzz_check.h"
#include "judge/channels.h"

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> names;
    std::string error;
    const bool good = tessel::judge::parse_channel_names(text, "list", names, error);
    tessel::fuzz::check(good == error.empty(), "a reason exactly when it is refused");
    if (!good) {
        tessel::fuzz::check(error.starts_with("list"), "the reason names the file");
        return 0;
    }
    tessel::fuzz::check(std::set<std::string>(names.begin(), names.end()).size() == names.size(),
                        "each name once");
    for (const std::string& name : names) {
        tessel::fuzz::check(!name.empty() && name[0] != '.' && name.find('/') == std::string::npos,
                            "a name stays in its folder");
    }
    return 0;
}
