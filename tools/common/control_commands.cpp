#include "common/control_commands.h"

#include "common/nearest_word.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace tessel::common {

namespace {

constexpr ControlCommand commands[] = {
    {"pause", "pause", Argument::none, "No quotes and trades until resume; timers go on"},
    {"resume", "resume [SYM]", Argument::optional_symbol,
     "The market goes on; with a symbol, from halt or pause to quotation, then to trading"},
    {"drop", "drop [N]", Argument::optional_number, "The next N packets (1) are not sent"},
    {"dup", "dup [N]", Argument::optional_number, "The next N packets (1) are sent twice"},
    {"reorder", "reorder [N]", Argument::optional_number,
     "The next N packets (1) are held back for one packet"},
    {"drop_every", "drop_every [N]", Argument::optional_number, "Every Nth packet is not sent; 0 ends it"},
    {"dup_every", "dup_every [N]", Argument::optional_number, "Every Nth packet is sent twice; 0 ends it"},
    {"reorder_every", "reorder_every [N]", Argument::optional_number,
     "Every Nth packet is held back; 0 ends it"},
    {"rate", "rate [MS]", Argument::optional_number, "A tick every MS milliseconds (100); negative: never"},
    {"mark", "mark LABEL", Argument::word, "A mark line in the truth log"},
    {"stats", "stats", Argument::none, "All counters, the next sequence number, the faults"},
    {"stop", "stop", Argument::none, "The feed ends with status 0"},
    {"halt", "halt SYM", Argument::symbol, "Trading halt, until resumed"},
    {"luld_pause", "luld_pause SYM", Argument::symbol, "LULD trading pause, until resumed"},
    {"band", "band SYM", Argument::symbol, "A new LULD price band"},
    {"mwcb", "mwcb [LEVEL]", Argument::optional_number, "Market-wide circuit breaker of level 1, 2 or 3"},
    {"trf", "trf [N]", Argument::optional_number, "The next N ticks (1) print a TRF trade"},
    {"cancel", "cancel [N]", Argument::optional_number, "N trades (1) are canceled or reported as errors"},
    {"correct", "correct [N]", Argument::optional_number, "N trades (1) are corrected"},
    {"close", "close SYM", Argument::symbol, "Closing cross and official close"},
    {"asof", "asof SYM", Argument::symbol, "An as-of trade"},
    {"wipeout", "wipeout MC", Argument::word, "Every quote of a market center is wiped out"},
};

constexpr std::string_view white_space = " \t\n\v\f\r";
constexpr std::size_t quoted_bytes_max = 40;

std::string_view take_word(std::string_view& text) {
    const std::size_t start = text.find_first_not_of(white_space);
    if (start == std::string_view::npos) {
        text = {};
        return {};
    }
    text.remove_prefix(start);
    const std::string_view word = text.substr(0, text.find_first_of(white_space));
    text.remove_prefix(word.size());
    return word;
}

std::string in_quotes(std::string_view text) {
    return "'" + std::string(text.substr(0, quoted_bytes_max)) + "'";
}

// A whole number with an optional sign that 32 bits hold, signed or not.
bool is_number(std::string_view text) {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    std::uint64_t value = 0;
    for (const char letter : text) {
        if (letter < '0' || letter > '9') {
            return false;
        }
        value = value * 10 + static_cast<std::uint64_t>(letter - '0');
        if (value > std::numeric_limits<std::uint32_t>::max()) {
            return false;
        }
    }
    return !text.empty() && (!negative || value <= std::uint64_t{1} << 31);
}

// What is wrong with the argument; empty when nothing is.
std::string argument_error(const ControlCommand& command, std::string_view argument) {
    const bool needed = command.argument == Argument::symbol || command.argument == Argument::word;
    const std::string usage = ": write '" + std::string(command.usage) + "'";
    if (argument.empty()) {
        return needed ? "'" + std::string(command.word) + "' needs an argument" + usage : "";
    }
    if (command.argument == Argument::none) {
        return "'" + std::string(command.word) + "' takes no argument, not " + in_quotes(argument);
    }
    if (command.argument == Argument::optional_number && !is_number(argument)) {
        return "'" + std::string(command.word) + "' takes a whole number of at most 32 bits, not " +
               in_quotes(argument);
    }
    return "";
}

}  // namespace

std::span<const ControlCommand> control_commands() {
    return commands;
}

const ControlCommand* find_control_command(std::string_view word) {
    for (const ControlCommand& command : commands) {
        if (command.word == word) {
            return &command;
        }
    }
    return nullptr;
}

bool check_control_command(std::string_view line, std::string& error) {
    error.clear();
    if (line.size() > control_command_bytes_max) {
        error = "a command of " + std::to_string(line.size()) + " bytes is too long: at most " +
                std::to_string(control_command_bytes_max);
        return false;
    }
    if (line.find('\0') != std::string_view::npos) {
        error = "a command holds no NUL byte";
        return false;
    }
    std::string_view rest = line;
    const std::string_view word = take_word(rest);
    const std::string_view argument = take_word(rest);
    const ControlCommand* command = find_control_command(word);
    if (command == nullptr) {
        std::vector<std::string_view> words;
        for (const ControlCommand& each : commands) {
            words.push_back(each.word);
        }
        error = "unknown command " + in_quotes(word) + did_you_mean(word, words);
        return false;
    }
    error = argument_error(*command, argument);
    if (error.empty()) {
        const std::string_view further = take_word(rest);
        if (!further.empty()) {
            error = "'" + std::string(word) + "' takes one argument at most, not " + in_quotes(further) +
                    " as well";
        }
    }
    return error.empty();
}

}  // namespace tessel::common
