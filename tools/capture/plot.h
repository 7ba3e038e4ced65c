#pragma once

#include "engine/scenario.h"
#include "mold/publisher.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A picture of a run: messages a second, packet sizes, faults and regulatory events over its time.
namespace tessel::capture {

constexpr std::size_t plot_bins_max = 600;   // of the run's time, whatever its length
constexpr std::size_t plot_size_bins = 15;   // of packet sizes, a hundred bytes each
constexpr std::size_t plot_event_kinds = 9;  // the three faults, then the regulatory events

// What is kept while the run is made; its size does not depend on the run's length.
struct PlotTally {
    std::uint64_t duration_ns = 0;
    std::uint64_t bin_ns = 0;  // 0: nothing is kept
    std::vector<std::uint64_t> messages;
    std::vector<std::array<std::uint32_t, plot_event_kinds>> events;
    std::array<std::uint64_t, plot_size_bins> sizes{};
    std::uint64_t messages_seen = 0;
    std::array<std::uint64_t, plot_event_kinds> events_seen{};
};

void begin_plot(PlotTally& plot, std::uint64_t duration_ns);

// Counts a multicast packet; `length` without headers of the network.
void count_packet(PlotTally& plot, std::size_t length);

// Counts what has happened since the call before, under a time since the start.
void count_pass(PlotTally& plot, std::uint64_t now_ns, const MoldPublisher& publisher,
                const FeedStats& stats);

// The picture, as an SVG document. The same run gives the same text.
std::string draw_plot(const PlotTally& plot, const std::string& title);

}  // namespace tessel::capture
