#pragma once

#include <cstdio>
#include <string>

// Files that may be compressed, as plain C streams: callers need not know. Only this folder uses the
// compression libraries.
namespace tessel::files {

// Opens a file for reading; "-" is standard input. A stream that begins with a zstd frame is unpacked,
// whatever its name; memory is bounded: a frame that asks for a window above 128 MiB is damaged. Reading a
// damaged stream fails with errno EBADMSG, one that ends inside a frame with EPIPE. Null with the reason,
// "PATH: reason", in `error`. To be closed with fclose.
std::FILE* open_for_reading(const std::string& path, std::string& error);

// Opens a file for writing from its beginning; "-" is standard output. What goes into a name that ends in
// ".zst" is compressed. A failed write shows in ferror, and once more, with its errno, when fclose fails.
// Null with the reason, "PATH: reason", in `error`.
std::FILE* open_for_writing(const std::string& path, std::string& error);

}  // namespace tessel::files
