#pragma once

#include <span>
#include <string_view>

// The counters of the feed's `stats`, in its order, each with one line of explanation.
namespace tessel::console {

struct CounterText {
    std::string_view name;
    std::string_view text;
};

std::span<const CounterText> counter_texts();

}  // namespace tessel::console
