#include "certify/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tessel::certify {

std::string file_text(const std::string& path, std::uint64_t offset) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return text;
    }
    char block[65536];
    while (text.size() < file_text_bytes_max) {
        const std::size_t room = std::min(sizeof block, file_text_bytes_max - text.size());
        const ssize_t length = pread(fd, block, room, static_cast<off_t>(offset + text.size()));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            break;
        }
        text.append(block, static_cast<std::size_t>(length));
    }
    close(fd);
    return text;
}

bool write_file(const std::string& path, std::string_view text, std::string& error) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    bool good = fd >= 0;
    while (good && !text.empty()) {
        const ssize_t put = write(fd, text.data(), text.size());
        if (put < 0 && errno == EINTR) {
            continue;
        }
        good = put >= 0;
        text.remove_prefix(good ? static_cast<std::size_t>(put) : 0);
    }
    good = (fd < 0 || close(fd) == 0) && good;
    if (!good) {
        error = path + ": " + std::strerror(errno);
    }
    return good;
}

std::uint64_t regular_file_bytes(const std::string& path) {
    struct stat facts {};
    const bool regular = lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode);
    return regular ? static_cast<std::uint64_t>(facts.st_size) : 0;
}

}  // namespace tessel::certify
