// A symbol file, whatever its bytes: symbols that a feed takes, each once, with a price, and a plan of them
// that has each exactly once; or a reason of one line that names the file.

#include "channels/plan.h"
#include "common/symbol_entry.h"
#include "fuzz_check.h"

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace tessel;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<channels::SymbolPrice> symbols;
    std::string error;
    const bool good = channels::parse_symbol_file(text, "file", symbols, error);
    fuzz::check(good == error.empty(), "a reason exactly when it is refused");
    if (!good) {
        fuzz::check(error.starts_with("file:") && error.size() < 300, "a short reason that names the file");
        return 0;
    }
    std::set<std::string> all;
    for (const channels::SymbolPrice& each : symbols) {
        fuzz::check(common::symbol_error(each.symbol + ":" + each.price).empty(), "a feed takes it");
        fuzz::check(all.insert(each.symbol).second, "each symbol once");
    }
    channels::PlanOptions options;
    options.channels = static_cast<std::int64_t>(size % symbols.size()) + 1;
    options.by = static_cast<channels::Division>(size % 3);
    std::vector<channels::PlannedChannel> plan;
    if (make_plan(options, symbols, plan, error)) {
        std::set<std::string> planned;
        for (const channels::PlannedChannel& channel : plan) {
            for (const std::string& symbol : channel.channel.symbols) {
                fuzz::check(planned.insert(symbol).second, "each symbol in one channel");
            }
        }
        fuzz::check(planned == all, "every symbol in a channel");
    }
    return 0;
}
