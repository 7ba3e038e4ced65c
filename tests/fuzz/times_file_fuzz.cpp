// A file of SIP times, whatever its bytes, compressed or not: the judge finds times or gives a reason, and
// what it reads ahead stays bounded.

#include "fuzz_check.h"
#include "judge/times_file.h"

#include <sys/mman.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

constexpr std::uint64_t last_number = 40;

// A file in memory of these bytes; -1 when there is none to be had.
int file_of(const unsigned char* data, std::size_t size) {
    const int fd = memfd_create("times", MFD_CLOEXEC);
    std::size_t written = 0;
    while (fd >= 0 && written != size) {
        const ssize_t count = write(fd, data + written, size - written);
        tessel::fuzz::check(count > 0, "the file is written");
        written += static_cast<std::size_t>(count);
    }
    return fd;
}

void find_all(tessel::judge::TimesFile& times, std::size_t runs_from_end) {
    std::string error;
    bool good = tessel::judge::begin_times(times, runs_from_end, error);
    for (std::uint64_t seq = 1; good && seq <= last_number; ++seq) {
        std::uint64_t sip_ns = 0;
        good = tessel::judge::find_time(times, seq, sip_ns, error);
        tessel::fuzz::check(times.ahead.size() <= tessel::judge::times_ahead_max,
                            "what is read ahead is bounded");
    }
    tessel::fuzz::check(good == error.empty(), "a reason exactly when it fails");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const int fd = file_of(data, size);
    if (fd < 0) {
        return 0;
    }
    tessel::judge::Run truth;
    truth.lines = last_number;
    truth.first = 1;
    truth.lowest = 1;
    truth.highest = last_number;
    {
        tessel::judge::TimesFile times;
        std::string error;
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        const bool good = tessel::judge::open_times(times, path, std::vector{truth, truth}, error);
        tessel::fuzz::check(good == error.empty(), "a reason exactly when it is refused");
        if (good) {
            find_all(times, 0);
            find_all(times, 1);
        }
    }
    close(fd);
    return 0;
}
