// Any text as a timeline: it is refused with a place and a reason, or played whole, in order and within its
// limits.

#include "common/control_commands.h"
#include "common/timeline.h"
#include "fuzz_check.h"

#include <cstddef>
#include <string>
#include <vector>

using namespace tessel::common;
using tessel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Timeline timeline;
    std::string error;
    if (!parse_timeline(text, "t", timeline, error)) {
        check(error.starts_with("t:"), "a fault names the file");
        check(error.size() <= 300, "a fault is one short line");
        return 0;
    }
    const std::size_t actions = timeline.timed.size() + timeline.by_sequence.size();
    check(actions <= timeline_actions_max, "the loops stay within the limit");
    for (const TimelineCommand& command : timeline.commands) {
        check(check_control_command(command.text, error), "every command is one that the feed takes");
    }
    TimelineCursor cursor;
    std::vector<const TimelineCommand*> due;
    std::uint64_t last_ns = 0;
    for (std::size_t step = 0; step < 100 && !all_played(timeline, cursor); ++step) {
        const std::uint64_t next_ns = next_timed_ns(timeline, cursor);
        if (next_ns == UINT64_MAX) {
            break;
        }
        check(next_ns >= last_ns, "time goes forward");
        const std::size_t before = due.size();
        take_due(timeline, cursor, next_ns, 0, due);
        check(due.size() > before, "a moment that has come has something to do");
        last_ns = next_ns;
    }
    take_due(timeline, cursor, UINT64_MAX, UINT64_MAX, due);
    check(all_played(timeline, cursor) && due.size() == actions, "everything is played once");
    return 0;
}
