#include "judge/report_chart.h"

#include "judge/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace tessel::judge {

namespace {

// The drawing, in its own units; the page scales it to its width.
constexpr double chart_width = 960;
constexpr double chart_height = 250;
constexpr double plot_left = 92;
constexpr double plot_right = chart_width - 12;
constexpr double plot_top = 14;
constexpr double plot_bottom = chart_height - 48;
constexpr double bar_height_min = 3;  // one missing line of a million must still be seen
constexpr std::uint64_t value_steps = 4;
constexpr std::size_t sequence_labels = 6;

std::uint64_t total(const Bucket& bucket) {
    return bucket.missing + bucket.mismatched + bucket.unexpected;
}

// span * index / count, without leaving 64 bits; index is at most count, which is small.
std::uint64_t part_of(std::uint64_t span, std::size_t index, std::size_t count) {
    return span / count * index + span % count * index / count;
}

void add_value_axis(std::string& svg, std::uint64_t top) {
    for (std::uint64_t step = 0; step <= value_steps; ++step) {
        const double y = plot_bottom - (plot_bottom - plot_top) * static_cast<double>(step) / value_steps;
        svg += fmt::format(R"(<line class="{}" x1="{}" x2="{}" y1="{:.1f}" y2="{:.1f}"/>)",
                           step == 0 ? "axis" : "grid", plot_left, plot_right, y, y);
        svg += fmt::format(R"(<text class="tick" text-anchor="end" x="{}" y="{:.1f}">{}</text>)",
                           plot_left - 9, y + 4, grouped(top / value_steps * step));
    }
    svg += fmt::format(
        R"svg(<text class="label" text-anchor="middle" transform="translate(14 {:.1f}) rotate(-90)">)svg"
        "lines</text>",
        (plot_top + plot_bottom) / 2);
}

void add_sequence_axis(std::string& svg, const Run& truth) {
    const std::uint64_t span = truth.highest - truth.lowest;
    const std::size_t labels = span < sequence_labels ? static_cast<std::size_t>(span) + 1 : sequence_labels;
    for (std::size_t index = 0; index != labels; ++index) {
        const double share = labels == 1 ? 0.0 : static_cast<double>(index) / static_cast<double>(labels - 1);
        const double x = plot_left + (plot_right - plot_left) * share;
        const std::uint64_t seq = truth.lowest + part_of(span, index, std::max<std::size_t>(labels - 1, 1));
        const std::string_view anchor = index == 0 ? "start" : index + 1 == labels ? "end" : "middle";
        svg += fmt::format(R"(<line class="axis" x1="{0:.1f}" x2="{0:.1f}" y1="{1}" y2="{2}"/>)", x,
                           plot_bottom, plot_bottom + 5);
        svg += fmt::format(R"(<text class="tick" text-anchor="{}" x="{:.1f}" y="{}">{}</text>)", anchor, x,
                           plot_bottom + 20, grouped(seq));
    }
    svg += fmt::format(R"(<text class="label" text-anchor="middle" x="{:.1f}" y="{}">sequence number</text>)",
                       (plot_left + plot_right) / 2, chart_height - 6);
}

void add_bar(std::string& svg, const RunResult& run, std::size_t index, std::uint64_t top) {
    const Bucket& bucket = run.buckets[index];
    const auto count = static_cast<double>(run.buckets.size());
    const double step = (plot_right - plot_left) / count;
    const double x = plot_left + step * static_cast<double>(index);
    const std::uint64_t span = run.truth.highest - run.truth.lowest;
    const std::uint64_t first = run.truth.lowest + part_of(span, index, run.buckets.size());
    svg += fmt::format("<g><title>from sequence {}: {} missing, {} mismatched, {} unexpected</title>",
                       grouped(first), grouped(bucket.missing), grouped(bucket.mismatched),
                       grouped(bucket.unexpected));
    double y = plot_bottom;
    const std::array<std::pair<std::string_view, std::uint64_t>, 3> parts = {
        {{"missing", bucket.missing}, {"mismatched", bucket.mismatched}, {"unexpected", bucket.unexpected}}};
    for (const auto& [name, lines] : parts) {
        if (lines == 0) {
            continue;
        }
        const double height = std::max(
            bar_height_min, (plot_bottom - plot_top) * static_cast<double>(lines) / static_cast<double>(top));
        y -= height;
        svg += fmt::format(R"(<rect class="{}" x="{:.2f}" y="{:.2f}" width="{:.2f}" height="{:.2f}"/>)", name,
                           x + step * 0.08, y, step * 0.84, height - (lines == total(bucket) ? 0 : 1));
    }
    svg += "</g>";
}

}  // namespace

std::uint64_t axis_top(std::uint64_t most) {
    std::uint64_t power = 1;
    while (power <= most / 10) {
        power *= 10;
    }
    if (power > UINT64_MAX / 12) {
        return UINT64_MAX - UINT64_MAX % value_steps;
    }
    for (const std::uint64_t factor : {1U, 2U, 4U, 8U}) {  // all but the first divide by the axis' four steps
        const std::uint64_t top = factor * power;
        if (top >= most && top % value_steps == 0) {
            return top;
        }
    }
    return std::max<std::uint64_t>(value_steps, 12 * power);
}

std::string run_chart(const RunResult& run) {
    std::uint64_t most = 0;
    for (const Bucket& bucket : run.buckets) {
        most = std::max(most, total(bucket));
    }
    const std::uint64_t top = axis_top(most);
    std::string svg = fmt::format(
        R"(<svg viewBox="0 0 {} {}" role="img" aria-label="Missing, mismatched and unexpected lines )"
        R"(by sequence number, run {}">)",
        chart_width, chart_height, run.truth_run);
    add_value_axis(svg, top);
    add_sequence_axis(svg, run.truth);
    for (std::size_t index = 0; index != run.buckets.size(); ++index) {
        if (total(run.buckets[index]) != 0) {
            add_bar(svg, run, index, top);
        }
    }
    if (most == 0) {
        svg += fmt::format(R"(<text class="quiet" text-anchor="middle" x="{:.1f}" y="{:.1f}">)"
                           "nothing missing, mismatched or unexpected</text>",
                           (plot_left + plot_right) / 2, (plot_top + plot_bottom) / 2);
    }
    return svg + "</svg>";
}

}  // namespace tessel::judge
