#include "listen/ip_fragments.h"

#include <algorithm>
#include <cstring>

namespace tessel::listen {

namespace {

constexpr std::size_t packet_bytes_max = 65'535;

void abandon_old(FragmentTable& table, std::int64_t now_ns) {
    std::erase_if(table.packets, [&](const auto& each) {
        const bool old = now_ns - each.second.first_ns > fragment_wait_ns;
        table.never_completed += old ? 1 : 0;
        return old;
    });
}

// Makes room for one more packet.
void abandon_oldest(FragmentTable& table) {
    const auto oldest = std::min_element(
        table.packets.begin(), table.packets.end(),
        [](const auto& left, const auto& right) { return left.second.first_ns < right.second.first_ns; });
    table.packets.erase(oldest);
    ++table.never_completed;
}

// Joins [begin, end) with what is present.
void mark_present(FragmentedPacket& packet, std::size_t begin, std::size_t end) {
    auto& ranges = packet.present;
    const auto first = std::find_if(ranges.begin(), ranges.end(),
                                    [begin](const auto& range) { return range.second >= begin; });
    auto last = first;
    for (; last != ranges.end() && last->first <= end; ++last) {
        begin = std::min(begin, last->first);
        end = std::max(end, last->second);
    }
    ranges.insert(ranges.erase(first, last), {begin, end});
}

}  // namespace

std::vector<unsigned char> add_fragment(FragmentTable& table, const FragmentKey& key, std::int64_t time_ns,
                                        std::size_t offset, bool more, const unsigned char* bytes,
                                        std::size_t length) {
    if (length == 0 || offset + length > packet_bytes_max) {
        return {};
    }
    auto found = table.packets.find(key);
    if (found != table.packets.end() && time_ns - found->second.first_ns > fragment_wait_ns) {
        table.packets.erase(found);
        ++table.never_completed;
        found = table.packets.end();
    }
    if (found == table.packets.end()) {
        if (table.packets.size() == fragmented_packets_max) {
            abandon_old(table, time_ns);
        }
        if (table.packets.size() == fragmented_packets_max) {
            abandon_oldest(table);
        }
        found = table.packets.emplace(key, FragmentedPacket{}).first;
        found->second.first_ns = time_ns;
    }
    FragmentedPacket& packet = found->second;
    packet.body.resize(std::max(packet.body.size(), offset + length));
    std::memcpy(packet.body.data() + offset, bytes, length);
    mark_present(packet, offset, offset + length);
    if (!more) {
        packet.total = offset + length;
    }
    const bool whole = packet.total != 0 && packet.present.size() == 1 && packet.present[0].first == 0 &&
                       packet.present[0].second >= packet.total;
    if (!whole) {
        return {};
    }
    std::vector<unsigned char> body = std::move(packet.body);
    body.resize(packet.total);
    table.packets.erase(found);
    return body;
}

void abandon_fragments(FragmentTable& table) {
    table.never_completed += table.packets.size();
    table.packets.clear();
}

}  // namespace tessel::listen
