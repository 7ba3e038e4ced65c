#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace tessel::simulator {

// One broken rule of a run: which invariant, and what was seen.
struct Violation {
    std::string invariant;
    std::string what;
};

// What a run broke, the first few only: one fault often shows in many places.
struct Violations {
    static constexpr std::size_t kept_max = 40;
    std::vector<Violation> found;

    void report(const char* invariant, std::string what) {
        if (found.size() < kept_max) {
            found.push_back({invariant, std::move(what)});
        }
    }

    bool has(const std::string& invariant) const {
        return std::any_of(found.begin(), found.end(),
                           [&invariant](const Violation& each) { return each.invariant == invariant; });
    }
};

}  // namespace tessel::simulator
