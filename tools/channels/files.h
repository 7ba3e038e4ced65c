#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Small files as a whole. Each function returns false with "PATH: reason" in `error`.
namespace tessel::channels {

bool read_text_file(const std::string& path, std::size_t bytes_max, std::string& text, std::string& error);

// Makes the folder and those above it where they are missing.
bool make_folder(const std::string& path, std::string& error);

// Writes a file of that content, in place of one of that name. A file appears whole or not at all.
bool write_text_file(const std::string& path, std::string_view text, std::string& error);

}  // namespace tessel::channels
