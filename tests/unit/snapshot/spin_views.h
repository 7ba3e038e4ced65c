#pragma once
// A spin as the list of its messages.

#include "snapshot/spin.h"
#include "support/test_market.h"
#include "wire/quote_messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tessel::testing {

constexpr std::uint64_t spin_time = 1'800'000'000'123'456'789u;

inline std::vector<Bytes> spin_of(TestMarket& market) {
    SpinBuffer spin;
    build_spin(spin, market.engine, spin_time);
    std::vector<Bytes> messages;
    for (const std::span<const unsigned char> message : spin_messages(spin)) {
        messages.emplace_back(message.begin(), message.end());
    }
    return messages;
}

inline std::vector<std::string> letters_of(const std::vector<Bytes>& messages) {
    std::vector<std::string> result;
    for (const Bytes& message : messages) {
        result.push_back(letters(message));
    }
    return result;
}

// The rebuilt quote of a center in the only instrument.
inline Bytes quote_of(const std::vector<Bytes>& messages, char market_center) {
    for (const Bytes& message : messages) {
        if (message.at(1) == 'Q' && message.at(3) == market_center) {
            return message;
        }
    }
    ADD_FAILURE() << "no quote of " << market_center;
    return Bytes(long_quote_bytes, 0);
}

}  // namespace tessel::testing
