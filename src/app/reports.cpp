#include "app/reports.h"

#include <cstdint>
#include <string_view>

namespace tessel {

namespace {

struct Counter {
    std::string_view label;
    std::uint64_t FeedStats::*field;
};

// In printing order, which is not the stored one.
constexpr Counter counters[] = {
    {"quotes=", &FeedStats::quotes},
    {" adf_quotes=", &FeedStats::adf_quotes},
    {" nbbo_changes=", &FeedStats::nbbo_changes},
    {" sip_generated=", &FeedStats::sip_generated},
    {" trades=", &FeedStats::trades},
    {" exchange_prints=", &FeedStats::exchange_prints},
    {" trf_prints=", &FeedStats::trf_prints},
    {" cross_prints=", &FeedStats::cross_prints},
    {" odd_lot_prints=", &FeedStats::odd_lot_prints},
    {" sweeps=", &FeedStats::sweeps},
    {" cancels=", &FeedStats::cancels},
    {" errors=", &FeedStats::errors},
    {" corrections=", &FeedStats::corrections},
    {" asofs=", &FeedStats::asofs},
    {" bands=", &FeedStats::bands},
    {" halts=", &FeedStats::halts},
    {" pauses=", &FeedStats::pauses},
    {" quote_resumes=", &FeedStats::quote_resumes},
    {" trade_resumes=", &FeedStats::trade_resumes},
    {" mwcb=", &FeedStats::mwcb},
    {" collars=", &FeedStats::collars},
    {" wipeouts=", &FeedStats::wipeouts},
    {" snapshots=", &FeedStats::snapshots},
    {" snapshot_rejects=", &FeedStats::snapshot_rejects},
};
static_assert(sizeof(counters) / sizeof(counters[0]) * sizeof(std::uint64_t) == sizeof(FeedStats),
              "every counter has its place in the line");

}  // namespace

std::string stats_line(const FeedStats& stats) {
    std::string line;
    line.reserve(640);
    for (const Counter& counter : counters) {
        line += counter.label;
        line += std::to_string(stats.*counter.field);
    }
    return line;
}

std::string faults_summary(const MoldPublisher& publisher) {
    return "tessel faults: sent " + std::to_string(publisher.packets_flushed - publisher.faults_dropped) +
           " dropped " + std::to_string(publisher.faults_dropped) + " duplicated " +
           std::to_string(publisher.faults_duplicated) + " reordered " +
           std::to_string(publisher.faults_reordered);
}

std::string stats_report(const FeedStats& stats, const MoldPublisher& publisher) {
    return stats_line(stats) + " next_seq=" + std::to_string(publisher.next_sequence) + " " +
           faults_summary(publisher);
}

std::string summary_block(const FeedStats& stats, const MoldPublisher& publisher) {
    return "[tessel] msgs " + std::to_string(publisher.messages_sequenced) + " packets " +
           std::to_string(publisher.packets_flushed) + " dropped " +
           std::to_string(publisher.faults_dropped) + " retrans " + std::to_string(publisher.retrans_served) +
           " quotes " + std::to_string(stats.quotes) + " trades " + std::to_string(stats.trades) +
           " snapshots " + std::to_string(stats.snapshots) + "\n" + faults_summary(publisher) + "\n";
}

std::string stop_block(const FeedStats& stats, const MoldPublisher& publisher) {
    return faults_summary(publisher) + "\nbench: stats " + stats_line(stats) +
           " next_seq=" + std::to_string(publisher.next_sequence) + "\n[tessel] stopped\n";
}

}  // namespace tessel
