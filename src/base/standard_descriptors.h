#pragma once

namespace tessel {

// Opens /dev/null for each of the descriptors 0, 1 and 2 that is closed. A program calls it first thing in
// main: otherwise the next file or socket that it opens takes the free number, and what is meant for standard
// error is written into it. Open descriptors stay as they are. Without /dev/null (or without a free
// descriptor) nothing can be done, and nothing is reported.
void open_standard_descriptors();

}  // namespace tessel
