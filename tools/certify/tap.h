#pragma once

#include "certify/traffic.h"
#include "receiver/sockets.h"
#include "relay/capture_output.h"

#include <cstdint>
#include <memory>
#include <string>

// A member of the handler's group that writes what comes into a capture file.
namespace tessel::certify {

// What is kept of one case; later packets are left out.
inline constexpr std::uint64_t tap_bytes_max = std::uint64_t{64} << 20;

struct Tap {
    receiver::MulticastSocket socket;
    std::shared_ptr<relay::CaptureOutput> output;
    std::uint64_t bytes = 0;
};

// Joins the group and begins the file. False with a reason in `error`.
bool open_tap(Tap& tap, const Endpoints& endpoints, const std::string& path, std::string& error);

// Writes what has come. Never waits.
void read_tap(Tap& tap);

// Ends the file.
void close_tap(Tap& tap);

}  // namespace tessel::certify
