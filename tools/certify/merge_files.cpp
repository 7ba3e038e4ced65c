#include "certify/merge_files.h"

#include "certify/campaign.h"
#include "certify/merge.h"
#include "certify/report_files.h"
#include "certify/reports.h"

#include <fmt/format.h>

#include <utility>

namespace tessel::certify {

namespace {

constexpr std::size_t missing_jobs_shown_max = 20;

// Whether nothing is missing; what is, is printed.
bool is_whole(const Merged& merged) {
    std::size_t shown = 0;
    for (const std::uint64_t job : merged.missing_jobs) {
        if (shown++ == missing_jobs_shown_max) {
            print_error(
                fmt::format("{} more jobs are missing", merged.missing_jobs.size() - missing_jobs_shown_max));
            break;
        }
        print_error(missing_job_text(merged.certificate.campaign, job));
    }
    for (const std::string& gap : merged.gaps) {
        print_error(gap);
    }
    return merged.missing_jobs.empty() && merged.gaps.empty();
}

}  // namespace

int run_merge(const Options& options) {
    std::vector<ResultFile> files;
    bool good = true;
    for (const std::string& path : options.merge_paths) {
        ResultFile file;
        std::string error;
        if (read_result_file(path, file, error)) {
            files.push_back(std::move(file));
        } else {
            print_error(error);
            good = false;
        }
    }
    Merged merged;
    std::string error;
    if (good && !merge(std::move(files), merged, error)) {
        print_error(error);
        good = false;
    }
    if (!good) {
        return status_bad_input;
    }
    Certificate& certificate = merged.certificate;
    certificate.about.insert(certificate.about.end(), options.about.begin(), options.about.end());
    certificate.causes = likely_causes(certificate);
    if (merged.counted_once != 0) {
        print_error(fmt::format("{} results were in more than one file and count once", merged.counted_once));
    }
    const bool whole = is_whole(merged);
    if (!write_reports(options, certificate)) {
        return status_bad_input;
    }
    return whole ? status_of(certificate) : status_failed;
}

}  // namespace tessel::certify
