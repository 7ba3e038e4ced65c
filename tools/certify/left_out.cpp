#include "certify/left_out.h"

#include "certify/each_line.h"
#include "judge/line_reader.h"

#include <algorithm>
#include <array>

namespace tessel::certify {

LeftOut first_left_out(const std::string& truth_path, const judge::Result& result,
                       const std::vector<std::string>& members, std::uint64_t first_seq,
                       std::uint64_t end_seq, std::string& error) {
    std::array<std::uint64_t, judge::member_count> needed{};
    std::string reason;
    const auto count = [&](std::string_view text, std::uint64_t /*number*/) {
        judge::Line line;
        if (judge::read_line(text, line, reason) && !line.mark && line.seq >= first_seq &&
            line.seq < end_seq) {
            for (std::size_t member = 0; member != judge::member_count; ++member) {
                needed[member] += judge::member_text(line, text, member).empty() ? 0 : 1;
            }
        }
        return true;
    };
    if (!each_line({truth_path}, count, error)) {
        return {};
    }
    for (std::size_t member = 0; member != judge::member_count; ++member) {
        const std::string name(judge::member_names[member]);
        const std::uint64_t compared = result.members[member].compared;
        if (compared < needed[member] && std::find(members.begin(), members.end(), name) != members.end()) {
            return {name, needed[member] - compared};
        }
    }
    return {};
}

}  // namespace tessel::certify
