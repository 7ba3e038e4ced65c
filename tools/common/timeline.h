#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A timeline: control commands, each with its moment. The same file steers a running feed and a capture.
//
//     # open, halt, damage
//     +2.5s halt AAPL              2.5 s after the start
//     at seq 10000 drop 3          in the first pass of the loop in which the next number is 10000 or more
//     +1m loop 3 every 20s         three rounds, which begin 1m, 1m20s and 1m40s after the start;
//     +0s   luld_pause MSFT        times inside count from the beginning of the round
//     +5s   resume MSFT
//     end
//     at seq 20000 loop 5 every 500
//     at seq 0 dup 1               numbers inside are added to that of the round: 20000, 20500, ...
//     end
//
// A loop means its lines, written out round by round. "loop 3 every 20s" alone begins at the start. Loops
// nest; a loop by time holds lines by time, a loop by number lines by number. '#' begins a comment.
namespace tessel::common {

struct TimelineCommand {
    std::string text;  // one line for the control channel
    std::uint32_t line = 0;
};

struct TimelineAction {
    std::uint64_t moment = 0;  // nanoseconds since the start, or the next sequence number that it waits for
    std::uint32_t order = 0;   // in the file with all loops written out
    std::uint32_t command = 0;
};

struct Timeline {
    std::string name;  // of the file, for messages
    std::vector<TimelineCommand> commands;
    std::vector<TimelineAction> timed;        // by moment; those of one moment in the order of the file
    std::vector<TimelineAction> by_sequence;  // likewise
};

// Actions of all loops written out, and bytes of a file: what a timeline may cost in memory.
constexpr std::size_t timeline_actions_max = 1'000'000;
constexpr std::size_t timeline_bytes_max = std::size_t{16} << 20;
constexpr std::size_t timeline_depth_max = 8;

// Reads the whole text before anything is done. False with the first fault in `error`: "NAME:LINE: what is
// wrong".
bool parse_timeline(std::string_view text, const std::string& name, Timeline& timeline, std::string& error);

// The same from a file; "-" is standard input. False also when it cannot be read or is larger than the
// maximum.
bool read_timeline(const std::string& path, Timeline& timeline, std::string& error);

// How far a timeline has been played.
struct TimelineCursor {
    std::size_t timed = 0;
    std::size_t by_sequence = 0;
};

// Appends to `due` what one pass of the loop has to do at `now_ns` after the start, with `next_sequence` the
// next number to be given, and moves the cursor past it. Both are those of the beginning of the pass: what a
// command publishes makes the next lines due in the next pass. Lines by time come by their moment, lines by
// number by theirs; where the two meet, in the order of the file.
void take_due(const Timeline& timeline, TimelineCursor& cursor, std::uint64_t now_ns,
              std::uint64_t next_sequence, std::vector<const TimelineCommand*>& due);

// When the next line by time is due, nanoseconds since the start; UINT64_MAX when none is left.
std::uint64_t next_timed_ns(const Timeline& timeline, const TimelineCursor& cursor);

bool all_played(const Timeline& timeline, const TimelineCursor& cursor);

// What a run did not reach, for its user: "N commands of NAME were not reached; the first is in line L".
// Empty when all were played.
std::string unplayed_text(const Timeline& timeline, const TimelineCursor& cursor);

}  // namespace tessel::common
