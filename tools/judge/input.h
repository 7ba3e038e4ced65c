#pragma once

#include "files/decompress.h"

#include <sys/types.h>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tessel::judge {

// A file that is read more than once, from any place: a regular file, or the copy of a pipe. What is
// compressed (gzip and zstd, by content) is unpacked while it is read, never as a whole.
struct Input {
    std::string name;  // for messages: the path, or "standard input"
    int fd = -1;
    bool is_pipe = false;  // nothing can be read before `copy_pipes`
    dev_t device = 0;
    ino_t inode = 0;
    files::Compression compression = files::Compression::none;
    std::uint64_t file_bytes = 0;  // its size when it was opened: what is appended later is not read
    std::uint64_t offset = 0;      // of the next byte that is read, unpacked
    std::uint64_t file_offset = 0;

    files::Decoder decoder;
    std::vector<char> packed;  // read and not unpacked yet: from packed_begin to packed_end
    std::size_t packed_begin = 0;
    std::size_t packed_end = 0;

    Input() = default;
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input();
};

// Opens a regular file, a named pipe, or standard input for "-". Does not wait for a pipe's writer. False
// with the name and a reason in `error`.
bool open_input(Input& input, const std::string& path, std::string& error);

// Copies those inputs that are pipes into nameless temporary files (in TMPDIR, else /tmp), side by side, so
// that one program may write two of them in any order. Inputs that are none are left alone.
bool copy_pipes(std::span<Input* const> inputs, std::string& error);

// Whether two inputs are one and the same file.
bool same_file(const Input& one, const Input& other);

// Reads up to `room` bytes, 0 at the end, -1 with the name and a reason in `error` when the file cannot be
// read or is damaged.
ssize_t read_input(Input& input, char* to, std::size_t room, std::string& error);

// Goes on at byte `offset` of the unpacked data. Going back in a compressed file unpacks it again from the
// beginning.
bool seek_input(Input& input, std::uint64_t offset, std::string& error);

}  // namespace tessel::judge
