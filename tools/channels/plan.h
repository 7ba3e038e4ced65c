#pragma once

#include "channels/channel_list.h"
#include "channels/symbol_file.h"

#include <cstdint>
#include <string>
#include <vector>

// How symbols are divided into channels, and which addresses and seed each channel gets.
namespace tessel::channels {

enum class Division {
    range,  // sorted by name and cut into pieces whose sizes differ by one at most
    hash,   // by the symbol alone: neither order nor other symbols matter
    count   // dealt in turn in the order of the file: sizes differ by one at most
};

struct PlanOptions {
    std::int64_t channels = 0;
    Division by = Division::range;
    std::string group_base = "239.255.26.1";
    std::int64_t port_base = 26'000;
    std::string iface = "127.0.0.1";
    std::uint64_t seed = 7;
};

// Four ports a channel, in this order from the base on: group, retransmission, Snap-Shot, control.
constexpr std::int64_t ports_a_channel = 4;

// A channel with the prices of its symbols, in the order of channel.symbols.
struct PlannedChannel {
    Channel channel;
    std::vector<std::string> prices;
};

// The channel, counted from 0, that `hash` puts the symbol in.
std::size_t hashed_channel(std::string_view symbol, std::size_t channels);

// The plan. The same options and symbols give the same plan. A channel that `hash` leaves without symbols is
// in it, too. False with the option and what would be right in `error`.
bool make_plan(const PlanOptions& options, const std::vector<SymbolPrice>& symbols,
               std::vector<PlannedChannel>& plan, std::string& error);

}  // namespace tessel::channels
