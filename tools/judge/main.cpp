#include "base/version.h"
#include "judge/judge.h"
#include "judge/report.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>

namespace {

enum ExitStatus : int { status_agrees = 0, status_differs = 1, status_bad_input = 2 };

int run(int argc, char** argv) {
    tessel::judge::Options options;
    std::string report_path;
    CLI::App app(
        "Compares a feed handler's output with the feed's truth log.\n"
        "Exit status: 0 all agree, 1 not, 2 bad input.",
        "tessel-judge");
    app.set_version_flag("--version", tessel::version_line("tessel-judge"));
    app.add_option("TRUTH", options.truth_path, "The truth log (--truth-out of the feed)")->required();
    app.add_option("OUTPUT", options.output_path,
                   "The handler's file: JSON lines with a seq and any of the truth line's members")
        ->required();
    app.add_option("--report", report_path, "Write the report as one HTML page to this file, too");
    app.add_option("--run", options.run, "Judge against this run of the truth only; the first is 1")
        ->check(CLI::PositiveNumber);
    app.add_flag("--late,--from-first", options.from_first,
                 "Judge from OUTPUT's lowest sequence number on (a handler that joined late)");
    app.add_flag("--early,--to-last", options.to_last,
                 "Judge up to OUTPUT's highest sequence number (a handler that left early)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault) == 0 ? 0 : status_bad_input;
    }

    tessel::judge::Result result;
    std::string error;
    if (!tessel::judge::judge(options, result, &error)) {
        fmt::print(stderr, "tessel-judge: {}\n", error);
        return status_bad_input;
    }
    fmt::print("{}", tessel::judge::text_report(options, result));
    if (std::fflush(stdout) != 0) {
        fmt::print(stderr, "tessel-judge: standard output: {}\n", std::strerror(errno));
        return status_bad_input;
    }
    if (!report_path.empty()) {
        std::ofstream page(report_path, std::ios::trunc);
        page << tessel::judge::html_report(options, result);
        page.close();
        if (!page) {
            fmt::print(stderr, "tessel-judge: {}: {}\n", report_path, std::strerror(errno));
            return status_bad_input;
        }
    }
    return tessel::judge::agrees(result) ? status_agrees : status_differs;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& fault) {  // a full disk on standard output, or no memory
        std::fprintf(stderr, "tessel-judge: %s\n", fault.what());
        return status_bad_input;
    }
}
