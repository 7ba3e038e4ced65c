#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Small files, read and written whole.
namespace tessel::certify {

inline constexpr std::size_t file_text_bytes_max = std::size_t{64} << 20;

// The first bytes of a file from `offset` on, file_text_bytes_max at most; empty when it cannot be read.
std::string file_text(const std::string& path, std::uint64_t offset = 0);

// Writes or replaces a file. False with "PATH: reason" in `error`.
bool write_file(const std::string& path, std::string_view text, std::string& error);

// Bytes of a regular file; 0 for anything else.
std::uint64_t regular_file_bytes(const std::string& path);

}  // namespace tessel::certify
