#include "relay/capture_output.h"

#include "capture/capture_file.h"
#include "capture/frames.h"

#include <arpa/inet.h>
#include <span>

namespace tessel::relay {

struct CaptureOutput {
    capture::CaptureFile file;
    capture::FrameBuilder frames;
    capture::Endpoint from;
    capture::Endpoint to;
};

std::shared_ptr<CaptureOutput> open_capture_output(const std::string& path, const Options& options,
                                                   std::string& error) {
    auto output = std::make_shared<CaptureOutput>();
    in_addr address{};
    inet_pton(AF_INET, options.group.c_str(), &address);
    output->to.address = ntohl(address.s_addr);
    output->to.port = static_cast<std::uint16_t>(options.port);
    output->to.mac = capture::multicast_mac(output->to.address);
    inet_pton(AF_INET, options.iface.c_str(), &address);
    output->from.address = ntohl(address.s_addr);
    output->from.port = output->to.port;
    output->from.mac = {0x02, 0, 0, 0, 0, 0x01};  // of the range that nobody is given
    if (!capture::open_capture(output->file, path, error)) {
        return nullptr;
    }
    return output;
}

void write_packet(CaptureOutput& output, std::int64_t stamp_ns, const unsigned char* bytes,
                  std::size_t length) {
    const std::span<const unsigned char> payload(bytes, length);
    capture::write_frame(output.file, static_cast<std::uint64_t>(stamp_ns),
                         capture::build_udp(output.frames, output.from, output.to, payload));
}

bool close_capture_output(CaptureOutput& output, std::string& error) {
    return capture::close_capture(output.file, error);
}

}  // namespace tessel::relay
