#pragma once

#include <string>

// The metrics as a file, for hosts without an open port: DIR/tessel.prom, replaced in one step, so that a
// reader never sees half of it.
namespace tessel::console {

// False with the reason in `error`.
bool write_textfile(const std::string& directory, const std::string& text, std::string& error);

}  // namespace tessel::console
