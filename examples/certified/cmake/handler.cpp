// A handler on the receiver library: joins the feed, recovers what is lost, writes a line for each message
// that has one.
//     handler GROUP PORT IFACE SESSION RETRANS_HOST:PORT OUTPUT
// SIGINT or SIGTERM ends it.
#include <tessel/base/clock.h>
#include <tessel/mold/sequencer.h>
#include <tessel/receiver/market_state.h>
#include <tessel/receiver/sockets.h>
#include <tessel/receiver/truth_line.h>

#include <poll.h>
#include <sys/socket.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace tessel::receiver;

namespace {

volatile std::sig_atomic_t stopped = 0;

void note_stop(int /*number*/) {
    stopped = 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: handler GROUP PORT IFACE SESSION RETRANS_HOST:PORT OUTPUT\n");
        return 2;
    }
    std::signal(SIGINT, note_stop);
    std::signal(SIGTERM, note_stop);
    std::string error;
    sockaddr_in service{};
    MulticastSocket feed;
    int requests = -1;
    if (!parse_endpoint(service, argv[5], error) ||
        !open_multicast(feed, argv[1], static_cast<std::uint16_t>(std::atoi(argv[2])), argv[3], 8 << 20,
                        error) ||
        (requests = open_retransmission(service, 8 << 20, error)) < 0) {
        std::fprintf(stderr, "handler: %s\n", error.c_str());
        return 2;
    }
    std::FILE* const output = std::fopen(argv[6], "w");
    if (output == nullptr) {
        std::perror(argv[6]);
        return 2;
    }
    Market market;
    std::string line;
    SequencerSettings settings;
    settings.session = argv[4];
    settings.first_sequence = 1;
    SequencerSinks sinks;
    sinks.message = [&](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        apply_message(market, bytes, length, sequence);
        line.clear();
        if (append_truth_line(line, market, bytes, length, sequence)) {
            std::fwrite(line.data(), 1, line.size(), output);
        }
    };
    sinks.lost = [](std::uint64_t first, std::uint64_t lost) {
        std::fprintf(stderr, "lost: %ju messages from %ju on\n", std::uintmax_t{lost}, std::uintmax_t{first});
    };
#ifndef BROKEN
    settings.can_request = true;
    sinks.request = [&](const unsigned char* bytes, std::size_t length) { send(requests, bytes, length, 0); };
#endif
    Sequencer sequencer = make_sequencer(settings, sinks);
    while (stopped == 0) {
        const auto now_ms = static_cast<std::int64_t>(tessel::steady_ms());
        pollfd sockets[] = {{feed.fd, POLLIN, 0}, {requests, POLLIN, 0}};
        poll(sockets, 2, static_cast<int>(next_timer_ms(sequencer, now_ms)));
        receive_multicast(feed, 256, [&](const unsigned char* packet, std::size_t length) {
            on_packet(sequencer, packet, length, now_ms, PacketSource::multicast);
        });
        unsigned char reply[2048];
        for (ssize_t length = 0; (length = recv(requests, reply, sizeof reply, MSG_DONTWAIT)) > 0;) {
            on_packet(sequencer, reply, static_cast<std::size_t>(length), now_ms,
                      PacketSource::retransmission);
        }
        on_timer(sequencer, now_ms);
        std::fflush(output);
    }
    return std::fclose(output) == 0 ? 0 : 1;
}
