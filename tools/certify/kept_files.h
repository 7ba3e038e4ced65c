#pragma once

#include "certify/case_run.h"

// What is kept of a case that does not pass.
namespace tessel::certify {

// Puts the case's files, and the command that runs it alone, into the job's kept folder, and its name into
// `result`. Does nothing without such a folder. What cannot be kept is printed.
void keep_files(const CaseJob& job, CaseResult& result);

// Removes what an earlier run has kept there, so that a folder holds the files of one run.
void remove_kept(const CaseJob& job);

// The words of a file or folder name: other letters become '_'.
std::string file_word(const std::string& text);

}  // namespace tessel::certify
