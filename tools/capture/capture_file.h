#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

struct pcap;
struct pcap_dumper;

// A classic capture file with nanoseconds, written through libpcap.
namespace tessel::capture {

// What the time between two frames is at least: frames of one moment keep their order in time.
constexpr std::uint64_t frame_gap_ns = 100;

struct CaptureFile {
    std::string path;
    std::FILE* file = nullptr;
    pcap* handle = nullptr;
    pcap_dumper* dumper = nullptr;
    std::uint64_t last_ns = 0;  // stamp of the last frame
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;  // of the capture, headers included, before compression

    CaptureFile() = default;
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;
    ~CaptureFile();
};

// Opens the file, replacing one of that name; "-" and ".zst" as in files/zstd_file.h. An empty path opens
// nothing: frames are then counted only. False with "PATH: reason" in `error`.
bool open_capture(CaptureFile& capture, const std::string& path, std::string& error);

// Appends a frame with the stamp `now_ns`, or frame_gap_ns after the frame before when that is later.
void write_frame(CaptureFile& capture, std::uint64_t now_ns, std::span<const unsigned char> frame);

// Whether a write has failed so far; errno says why.
bool capture_failed(const CaptureFile& capture);

// Writes what is left and closes the file. False with "PATH: reason" when any byte could not be written.
bool close_capture(CaptureFile& capture, std::string& error);

}  // namespace tessel::capture
