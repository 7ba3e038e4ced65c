#pragma once

#include "certify/reports.h"

#include <compare>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::certify {

// Something that findings have in common: a fact of theirs, or the kind of message, member or symbol.
struct Trait {
    std::string name;  // a fact's name, or "message", "member", "symbol"
    std::string value;
    friend auto operator<=>(const Trait&, const Trait&) = default;
};

// What a finding may share with others. Facts that hold for nearly every message ("in_gap" "false") are left
// out.
std::vector<Trait> traits_of(const Finding& finding);

// The trait as the end of a sentence about lines of that kind: "in messages with NBBO indicator 4".
std::string trait_phrase(const Trait& trait, std::string_view kind);

// A reason with its numbers replaced by N, so that reasons that differ in a count alone are found to be
// alike.
std::string reason_pattern(std::string_view reason);

}  // namespace tessel::certify
