#pragma once

#include "judge/judge.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::certify {

// What a case says must be written, and a handler left out. The judge compares the members that a line gives;
// a line that lacks one agrees. So a handler that forgets a member in the lines where it matters would pass.
struct LeftOut {
    std::string member;
    std::uint64_t lines = 0;  // truth lines that have it and whose OUTPUT lines do not
};

// The first of `members` that OUTPUT lacks in lines whose truth lines have it; no member when there is none.
// For an OUTPUT that agrees, all of its truth's runs judged. Truth lines below `first_seq` were not judged,
// those from `end_seq` on are left out.
LeftOut first_left_out(const std::string& truth_path, const judge::Result& result,
                       const std::vector<std::string>& members, std::uint64_t first_seq,
                       std::uint64_t end_seq, std::string& error);

}  // namespace tessel::certify
