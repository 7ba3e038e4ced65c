#include "listen/latency.h"

#include "listen/latency_files.h"
#include "listen/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tessel::listen {

namespace {

constexpr std::uint64_t ns_per_s = 1'000'000'000;
constexpr const char* stage_names[latency_stages] = {"sip-to-kernel", "kernel-to-taken"};
constexpr const char* log_name = "latency.hlog";

void record(LatencyRecord& stage, std::uint64_t from_ns, std::uint64_t to_ns) {
    const std::uint64_t value_ns = to_ns > from_ns ? to_ns - from_ns : 0;
    record_latency(stage.whole, value_ns);
    record_latency(stage.second, value_ns);
}

// Writes or appends a whole file; the first failure is kept.
void write_file(Latency& latency, const std::string& name, const char* mode, const std::string& text) {
    const std::string path = latency.directory + "/" + name;
    std::FILE* file = std::fopen(path.c_str(), mode);
    bool good = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    good = file != nullptr && std::fclose(file) == 0 && good;
    if (!good && latency.error.empty()) {
        latency.error = "--latency-out: '" + path + "': " + std::strerror(errno);
    }
}

void end_interval(Latency& latency, std::uint64_t now_ns) {
    std::string lines;
    for (std::size_t stage = 0; stage < latency_stages; ++stage) {
        LatencyHistogram& histogram = latency.stages[stage].second;
        if (histogram.total == 0) {
            continue;
        }
        report_summary(fmt::format("latency of the last second, {}: {}", stage_names[stage],
                                   percentiles_text(histogram)));
        lines += interval_log_line(stage_names[stage], latency.interval_ns - latency.start_ns,
                                   now_ns - latency.interval_ns, histogram);
        std::fill(histogram.counts.begin(), histogram.counts.end(), 0);
        histogram.total = 0;
        histogram.min = 0;
        histogram.max = 0;
    }
    if (!latency.directory.empty() && latency.error.empty() && !lines.empty()) {
        write_file(latency, log_name, "a", lines);
    }
    latency.interval_ns = now_ns;
}

}  // namespace

bool prepare_latency(Latency& latency, const std::string& directory) {
    latency.directory = directory;
    if (!directory.empty()) {
        write_file(latency, log_name, "w", "");
    }
    return latency.error.empty();
}

void note_latency(Latency& latency, std::uint64_t sip_ns, std::uint64_t kernel_ns, std::uint64_t taken_ns) {
    if (latency.start_ns == 0) [[unlikely]] {
        latency.start_ns = kernel_ns;
        latency.interval_ns = kernel_ns;
        if (!latency.directory.empty()) {
            write_file(latency, log_name, "a", interval_log_heading(kernel_ns));
        }
    }
    latency.negative += kernel_ns < sip_ns ? 1 : 0;
    record(latency.stages[static_cast<std::size_t>(LatencyStage::sip_to_kernel)], sip_ns, kernel_ns);
    if (taken_ns != 0) {
        record(latency.stages[static_cast<std::size_t>(LatencyStage::kernel_to_taken)], kernel_ns, taken_ns);
    }
}

void report_latency_second(Latency& latency, std::uint64_t now_ns) {
    if (latency.start_ns != 0 && now_ns >= latency.interval_ns + ns_per_s) {
        end_interval(latency, now_ns);
    }
}

void finish_latency(Latency& latency, std::uint64_t now_ns) {
    if (latency.start_ns != 0) {
        end_interval(latency, std::max(now_ns, latency.interval_ns));
    }
    for (std::size_t stage = 0; stage < latency_stages; ++stage) {
        const LatencyHistogram& histogram = latency.stages[stage].whole;
        report_summary(fmt::format("latency {}: {}", stage_names[stage], percentiles_text(histogram)));
        if (!latency.directory.empty()) {
            write_file(latency, std::string(stage_names[stage]) + ".hgrm", "w",
                       percentile_file_text(histogram));
        }
    }
    if (latency.negative != 0) {
        report(fmt::format("{} messages arrived before their SIP time, counted as 0: the clocks differ",
                           latency.negative));
    }
    if (!latency.error.empty()) {
        report(latency.error);
    }
}

}  // namespace tessel::listen
