#include "msg/message_writer.h"

#include <cstring>

namespace tessel {

namespace {

// The first allocation holds every quote with a handful of odd lots and every other message, so that a writer
// which is kept allocates once in its life.
constexpr std::size_t first_capacity = 512;

// Makes room for needed bytes in all; the first kept bytes survive.
[[gnu::noinline]] void enlarge(MessageWriter& writer, std::size_t kept, std::size_t needed) {
    std::size_t capacity = writer.capacity * 2 > first_capacity ? writer.capacity * 2 : first_capacity;
    if (capacity < needed) {
        capacity = needed;
    }
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[capacity]);
    if (kept > 0) {
        std::memcpy(bytes.get(), writer.bytes.get(), kept);
    }
    writer.bytes = std::move(bytes);
    writer.capacity = capacity;
}

}  // namespace

// Common header, 29 bytes:
//    0  1  version
//    1  1  message category
//    2  1  message type
//    3  1  market centre originator
//    4  1  sub-market centre
//    5  8  SIP timestamp, ns
//   13  8  participant timestamp, ns
//   21  8  participant token
void begin_uncleared(MessageWriter& writer, const MessageHeader& header, std::size_t body_size) {
    static_assert(21 + 8 == common_header_bytes);
    const std::size_t needed = common_header_bytes + body_size;
    if (needed > writer.capacity) [[unlikely]] {
        enlarge(writer, 0, needed);
    }
    writer.size = needed;
    unsigned char* const out = writer.bytes.get();
    put_u8(out, 0, header.version);
    put_u8(out, 1, header.category);
    put_u8(out, 2, header.type);
    put_u8(out, 3, header.mc);
    put_u8(out, 4, header.sub_mc);
    put_u64(out, 5, header.sip_time);
    put_u64(out, 13, header.participant_time);
    put_u64(out, 21, header.participant_token);
}

void begin(MessageWriter& writer, const MessageHeader& header, std::size_t body_size) {
    begin_uncleared(writer, header, body_size);
    std::memset(writer.bytes.get() + common_header_bytes, 0, body_size);
}

std::size_t grow(MessageWriter& writer, std::size_t count) {
    const std::size_t start = writer.size;
    if (start + count > writer.capacity) [[unlikely]] {
        enlarge(writer, start, start + count);
    }
    if (count > 0) {
        std::memset(writer.bytes.get() + start, 0, count);
    }
    writer.size = start + count;
    return start;
}

}  // namespace tessel
