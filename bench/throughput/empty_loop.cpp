// The floor under an idle feed: a loop that waits 5 ms in poll(), accepts nobody and receives nothing on two
// sockets. Prints its CPU share.
//
//     empty_loop SECONDS

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

double clock_seconds(clockid_t which) {
    timespec now{};
    clock_gettime(which, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

int open_bound(int type) {
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        return -1;
    }
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 5;
    const int listener = open_bound(SOCK_STREAM);
    const int first = open_bound(SOCK_DGRAM);
    const int second = open_bound(SOCK_DGRAM);
    if (listener < 0 || first < 0 || second < 0 || listen(listener, 8) != 0) {
        return 1;
    }
    std::array<char, 512> buffer;
    const double start = clock_seconds(CLOCK_MONOTONIC);
    const double cpu_start = clock_seconds(CLOCK_PROCESS_CPUTIME_ID);
    double now = start;
    while (now - start < seconds) {
        pollfd waited{listener, POLLIN, 0};
        poll(&waited, 1, 5);
        if (accept(listener, nullptr, nullptr) >= 0 || recv(first, buffer.data(), buffer.size(), 0) >= 0 ||
            recv(second, buffer.data(), buffer.size(), 0) >= 0) {
            return 1;
        }
        now = clock_seconds(CLOCK_MONOTONIC);
    }
    const double cpu = clock_seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_start;
    std::printf("{\"cpu_share\": %.5f}\n", cpu / (now - start));
    return 0;
}
