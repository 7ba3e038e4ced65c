#include "files/zstd_file.h"

#include "files/decompress.h"

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

namespace tessel::files {

namespace {

constexpr std::size_t chunk_bytes = std::size_t{256} << 10;
constexpr int compression_level = 3;  // the library's default
constexpr mode_t new_file_mode = 0666;
constexpr std::string_view suffix = ".zst";

// A descriptor with what was read of it and not handed out yet.
struct Source {
    int fd = -1;
    std::vector<char> bytes;
    std::size_t begin = 0;
    std::size_t end = 0;
    bool ended = false;
    bool packed = false;
    Decoder decoder;  // of what is packed
};

// A descriptor to which the bytes of a stream go, compressed or not.
struct Target {
    int fd = -1;
    int fault = 0;               // errno of the first failure; nothing is written after it
    std::vector<char> gathered;  // the stream's own buffer
    std::vector<unsigned char> packed;
    ZSTD_CCtx* packer = nullptr;  // null: not compressed
};

// Reads on into an empty buffer; false on an error, which errno holds. A signal that the program catches is
// one (EINTR): a pipe may bring nothing for long, and the program may have been asked to end.
bool refill(Source& source) {
    source.begin = 0;
    source.end = 0;
    const ssize_t count = read(source.fd, source.bytes.data(), source.bytes.size());
    if (count < 0) {
        return false;
    }
    source.end = static_cast<std::size_t>(count);
    source.ended = count == 0;
    return true;
}

ssize_t read_plain(Source& source, char* to, std::size_t room) {
    if (source.begin == source.end && !source.ended && !refill(source)) {
        return -1;
    }
    const std::size_t count = std::min(room, source.end - source.begin);
    std::memcpy(to, source.bytes.data() + source.begin, count);
    source.begin += count;
    return static_cast<ssize_t>(count);
}

ssize_t read_packed(Source& source, char* to, std::size_t room) {
    while (true) {
        if (source.begin == source.end && !source.ended && !refill(source)) {
            return -1;
        }
        std::string_view packed(source.bytes.data() + source.begin, source.end - source.begin);
        const bool at_end = packed.empty();
        if (at_end && source.decoder.between_frames) {
            return 0;
        }
        std::size_t produced = 0;
        if (!decode(source.decoder, packed, to, room, produced)) {
            errno = EBADMSG;
            return -1;
        }
        source.begin = source.end - packed.size();
        if (produced != 0) {
            return static_cast<ssize_t>(produced);
        }
        if (at_end) {
            errno = EPIPE;
            return -1;
        }
    }
}

ssize_t read_source(void* cookie, char* to, std::size_t room) {
    auto& source = *static_cast<Source*>(cookie);
    return source.packed ? read_packed(source, to, room) : read_plain(source, to, room);
}

int close_source(void* cookie) {
    const std::unique_ptr<Source> source(static_cast<Source*>(cookie));
    return source->fd == STDIN_FILENO ? 0 : close(source->fd);
}

void write_whole(Target& target, const unsigned char* bytes, std::size_t length) {
    while (length > 0 && target.fault == 0) {
        const ssize_t count = write(target.fd, bytes, length);
        if (count < 0) {
            target.fault = errno == EINTR ? 0 : errno;
            continue;
        }
        bytes += count;
        length -= static_cast<std::size_t>(count);
    }
}

// Compresses `length` bytes and writes what comes of it; with ZSTD_e_end the frame is closed.
void pack(Target& target, const char* bytes, std::size_t length, ZSTD_EndDirective directive) {
    ZSTD_inBuffer in{bytes, length, 0};
    std::size_t left = 1;
    while (target.fault == 0 && (in.pos < in.size || (directive == ZSTD_e_end && left != 0))) {
        ZSTD_outBuffer out{target.packed.data(), target.packed.size(), 0};
        left = ZSTD_compressStream2(target.packer, &out, &in, directive);
        if (ZSTD_isError(left) != 0) {
            target.fault = ENOMEM;  // the only way in which it can fail here
            return;
        }
        write_whole(target, target.packed.data(), out.pos);
    }
}

ssize_t write_target(void* cookie, const char* bytes, std::size_t length) {
    Target& target = *static_cast<Target*>(cookie);
    if (target.packer != nullptr) {
        pack(target, bytes, length, ZSTD_e_continue);
    } else {
        write_whole(target, reinterpret_cast<const unsigned char*>(bytes), length);
    }
    errno = target.fault;
    return target.fault == 0 ? static_cast<ssize_t>(length) : 0;  // 0 is how such a stream reports a failure
}

int close_target(void* cookie) {
    const std::unique_ptr<Target> target(static_cast<Target*>(cookie));
    if (target->packer != nullptr) {
        pack(*target, nullptr, 0, ZSTD_e_end);
        ZSTD_freeCCtx(target->packer);
    }
    if (target->fd != STDOUT_FILENO && close(target->fd) != 0 && target->fault == 0) {
        target->fault = errno;
    }
    errno = target->fault;
    return target->fault == 0 ? 0 : -1;
}

std::FILE* refuse(const std::string& path, std::string& error) {
    error = path + ": " + std::strerror(errno);
    return nullptr;
}

}  // namespace

std::FILE* open_for_reading(const std::string& path, std::string& error) {
    auto source = std::make_unique<Source>();
    source->fd = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (source->fd < 0) {
        return refuse(path, error);
    }
    source->bytes.resize(chunk_bytes);
    // A pipe may deliver the first bytes one by one.
    while (source->end < compression_head_bytes) {
        const ssize_t count =
            read(source->fd, source->bytes.data() + source->end, source->bytes.size() - source->end);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            std::FILE* const none = refuse(path, error);
            close_source(source.release());
            return none;
        }
        if (count == 0) {
            source->ended = true;
            break;
        }
        source->end += static_cast<std::size_t>(count);
    }
    const std::string_view head(source->bytes.data(), source->end);
    source->packed = detect_compression(head) == Compression::zstd;
    if (source->packed) {
        start_decoder(source->decoder, Compression::zstd);
    }
    std::FILE* const file = fopencookie(source.get(), "rb", {read_source, nullptr, nullptr, close_source});
    if (file == nullptr) {
        throw std::bad_alloc();
    }
    static_cast<void>(source.release());  // the stream closes it
    return file;
}

std::FILE* open_for_writing(const std::string& path, std::string& error) {
    const int fd = path == "-" ? STDOUT_FILENO
                               : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, new_file_mode);
    if (fd < 0) {
        return refuse(path, error);
    }
    auto target = std::make_unique<Target>();
    target->fd = fd;
    if (path.ends_with(suffix)) {
        target->packed.resize(ZSTD_CStreamOutSize());
        target->packer = ZSTD_createCCtx();
        if (target->packer == nullptr) {
            throw std::bad_alloc();
        }
        ZSTD_CCtx_setParameter(target->packer, ZSTD_c_compressionLevel, compression_level);
        ZSTD_CCtx_setParameter(target->packer, ZSTD_c_checksumFlag, 1);
    }
    std::FILE* const file = fopencookie(target.get(), "wb", {nullptr, write_target, nullptr, close_target});
    if (file == nullptr) {
        throw std::bad_alloc();
    }
    // A buffer that is worth a system call; it lives until the stream is closed.
    target->gathered.resize(chunk_bytes);
    std::setvbuf(file, target->gathered.data(), _IOFBF, target->gathered.size());
    static_cast<void>(target.release());  // the stream closes it
    return file;
}

}  // namespace tessel::files
