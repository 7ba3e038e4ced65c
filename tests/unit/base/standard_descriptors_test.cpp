#include "base/standard_descriptors.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tessel {
namespace {

bool is_null_device(int fd) {
    struct stat found {};
    return fstat(fd, &found) == 0 && S_ISCHR(found.st_mode) && found.st_rdev == makedev(1, 3);
}

// In a child process: gives 0 to 2 a pipe's end or closes them (bits of `closed`), calls the function, and
// checks what became of each. The result is 0, or what was wrong.
int run_in_child(unsigned closed, bool descriptors_left) {
    const pid_t child = fork();
    if (child == 0) {
        int ends[2];
        if (pipe(ends) != 0) {
            _exit(10);
        }
        for (int fd = 0; fd <= 2; ++fd) {
            dup2(ends[1], fd);
        }
        const int lowest = dup(ends[0]);  // whatever number is the next free one
        close(lowest);
        for (int fd = 0; fd <= 2; ++fd) {
            if ((closed >> fd & 1) != 0) {
                close(fd);
            }
        }
        if (!descriptors_left) {
            const rlimit none{0, 0};
            setrlimit(RLIMIT_NOFILE, &none);
        }
        open_standard_descriptors();
        for (int fd = 0; fd <= 2; ++fd) {
            const bool was_closed = (closed >> fd & 1) != 0;
            if (is_null_device(fd) != (was_closed && descriptors_left)) {
                _exit(20 + fd);
            }
        }
        // Nothing else is open that was not before.
        _exit(fcntl(lowest, F_GETFD) == -1 ? 0 : 30);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(StandardDescriptors, AnyOfTheThreeClosed_NullDeviceInItsPlaceAndTheOthersUntouched) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        EXPECT_EQ(run_in_child(closed, true), 0) << "closed: " << closed;
    }
}

TEST(StandardDescriptors, NoDescriptorLeft_Returns) {
    EXPECT_EQ(run_in_child(7, false), 0);
}

}  // namespace
}  // namespace tessel
