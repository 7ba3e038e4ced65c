#include "channels/channel_list.h"

#include "channels/files.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <algorithm>
#include <charconv>
#include <exception>
#include <set>
#include <stdexcept>
#include <system_error>

namespace tessel::channels {

namespace {

using Json = nlohmann::json;

constexpr int nesting_max = 16;
constexpr std::size_t shown_bytes_max = 40;
constexpr std::size_t session_bytes_max = 10;

bool is_file_name(const std::string& name) {
    return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

bool is_address(const std::string& text, bool multicast) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 && text.find('\0') == std::string::npos &&
           (!multicast || IN_MULTICAST(ntohl(address.s_addr)));
}

bool is_session(const std::string& text) {
    return !text.empty() && text.size() <= session_bytes_max &&
           std::all_of(text.begin(), text.end(), [](char letter) { return letter >= ' ' && letter <= '~'; });
}

bool is_endpoint(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    unsigned port = 0;
    if (colon == std::string::npos || colon == 0 || text.find('\0') != std::string::npos) {
        return false;
    }
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data() + colon + 1, end, port);
    return read.ec == std::errc() && read.ptr == end && port >= 1 && port <= 65'535;
}

// A text of the channel; empty when it has none.
std::string text_of(const Json& json, const char* member) {
    const auto found = json.find(member);
    return found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

// The whole number of the channel; 0 when it has none.
std::uint64_t number_of(const Json& json, const char* member) {
    const auto found = json.find(member);
    return found != json.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

Channel channel_of(const Json& json) {
    Channel channel;
    channel.name = text_of(json, "name");
    channel.group = text_of(json, "group");
    const std::uint64_t port = number_of(json, "port");
    channel.port = port <= 65'535 ? static_cast<std::uint16_t>(port) : std::uint16_t{0};
    channel.iface = text_of(json, "iface");
    channel.session = text_of(json, "session");
    channel.retrans = text_of(json, "retrans");
    channel.snapshot = text_of(json, "snapshot");
    channel.control = text_of(json, "control");
    channel.seed = number_of(json, "seed");
    channel.config = text_of(json, "config");
    const auto symbols = json.find("symbols");
    if (symbols != json.end() && symbols->is_array()) {
        for (const Json& symbol : *symbols) {
            if (symbol.is_string()) {
                channel.symbols.push_back(symbol.get<std::string>());
            }
        }
    }
    return channel;
}

// What is wrong with the addresses of a channel; empty when nothing is.
std::string address_error(const Channel& channel) {
    if (!is_address(channel.group, true)) {
        return "no 'group' that is an IPv4 multicast address";
    }
    if (channel.port == 0) {
        return "no 'port' from 1 to 65535";
    }
    if (!is_address(channel.iface, false)) {
        return "no 'iface' that is an IPv4 address";
    }
    if (!is_session(channel.session)) {
        return "no 'session' of 1 to 10 printable characters";
    }
    const std::pair<const char*, const std::string&> endpoints[] = {
        {"retrans", channel.retrans}, {"snapshot", channel.snapshot}, {"control", channel.control}};
    for (const auto& [member, value] : endpoints) {
        if (!is_endpoint(value)) {
            return std::string("no '") + member + "' that is HOST:PORT";
        }
    }
    return "";
}

// The text as JSON; the reason in `error` when it is none.
Json parse(std::string_view text, std::string& error) {
    const auto is_shallow = [](int depth, Json::parse_event_t, const Json&) {
        if (depth > nesting_max) {
            throw std::length_error("nested too deep");
        }
        return true;
    };
    try {
        return Json::parse(text.begin(), text.end(), is_shallow);
    } catch (const Json::parse_error& fault) {
        error = "not JSON: broken at byte " + std::to_string(fault.byte);
    } catch (const std::exception& fault) {
        error = fault.what();
    }
    return {};
}

// Reads the channels of a parsed list. False with the reason in `error`.
bool take_channels(const Json& json, Needs needs, ChannelList& list, std::string& error) {
    if (!json.is_object() || json.value("version", Json()) != 1) {
        error = "not a channel list of version 1";
        return false;
    }
    const auto channels = json.find("channels");
    if (channels == json.end() || !channels->is_array() || channels->empty()) {
        error = "no channels in the list";
        return false;
    }
    std::set<std::string> seen;
    for (const Json& each : *channels) {
        Channel channel = each.is_object() ? channel_of(each) : Channel{};
        if (!is_file_name(channel.name)) {
            error = "channel " + std::to_string(list.size() + 1) + " has no name that can be a file's";
            return false;
        }
        if (!seen.insert(channel.name).second) {
            error = "channel '" + channel.name.substr(0, shown_bytes_max) + "' is there twice";
            return false;
        }
        const std::string reason = needs == Needs::addresses ? address_error(channel) : "";
        if (!reason.empty()) {
            error = "channel '" + channel.name.substr(0, shown_bytes_max) + "' has " + reason;
            return false;
        }
        list.push_back(std::move(channel));
    }
    return true;
}

}  // namespace

bool parse_channel_list(std::string_view text, const std::string& file, Needs needs, ChannelList& list,
                        std::string& error) {
    std::string reason;
    const Json json = parse(text, reason);
    if (!reason.empty() || !take_channels(json, needs, list, reason)) {
        error = file + ": " + reason;
        return false;
    }
    return true;
}

bool read_channel_list(const std::string& path, Needs needs, ChannelList& list, std::string& error) {
    std::string text;
    return read_text_file(path, channel_list_bytes_max, text, error) &&
           parse_channel_list(text, path, needs, list, error);
}

std::string channel_list_text(const ChannelList& list) {
    nlohmann::ordered_json channels = nlohmann::ordered_json::array();
    for (const Channel& channel : list) {
        channels.push_back({{"name", channel.name},
                            {"group", channel.group},
                            {"port", channel.port},
                            {"iface", channel.iface},
                            {"session", channel.session},
                            {"retrans", channel.retrans},
                            {"snapshot", channel.snapshot},
                            {"control", channel.control},
                            {"seed", channel.seed},
                            {"config", channel.config},
                            {"symbols", channel.symbols}});
    }
    const nlohmann::ordered_json json = {{"version", 1}, {"channels", channels}};
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

const Channel* channel_of_symbol(const ChannelList& list, std::string_view symbol) {
    for (const Channel& channel : list) {
        if (std::find(channel.symbols.begin(), channel.symbols.end(), symbol) != channel.symbols.end()) {
            return &channel;
        }
    }
    return nullptr;
}

}  // namespace tessel::channels
