// The floor under the feed: what sending alone costs. Sends ready packets of the feed's shape to a multicast
// group from one loop that does nothing else, and with a path also writes one ready line a message. Prints
// messages and CPU ns of one.
//
//     bare_loop GROUP PORT INTERFACE SECONDS [LINE-FILE]

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

// The feed's mean packet at full speed and its mean line, see bench/README.md.
constexpr std::size_t packet_bytes = 1462;
constexpr double messages_per_packet = 20.3;
constexpr std::size_t line_bytes = 251;

double clock_seconds(clockid_t which) {
    timespec now{};
    clock_gettime(which, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

int open_socket(const char* interface) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    in_addr from{};
    inet_pton(AF_INET, interface, &from);
    const unsigned char one = 1;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &from, sizeof from);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &one, sizeof one);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &one, sizeof one);
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: bare_loop GROUP PORT INTERFACE SECONDS [LINE-FILE]\n");
        return 2;
    }
    const int fd = open_socket(argv[3]);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[2])));
    inet_pton(AF_INET, argv[1], &to.sin_addr);
    std::array<char, packet_bytes> packet{};
    std::memcpy(packet.data(), "BARELOOP  ", 10);
    std::string line(line_bytes - 1, 'x');
    line += '\n';
    const int lines = argc > 5 ? open(argv[5], O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0600) : -1;

    const double seconds = std::atof(argv[4]);
    const double cpu_start = clock_seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double start = clock_seconds(CLOCK_MONOTONIC);
    double messages = 0;
    double owed_lines = 0;
    while (clock_seconds(CLOCK_MONOTONIC) - start < seconds) {
        for (int at = 0; at < 64; ++at) {
            if (lines >= 0) {
                for (owed_lines += messages_per_packet; owed_lines >= 1; owed_lines -= 1) {
                    if (write(lines, line.data(), line.size()) < 0) {
                        return 1;
                    }
                }
            }
            if (sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                       sizeof to) < 0) {
                return 1;
            }
            messages += messages_per_packet;
        }
    }
    const double cpu = clock_seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_start;
    std::printf("{\"messages\": %.0f, \"cpu_ns\": %.2f}\n", messages, cpu * 1e9 / messages);
    return 0;
}
