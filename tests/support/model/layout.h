#pragma once

// Names for the bytes of a message, so that a difference between two messages can be told as a field and not
// as an offset. The tables stand here a second time on purpose: they share nothing with the encoders.

#include <cstddef>
#include <string>
#include <vector>

namespace tessel::model {

struct Field {
    const char* name = "";
    std::size_t offset = 0;
    std::size_t width = 0;
    char kind = 't';  ///< 'n' number, 't' text, 's' time stamp
};

/// What kind of message this is, in one word ("quote-short", "trade-long"); "unknown" for anything else.
std::string type_name(const std::string& message);

/// The fields of the message in order; the last one is "behind the end" when there are bytes that no field
/// explains.
std::vector<Field> fields_of(const std::string& message);

/// The message with every time stamp set to zero.
std::string without_times(std::string message);

/// Lower-case hexadecimal, and back (only what to_hex wrote).
std::string to_hex(const std::string& bytes);
std::string from_hex(const std::string& hex);

/// "" when equal; else type, first differing field with offset, both values and both messages in hexadecimal.
std::string difference(const std::string& expected, const std::string& got);

}  // namespace tessel::model
