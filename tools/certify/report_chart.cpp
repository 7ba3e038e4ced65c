#include "certify/report_chart.h"

#include "judge/markup.h"
#include "judge/report.h"
#include "judge/report_chart.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace tessel::certify {

namespace {

using judge::escaped_markup;

// The drawings, in their own units; the page scales them to its width.
constexpr double chart_width = 960;
constexpr double row_height = 30;
constexpr double label_width = 190;
constexpr double count_width = 96;
constexpr double square_max = 24;
constexpr std::size_t label_letters_max = 26;

constexpr double load_height = 300;
constexpr double plot_left = 84;
constexpr double plot_right = chart_width - 20;
constexpr double plot_top = 26;
constexpr double plot_bottom = load_height - 50;
constexpr std::uint64_t value_steps = 4;

std::string_view mark_of(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass: return "M-4 0 l3 3.5 l6 -7";
        case Verdict::fail: return "M-4 -4 l8 8 m0 -8 l-8 8";
        case Verdict::error: return "M0 -5 v6 m0 3 v1.5";
        case Verdict::skipped: break;
    }
    return "M-4 0 h8";
}

void add_square(std::string& svg, const CaseSummary& summary, double x, double y, double size) {
    const std::string_view word = verdict_word(summary.verdict);
    const double middle = size / 2;
    svg += fmt::format(R"(<a href="#{}"><title>{}: {}</title><rect class="{}" x="{:.1f}" y="{:.1f}" )"
                       R"(width="{:.1f}" height="{:.1f}" )"
                       R"(rx="{:.1f}"/>)",
                       anchor_of(summary.first()), escaped_markup(one_line(summary.first().name, 200)), word,
                       word, x, y, size, size, std::min(4.0, size / 4));
    if (size >= 12) {
        svg += fmt::format(R"svg(<path class="mark" d="{}" transform="translate({:.1f} {:.1f})"/>)svg",
                           mark_of(summary.verdict), x + middle, y + middle);
    }
    svg += "</a>";
}

// A rate on the axis, which is logarithmic when the rates differ much.
struct RateAxis {
    double low = 0;
    double high = 1;
    bool logarithmic = false;
};

RateAxis rate_axis(const std::vector<LoadSeries>& series) {
    constexpr double much = 8;
    constexpr double rate_max = 1e15;  // more than any, and exact as a whole number
    double low = 0;
    double high = 0;
    for (const LoadSeries& each : series) {
        for (const LoadPoint& point : each.points) {
            const double rate = std::clamp(static_cast<double>(point.rate), 1.0, rate_max);
            low = low == 0 ? rate : std::min(low, rate);
            high = std::max(high, rate);
        }
    }
    if (high >= much * low) {
        return {std::pow(10, std::floor(std::log10(low))), high * 1.15, true};
    }
    return {0, high * 1.05, false};
}

double place_of(const RateAxis& axis, double rate) {
    const double share = axis.logarithmic
                             ? std::log(std::max(rate, axis.low) / axis.low) / std::log(axis.high / axis.low)
                             : rate / axis.high;
    return plot_left + (plot_right - plot_left) * std::clamp(share, 0.0, 1.0);
}

void add_rate_tick(std::string& svg, const RateAxis& axis, std::uint64_t rate) {
    const double x = place_of(axis, static_cast<double>(rate));
    svg += fmt::format(R"(<line class="grid" x1="{0:.1f}" x2="{0:.1f}" y1="{1}" y2="{2}"/>)", x, plot_top,
                       plot_bottom);
    svg += fmt::format(R"(<text text-anchor="middle" x="{:.1f}" y="{}">{}</text>)", x, plot_bottom + 19,
                       judge::grouped(rate));
}

void add_axes(std::string& svg, const RateAxis& axis, std::uint64_t top) {
    if (axis.logarithmic) {
        double decade = axis.low;
        while (decade <= axis.high) {
            for (const double factor : {1.0, 2.0, 5.0}) {
                const double rate = decade * factor;
                if (rate <= axis.high) {
                    add_rate_tick(svg, axis, static_cast<std::uint64_t>(std::llround(rate)));
                }
            }
            decade *= 10;
        }
    } else {
        const std::uint64_t end = judge::axis_top(static_cast<std::uint64_t>(axis.high));
        for (std::uint64_t step = 0; step <= value_steps; ++step) {
            const std::uint64_t rate = end / value_steps * step;
            if (static_cast<double>(rate) <= axis.high) {
                add_rate_tick(svg, axis, rate);
            }
        }
    }
    for (std::uint64_t step = 0; step <= value_steps; ++step) {
        const double y = plot_bottom - (plot_bottom - plot_top) * static_cast<double>(step) / value_steps;
        svg += fmt::format(R"(<line class="{}" x1="{}" x2="{}" y1="{:.1f}" y2="{:.1f}"/>)",
                           step == 0 ? "axis" : "grid", plot_left, plot_right, y, y);
        svg += fmt::format(R"(<text text-anchor="end" x="{}" y="{:.1f}">{}</text>)", plot_left - 9, y + 4,
                           judge::grouped(top / value_steps * step));
    }
    svg += fmt::format(R"(<text text-anchor="middle" x="{:.1f}" y="{}">messages a second</text>)",
                       (plot_left + plot_right) / 2, load_height - 8);
    svg += fmt::format(R"svg(<text text-anchor="middle" transform="translate(14 {:.1f}) rotate(-90)">)svg"
                       "missing messages</text>",
                       (plot_top + plot_bottom) / 2);
}

void add_curve(std::string& svg, const LoadSeries& series, std::size_t index, const RateAxis& axis,
               std::uint64_t top) {
    std::vector<LoadPoint> points = series.points;
    std::sort(points.begin(), points.end(),
              [](const LoadPoint& one, const LoadPoint& two) { return one.rate < two.rate; });
    std::string line;
    std::string dots;
    for (const LoadPoint& point : points) {
        const double x = place_of(axis, static_cast<double>(point.rate));
        const double y = plot_bottom - (plot_bottom - plot_top) * static_cast<double>(point.missing) /
                                           static_cast<double>(top);
        line += fmt::format("{}{:.1f},{:.1f}", line.empty() ? "" : " ", x, y);
        dots += fmt::format(
            R"(<circle class="s{}{}" cx="{:.1f}" cy="{:.1f}" r="4.5"><title>{}: {} a second, {} missing)"
            "</title></circle>",
            index, point.missing == 0 ? " clear" : "", x, y, escaped_markup(series.name),
            judge::grouped(point.rate), judge::grouped(point.missing));
    }
    if (series.highest_rate != 0) {
        const double x = place_of(axis, static_cast<double>(series.highest_rate));
        svg += fmt::format(R"(<line class="limit s{0}" x1="{1:.1f}" x2="{1:.1f}" y1="{2}" y2="{3}"/>)", index,
                           x, plot_top, plot_bottom);
    }
    svg += fmt::format(R"(<polyline class="curve s{}" points="{}"/>)", index, line) + dots;
}

}  // namespace

std::string anchor_of(const CaseResult& result) {
    std::string anchor = "case-";
    for (const char c : result.handler + "-" + result.name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '_' || c == '.' || c == '-';
        anchor += plain ? std::string(1, c) : fmt::format("-{:02x}", static_cast<unsigned char>(c));
    }
    return anchor;
}

std::string group_chart(const Certificate& certificate, const std::vector<CaseSummary>& cases) {
    struct Row {
        std::string label;
        std::vector<const CaseSummary*> squares;
        std::uint64_t passed = 0;
    };
    std::vector<Row> rows;
    std::size_t most = 1;
    const std::vector<std::string> handlers = handler_names(certificate);
    for (const std::string& group : group_names(certificate)) {
        for (const std::string& handler : handlers) {
            Row row{handlers.size() > 1 ? group + ", " + handler : group, {}, 0};
            for (const CaseSummary& summary : cases) {
                if (summary.first().group == group && summary.first().handler == handler) {
                    row.squares.push_back(&summary);
                    row.passed += summary.verdict == Verdict::pass ? 1 : 0;
                }
            }
            most = std::max(most, row.squares.size());
            if (!row.squares.empty()) {
                rows.push_back(std::move(row));
            }
        }
    }
    const double step =
        std::min(square_max + 4, (chart_width - label_width - count_width) / static_cast<double>(most));
    std::string svg = fmt::format(
        R"(<svg class="groups" viewBox="0 0 {} {}" role="group" aria-label="Every case by group">)",
        chart_width, row_height * static_cast<double>(rows.size()));
    for (std::size_t index = 0; index != rows.size(); ++index) {
        const Row& row = rows[index];
        const double y = row_height * static_cast<double>(index);
        const double size = step - std::min(4.0, step / 5);
        svg += fmt::format(R"(<text class="name" x="0" y="{:.1f}">{}</text>)", y + row_height / 2 + 5,
                           escaped_markup(one_line(row.label, label_letters_max)));
        for (std::size_t square = 0; square != row.squares.size(); ++square) {
            add_square(svg, *row.squares[square], label_width + step * static_cast<double>(square),
                       y + (row_height - size) / 2, size);
        }
        svg += fmt::format(R"(<text text-anchor="end" x="{}" y="{:.1f}">{} of {}</text>)", chart_width,
                           y + row_height / 2 + 5, judge::grouped(row.passed),
                           judge::grouped(row.squares.size()));
    }
    return svg + "</svg>";
}

std::string load_chart(const std::vector<LoadSeries>& series) {
    std::vector<LoadSeries> drawn;
    std::uint64_t most = 0;
    for (const LoadSeries& each : series) {
        if (!each.points.empty() && drawn.size() != load_series_max) {
            drawn.push_back(each);
            for (const LoadPoint& point : each.points) {
                most = std::max(most, point.missing);
            }
        }
    }
    if (drawn.empty()) {
        return "";
    }
    const RateAxis axis = rate_axis(drawn);
    const std::uint64_t top = judge::axis_top(most);
    std::string svg = R"(<div class="legend">)";
    for (std::size_t index = 0; index != drawn.size(); ++index) {
        svg += fmt::format(R"(<i class="key s{}"></i><span>{}: <b>{}</b> without loss</span>)", index,
                           escaped_markup(one_line(drawn[index].name, 80)),
                           judge::grouped(drawn[index].highest_rate));
    }
    svg += fmt::format(R"(</div><svg class="load" viewBox="0 0 {} {}" role="img" )"
                       R"(aria-label="Missing messages against the rate">)",
                       chart_width, load_height);
    add_axes(svg, axis, top);
    for (std::size_t index = 0; index != drawn.size(); ++index) {
        add_curve(svg, drawn[index], index, axis, top);
    }
    return svg + "</svg>";
}

std::string lines_bar(const CaseResult& result) {
    constexpr double bar_width = 600;
    constexpr double part_min = 4;  // one line of a million must still be seen
    const std::array<std::pair<std::string_view, std::uint64_t>, 4> parts = {
        {{"matched", result.matched},
         {"mismatched", result.mismatched},
         {"missing", result.missing},
         {"unexpected", result.unexpected}}};
    double all = 0;
    double room = bar_width;
    for (const auto& [name, lines] : parts) {
        all += static_cast<double>(lines);
        room -= lines == 0 ? 0 : part_min;
    }
    if (all == 0) {
        return "";
    }
    std::string svg =
        fmt::format(R"(<svg class="lines" viewBox="0 0 {} 10" preserveAspectRatio="none" role="img" )"
                    R"(aria-label="{} matched, {} mismatched, {} missing, {} unexpected">)",
                    bar_width, result.matched, result.mismatched, result.missing, result.unexpected);
    double x = 0;
    for (const auto& [name, lines] : parts) {
        if (lines != 0) {
            const double width = part_min + room * static_cast<double>(lines) / all;
            svg += fmt::format(R"(<rect class="{}" x="{:.2f}" y="0" width="{:.2f}" height="10"/>)", name, x,
                               width);
            x += width;
        }
    }
    return svg + "</svg>";
}

}  // namespace tessel::certify
