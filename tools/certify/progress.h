#pragma once

#include "certify/case.h"
#include "certify/certificate.h"

#include <string>
#include <vector>

// How far a run is, on standard error: on a terminal one line that is written anew, elsewhere a line a case.
namespace tessel::certify {

struct Progress {
    bool terminal = false;
    unsigned jobs = 1;
    std::size_t total = 0;
    std::size_t done = 0;
    std::size_t failed = 0;
    double started = 0;
    double shown = 0;
    double expected_left = 0;  // seconds of all cases that are not done, one after the other
    std::vector<std::string> running;
    std::vector<const Case*> cases;
};

void begin_progress(Progress& progress, const std::vector<const Case*>& cases, unsigned jobs);
void note_started(Progress& progress, const Case& each);
void note_done(Progress& progress, const CaseResult& result);
// Writes the line anew when it is time to.
void show_progress(Progress& progress);
void end_progress(Progress& progress);

// Text without control characters, for a terminal.
std::string printable(const std::string& text);

}  // namespace tessel::certify
