#include "wire/message_writer.h"

#include <algorithm>

namespace tessel {

namespace {

// The first allocation holds every quote with a handful of odd lots and every other message, so that a writer
// which is kept allocates once in its life.
constexpr std::size_t first_capacity = 512;

// Makes room for needed bytes in all; nothing of what is there is kept.
[[gnu::noinline]] void enlarge(MessageWriter& writer, std::size_t needed) {
    writer.capacity = std::max({writer.capacity * 2, first_capacity, needed});
    writer.bytes.reset(new unsigned char[writer.capacity]);
}

}  // namespace

void begin_message(MessageWriter& writer, const MessageHeader& header, std::size_t body_size) {
    const std::size_t needed = common_header_bytes + body_size;
    if (needed > writer.capacity) [[unlikely]] {
        enlarge(writer, needed);
    }
    writer.size = needed;
    put_header(writer.bytes.get(), header);
}

}  // namespace tessel
