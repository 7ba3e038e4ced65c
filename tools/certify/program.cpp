#include "certify/program.h"

#include "base/version.h"
#include "certify/catalog.h"
#include "certify/file_text.h"
#include "certify/processes.h"
#include "certify/reports.h"
#include "certify/runner.h"

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
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

int explain(const std::vector<Case>& cases, const std::string& name) {
    std::vector<Case> found = cases;
    std::string error;
    if (!select_cases({}, {name}, found, error)) {
        print_error("--explain: there is no case '" + name + "' (--list names them)");
        return status_bad_input;
    }
    std::fputs(explain_text(found.front()).c_str(), stdout);
    return std::fflush(stdout) == 0 ? status_passed : status_bad_input;
}

// 0 when cases passed and none failed.
int status_of(const Certificate& certificate) {
    bool passed = false;
    for (const CaseResult& result : certificate.cases) {
        if (result.verdict == Verdict::fail || result.verdict == Verdict::error) {
            return status_failed;
        }
        passed = passed || result.verdict == Verdict::pass;
    }
    return passed ? status_passed : status_failed;
}

bool write_report(const std::string& path, const std::string& text) {
    std::string error;
    if (path.empty()) {
        return true;
    }
    if (path == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
        return std::fflush(stdout) == 0;
    }
    if (!write_file(path, text, error)) {
        print_error(error);
        return false;
    }
    return true;
}

bool write_reports(const Options& options, const Certificate& certificate) {
    const bool taken = options.json_path == "-" || options.junit_path == "-" ||
                       options.markdown_path == "-" || options.html_path == "-";
    const bool color = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    return (taken || write_report("-", text_report(certificate, color))) &&
           write_report(options.json_path, certificate_json(certificate)) &&
           write_report(options.junit_path, junit_report(certificate)) &&
           write_report(options.markdown_path, markdown_report(certificate)) &&
           write_report(options.html_path, html_report(certificate));
}

// Ends as a program does that a signal has ended: whoever waits for it sees that.
[[noreturn]] void end_by_signal(int number) {
    std::signal(number, SIG_DFL);
    raise(number);
    _exit(128 + number);
}

int certify(const Options& options, const std::vector<Case>& cases) {
    const std::string feed = find_program("tessel");
    if (feed.empty()) {
        print_error(
            "the feed's program, tessel, is neither in TESSEL_BIN nor beside this program nor on PATH");
        return status_bad_input;
    }
    Certificate certificate;
    certificate.tool = version_line("tessel-certify");
    certificate.handlers = options.handlers;
    certificate.seed = options.seed;
    certificate.about = options.about;
    const int stopped = run_cases(options, cases, feed, certificate);
    if (stopped != 0) {
        end_by_signal(stopped);
    }
    certificate.causes = likely_causes(certificate);
    return write_reports(options, certificate) ? status_of(certificate) : status_bad_input;
}

}  // namespace

int run_program(const Options& options) {
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
        std::fputs(list_text(cases).c_str(), stdout);
        return std::fflush(stdout) == 0 ? status_passed : status_bad_input;
    }
    return certify(options, cases);
}

}  // namespace tessel::certify
