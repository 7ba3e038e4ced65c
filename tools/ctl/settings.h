#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The settings of a run as tesselctl knows them: those of the feed's command line and those of its scenario,
// each with the values that make sense. The feed itself takes more than that: a port beyond 65535, half a
// number, a price of nothing.
namespace tessel::ctl {

enum class Form {
    group,         // an IPv4 multicast address
    address,       // an IPv4 address
    port,          // 1 to 65535
    port_or_off,   // 0 to 65535
    session,       // 1 to 10 printable characters
    symbols,       // SYMBOL:PRICE,...
    participants,  // capital letters, each once
    interval,      // 32 bits, signed
    basis_points,  // 0 to 10000, with decimals
    seed,          // 64 bits
    path,
    count,  // 32 bits
    burst,  // START[:COUNT]
    flag,
    text,   // free, without a comma or a control character
    level,  // 0 to 3
};

struct SettingKey {
    std::string_view table;   // of the configuration
    std::string_view key;     // within the table
    std::string_view option;  // of the feed's command line; empty for a scenario's key
    Form form;
};

// The feed's options in the order of its command line, then the scenario's keys.
std::span<const SettingKey> setting_keys();

const SettingKey* find_setting(std::string_view table, std::string_view key);
const SettingKey* find_option(std::string_view option);

// What is wrong with a value; empty when nothing is. `value` is the text that the feed would get.
std::string value_error(Form form, std::string_view value);

}  // namespace tessel::ctl
