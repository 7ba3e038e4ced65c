#include "judge/input.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tessel::judge {

namespace {

constexpr std::size_t packed_bytes = 128U << 10;
constexpr std::size_t copied_bytes = 64U << 10;  // a pipe's usual capacity

bool fail(std::string& error, const Input& input, std::string_view doing) {
    error = fmt::format("{}: {}: {}", input.name, doing, std::strerror(errno));
    return false;
}

ssize_t read_at(int fd, char* to, std::size_t room, std::uint64_t offset) {
    ssize_t got = 0;
    do {
        got = ::pread(fd, to, room, static_cast<off_t>(offset));
    } while (got < 0 && errno == EINTR);
    return got;
}

// Finds out what a regular file holds.
bool begin_file(Input& input, std::string& error) {
    struct stat facts {};
    if (::fstat(input.fd, &facts) != 0) {
        return fail(error, input, "stat");
    }
    input.file_bytes = static_cast<std::uint64_t>(facts.st_size);
    std::array<char, files::compression_head_bytes> head{};
    const ssize_t got = read_at(input.fd, head.data(), head.size(), 0);
    if (got < 0) {
        return fail(error, input, "read");
    }
    input.compression = files::detect_compression({head.data(), static_cast<std::size_t>(got)});
    if (input.compression != files::Compression::none) {
        input.packed.resize(packed_bytes);
        files::start_decoder(input.decoder, input.compression);
    }
    return true;
}

// A temporary file without a name: it is gone with its descriptor.
int open_nameless_file() {
    const char* const configured = std::getenv("TMPDIR");
    std::string name = configured != nullptr && *configured != '\0' ? configured : "/tmp";
    name += "/tessel-judge.XXXXXX";
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd >= 0) {
        ::unlink(name.c_str());
    }
    return fd;
}

bool write_all(int fd, const char* bytes, std::size_t size) {
    while (size != 0) {
        const ssize_t put = ::write(fd, bytes, size);
        if (put < 0 && errno != EINTR) {
            return false;
        }
        bytes += std::max<ssize_t>(put, 0);
        size -= static_cast<std::size_t>(std::max<ssize_t>(put, 0));
    }
    return true;
}

struct PipeCopy {
    Input* input = nullptr;
    int file = -1;
    bool ended = false;
};

// Takes what the pipe has at the moment. False at an error.
bool copy_some(PipeCopy& copy, std::vector<char>& buffer, std::string& error) {
    const ssize_t got = ::read(copy.input->fd, buffer.data(), buffer.size());
    if (got < 0) {
        return errno == EINTR || errno == EAGAIN || fail(error, *copy.input, "read");
    }
    copy.ended = got == 0;
    return write_all(copy.file, buffer.data(), static_cast<std::size_t>(got)) ||
           fail(error, *copy.input, "copy to a temporary file");
}

// Copies all pipes until each has ended.
bool copy_all(std::vector<PipeCopy>& copies, std::string& error) {
    std::vector<char> buffer(copied_bytes);
    while (true) {
        std::vector<pollfd> waiting;
        std::vector<PipeCopy*> waiting_copies;
        for (PipeCopy& copy : copies) {
            if (!copy.ended) {
                waiting.push_back({copy.input->fd, POLLIN, 0});
                waiting_copies.push_back(&copy);
            }
        }
        if (waiting.empty()) {
            return true;
        }
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
            return fail(error, *waiting_copies.front()->input, "poll");
        }
        for (std::size_t index = 0; index != waiting.size(); ++index) {
            if (waiting[index].revents != 0 && !copy_some(*waiting_copies[index], buffer, error)) {
                return false;
            }
        }
    }
}

ssize_t read_packed(Input& input, char* to, std::size_t room, std::string& error) {
    const auto damaged = [&](std::string_view how) {
        error = fmt::format("{}: damaged: {} {} data at byte {}", input.name, how,
                            files::compression_name(input.compression),
                            input.file_offset - (input.packed_end - input.packed_begin));
        return -1;
    };
    while (true) {
        std::string_view packed(input.packed.data() + input.packed_begin,
                                input.packed_end - input.packed_begin);
        if (!packed.empty() || !input.decoder.between_frames) {
            std::size_t produced = 0;
            const bool good = files::decode(input.decoder, packed, to, room, produced);
            input.packed_begin = input.packed_end - packed.size();
            if (!good) {
                return damaged("broken");
            }
            if (produced != 0) {
                return static_cast<ssize_t>(produced);
            }
        }
        if (!packed.empty()) {
            continue;  // a frame without content
        }
        const std::uint64_t rest = input.file_bytes - std::min(input.file_offset, input.file_bytes);
        const ssize_t got = read_at(input.fd, input.packed.data(),
                                    std::min<std::uint64_t>(input.packed.size(), rest), input.file_offset);
        if (got < 0) {
            fail(error, input, "read");
            return -1;
        }
        if (got == 0) {
            return input.decoder.between_frames ? 0 : damaged("unfinished");
        }
        input.packed_begin = 0;
        input.packed_end = static_cast<std::size_t>(got);
        input.file_offset += static_cast<std::uint64_t>(got);
    }
}

}  // namespace

Input::~Input() {
    if (fd >= 0) {
        ::close(fd);
    }
}

bool open_input(Input& input, const std::string& path, std::string& error) {
    const bool standard_input = path == "-";
    input.name = standard_input ? "standard input" : path;
    input.fd = standard_input ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                              : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat facts {};
    if (input.fd < 0 || ::fstat(input.fd, &facts) != 0) {
        return fail(error, input, "open");
    }
    input.device = facts.st_dev;
    input.inode = facts.st_ino;
    if (S_ISREG(facts.st_mode) && (!standard_input || ::lseek(input.fd, 0, SEEK_CUR) == 0)) {
        return begin_file(input, error);
    }
    if (!standard_input && !S_ISFIFO(facts.st_mode)) {
        error = fmt::format("{}: not a regular file", path);
        return false;
    }
    input.is_pipe = true;
    return true;
}

bool copy_pipes(std::span<Input* const> inputs, std::string& error) {
    std::vector<PipeCopy> copies;
    bool good = true;
    for (Input* input : inputs) {
        if (good && input->is_pipe) {
            copies.push_back({input, open_nameless_file()});
            good = copies.back().file >= 0 || fail(error, *input, "open a temporary file");
        }
    }
    good = good && copy_all(copies, error);
    for (const PipeCopy& copy : copies) {
        if (copy.file >= 0) {
            ::close(copy.input->fd);
            copy.input->fd = copy.file;
            copy.input->is_pipe = false;
        }
        good = good && begin_file(*copy.input, error);
    }
    return good;
}

bool same_file(const Input& one, const Input& other) {
    return one.device == other.device && one.inode == other.inode;
}

ssize_t read_input(Input& input, char* to, std::size_t room, std::string& error) {
    ssize_t got = 0;
    if (input.compression != files::Compression::none) {
        got = read_packed(input, to, room, error);
    } else {
        const std::uint64_t rest = input.file_bytes - std::min(input.offset, input.file_bytes);
        got = read_at(input.fd, to, std::min<std::uint64_t>(room, rest), input.offset);
        if (got < 0) {
            fail(error, input, "read");
        }
    }
    input.offset += static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
    return got;
}

bool seek_input(Input& input, std::uint64_t offset, std::string& error) {
    if (input.compression == files::Compression::none) {
        input.offset = offset;
        return true;
    }
    if (offset < input.offset) {
        files::start_decoder(input.decoder, input.compression);
        input.offset = 0;
        input.file_offset = 0;
        input.packed_begin = 0;
        input.packed_end = 0;
    }
    std::vector<char> skipped(std::min<std::uint64_t>(offset - input.offset, packed_bytes));
    while (input.offset < offset) {
        const ssize_t got = read_input(input, skipped.data(),
                                       std::min<std::uint64_t>(skipped.size(), offset - input.offset), error);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;  // the file got shorter
        }
    }
    return true;
}

}  // namespace tessel::judge
