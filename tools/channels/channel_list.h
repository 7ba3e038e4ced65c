#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The list of a feed's channels, for handlers and for our programs alike:
//
//     {"version": 1, "channels": [{"name": "ch01", "group": "239.255.26.1", "port": 26000,
//      "iface": "127.0.0.1", "session": "TESSELCH01", "retrans": "127.0.0.1:26001",
//      "snapshot": "127.0.0.1:26002", "control": "127.0.0.1:26003", "seed": 7, "config": "ch01.toml",
//      "symbols": ["AAPL", "MSFT"]}]}
//
// Other members are ignored. This is the only reader and the only writer.
namespace tessel::channels {

struct Channel {
    std::string name;   // part of file names: no '/', does not begin with '.'
    std::string group;  // IPv4 multicast group
    std::uint16_t port = 0;
    std::string iface;  // IPv4 address of the interface
    std::string session;
    std::string retrans;  // HOST:PORT, as the next two
    std::string snapshot;
    std::string control;
    std::uint64_t seed = 0;
    std::string config;  // path from the list's folder
    std::vector<std::string> symbols;
};

using ChannelList = std::vector<Channel>;

// A list is read up to this size; thousands of channels with their symbols are a tenth of it.
constexpr std::size_t channel_list_bytes_max = std::size_t{16} << 20;

// What a reader needs of each channel; the rest may be missing.
enum class Needs {
    names,     // the name
    addresses  // name, group, port, iface, session, retrans, snapshot, control
};

// Reads a list. `file` is its name for messages. A name comes once. A list without channels is refused. False
// with "FILE: reason" in `error`.
bool parse_channel_list(std::string_view text, const std::string& file, Needs needs, ChannelList& list,
                        std::string& error);

// The same from the file at `path`.
bool read_channel_list(const std::string& path, Needs needs, ChannelList& list, std::string& error);

// The list as the text of a file; the same list gives the same bytes.
std::string channel_list_text(const ChannelList& list);

// The channel that has the symbol, or null.
const Channel* channel_of_symbol(const ChannelList& list, std::string_view symbol);

}  // namespace tessel::channels
