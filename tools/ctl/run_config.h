#pragma once

#include "ctl/settings.h"
#include "ctl/toml_file.h"

#include <string>
#include <string_view>
#include <vector>

// A run of the feed as a configuration file and options describe it, before anything is started.
//
//     [feed]
//     mcast = "239.255.25.177"
//     symbols = ["AAPL:190.00", "MSFT:410.00"]    # or symbols_file = "symbols.txt"
//     truth_out = "truth.jsonl"
//     [faults]
//     drop_every = 50
//     [scenario]
//     halt_after = 5
namespace tessel::ctl {

struct Setting {
    const SettingKey* key = nullptr;
    std::string value;  // as the feed gets it
    std::string where;  // for messages: "FILE:LINE: feed.port" or "--port"
};

struct RunConfig {
    std::vector<Setting> settings;  // in the order of the file, then of the options; the last of a key counts
    bool has_scenario = false;      // there is a [scenario], if only an empty one
};

// At most this many faults are listed.
constexpr std::size_t faults_listed_max = 20;

// Reads a configuration. `folder` is where a relative symbols_file is looked for; empty for the current one.
// Every fault found is one line in `faults`: "FILE:LINE: TABLE.KEY: what is wrong". True when there is none.
bool read_run_config(std::string_view text, const std::string& name, const std::string& folder,
                     RunConfig& config, std::vector<std::string>& faults);

// The same from entries that were read already; a file that holds more than a run's tables gives those of
// them.
bool read_run_entries(const std::vector<TomlEntry>& entries, const std::string& name,
                      const std::string& folder, RunConfig& config, std::vector<std::string>& faults);

// The same from the file at `path`.
bool read_run_config_file(const std::string& path, RunConfig& config, std::vector<std::string>& faults);

// Adds options of the feed's own command line ("--port", "25177", "--quiet"), which win over what is there.
bool add_options(const std::vector<std::string>& arguments, RunConfig& config,
                 std::vector<std::string>& faults);

// The setting of that key that counts, or null.
const Setting* setting_of(const RunConfig& config, std::string_view table, std::string_view key);

// Its value, or the feed's default.
std::string value_or(const RunConfig& config, std::string_view table, std::string_view key,
                     std::string_view fallback);

// The arguments of the feed, program name excluded: each option once, in the feed's order.
std::vector<std::string> feed_arguments(const RunConfig& config);

// The text of TESSEL_SCENARIO, "halt_after=5,halt_secs=3".
std::string scenario_text(const RunConfig& config);

}  // namespace tessel::ctl
