#include "capture/capture_file.h"

#include "files/zstd_file.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace tessel::capture {

namespace {

constexpr int snap_length = 262'144;
constexpr std::uint64_t file_header_bytes = 24;
constexpr std::uint64_t record_header_bytes = 16;

}  // namespace

CaptureFile::~CaptureFile() {
    std::string error;
    close_capture(*this, error);
}

bool open_capture(CaptureFile& capture, const std::string& path, std::string& error) {
    capture.path = path;
    capture.bytes = file_header_bytes;
    if (path.empty()) {
        return true;
    }
    capture.file = files::open_for_writing(path, error);
    if (capture.file == nullptr) {
        return false;
    }
    capture.handle =
        pcap_open_dead_with_tstamp_precision(DLT_EN10MB, snap_length, PCAP_TSTAMP_PRECISION_NANO);
    if (capture.handle == nullptr) {
        throw std::bad_alloc();
    }
    capture.dumper = pcap_dump_fopen(capture.handle, capture.file);
    if (capture.dumper == nullptr) {
        error = path + ": " + pcap_geterr(capture.handle);
        capture.file = nullptr;  // closed by the library
        return false;
    }
    return true;
}

void write_frame(CaptureFile& capture, std::uint64_t now_ns, std::span<const unsigned char> frame) {
    capture.last_ns = std::max(now_ns, capture.last_ns + frame_gap_ns);
    ++capture.frames;
    capture.bytes += record_header_bytes + frame.size();
    if (capture.dumper == nullptr) {
        return;
    }
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(capture.last_ns / 1'000'000'000u);
    header.ts.tv_usec = static_cast<suseconds_t>(capture.last_ns % 1'000'000'000u);  // nanoseconds here
    header.caplen = static_cast<bpf_u_int32>(frame.size());
    header.len = header.caplen;
    pcap_dump(reinterpret_cast<u_char*>(capture.dumper), &header, frame.data());
}

bool capture_failed(const CaptureFile& capture) {
    return capture.file != nullptr && std::ferror(capture.file) != 0;
}

bool close_capture(CaptureFile& capture, std::string& error) {
    bool good = true;
    if (capture.file != nullptr) {
        good = std::fclose(capture.file) == 0;
        if (!good) {
            error = capture.path + ": " + std::strerror(errno);
        }
    }
    if (capture.handle != nullptr) {
        pcap_close(capture.handle);
    }
    capture.file = nullptr;
    capture.dumper = nullptr;
    capture.handle = nullptr;
    return good;
}

}  // namespace tessel::capture
