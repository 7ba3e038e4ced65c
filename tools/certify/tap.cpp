#include "certify/tap.h"

#include <unistd.h>

namespace tessel::certify {

namespace {

constexpr int buffer_bytes = 8 << 20;
constexpr std::size_t datagrams_a_pass = 4'096;

}  // namespace

bool open_tap(Tap& tap, const Endpoints& endpoints, const std::string& path, std::string& error) {
    if (!receiver::open_multicast(tap.socket, endpoints.group, endpoints.port, endpoints.iface, buffer_bytes,
                                  error)) {
        return false;
    }
    receiver::stamp_datagrams(tap.socket);
    relay::Options options;
    options.group = endpoints.group;
    options.port = endpoints.port;
    options.iface = endpoints.iface;
    tap.output = relay::open_capture_output(path, options, error);
    return tap.output != nullptr;
}

void read_tap(Tap& tap) {
    if (tap.socket.fd < 0) {
        return;
    }
    receiver::receive_multicast(tap.socket, datagrams_a_pass,
                                [&](const unsigned char* bytes, std::size_t length) {
                                    if (tap.output != nullptr && tap.bytes + length <= tap_bytes_max) {
                                        relay::write_packet(*tap.output, tap.socket.stamp_ns, bytes, length);
                                    }
                                    tap.bytes += length;
                                });
}

void close_tap(Tap& tap) {
    read_tap(tap);
    std::string error;  // a capture that is cut by a full disk is still a capture
    if (tap.output != nullptr) {
        relay::close_capture_output(*tap.output, error);
        tap.output = nullptr;
    }
    if (tap.socket.fd >= 0) {
        close(tap.socket.fd);
        tap.socket.fd = -1;
    }
}

}  // namespace tessel::certify
