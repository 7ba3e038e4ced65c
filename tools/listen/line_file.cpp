#include "listen/line_file.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace tessel::listen {

namespace {

constexpr std::size_t write_bytes = 1u << 18;
constexpr mode_t new_file_mode = 0666;

}  // namespace

bool open_output(Output& output, const std::string& path) {
    if (path == "-") {
        output.fd = STDOUT_FILENO;
    } else {
        output.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, new_file_mode);
        output.owned = true;
    }
    if (output.fd < 0) {
        output.error = path + ": " + std::strerror(errno);
        return false;
    }
    output.buffer.reserve(2 * write_bytes);
    return true;
}

void flush_when_large(Output& output) {
    if (output.buffer.size() >= write_bytes) {
        flush_output(output);
    }
}

void flush_output(Output& output) {
    std::size_t done = 0;
    while (done < output.buffer.size() && output.error.empty() && output.fd >= 0) {
        const ssize_t count = write(output.fd, output.buffer.data() + done, output.buffer.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            output.error = std::string("write: ") + std::strerror(errno);
        }
    }
    output.buffer.clear();
}

void close_output(Output& output) {
    flush_output(output);
    if (output.owned && output.fd >= 0 && close(output.fd) != 0 && output.error.empty()) {
        output.error = std::string("close: ") + std::strerror(errno);
    }
    output.fd = -1;
}

}  // namespace tessel::listen
