#pragma once

#include "ctl/stats.h"

#include <cstdint>
#include <string>
#include <string_view>

// Where the messages of a run went.
namespace tessel::ctl {

struct Account {
    std::int64_t sent = 0;      // messages that the feed has numbered
    std::int64_t damaged = 0;   // messages in packets that it did not send, on purpose
    bool damage_exact = true;   // false: reckoned from the packets dropped and the mean size of a packet
    std::int64_t received = 0;  // messages that the receiver has, each counted once
    std::int64_t lost = 0;      // sent, not damaged, and not received
};

// The control channel counts dropped packets, not what was in them. `damaged_messages` is that number where
// the feed's log has it, or -1; then it is reckoned, and exact when nothing was dropped.
Account make_account(const FeedCounters& stats, std::int64_t damaged_messages, std::int64_t received);

// "sent 1000, damaged on purpose 20, received 975, lost on the way 5"
std::string account_text(const Account& account);

// The messages received according to the summary that tessel-listen ends with, as text or as JSON with a
// whole number `messages`. -1 when there is none.
std::int64_t received_of_summary(std::string_view text);

// The messages of all dropped packets named by the feed's log: "tessel fault: dropped seq 1 (packet 1, 9
// message(s))".
std::int64_t damaged_of_log(std::string_view text);

}  // namespace tessel::ctl
