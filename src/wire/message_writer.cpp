#include "wire/message_writer.h"

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

void begin_uncleared(MessageWriter& writer, const MessageHeader& header, std::size_t body_size) {
    const std::size_t needed = common_header_bytes + body_size;
    if (needed > writer.capacity) [[unlikely]] {
        enlarge(writer, 0, needed);
    }
    writer.size = needed;
    put_header(writer.bytes.get(), header);
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
