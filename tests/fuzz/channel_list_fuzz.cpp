// A channel list, whatever its bytes: a reader gets channels whose names are fit to be part of a file name,
// each once, and addresses where it asks for them; or a reason of one line. What was read is read again from
// our own text.

#include "channels/channel_list.h"
#include "fuzz_check.h"

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

namespace {

using tessel::channels::Channel;
using tessel::channels::ChannelList;
using tessel::channels::Needs;
using tessel::fuzz::check;

bool read_list(std::string_view text, Needs needs, ChannelList& list) {
    std::string error;
    const bool good = tessel::channels::parse_channel_list(text, "list", needs, list, error);
    check(good == error.empty(), "a reason exactly when it is refused");
    check(good || error.starts_with("list"), "the reason names the file");
    return good;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ChannelList named;
    ChannelList addressed;
    const bool has_names = read_list(text, Needs::names, named);
    const bool has_addresses = read_list(text, Needs::addresses, addressed);
    check(has_names || !has_addresses, "addresses come with names");
    if (!has_names) {
        return 0;
    }
    std::set<std::string> names;
    for (const Channel& channel : named) {
        check(names.insert(channel.name).second, "each name once");
        check(!channel.name.empty() && channel.name[0] != '.' && channel.name.find('/') == std::string::npos,
              "a name stays in its folder");
    }
    if (has_addresses) {
        const std::string written = channel_list_text(addressed);
        ChannelList again;
        check(read_list(written, Needs::addresses, again), "our own text is a list");
        check(channel_list_text(again) == written, "nothing changes when it is read again");
    }
    return 0;
}
