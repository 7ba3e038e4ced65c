#include "judge/options.h"

#include "base/version.h"

#include <CLI/CLI.hpp>

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <thread>

namespace tessel::judge {

namespace {

constexpr const char* description =
    "Compares a feed handler's output with the feed's truth log.\n"
    "Both may be files, named pipes or - (standard input), plain or compressed with gzip or zstd.";

constexpr const char* footer =
    "Examples:\n"
    "  tessel-judge truth.jsonl output.jsonl\n"
    "  tessel-judge truth.jsonl.zst output.jsonl --late --report report.html\n"
    "  my_handler | tessel-judge truth.jsonl - --json - --about 'seed 7'\n"
    "\n"
    "Exit status: 0 all agree, 1 something does not, or nothing was compared, 2 bad input or options.";

void declare(CLI::App& app, ProgramOptions& options) {
    Options& judged = options.judged;
    app.add_option("TRUTH", judged.truth_path, "The truth log (--truth-out of the feed)")->required();
    app.add_option("OUTPUT", judged.output_path,
                   "The handler's file: JSON lines with a seq and any of the truth line's members")
        ->required();
    app.add_option("--report", options.html_path, "Write the report as one HTML page to this file, too");
    app.add_option(
           "--json", options.json_path,
           "Write the result as JSON to this file; - or nothing for standard output, in place of the text")
        ->expected(0, 1);
    app.add_option("--junit", options.junit_path, "Write the result as JUnit XML to this file, or -");
    app.add_option("--summary-md", options.markdown_path, "Write a summary in Markdown to this file, or -");
    app.add_option("--about", judged.about, "Text for the head of every report; may be repeated")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1)
        ->allow_extra_args(false);
    app.add_option("--jobs", judged.jobs, "Threads that compare lines; the result does not depend on it")
        ->check(CLI::Range(std::size_t{1}, jobs_max))
        ->capture_default_str();
    app.add_option(
        "--channels", options.channels_path,
        "Judge each channel of this list: TRUTH and OUTPUT are folders with a file NAME.jsonl a channel");
    app.add_option(
        "--latency", options.latency_names,
        "Members of OUTPUT's lines with times, in nanoseconds since the epoch: A,B; needs --times");
    app.add_option("--times", judged.times_path,
                   "The messages' SIP times, a line a message: {\"seq\":N,\"sip\":NS}");
    app.add_option("--run", judged.run, "Judge against this run of the truth only; the first is 1")
        ->check(CLI::PositiveNumber);
    app.add_flag("--late,--from-first", judged.from_first,
                 "Judge from OUTPUT's lowest sequence number on (a handler that joined late)");
    app.add_flag("--early,--to-last", judged.to_last,
                 "Judge up to OUTPUT's highest sequence number (a handler that left early)");
    app.set_version_flag("--version", version_line("tessel-judge"));
    app.footer(footer);
}

// The names in a list with commas.
std::vector<std::string> split_names(const std::string& list) {
    std::vector<std::string> names;
    for (std::size_t place = 0; !list.empty() && place <= list.size();) {
        const std::size_t end = std::min(list.find(',', place), list.size());
        names.push_back(list.substr(place, end - place));
        place = end + 1;
    }
    return names;
}

// What CLI11 cannot check by itself; "" when all is well.
std::string check(const ProgramOptions& options) {
    const auto standard_output = {options.html_path == "-", options.json_path == "-",
                                  options.junit_path == "-", options.markdown_path == "-"};
    if (std::count(standard_output.begin(), standard_output.end(), true) > 1) {
        return "only one report can go to standard output";
    }
    if (options.judged.truth_path == "-" && options.judged.output_path == "-") {
        return "TRUTH and OUTPUT are both -: standard input can only be one of them";
    }
    const std::vector<std::string>& members = options.judged.latency_members;
    if (members.empty() != options.judged.times_path.empty()) {
        return "--latency and --times need each other";
    }
    if (members.size() > latency_members_max || std::count(members.begin(), members.end(), "") != 0) {
        return "--latency takes one to eight names of members";
    }
    for (const std::string& name : members) {
        if (name == "seq" || std::count(members.begin(), members.end(), name) != 1 ||
            std::find(member_names.begin(), member_names.end(), name) != member_names.end()) {
            return "--latency " + name + ": each member once, and none that truth lines have";
        }
    }
    if (!members.empty() && !options.channels_path.empty()) {
        return "--latency does not go with --channels";
    }
    const bool other_report =
        !options.html_path.empty() || !options.junit_path.empty() || !options.markdown_path.empty();
    if (!options.channels_path.empty() && other_report) {
        return "--channels goes with --json and the text, not with --report, --junit and --summary-md";
    }
    return "";
}

}  // namespace

int parse_options(ProgramOptions& options, int argc, const char* const* argv) {
    CLI::App app(description, "tessel-judge");
    declare(app, options);
    std::string error;
    try {
        app.parse(argc, argv);
        if (app.count("--json") != 0 && options.json_path.empty()) {
            options.json_path = "-";
        }
        // Channels are judged side by side even when nobody says how many.
        if (!options.channels_path.empty() && app.count("--jobs") == 0) {
            options.judged.jobs = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, jobs_max);
        }
        options.judged.latency_members = split_names(options.latency_names);
        error = check(options);
    } catch (const CLI::Success& wanted) {
        app.exit(wanted);
        return std::cout.flush() ? status_agrees : status_bad_input;
    } catch (const CLI::ParseError& fault) {
        error = fault.what();
    }
    if (error.empty()) {
        return -1;
    }
    print_error(error + " (see --help)");
    return status_bad_input;
}

std::string error_line(std::string_view text) {
    constexpr std::string_view name = "tessel-judge: ";
    constexpr std::string_view cut = " ... ";
    std::string line(name);
    const std::size_t room = error_bytes_max - name.size();
    if (text.size() <= room) {
        line += text;
    } else {
        const std::size_t head = (room - cut.size()) / 2;
        line += text.substr(0, head);
        line += cut;
        line += text.substr(text.size() - (room - cut.size() - head));
    }
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = ' ';
        }
    }
    return line + "\n";
}

void print_error(std::string_view text) {
    const std::string line = error_line(text);
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
        return;  // there is nobody to say it to
    }
}

}  // namespace tessel::judge
