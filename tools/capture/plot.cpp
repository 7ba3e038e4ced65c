#include "capture/plot.h"

#include "common/duration.h"

#include <fmt/format.h>

#include <algorithm>

namespace tessel::capture {

namespace {

constexpr std::uint64_t second_ns = 1'000'000'000;
constexpr std::size_t size_step = 100;

// Geometry, in user units.
constexpr double width = 960;
constexpr double left = 90;
constexpr double right = 930;
constexpr double rate_top = 60;
constexpr double rate_bottom = 260;
constexpr double events_top = 310;
constexpr double events_row = 20;
constexpr double sizes_top = 550;
constexpr double sizes_bottom = 660;
constexpr double height = 710;

struct EventKind {
    const char* name;
    const char* color;
};

constexpr EventKind kinds[plot_event_kinds] = {
    {"dropped", "#c0392b"},       {"duplicated", "#d68910"},      {"reordered", "#7d3c98"},
    {"halt", "#1a5276"},          {"LULD pause", "#2874a6"},      {"quotes resume", "#148f77"},
    {"trades resume", "#239b56"}, {"circuit breaker", "#000000"}, {"wipe-out", "#5d6d7e"},
};

std::array<std::uint64_t, plot_event_kinds> events_so_far(const MoldPublisher& publisher,
                                                          const FeedStats& stats) {
    return {publisher.faults_dropped,
            publisher.faults_duplicated,
            publisher.faults_reordered,
            stats.halts,
            stats.pauses,
            stats.quote_resumes,
            stats.trade_resumes,
            stats.mwcb,
            stats.wipeouts};
}

void text_at(std::string& svg, double x, double y, const char* anchor, std::string_view text) {
    svg += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"{}\">", x, y, anchor);
    for (const char letter : text) {
        switch (letter) {
            case '&': svg += "&amp;"; break;
            case '<': svg += "&lt;"; break;
            case '>': svg += "&gt;"; break;
            default: svg += letter;
        }
    }
    svg += "</text>\n";
}

void line(std::string& svg, double x1, double y1, double x2, double y2, const char* color) {
    svg += fmt::format("<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"{}\"/>\n", x1,
                       y1, x2, y2, color);
}

// The smallest of 1, 2, 5, 10, 20 ... that is not below `value`.
std::uint64_t round_up(std::uint64_t value) {
    for (std::uint64_t unit = 1;; unit *= 10) {
        for (const std::uint64_t factor : {1u, 2u, 5u}) {
            if (factor * unit >= value) {
                return factor * unit;
            }
        }
    }
}

double bin_x(const PlotTally& plot, std::size_t bin) {
    const auto ns = static_cast<double>(std::min(bin * plot.bin_ns, plot.duration_ns));
    return left + (right - left) * ns / static_cast<double>(plot.duration_ns);
}

// The messages of a bin as a rate; the last bin may be shorter than the others.
double bin_rate(const PlotTally& plot, std::size_t bin) {
    const std::uint64_t begin = bin * plot.bin_ns;
    const std::uint64_t bin_length_ns = std::min(plot.bin_ns, plot.duration_ns - begin);
    return static_cast<double>(plot.messages[bin]) * static_cast<double>(second_ns) /
           static_cast<double>(bin_length_ns);
}

void draw_time_axis(std::string& svg, const PlotTally& plot, double y) {
    constexpr int ticks = 6;
    for (int at = 0; at <= ticks; ++at) {
        const std::uint64_t ns = plot.duration_ns / ticks * static_cast<unsigned>(at);
        const double x = left + (right - left) * at / ticks;
        line(svg, x, y, x, y + 5, "#444");
        const std::uint64_t shown_ns = plot.duration_ns > 60 * second_ns ? ns / second_ns * second_ns : ns;
        text_at(svg, x, y + 18, "middle", common::duration_text(static_cast<std::int64_t>(shown_ns)));
    }
}

void draw_rates(std::string& svg, const PlotTally& plot) {
    double largest = 1;
    for (std::size_t bin = 0; bin < plot.messages.size(); ++bin) {
        largest = std::max(largest, bin_rate(plot, bin));
    }
    const std::uint64_t top = round_up(static_cast<std::uint64_t>(largest + 0.999));
    const auto y_of = [top](double rate) {
        return rate_bottom - (rate_bottom - rate_top) * rate / static_cast<double>(top);
    };
    text_at(svg, left, rate_top - 10, "start", "Messages a second");
    for (const std::uint64_t part : {0u, 1u, 2u}) {
        const double rate = static_cast<double>(top * part) / 2;
        line(svg, left, y_of(rate), right, y_of(rate), "#ddd");
        text_at(svg, left - 8, y_of(rate) + 4, "end", fmt::format("{:.0f}", rate));
    }
    svg += "<path class=\"rate\" fill=\"none\" stroke=\"#1f618d\" stroke-width=\"1.5\" d=\"";
    for (std::size_t bin = 0; bin < plot.messages.size(); ++bin) {
        const double y = y_of(bin_rate(plot, bin));
        svg += fmt::format("{}{:.1f},{:.1f}H{:.1f}", bin == 0 ? "M" : "L", bin_x(plot, bin), y,
                           bin_x(plot, bin + 1));
    }
    svg += "\"/>\n";
    draw_time_axis(svg, plot, rate_bottom);
}

void draw_events(std::string& svg, const PlotTally& plot) {
    text_at(svg, left, events_top - 10, "start", "Faults and regulatory events");
    for (std::size_t kind = 0; kind < plot_event_kinds; ++kind) {
        const double y = events_top + events_row * static_cast<double>(kind);
        text_at(svg, left - 8, y + 14, "end", kinds[kind].name);
        line(svg, left, y + 10, right, y + 10, "#eee");
        for (std::size_t bin = 0; bin < plot.events.size(); ++bin) {
            if (plot.events[bin][kind] != 0) {
                svg += fmt::format(
                    "<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"3\" height=\"12\" fill=\"{}\">"
                    "<title>{} {} at {}</title></rect>\n",
                    bin_x(plot, bin), y + 4, kinds[kind].color, plot.events[bin][kind], kinds[kind].name,
                    common::duration_text(static_cast<std::int64_t>(bin * plot.bin_ns)));
            }
        }
    }
    draw_time_axis(svg, plot, events_top + events_row * static_cast<double>(plot_event_kinds));
}

void draw_sizes(std::string& svg, const PlotTally& plot) {
    const std::uint64_t largest =
        std::max<std::uint64_t>(1, *std::max_element(plot.sizes.begin(), plot.sizes.end()));
    const double step = (right - left) / static_cast<double>(plot_size_bins);
    text_at(svg, left, sizes_top - 10, "start", "Packets by size in bytes");
    for (std::size_t bin = 0; bin < plot_size_bins; ++bin) {
        const double x = left + step * static_cast<double>(bin);
        const double bar =
            (sizes_bottom - sizes_top) * static_cast<double>(plot.sizes[bin]) / static_cast<double>(largest);
        svg += fmt::format(
            "<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" "
            "fill=\"#5499c7\"><title>{} packets of {} to {} bytes</title></rect>\n",
            x + 2, sizes_bottom - bar, step - 4, bar, plot.sizes[bin], bin * size_step,
            (bin + 1) * size_step - (bin + 1 == plot_size_bins ? 0 : 1));
        text_at(svg, x, sizes_bottom + 18, "middle", std::to_string(bin * size_step));
    }
    text_at(svg, right, sizes_bottom + 18, "middle", std::to_string(plot_size_bins * size_step));
    text_at(svg, left - 8, sizes_top + 8, "end", std::to_string(largest));
}

}  // namespace

void begin_plot(PlotTally& plot, std::uint64_t duration_ns) {
    plot.duration_ns = std::max<std::uint64_t>(duration_ns, 1);
    plot.bin_ns = std::max(second_ns, (plot.duration_ns + plot_bins_max - 1) / plot_bins_max);
    const std::size_t bins = (plot.duration_ns + plot.bin_ns - 1) / plot.bin_ns;
    plot.messages.assign(bins, 0);
    plot.events.assign(bins, {});
}

void count_packet(PlotTally& plot, std::size_t length) {
    ++plot.sizes[std::min(length / size_step, plot_size_bins - 1)];
}

void count_pass(PlotTally& plot, std::uint64_t now_ns, const MoldPublisher& publisher,
                const FeedStats& stats) {
    const std::size_t bin = std::min(now_ns / plot.bin_ns, plot.messages.size() - 1);
    plot.messages[bin] += publisher.messages_sequenced - plot.messages_seen;
    plot.messages_seen = publisher.messages_sequenced;
    const auto events = events_so_far(publisher, stats);
    for (std::size_t kind = 0; kind < plot_event_kinds; ++kind) {
        plot.events[bin][kind] += static_cast<std::uint32_t>(events[kind] - plot.events_seen[kind]);
    }
    plot.events_seen = events;
}

std::string draw_plot(const PlotTally& plot, const std::string& title) {
    std::string svg = fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {:.0f} {:.0f}\" "
        "font-family=\"sans-serif\" font-size=\"12\">\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n",
        width, height);
    text_at(svg, left, 25, "start", title);
    draw_rates(svg, plot);
    draw_events(svg, plot);
    draw_sizes(svg, plot);
    svg += "</svg>\n";
    return svg;
}

}  // namespace tessel::capture
