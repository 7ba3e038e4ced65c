#include "engine/publication.h"

#include "mold/publisher.h"

#include <cstdio>

namespace tessel {

std::uint64_t publish_message(SipEngine& engine) {
    return append_message(*engine.publisher, engine.writer.bytes.get(), engine.writer.size);
}

void flush_messages(SipEngine& engine) {
    flush_packet(*engine.publisher);
}

std::uint64_t last_sequence(const SipEngine& engine) {
    return last_sequence(*engine.publisher);
}

void announce(const SipEngine& engine, const std::string& event, const std::string& rest) {
    std::fprintf(stderr, "bench: %s at seq %llu%s\n", event.c_str(),
                 static_cast<unsigned long long>(last_sequence(engine)), rest.c_str());
}

}  // namespace tessel
