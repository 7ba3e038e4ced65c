#include "listen/line_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace tessel::listen {

namespace {

constexpr std::size_t write_bytes = 1u << 18;
constexpr mode_t new_file_mode = 0666;

bool is_same_file(const struct stat& one, const std::string& path) {
    struct stat other {};
    return !path.empty() && stat(path.c_str(), &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

// A read lease is refused exactly while somebody has the file open for writing. Where the file system or the
// file's owner does not allow leases there is no answer, which counts as no.
bool is_written_by_another(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool refused = fcntl(fd, F_SETLEASE, F_RDLCK) != 0 && errno == EAGAIN;
    close(fd);  // ends the lease, too
    return refused;
}

// Why the existing file must not be emptied; empty when it may be.
std::string reason_to_keep(const std::string& path, const std::string& input) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return "";
    }
    if (is_same_file(status, input)) {
        return "is the same file as the input '" + input + "'; name another";
    }
    if (is_written_by_another(path)) {
        return "is being written by another program; name another file";
    }
    return "";
}

}  // namespace

bool open_output(Output& output, const std::string& path, const std::string& input) {
    if (path == "-") {
        output.fd = STDOUT_FILENO;
        output.buffer.reserve(2 * write_bytes);
        return true;
    }
    const std::string reason = reason_to_keep(path, input);
    if (!reason.empty()) {
        output.error = output.option + ": '" + path + "' " + reason;
        return false;
    }
    output.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, new_file_mode);
    output.owned = true;
    if (output.fd < 0) {
        output.error = output.option + ": '" + path + "': " + std::strerror(errno);
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
            output.error = "write to " + output.option + ": " + std::strerror(errno);
        } else if (output.abandon_write != nullptr && output.abandon_write()) {
            output.error = "write to " + output.option + ": interrupted while the reader was not reading";
        }
    }
    output.buffer.clear();
}

void check_output(Output& output) {
    if (output.fd < 0 || !output.error.empty()) {
        return;
    }
    pollfd entry{output.fd, 0, 0};
    if (poll(&entry, 1, 0) > 0 && (entry.revents & POLLERR) != 0) {
        output.error = "write to " + output.option + ": " + std::strerror(EPIPE);
    }
}

void close_output(Output& output) {
    flush_output(output);
    if (output.owned && output.fd >= 0 && close(output.fd) != 0 && output.error.empty()) {
        output.error = "close " + output.option + ": " + std::strerror(errno);
    }
    output.fd = -1;
}

}  // namespace tessel::listen
