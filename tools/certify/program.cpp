#include "certify/program.h"

#include "certify/catalog.h"

#include <algorithm>
#include <cstdio>
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
    print_error("running cases is not there yet");
    return status_bad_input;
}

}  // namespace tessel::certify
