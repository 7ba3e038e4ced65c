#include "support/steering.h"

#include <array>

namespace tessel::testing {

namespace {

std::string random_symbol(SplitMix& random, const SipEngine& engine) {
    if (engine.instruments.empty() || random.once_in(40)) {
        return "NOPE";
    }
    return engine.instruments[random.below(engine.instruments.size())].symbol;
}

std::string random_center(SplitMix& random, const SipEngine& engine) {
    if (engine.participants.empty() || random.once_in(20)) {
        return "X";
    }
    return {engine.participants[random.below(engine.participants.size())]};
}

}  // namespace

std::string random_command(SplitMix& random, const SipEngine& engine) {
    // The weights keep most instruments alive: as many resumptions as stops.
    static constexpr std::array<const char*, 20> commands{
        "halt",    "luld_pause", "resume", "resume",  "resume",     "resume", "band",
        "trf",     "cancel",     "cancel", "correct", "correct",    "close",  "asof",
        "wipeout", "wipeout",    "mwcb",   "pause",   "resume_all", "mark"};
    const std::string word = commands[random.below(commands.size())];
    if (word == "resume_all") {
        return "resume";
    }
    if (word == "pause") {
        return random.once_in(3) ? "pause" : "resume";
    }
    if (word == "mwcb") {
        // A breaker stops everything: rarer than the rest, and mostly at a level that ends by itself.
        return random.once_in(3) ? "mwcb " + std::to_string(random.below(6)) : "resume";
    }
    if (word == "trf" || word == "cancel" || word == "correct") {
        return word + " " + std::to_string(1 + random.below(3));
    }
    if (word == "wipeout") {
        return word + " " + random_center(random, engine);
    }
    if (word == "mark") {
        return "mark at" + std::to_string(random.below(1000));
    }
    return word + " " + random_symbol(random, engine);
}

std::string spin_messages_kinds(const SpinBuffer& spin) {
    std::string kinds;
    for (const std::span<const unsigned char> message : spin_messages(spin)) {
        kinds += static_cast<char>(message[1]);
        kinds += static_cast<char>(message[2]);
    }
    return kinds;
}

}  // namespace tessel::testing
