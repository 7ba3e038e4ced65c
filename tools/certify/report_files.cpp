#include "certify/report_files.h"

#include "certify/report_summary.h"
#include "certify/reports.h"
#include "certify/whole_file.h"

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tessel::certify {

namespace {

bool print(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) {
        return true;
    }
    print_error(std::string("standard output: ") + std::strerror(errno));
    return false;
}

bool write_report(const std::string& path, const std::string& text) {
    std::string error;
    if (path == "-") {
        return print(text);
    }
    if (!write_whole_file(path, text, error)) {
        print_error(error);
        return false;
    }
    return true;
}

}  // namespace

bool can_write_reports(const Options& options) {
    for (const std::string* path :
         {&options.json_path, &options.junit_path, &options.markdown_path, &options.html_path}) {
        const std::size_t slash = path->rfind('/');
        const std::string folder = slash == std::string::npos ? "." : path->substr(0, slash + 1);
        if (!path->empty() && *path != "-" && ::access(folder.c_str(), W_OK) != 0) {
            print_error(*path + ": " + std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool write_reports(const Options& options, const Certificate& certificate) {
    struct Report {
        const std::string& path;
        std::string (*text)(const Certificate&);
    };
    const Report reports[] = {{options.json_path, certificate_json},
                              {options.junit_path, junit_report},
                              {options.markdown_path, markdown_report},
                              {options.html_path, html_report}};
    bool printed = false;
    bool good = true;
    for (const Report& report : reports) {
        printed = printed || report.path == "-";
        good = (report.path.empty() || write_report(report.path, report.text(certificate))) && good;
    }
    const bool color = ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    return (printed || print(text_report(certificate, color))) && good;
}

int status_of(const Certificate& certificate) {
    return overall(counts_of(certificate)) == Verdict::pass ? status_passed : status_failed;
}

}  // namespace tessel::certify
