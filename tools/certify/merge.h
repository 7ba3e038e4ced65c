#pragma once

#include "certify/certificate.h"

#include <string>
#include <vector>

// The result files of a campaign's jobs, or of other runs, added up into one.
namespace tessel::certify {

struct ResultFile {
    std::string path;
    Certificate certificate;
};

// What was added up.
struct Merged {
    Certificate certificate;
    std::uint64_t counted_once = 0;  // results that were in more than one file
    std::vector<std::uint64_t> missing_jobs;
    std::vector<std::string> gaps;  // "seed 7 has no result of loss/one_packet" and the like, at most 10
};

// Reads a file that --json has written. False with a reason that begins with the path: it is missing, no such
// file, or says of itself what cannot be.
bool read_result_file(const std::string& path, ResultFile& file, std::string& error);

// Adds the files up, whatever their order. A case with one seed and handler counts once: of two results a
// failure stays, and one of a case that could not be run gives way. False with a reason that names the file
// that does not belong to the others: another campaign, version of the program, or command of the same
// handler.
bool merge(std::vector<ResultFile> files, Merged& merged, std::string& error);

// "job 3 of 8 is missing: it runs seeds 3, 11, 19 and 122 more"
std::string missing_job_text(const Campaign& campaign, std::uint64_t job);

}  // namespace tessel::certify
