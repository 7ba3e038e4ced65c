#pragma once

#include "certify/certificate.h"

#include <string>

// The reports of a certificate. Names, commands and handler output are escaped; the page loads nothing.
namespace tessel::certify {

// What several findings have in common, likely causes first. Called once when all cases are done (or merged).
std::vector<Cause> likely_causes(const Certificate& certificate);

std::string junit_report(const Certificate& certificate);
std::string markdown_report(const Certificate& certificate);
std::string html_report(const Certificate& certificate);
// The table at the end of a run on a terminal; a matrix with several handlers. `color`: with escape
// sequences.
std::string text_report(const Certificate& certificate, bool color);

}  // namespace tessel::certify
