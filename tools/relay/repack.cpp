#include "relay/repack.h"

#include <cstring>
#include <vector>

namespace tessel::relay {

namespace {

constexpr std::size_t header_bytes = 20;
constexpr std::size_t session_bytes = 10;
constexpr std::size_t length_bytes = 2;
constexpr unsigned end_of_session_count = 0xFFFF;

std::size_t block_bytes(const unsigned char* block) {
    return length_bytes + (static_cast<std::size_t>(block[0]) << 8 | block[1]);
}

// True when the blocks fill the packet and each fits a part.
bool can_be_split(const unsigned char* bytes, std::size_t length, unsigned messages,
                  std::size_t payload_bytes_max) {
    std::size_t at = header_bytes;
    for (unsigned message = 0; message < messages; ++message) {
        if (at + length_bytes > length || at + block_bytes(bytes + at) > length ||
            header_bytes + block_bytes(bytes + at) > payload_bytes_max) {
            return false;
        }
        at += block_bytes(bytes + at);
    }
    return at == length;
}

void write_head(std::vector<unsigned char>& part, std::uint64_t first, unsigned messages) {
    for (std::size_t at = 0; at < 8; ++at) {
        part[session_bytes + at] = static_cast<unsigned char>(first >> (8 * (7 - at)));
    }
    part[18] = static_cast<unsigned char>(messages >> 8);
    part[19] = static_cast<unsigned char>(messages);
}

}  // namespace

bool read_head(const unsigned char* bytes, std::size_t length, PacketHead& head) {
    if (length < header_bytes) {
        return false;
    }
    head.first = 0;
    for (std::size_t at = 0; at < 8; ++at) {
        head.first = head.first << 8 | bytes[session_bytes + at];
    }
    const unsigned count = static_cast<unsigned>(bytes[18]) << 8 | bytes[19];
    head.end_of_session = count == end_of_session_count;
    head.messages = head.end_of_session ? 0 : count;
    return true;
}

void for_each_part(const unsigned char* bytes, std::size_t length, std::size_t payload_bytes_max,
                   const std::function<void(const unsigned char*, std::size_t)>& take) {
    PacketHead head;
    if (payload_bytes_max == 0 || length <= payload_bytes_max || !read_head(bytes, length, head) ||
        !can_be_split(bytes, length, head.messages, payload_bytes_max)) {
        take(bytes, length);
        return;
    }
    std::vector<unsigned char> part(bytes, bytes + header_bytes);
    part.reserve(payload_bytes_max);
    std::uint64_t first = head.first;
    unsigned messages = 0;
    std::size_t at = header_bytes;
    while (at < length) {
        const std::size_t block = block_bytes(bytes + at);
        if (messages != 0 && part.size() + block > payload_bytes_max) {
            write_head(part, first, messages);
            take(part.data(), part.size());
            first += messages;
            messages = 0;
            part.resize(header_bytes);
        }
        part.insert(part.end(), bytes + at, bytes + at + block);
        ++messages;
        at += block;
    }
    write_head(part, first, messages);
    take(part.data(), part.size());
}

}  // namespace tessel::relay
