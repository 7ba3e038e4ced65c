#pragma once

#include "relay/options.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// A line that ends in a capture file: classic pcap with nanoseconds, compressed when its name ends in ".zst".
namespace tessel::relay {

struct CaptureOutput;

// Replaces a file of that name. Frames go to the group and port of the options. Null with the reason in
// `error`.
std::shared_ptr<CaptureOutput> open_capture_output(const std::string& path, const Options& options,
                                                   std::string& error);

// Appends a packet with its stamp, nanoseconds since the epoch.
void write_packet(CaptureOutput& output, std::int64_t stamp_ns, const unsigned char* bytes,
                  std::size_t length);

// Writes what is left. False with the reason in `error` when any byte could not be written.
bool close_capture_output(CaptureOutput& output, std::string& error);

}  // namespace tessel::relay
