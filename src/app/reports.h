#pragma once

#include "engine/feed_stats.h"
#include "mold/publisher.h"

#include <string>

namespace tessel {

// The counters as "quotes=0 adf_quotes=0 ... snapshot_rejects=0", in printing order, without a line feed.
std::string stats_line(const FeedStats& stats);

// "tessel faults: sent 5 dropped 5 duplicated 0 reordered 0", without a line feed. A duplicated packet
// counts once as sent; a held one counts as sent.
std::string faults_summary(const MoldPublisher& publisher);

// The contents of the two above, as printed in the periodic line and the reply to "stats":
// "quotes=... next_seq=42 tessel faults: ...", without a line feed.
std::string stats_report(const FeedStats& stats, const MoldPublisher& publisher);

// The ten-second block: "[tessel] msgs ... snapshots ...\n" and the faults summary on a separate line.
std::string summary_block(const FeedStats& stats, const MoldPublisher& publisher);

// The last words of a run that a signal ends: faults, counters, "[tessel] stopped", each with its line feed.
std::string stop_block(const FeedStats& stats, const MoldPublisher& publisher);

}  // namespace tessel
