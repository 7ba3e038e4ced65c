#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Every field of a message by name, as one JSON object a line, made from the layout table.
//
//   {"seq":3,"kind":"directory_short","version":"1","category":"A","type":"B","market_center":"Q",...}
//
// Members are in the order of the bytes. Prices are whole numbers of millionths of a dollar in both forms of
// a message, trade sizes millionths of a share, times nanoseconds since the epoch (their names end in "_ns").
// Single letters and sale conditions keep their blanks; other text is without the blanks on its right.
// Members that the form of the message does not have are left out; an appendage is an object that
// is there only when the message carries it.
namespace tessel::layout {

// Appends the object and a line feed. The bytes are a message that fits its layout (receiver::decode_message
// accepts it). `sequence` 0 means a message of a Snap-Shot spin.
void append_message_json(std::string& out, const unsigned char* bytes, std::size_t length,
                         std::uint64_t sequence);

// The line for bytes that could not be decoded: {"seq":9,"kind":"unknown","error":"...","bytes":"31c3..."}.
void append_undecoded_json(std::string& out, const unsigned char* bytes, std::size_t length,
                           std::uint64_t sequence, std::string_view error);

}  // namespace tessel::layout
