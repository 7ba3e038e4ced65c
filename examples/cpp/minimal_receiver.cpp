// Joins the feed, recovers what is lost, and prints the NBBO of each quote:
//     minimal_receiver 239.255.25.177 25177 127.0.0.1:25178 [COUNT]
#include <tessel/base/clock.h>
#include <tessel/mold/sequencer.h>
#include <tessel/receiver/market_state.h>
#include <tessel/receiver/sockets.h>

#include <poll.h>
#include <sys/socket.h>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace tessel::receiver;

namespace {

void print_nbbo(const Market& market, std::uint64_t sequence) {
    const Message& message = market.message;
    if (message.kind != MessageKind::quote_short && message.kind != MessageKind::quote_long) {
        return;
    }
    const Nbbo& nbbo = find_instrument(market, message.symbol)->nbbo;
    std::printf("{\"seq\":%ju,\"symbol\":\"%.*s\",\"nbbo\":[%.4f,%u,%.4f,%u]}\n", std::uintmax_t{sequence},
                static_cast<int>(message.symbol.size()), message.symbol.data(),
                static_cast<double>(nbbo.bid) / 1e6, nbbo.bid_size, static_cast<double>(nbbo.ask) / 1e6,
                nbbo.ask_size);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: minimal_receiver GROUP PORT RETRANS_HOST:PORT [COUNT]\n");
        return 2;
    }
    const auto count = argc > 4 ? std::strtoull(argv[4], nullptr, 10) : UINT64_MAX;
    std::string error;
    sockaddr_in service{};
    MulticastSocket feed;
    int requests = -1;
    if (!parse_endpoint(service, argv[3], error) ||
        !open_multicast(feed, argv[1], static_cast<std::uint16_t>(std::atoi(argv[2])), "127.0.0.1", 8 << 20,
                        error) ||
        (requests = open_retransmission(service, 8 << 20, error)) < 0) {
        std::fprintf(stderr, "minimal_receiver: %s\n", error.c_str());
        return 1;
    }
    Market market;
    SequencerSettings settings;
    settings.first_sequence = 1;
    settings.can_request = true;
    SequencerSinks sinks;
    sinks.message = [&](std::uint64_t sequence, const unsigned char* bytes, std::size_t length) {
        apply_message(market, bytes, length, sequence);
        print_nbbo(market, sequence);
    };
    sinks.lost = [](std::uint64_t first, std::uint64_t lost) {
        std::fprintf(stderr, "lost: %ju messages from %ju on\n", std::uintmax_t{lost}, std::uintmax_t{first});
    };
    sinks.request = [&](const unsigned char* bytes, std::size_t length) { send(requests, bytes, length, 0); };
    Sequencer sequencer = make_sequencer(settings, sinks);
    while (market.messages < count) {
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
    }
}
