#pragma once

#include "receiver/market_state.h"

#include <cstddef>
#include <cstdint>
#include <string>

// The truth log's lines, rebuilt from what a receiver knows.
//
// One line for each quote, trading action, price band, trade, cancel/error, correction, as-of trade and
// breaker status, for example:
//
//   {"seq":812,"secid":1,"symbol":"AAPL","bid":[[190.0100,300]],"ask":[],
//   "nbbo":[0.0000,0,0.0000,0],"status":"T"}   (one line)
//   {"seq":813,"secid":1,"symbol":"AAPL","trade":[190.0100,200,"Q","@   "],"kind":0,"id":7}
//
// What cannot be rebuilt, because it is not on the wire: letters of a symbol past the eleventh, which of two
// instruments of one name is meant, a breaker level above 3. An instrument that no directory has named (a
// receiver that joined late without a Snap-Shot) has no "secid" member.
namespace tessel::receiver {

// Appends the message's line to `out`, with its line feed, and returns true; returns false and appends
// nothing when the kind of message has no line, or when the bytes cannot be decoded. Called after
// apply_message with the same arguments: the line shows the market after the message.
bool append_truth_line(std::string& out, const Market& market, const unsigned char* bytes, std::size_t length,
                       std::uint64_t sequence);

// The same for a message that is decoded already.
bool append_truth_line(std::string& out, const Market& market, const Message& message,
                       std::uint64_t sequence);

}  // namespace tessel::receiver
