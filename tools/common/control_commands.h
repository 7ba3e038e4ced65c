#pragma once

#include <span>
#include <string>
#include <string_view>

// The commands of the feed's control channel as its users' programs know them. The feed itself is lenient
// with what follows a command; these programs are not, so that a slip is not mistaken for an effect.
namespace tessel::common {

enum class Argument {
    none,
    optional_symbol,
    symbol,
    optional_number,  // a count, or milliseconds: the feed keeps its low 32 bits
    word,
};

struct ControlCommand {
    std::string_view word;
    std::string_view usage;  // with the argument's name: "halt SYM"
    Argument argument;
    std::string_view effect;  // one line for --help
};

// The longest command that the feed takes: a datagram beyond it is cut.
constexpr std::size_t control_command_bytes_max = 511;

// Every command, in the order of the feed's own list.
std::span<const ControlCommand> control_commands();

// Null when there is none of that name.
const ControlCommand* find_control_command(std::string_view word);

// Whether the feed would take the whole line as it is meant: its command is known, and what follows has the
// right form. Whether a symbol exists only the feed knows. False with the reason in `error`.
bool check_control_command(std::string_view line, std::string& error);

}  // namespace tessel::common
