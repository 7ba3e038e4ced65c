#pragma once

#include "certify/certificate.h"
#include "certify/options.h"

namespace tessel::certify {

// Whether the folders of the reports are there, so that hours of cases are not run for nothing. What is wrong
// is printed.
bool can_write_reports(const Options& options);

// Writes every report that the command line asks for, each whole or not at all; the one for "-" goes to
// standard output, otherwise the table does. False when one cannot be written, which is printed.
bool write_reports(const Options& options, const Certificate& certificate);

// 0 when a case passed and none failed or could not be run, 1 otherwise.
int status_of(const Certificate& certificate);

}  // namespace tessel::certify
