#pragma once

#include "common/timeline.h"
#include "ctl/control_client.h"

#include <cstdint>
#include <string>

namespace tessel::ctl {

struct ScriptOptions {
    bool json = false;
    int poll_ms = 1;  // between two looks at the feed's next number while a line waits for one
};

// Plays a timeline against a running feed, with the moment of the call as its start. A line by time is sent
// at its moment, which ends the feed's wait for input: it is done in the pass of the loop that begins then.
// All lines of one moment are sent together, so one pass does them. A line by number is sent when an answer
// to "stats" has that number; the next pass does it.
//
// Each line played is one line on standard output. Returns the exit status: 0, 1 when the feed answered a
// line with "err" or was stopped before the end, 3 when it does not answer.
int play_script(const common::Timeline& timeline, ControlClient& client, const ScriptOptions& options);

}  // namespace tessel::ctl
