#include "channels/plan.h"

#include "common/symbol_entry.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <algorithm>
#include <set>

namespace tessel::channels {

namespace {

constexpr std::int64_t port_max = 65'535;
constexpr std::uint32_t last_byte = 0xff;

// The finalizer of a 64-bit hash: every bit of the value changes half of the result's (Stafford's variant
// 13).
std::uint64_t mix(std::uint64_t value) {
    value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ value >> 27) * 0x94d049bb133111ebULL;
    return value ^ value >> 31;
}

// A seed for each channel, all different. 53 bits, so that a reader of JSON that knows only doubles, and
// TOML's signed 64 bits, have them exactly.
std::vector<std::uint64_t> seeds_from(std::uint64_t seed, std::size_t count) {
    constexpr std::uint64_t golden = 0x9e3779b97f4a7c15ULL;  // 2^64 over the golden ratio: no short cycle
    std::vector<std::uint64_t> seeds;
    std::set<std::uint64_t> seen;
    for (std::uint64_t step = 1; seeds.size() < count; ++step) {
        const std::uint64_t next = mix(seed + step * golden) >> 11;
        if (seen.insert(next).second) {
            seeds.push_back(next);
        }
    }
    return seeds;
}

std::string digits(std::size_t number, std::size_t width) {
    std::string text = std::to_string(number);
    return text.size() < width ? std::string(width - text.size(), '0') + text : text;
}

// The first group's address as a number, in host byte order. False with the reason in `error` when the groups
// counted up from it are not all multicast groups that differ in the last byte.
bool group_base_of(const PlanOptions& options, std::uint32_t& base, std::string& error) {
    in_addr address{};
    if (inet_pton(AF_INET, options.group_base.c_str(), &address) != 1 ||
        !IN_MULTICAST(ntohl(address.s_addr))) {
        error = "--group-base: '" + options.group_base.substr(0, 40) +
                "' is no multicast address: 224.0.0.0 to 239.255.255.255";
        return false;
    }
    base = ntohl(address.s_addr);
    const std::int64_t room = static_cast<std::int64_t>(last_byte - (base & last_byte)) + 1;
    if (options.channels > room) {
        error = "--group-base: " + std::to_string(options.channels) + " groups from " + options.group_base +
                " on run over the last byte: at most " + std::to_string(room);
        return false;
    }
    return true;
}

bool check_options(const PlanOptions& options, std::size_t symbols, std::string& error) {
    in_addr address{};
    if (options.channels < 1) {
        error = "--channels: " + std::to_string(options.channels) + " channels; at least 1 is right";
    } else if (static_cast<std::uint64_t>(options.channels) > symbols) {
        error = "--channels: " + std::to_string(options.channels) + " channels for " +
                std::to_string(symbols) + " symbols; at most one channel a symbol is right";
    } else if (options.port_base < 1 || options.port_base > port_max) {
        error = "--port-base: " + std::to_string(options.port_base) + " is out of range: 1 to 65535";
    } else if (options.port_base + ports_a_channel * options.channels - 1 > port_max) {
        error = "--port-base: " + std::to_string(ports_a_channel * options.channels) + " ports from " +
                std::to_string(options.port_base) + " on run above 65535; start at " +
                std::to_string(port_max + 1 - ports_a_channel * options.channels) + " or below";
    } else if (inet_pton(AF_INET, options.iface.c_str(), &address) != 1) {
        error = "--iface: '" + options.iface.substr(0, 40) + "' is no IPv4 address";
    }
    return error.empty();
}

// The channel of each symbol.
std::vector<std::size_t> divide(Division by, const std::vector<SymbolPrice>& symbols, std::size_t channels) {
    std::vector<std::size_t> result;
    for (std::size_t at = 0; at < symbols.size(); ++at) {
        switch (by) {
            case Division::range: result.push_back(at * channels / symbols.size()); break;
            case Division::hash: result.push_back(hashed_channel(symbols[at].symbol, channels)); break;
            case Division::count: result.push_back(at % channels); break;
        }
    }
    return result;
}

PlannedChannel address_channel(const PlanOptions& options, std::uint32_t group_base, std::size_t index) {
    const std::size_t count = static_cast<std::size_t>(options.channels);
    const std::size_t width = std::max<std::size_t>(2, std::to_string(count).size());
    const std::string number = digits(index + 1, width);
    const std::int64_t port = options.port_base + ports_a_channel * static_cast<std::int64_t>(index);
    const in_addr group{htonl(group_base + static_cast<std::uint32_t>(index))};
    char group_text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &group, group_text, sizeof group_text);
    PlannedChannel planned;
    Channel& channel = planned.channel;
    channel.name = "ch" + number;
    channel.group = group_text;
    channel.port = static_cast<std::uint16_t>(port);
    channel.iface = options.iface;
    channel.session = width == 2 ? "TESSELCH" + number : "TESSELC" + number;  // 10 characters each
    channel.retrans = options.iface + ":" + std::to_string(port + 1);
    channel.snapshot = options.iface + ":" + std::to_string(port + 2);
    channel.control = "127.0.0.1:" + std::to_string(port + 3);  // the feed opens it there and nowhere else
    channel.config = channel.name + ".toml";
    return planned;
}

// The symbols of a channel become one argument of its feed.
bool check_lengths(const std::vector<PlannedChannel>& plan, std::string& error) {
    for (const PlannedChannel& planned : plan) {
        std::size_t bytes = 0;
        for (std::size_t at = 0; at < planned.prices.size(); ++at) {
            bytes += planned.channel.symbols[at].size() + planned.prices[at].size() + 2;
        }
        if (bytes > common::argument_bytes_max || planned.prices.size() > common::symbols_max) {
            error = "--channels: the " + std::to_string(planned.prices.size()) + " symbols of " +
                    planned.channel.name + " are more than a feed can be given; use more channels";
            return false;
        }
    }
    return true;
}

}  // namespace

std::size_t hashed_channel(std::string_view symbol, std::size_t channels) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
    for (const char letter : symbol) {
        hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3ULL;
    }
    return static_cast<std::size_t>(mix(hash) % channels);
}

bool make_plan(const PlanOptions& options, const std::vector<SymbolPrice>& symbols,
               std::vector<PlannedChannel>& plan, std::string& error) {
    std::uint32_t group_base = 0;
    if (!check_options(options, symbols.size(), error) || !group_base_of(options, group_base, error)) {
        return false;
    }
    const std::size_t count = static_cast<std::size_t>(options.channels);
    std::vector<SymbolPrice> ordered = symbols;
    if (options.by != Division::count) {
        std::sort(ordered.begin(), ordered.end(),
                  [](const SymbolPrice& one, const SymbolPrice& other) { return one.symbol < other.symbol; });
    }
    const std::vector<std::uint64_t> seeds = seeds_from(options.seed, count);
    for (std::size_t index = 0; index < count; ++index) {
        plan.push_back(address_channel(options, group_base, index));
        plan.back().channel.seed = seeds[index];
    }
    const std::vector<std::size_t> channel_of = divide(options.by, ordered, count);
    for (std::size_t at = 0; at < ordered.size(); ++at) {
        PlannedChannel& planned = plan[channel_of[at]];
        planned.channel.symbols.push_back(ordered[at].symbol);
        planned.prices.push_back(ordered[at].price);
    }
    return check_lengths(plan, error);
}

}  // namespace tessel::channels
