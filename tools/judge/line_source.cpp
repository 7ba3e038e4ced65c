#include "judge/line_source.h"

#include "judge/line_reader.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tessel::judge {

namespace {

// Room for the longest line and as much again, so that most reads move little.
constexpr std::size_t buffer_bytes = 2 * line_bytes_max;

// Moves the unread rest to the front and fills up from the file. False at a read error.
bool refill(LineSource& source, std::string* error) {
    std::memmove(source.buffer.data(), source.buffer.data() + source.begin, source.end - source.begin);
    source.buffer_offset += source.begin;
    source.end -= source.begin;
    source.begin = 0;
    const std::uint64_t position = source.buffer_offset + source.end;
    const auto room = static_cast<std::uint64_t>(source.buffer.size() - source.end);
    const std::uint64_t wanted = std::min(room, source.end_offset - std::min(position, source.end_offset));
    ssize_t got = 0;
    do {
        got = ::pread(source.fd, source.buffer.data() + source.end, wanted, static_cast<off_t>(position));
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        *error = fmt::format("{}: read: {}", source.path, std::strerror(errno));
        return false;
    }
    if (got == 0) {
        source.end_offset = position;  // the file got shorter, or this is its end
    }
    source.end += static_cast<std::size_t>(got);
    return true;
}

bool is_blank(std::string_view text) {
    return text.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

LineSource::~LineSource() {
    if (fd >= 0) {
        ::close(fd);
    }
}

bool open_source(LineSource& source, const std::string& path, std::string* error) {
    source.path = path;
    source.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (source.fd < 0) {
        *error = fmt::format("{}: open: {}", path, std::strerror(errno));
        return false;
    }
    struct stat facts {};
    if (::fstat(source.fd, &facts) != 0 || !S_ISREG(facts.st_mode)) {
        *error = fmt::format("{}: not a regular file", path);
        return false;
    }
    source.buffer.resize(buffer_bytes);
    seek_source(source, 0, static_cast<std::uint64_t>(facts.st_size), 1);
    return true;
}

void seek_source(LineSource& source, std::uint64_t offset, std::uint64_t end_offset,
                 std::uint64_t line_number) {
    source.begin = 0;
    source.end = 0;
    source.buffer_offset = offset;
    source.end_offset = end_offset;
    source.line_number = line_number - 1;
}

ReadResult next_line(LineSource& source, std::string_view& text, std::string* error) {
    std::size_t searched = 0;  // bytes behind `begin` known to hold no line feed
    while (true) {
        const char* const first = source.buffer.data() + source.begin;
        const std::size_t held = source.end - source.begin;
        const auto* const feed =
            static_cast<const char*>(std::memchr(first + searched, '\n', held - searched));
        const bool at_end = source.buffer_offset + source.end >= source.end_offset;
        if (feed != nullptr || (at_end && held != 0)) {
            const std::size_t length = feed != nullptr ? static_cast<std::size_t>(feed - first) : held;
            text = std::string_view(first, length);
            source.begin += length + (feed != nullptr ? 1 : 0);
            ++source.line_number;
            if (length <= line_bytes_max && is_blank(text)) {
                searched = 0;
                continue;
            }
            return ReadResult::line;
        }
        if (at_end) {
            return ReadResult::end;
        }
        if (held > line_bytes_max) {
            *error = fmt::format("{}:{}: line longer than {} bytes", source.path, source.line_number + 1,
                                 line_bytes_max);
            return ReadResult::error;
        }
        searched = held;
        if (!refill(source, error)) {
            return ReadResult::error;
        }
    }
}

std::uint64_t line_offset(const LineSource& source, std::string_view text) {
    return source.buffer_offset + static_cast<std::uint64_t>(text.data() - source.buffer.data());
}

}  // namespace tessel::judge
