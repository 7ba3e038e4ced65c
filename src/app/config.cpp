#include "app/config.h"

#include "base/parse_number.h"

#include <cstddef>

namespace tessel {

namespace {

constexpr std::size_t session_length_max = 10;  // the width of the wire's session field

// How an option's value gets into the configuration. False: error holds the conversion's text.
using Store = bool (*)(FeedConfig& config, const std::string& value, std::string& error);

template <std::string FeedConfig::*field>
bool store_text(FeedConfig& config, const std::string& value, std::string& /*error*/) {
    config.*field = value;
    return true;
}

// A port is read as an int and its low 16 bits are used.
template <std::uint16_t FeedConfig::*field>
bool store_port(FeedConfig& config, const std::string& value, std::string& error) {
    std::int32_t number = 0;
    if (!to_stoi(value, number, error)) {
        return false;
    }
    config.*field = static_cast<std::uint16_t>(number);
    return true;
}

template <std::uint32_t FeedConfig::*field>
bool store_count(FeedConfig& config, const std::string& value, std::string& error) {
    std::uint64_t number = 0;
    if (!to_stoul(value, number, error)) {
        return false;
    }
    config.*field = static_cast<std::uint32_t>(number);
    return true;
}

bool store_interval(FeedConfig& config, const std::string& value, std::string& error) {
    return to_stoi(value, config.interval_ms, error);
}

bool store_step(FeedConfig& config, const std::string& value, std::string& error) {
    return to_stod(value, config.step_bps, error);
}

bool store_seed(FeedConfig& config, const std::string& value, std::string& error) {
    return to_stoull(value, config.seed, error);
}

struct Option {
    std::string_view name;
    Store store;  // null: a flag without a value
};

// In matching order.
constexpr Option options[] = {
    {"--mcast", store_text<&FeedConfig::mcast>},
    {"--port", store_port<&FeedConfig::port>},
    {"--iface", store_text<&FeedConfig::iface>},
    {"--retrans-port", store_port<&FeedConfig::retrans_port>},
    {"--snapshot-port", store_port<&FeedConfig::snapshot_port>},
    {"--session", store_text<&FeedConfig::session>},
    {"--symbols", store_text<&FeedConfig::symbols>},
    {"--participants", store_text<&FeedConfig::participants>},
    {"--interval-ms", store_interval},
    {"--step-bps", store_step},
    {"--seed", store_seed},
    {"--book-out", store_text<&FeedConfig::book_out>},
    {"--bbo-out", store_text<&FeedConfig::bbo_out>},
    {"--drop-every", store_count<&FeedConfig::drop_every>},
    {"--drop-burst", store_text<&FeedConfig::drop_burst>},
    {"--dup-every", store_count<&FeedConfig::dup_every>},
    {"--reorder-every", store_count<&FeedConfig::reorder_every>},
    {"--truth-out", store_text<&FeedConfig::truth_out>},
    {"--control-port", store_port<&FeedConfig::control_port>},
    {"--quiet", nullptr},
};

const Option* find_option(std::string_view name) {
    for (const Option& option : options) {
        if (option.name == name) {
            return &option;
        }
    }
    return nullptr;
}

// The whole error line of a value that a conversion did not take.
std::string value_error(std::string_view option, const std::string& conversion_error) {
    return "tessel: " + std::string(option) + ": " + conversion_error + "\n";
}

}  // namespace

bool parse_command_line(int count, const char* const* arguments, FeedConfig& config, std::string& error) {
    for (int at = 0; at < count; ++at) {
        const std::string argument = arguments[at];
        const Option* option = find_option(argument);
        if (option == nullptr) {
            error = "unknown flag " + argument + "\n";
            return false;
        }
        if (option->store == nullptr) {
            config.quiet = true;
            continue;
        }
        if (at + 1 == count) {
            error = argument + " needs a value\n";
            return false;
        }
        ++at;
        std::string conversion_error;
        if (!option->store(config, arguments[at], conversion_error)) {
            error = value_error(option->name, conversion_error);
            return false;
        }
    }
    if (config.session.size() > session_length_max) {
        config.session.resize(session_length_max);
    }
    return true;
}

bool split_drop_burst(const std::string& text, std::uint64_t& start, std::uint32_t& length,
                      std::string& error) {
    start = 0;
    length = 0;
    if (text.empty()) {
        return true;
    }
    const std::size_t colon = text.find(':');
    std::string conversion_error;
    if (!to_stoull(text.substr(0, colon), start, conversion_error)) {
        error = value_error("--drop-burst", conversion_error);
        return false;
    }
    if (colon == std::string::npos) {
        length = 1;
        return true;
    }
    std::uint64_t read = 0;
    if (!to_stoul(text.substr(colon + 1), read, conversion_error)) {
        error = value_error("--drop-burst", conversion_error);
        return false;
    }
    length = static_cast<std::uint32_t>(read);
    return true;
}

}  // namespace tessel
