// Any bytes as a capture file: reading ends, what comes out fits a packet, and memory stays bounded.

#include "fuzz_check.h"
#include "listen/pcap_file.h"

#include <cstddef>
#include <cstdio>
#include <string>

namespace {

using namespace tessel::listen;
using tessel::fuzz::check;

constexpr std::size_t datagram_bytes_max = 65'535;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, unsigned long size) {
    if (size == 0) {
        return 0;  // which fmemopen does not take
    }
    std::FILE* const file = fmemopen(const_cast<unsigned char*>(data), size, "rb");
    check(file != nullptr, "fmemopen");
    PcapSinks sinks;
    std::size_t stream_bytes = 0;
    sinks.datagram = [](const PcapFlow&, std::int64_t, const unsigned char* bytes, std::size_t length) {
        check(bytes != nullptr && length <= datagram_bytes_max, "a datagram fits its packet");
    };
    sinks.stream = [&](const PcapFlow&, std::int64_t, const unsigned char* bytes, std::size_t length) {
        check(bytes != nullptr && length != 0, "a stream's piece is never empty");
        stream_bytes += length;
    };
    sinks.wants_stream = [](const PcapFlow& flow) { return flow.source_port % 2 != 0; };
    PcapCounters counters;
    std::string error;
    const PcapResult result = read_pcap(file, "input", sinks, counters, error);
    check((result == PcapResult::whole) == error.empty(), "what is wrong is said, and nothing else");
    check(error.find('\n') == std::string::npos, "in one line");
    check(counters.cut + counters.other + counters.incomplete <= counters.packets + 256,
          "each packet counts once");
    check(stream_bytes <= size, "a stream has no more bytes than came in");
    return 0;
}
