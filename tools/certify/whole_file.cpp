#include "certify/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tessel::certify {

namespace {

bool write_all(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t size = ::write(file, text.data(), text.size());
        if (size < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    return true;
}

// The file that a symbolic link leads to, so that the link stays one.
std::string target_of(const std::string& path) {
    char* const real = ::realpath(path.c_str(), nullptr);
    std::string target = real == nullptr ? path : real;
    std::free(real);
    return target;
}

}  // namespace

bool write_whole_file(const std::string& path, std::string_view text, std::string& error) {
    const auto failed = [&](int fault) {
        error = path + ": " + std::strerror(fault);
        return false;
    };
    struct stat facts {};
    const bool is_special = ::stat(path.c_str(), &facts) == 0 && !S_ISREG(facts.st_mode);
    const std::string target = target_of(path);
    const std::string part = is_special ? target : target + ".part" + std::to_string(::getpid());
    const int flags = is_special ? O_WRONLY | O_CLOEXEC : O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    const int file = ::open(part.c_str(), flags, 0666);
    if (file < 0) {
        return failed(errno);
    }
    bool good = write_all(file, text) && (is_special || ::fsync(file) == 0);
    int fault = errno;
    if (::close(file) != 0 && good) {
        good = false;
        fault = errno;
    }
    if (!is_special && good && std::rename(part.c_str(), target.c_str()) != 0) {
        good = false;
        fault = errno;
    }
    if (!good) {
        if (!is_special) {
            ::unlink(part.c_str());
        }
        return failed(fault);
    }
    return true;
}

}  // namespace tessel::certify
