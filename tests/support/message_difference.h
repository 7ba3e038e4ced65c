#pragma once

#include <string>

// Differences between messages, named as fields of the layout table and not as offsets.
namespace tessel::testing {

// What kind of message this is, in the words of the golden file ("quote-short", "trade-long"); "unknown" for
// anything else.
std::string type_name(const std::string& message);

// The message with every time stamp set to zero.
std::string without_times(std::string message);

// Lower-case hexadecimal, and back (only what to_hex wrote).
std::string to_hex(const std::string& bytes);
std::string from_hex(const std::string& hex);

// "" when equal; else type, first differing field with offset, both values and both messages in hexadecimal.
std::string difference(const std::string& expected, const std::string& got);

}  // namespace tessel::testing
