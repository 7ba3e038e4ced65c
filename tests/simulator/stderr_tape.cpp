#include "simulator/stderr_tape.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/common_interface_defs.h>

#include <cstdint>
#define TESSEL_HAS_SANITIZER 1
#endif
#endif

namespace tessel::simulator {

StderrTape start_tape() {
    StderrTape tape;
    std::fflush(stderr);
    tape.terminal = dup(STDERR_FILENO);
    tape.file = memfd_create("stderr", MFD_CLOEXEC);
    dup2(tape.file, STDERR_FILENO);
#ifdef TESSEL_HAS_SANITIZER
    // A sanitizer's report must not end on the tape.
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(tape.terminal)));
#endif
    return tape;
}

void rewind_tape(const StderrTape& tape) {
    std::fflush(stderr);
    if (ftruncate(tape.file, 0) == 0) {
        lseek(tape.file, 0, SEEK_SET);
    }
}

std::string read_tape(const StderrTape& tape) {
    std::fflush(stderr);
    struct stat status {};
    if (fstat(tape.file, &status) != 0) {
        return {};
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t got = pread(tape.file, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

void spill_tape(const StderrTape& tape) {
    char bytes[2000];
    const off_t end = lseek(tape.file, 0, SEEK_END);
    const off_t from = end > static_cast<off_t>(sizeof bytes) ? end - static_cast<off_t>(sizeof bytes) : 0;
    const ssize_t got = pread(tape.file, bytes, sizeof bytes, from);
    if (got > 0) {
        [[maybe_unused]] const ssize_t written = write(tape.terminal, bytes, static_cast<std::size_t>(got));
    }
}

}  // namespace tessel::simulator
