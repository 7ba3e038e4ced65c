#include "certify/program.h"

#include "base/version.h"
#include "certify/campaign.h"
#include "certify/catalog.h"
#include "certify/merge_files.h"
#include "certify/processes.h"
#include "certify/report_files.h"
#include "certify/reports.h"
#include "certify/runner.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace tessel::certify {

namespace {

// Every case there is. False when a folder or a file is wrong, which is printed.
bool read_catalog(const Options& options, std::vector<Case>& cases) {
    std::vector<std::string> faults;
    const std::string folder = catalog_folder();
    if (!folder.empty()) {
        add_cases(folder, cases, faults);
    } else if (options.case_folders.empty()) {
        faults.emplace_back("the cases are not installed: name their folder in TESSEL_CASES");
    }
    for (const std::string& own : options.case_folders) {
        add_cases(own, cases, faults);
    }
    sort_cases(cases);
    for (const std::string& fault : faults) {
        print_error(fault);
    }
    return faults.empty();
}

// Writes to standard output and returns the exit status.
int print(const std::string& text) {
    const bool whole = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (std::fflush(stdout) != 0 || !whole) {
        print_error(std::string("standard output: ") + std::strerror(errno));
        return status_bad_input;
    }
    return status_passed;
}

// Makes the folder of what is kept. False when that is not possible, which is printed.
bool make_out_folder(const Options& options) {
    std::error_code problem;
    if (!options.out.empty()) {
        std::filesystem::create_directories(options.out, problem);
        if (!problem && ::access(options.out.c_str(), W_OK) != 0) {
            problem = std::error_code(errno, std::generic_category());
        }
    }
    if (problem) {
        print_error("--out: " + options.out + ": " + problem.message());
    }
    return !problem;
}

int explain(const std::vector<Case>& cases, const std::string& name) {
    std::vector<Case> found = cases;
    std::string error;
    if (!select_cases({}, {name}, found, error)) {
        print_error("--explain: there is no case '" + name + "' (--list names them)");
        return status_bad_input;
    }
    return print(explain_text(found.front()));
}

// Ends as a program does that a signal has ended: whoever waits for it sees that.
[[noreturn]] void end_by_signal(int number) {
    std::signal(number, SIG_DFL);
    raise(number);
    _exit(128 + number);
}

std::vector<std::uint64_t> seeds_of_run(const Options& options) {
    if (is_campaign(options.campaign)) {
        return seeds_of(options.campaign);
    }
    std::vector<std::uint64_t> seeds;
    for (unsigned repetition = 0; repetition != options.repeat; ++repetition) {
        seeds.push_back(options.seed + repetition);
    }
    return seeds;
}

// Runs the seeds in parts, so that a campaign of any length needs the memory of some hundred cases. 0, or the
// number of a signal that asked for an end.
int run_seeds(const Options& options, const std::vector<Case>& cases, const std::string& feed,
              Certificate& certificate) {
    constexpr std::size_t tasks_max = 400;
    const std::vector<std::uint64_t> seeds = seeds_of_run(options);
    const std::size_t tasks_of_seed = std::max<std::size_t>(1, cases.size() * options.handlers.size());
    const std::size_t part =
        is_campaign(options.campaign) ? std::max<std::size_t>(1, tasks_max / tasks_of_seed) : seeds.size();
    for (std::size_t at = 0; at < seeds.size(); at += part) {
        const std::size_t count = std::min(part, seeds.size() - at);
        if (count != seeds.size()) {
            std::fprintf(stderr, "tessel-certify: seeds %zu to %zu of %zu\n", at + 1, at + count,
                         seeds.size());
        }
        const int stopped = run_cases(options, cases, {seeds.data() + at, count}, feed, certificate);
        if (stopped != 0) {
            return stopped;
        }
    }
    if (is_campaign(options.campaign)) {
        order_results(certificate.cases);
    }
    return 0;
}

int certify(const Options& options, const std::vector<Case>& cases) {
    const std::string feed = find_program("tessel");
    if (feed.empty()) {
        print_error(
            "the feed's program, tessel, is neither in TESSEL_BIN nor beside this program nor on PATH");
        return status_bad_input;
    }
    if (!can_write_reports(options) || !make_out_folder(options)) {
        return status_bad_input;
    }
    Certificate certificate;
    certificate.tool = version_line("tessel-certify");
    certificate.handlers = options.handlers;
    certificate.seed = options.seed;
    certificate.campaign = options.campaign;
    certificate.about = options.about;
    const int stopped = run_seeds(options, cases, feed, certificate);
    if (stopped != 0) {
        end_by_signal(stopped);
    }
    certificate.causes = likely_causes(certificate);
    return write_reports(options, certificate) ? status_of(certificate) : status_bad_input;
}

}  // namespace

int run_program(const Options& options) {
    if (!options.merge_paths.empty()) {
        return run_merge(options);
    }
    std::vector<Case> cases;
    std::string error;
    if (!read_catalog(options, cases)) {
        return status_bad_input;
    }
    if (!options.explain.empty()) {
        return explain(cases, options.explain);
    }
    if (!select_cases(options.groups, options.names, cases, error)) {
        print_error(error);
        return status_bad_input;
    }
    if (options.list) {
        return print(list_text(cases));
    }
    return certify(options, cases);
}

}  // namespace tessel::certify
