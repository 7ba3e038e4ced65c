#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Finds where the history of a retransmission service begins. A service answers nothing for messages that it
// no longer has, so a receiver that starts late would otherwise have to wait for a time-out for every request
// of a range that may hold millions. The search requests single messages spread over the range instead: the
// ones without a reply that come before one with a reply narrow the range down.
//
// Pure: the caller sends a request of one message for each number in `probes` and passes the replies on.
namespace tessel::receiver {

constexpr std::size_t probes_a_round = 16;
// A floor that rises faster than this many rounds can follow is taken where it was seen last.
constexpr unsigned search_rounds_max = 64;

struct Probe {
    std::uint64_t number = 0;
    bool answered = false;
};

struct HistorySearch {
    bool active = false;
    std::uint64_t first = 0;  // the range searched, [first, end)
    std::uint64_t end = 0;
    std::vector<Probe> probes;    // of this round, rising
    std::uint64_t candidate = 0;  // the highest number without a reply; 0: none
    unsigned misses = 0;          // rounds in which it had none
    unsigned silent_rounds = 0;   // rounds in succession without any reply
    unsigned rounds = 0;
    std::int64_t sent_ms = 0;
    std::int64_t last_answered_ms = -1;  // when the round's last probe was answered; -1: not yet
};

enum class SearchStep : std::uint8_t {
    wait,       // the round is under way
    probe,      // a new round: send the requests
    found,      // the history begins after `candidate`, which is 0 when it holds the whole range
    no_replies  // the service answers nothing, not even for the newest number of the range
};

// Begins with the first round over [first, end), which has at least two numbers.
void begin_search(HistorySearch& search, std::uint64_t first, std::uint64_t end, std::int64_t now_ms);

// A reply with the messages [first, end).
void note_reply(HistorySearch& search, std::uint64_t first, std::uint64_t end, std::int64_t now_ms);

// Goes on when the round is over: `settle_ms` after the reply to its last probe, or after `timeout_ms`. A
// number counts as gone when it had no reply in retries + 1 rounds. The search is over (not active) after
// `found` and `no_replies`.
SearchStep step_search(HistorySearch& search, std::int64_t now_ms, std::int64_t settle_ms,
                       std::int64_t timeout_ms, unsigned retries);

// When step_search has something to do next.
std::int64_t search_due_ms(const HistorySearch& search, std::int64_t settle_ms, std::int64_t timeout_ms);

}  // namespace tessel::receiver
