#include "judge/latency.h"

#include "judge/markup.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tessel::judge {

namespace {

constexpr double chart_width = 960;
constexpr double chart_height = 260;
constexpr double plot_left = 92;
constexpr double plot_right = chart_width - 130;
constexpr double plot_top = 14;
constexpr double plot_bottom = chart_height - 48;
constexpr double tail_powers = 4;  // from 50 % to 99.995 %
constexpr std::size_t curve_points = 120;

// The percentile at a part of the axis, 0 to 1: equal parts halve or tenth what is slower.
double percent_at(double part) {
    return 100 - 50 * std::pow(10, -tail_powers * part);
}

double height_at(double ns, double lowest, double powers) {
    const double part = (std::log10(std::max(ns, 1.0)) - lowest) / powers;
    return plot_bottom - (plot_bottom - plot_top) * std::clamp(part, 0.0, 1.0);
}

void add_axes(std::string& svg, double lowest, double powers) {
    for (int power = 0; power <= static_cast<int>(powers); ++power) {
        const double ns = std::pow(10, lowest + power);
        const double y = height_at(ns, lowest, powers);
        svg += fmt::format(R"(<line class="{}" x1="{}" x2="{}" y1="{:.1f}" y2="{:.1f}"/>)",
                           power == 0 ? "axis" : "grid", plot_left, plot_right, y, y);
        svg += fmt::format(R"(<text class="tick" text-anchor="end" x="{}" y="{:.1f}">{}</text>)",
                           plot_left - 9, y + 4, readable_time(static_cast<std::uint64_t>(ns)));
    }
    for (const double percent : {50.0, 90.0, 99.0, 99.9, 99.99}) {
        const double part = std::log10(50 / (100 - percent)) / tail_powers;
        const double x = plot_left + (plot_right - plot_left) * part;
        svg += fmt::format(R"(<line class="axis" x1="{0:.1f}" x2="{0:.1f}" y1="{1}" y2="{2}"/>)", x,
                           plot_bottom, plot_bottom + 5);
        svg += fmt::format(R"(<text class="tick" text-anchor="middle" x="{:.1f}" y="{}">{} %</text>)", x,
                           plot_bottom + 20, percent);
    }
    svg += fmt::format(
        R"(<text class="label" text-anchor="middle" x="{:.1f}" y="{}">share of messages that took )"
        "at most this long</text>",
        (plot_left + plot_right) / 2, chart_height - 6);
}

void add_curve(std::string& svg, const LatencyHistogram& histogram, const std::string& name,
               std::size_t color, bool dashed, double lowest, double powers) {
    std::string points;
    double y = plot_bottom;
    for (std::size_t point = 0; point <= curve_points; ++point) {
        const double part = static_cast<double>(point) / curve_points;
        y = height_at(static_cast<double>(latency_percentile(histogram, percent_at(part))), lowest, powers);
        points += fmt::format("{:.1f},{:.1f} ", plot_left + (plot_right - plot_left) * part, y);
    }
    svg += fmt::format(R"(<polyline class="curve c{}{}" points="{}"/>)", color % 3, dashed ? " dashed" : "",
                       points);
    // The key: one row a curve, since the curves' ends lie close together.
    const double row = plot_top + 16 * static_cast<double>(std::count(svg.begin(), svg.end(), '\n'));
    svg += fmt::format(R"(<line class="curve c{0}{1}" x1="{2}" x2="{3}" y1="{4:.1f}" y2="{4:.1f}"/>)",
                       color % 3, dashed ? " dashed" : "", plot_right + 6, plot_right + 22, row);
    svg += fmt::format("<text class=\"tick\" x=\"{}\" y=\"{:.1f}\">{}</text>\n", plot_right + 27, row + 4,
                       escaped_markup(name.substr(0, 18)));
}

}  // namespace

bool find_nanoseconds(const Line& line, std::string_view text, std::string_view name, std::uint64_t& ns) {
    for (const UnknownMember& member : line.unknown_members) {
        if (span_text(line, text, member.name) == name) {
            const std::string_view value = span_text(line, text, member.value);
            const auto [last, fault] = std::from_chars(value.data(), value.data() + value.size(), ns);
            return fault == std::errc() && last == value.data() + value.size();
        }
    }
    return false;
}

void take_samples(const Line& line, std::string_view text, const std::vector<std::string>& names,
                  std::uint64_t sip_ns, bool recovered, std::vector<LatencySample>& samples) {
    for (std::size_t member = 0; member != names.size(); ++member) {
        std::uint64_t ns = 0;
        if (find_nanoseconds(line, text, names[member], ns)) {
            samples.push_back({member, recovered, ns < sip_ns, ns < sip_ns ? 0 : ns - sip_ns});
        }
    }
}

void enter_sample(std::vector<LatencyResult>& results, const LatencySample& sample) {
    LatencyResult& result = results[sample.member];
    if (sample.before_sip) {
        ++result.before_sip;
    } else {
        record_latency(sample.recovered ? result.recovered : result.direct, sample.ns);
    }
}

std::string latency_chart(const std::vector<LatencyResult>& results) {
    std::uint64_t least = UINT64_MAX;
    std::uint64_t most = 1;
    for (const LatencyResult& result : results) {
        for (const LatencyHistogram* histogram : {&result.direct, &result.recovered}) {
            if (histogram->total != 0) {
                least = std::min(least, latency_percentile(*histogram, 50));
                most = std::max(most, histogram->max);
            }
        }
    }
    const double lowest =
        std::floor(std::log10(static_cast<double>(std::clamp<std::uint64_t>(least, 1, most))));
    const double powers = std::max(1.0, std::ceil(std::log10(static_cast<double>(most))) - lowest);
    std::string svg =
        fmt::format(R"(<svg viewBox="0 0 {} {}" role="img" aria-label="Latency by percentile">)", chart_width,
                    chart_height);
    add_axes(svg, lowest, powers);
    for (std::size_t index = 0; index != results.size(); ++index) {
        const LatencyResult& result = results[index];
        if (result.direct.total != 0) {
            add_curve(svg, result.direct, result.name, index, false, lowest, powers);
        }
        if (result.recovered.total != 0) {
            add_curve(svg, result.recovered, result.name + " recovered", index, true, lowest, powers);
        }
    }
    return svg + "</svg>";
}

std::string readable_time(std::uint64_t ns) {
    const auto value = static_cast<double>(ns);
    if (ns < 1'000) {
        return fmt::format("{} ns", ns);
    }
    if (ns < 1'000'000) {
        return fmt::format("{:.3g} us", value / 1e3);
    }
    return ns < 1'000'000'000 ? fmt::format("{:.3g} ms", value / 1e6) : fmt::format("{:.4g} s", value / 1e9);
}

}  // namespace tessel::judge
