#pragma once

#include <cstdint>
#include <string>

namespace tessel::ctl {

struct DoctorOptions {
    std::string group = "239.255.25.177";
    std::uint16_t port = 25177;
    std::string iface = "127.0.0.1";
    std::string retrans = "127.0.0.1:25178";
    std::string snapshot = "127.0.0.1:25179";
    double seconds = 3;
    bool json = false;
};

// Finds out why nothing of a feed arrives on this host, or that it does. A line a check on standard output.
// Returns the exit status: 0, 1 when there is a problem, 2 when an endpoint is no HOST:PORT.
int doctor(const DoctorOptions& options);

}  // namespace tessel::ctl
