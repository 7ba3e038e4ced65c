// The way of a message through the publisher, and a retransmission reply, each beside the bare system calls
// it cannot do without.

#include "mold/publisher.h"
#include "mold/retransmission_server.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace tessel {
namespace {

// Lengths as they are mixed in the feed: short quotes with and without appendages, trades, long quotes. Their
// mean is 72.
constexpr std::array<std::size_t, 8> lengths{52, 63, 63, 73, 52, 67, 83, 121};
constexpr std::size_t messages_a_tick = 20;  // about one packet

void append_some(MoldPublisher& publisher, std::size_t count) {
    static const std::array<unsigned char, 128> message{};
    for (std::size_t at = 0; at < count; ++at) {
        append_message(publisher, message.data(), lengths[at % lengths.size()]);
    }
}

void ignore_packet(void*, const unsigned char* packet, std::size_t) {
    benchmark::DoNotOptimize(packet);
}

void count_messages(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages_a_tick));
}

void AppendAndFlush_NoSocket(benchmark::State& state) {
    Clock clock;
    MoldPublisher publisher;
    reset_publisher(publisher, clock, "UTPBENCH01");
    publisher.sink = {ignore_packet, nullptr};
    append_some(publisher, history_messages_max + 20'000);  // the history is full: the steady state
    for (auto iteration : state) {
        static_cast<void>(iteration);
        append_some(publisher, messages_a_tick);
        flush_packet(publisher);
    }
    count_messages(state);
}
BENCHMARK(AppendAndFlush_NoSocket);

// A real multicast group on loopback that nobody has joined.
constexpr const char* group = "239.255.211.7";
constexpr std::uint16_t group_port = 25977;

void AppendAndFlush_Multicast(benchmark::State& state) {
    Clock clock;
    MoldPublisher publisher;
    open_publisher(publisher, clock, group, group_port, "127.0.0.1", 0, "UTPBENCH01");
    append_some(publisher, history_messages_max + 20'000);
    for (auto iteration : state) {
        static_cast<void>(iteration);
        append_some(publisher, messages_a_tick);
        flush_packet(publisher);
    }
    count_messages(state);
    close(publisher.feed_socket);
}
BENCHMARK(AppendAndFlush_Multicast);

// The floor of the benchmark above: the same packet, ready made, once an iteration.
void BareSendto_Multicast(benchmark::State& state) {
    Clock clock;
    MoldPublisher publisher;
    open_publisher(publisher, clock, group, group_port, "127.0.0.1", 0, "UTPBENCH01");
    append_some(publisher, messages_a_tick);
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_port = publisher.group_port;
    destination.sin_addr.s_addr = publisher.group_address;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(sendto(publisher.feed_socket, publisher.packet.data(),
                                        publisher.packet_length, 0,
                                        reinterpret_cast<const sockaddr*>(&destination), sizeof destination));
    }
    count_messages(state);
    close(publisher.feed_socket);
}
BENCHMARK(BareSendto_Multicast);

// ------------------------------------------------------------------------------------------- retransmission

// The service and one who asks, both on loopback. A thread empties the requester's socket when it is to be
// drained; otherwise its buffer is full after a few hundred packets and the kernel drops the rest, for both
// loops alike.
struct Requests {
    Clock clock;
    MoldPublisher publisher;
    sockaddr_in service{};
    sockaddr_in requester{};
    int requester_socket = socket(AF_INET, SOCK_DGRAM, 0);
    std::atomic<bool> ending = false;
    std::thread drain;

    explicit Requests(bool drained) {
        reset_publisher(publisher, clock, "UTPBENCH01");
        publisher.sink = {ignore_packet, nullptr};
        publisher.retrans_socket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        bind_to_loopback(publisher.retrans_socket, service);
        bind_to_loopback(requester_socket, requester);
        append_some(publisher, 100'000);
        if (drained) {
            drain = std::thread([this] {
                std::array<unsigned char, 2048> packet;
                while (!ending) {
                    (void)recv(requester_socket, packet.data(), packet.size(), 0);
                }
            });
        }
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    ~Requests() {
        if (drain.joinable()) {
            ending = true;
            (void)sendto(publisher.retrans_socket, "", 1, 0, reinterpret_cast<const sockaddr*>(&requester),
                         sizeof requester);  // wakes the thread
            drain.join();
        }
        close(requester_socket);
        close(publisher.retrans_socket);
    }

    static void bind_to_loopback(int opened, sockaddr_in& address) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t bytes = sizeof address;
        (void)bind(opened, reinterpret_cast<const sockaddr*>(&address), bytes);
        (void)getsockname(opened, reinterpret_cast<sockaddr*>(&address), &bytes);
    }

    // 65,535 messages from the first on: the largest request there is.
    static std::array<unsigned char, retrans_request_bytes> largest_request() {
        return {'U', 'T', 'P', 'B', 'E', 'N', 'C', 'H', '0', '1', 0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0xff};
    }

    void send_request() const {
        const auto request = largest_request();
        (void)sendto(requester_socket, request.data(), request.size(), 0,
                     reinterpret_cast<const sockaddr*>(&service), sizeof service);
    }
};

using Packets = std::vector<std::vector<unsigned char>>;

double seconds_of_bare_loop(const Requests& requests, const Packets& packets) {
    const auto begin = std::chrono::steady_clock::now();
    for (const std::vector<unsigned char>& packet : packets) {
        (void)sendto(requests.publisher.retrans_socket, packet.data(), packet.size(), 0,
                     reinterpret_cast<const sockaddr*>(&requests.requester), sizeof requests.requester);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double seconds_of_service(Requests& requests) {
    requests.send_request();
    const auto begin = std::chrono::steady_clock::now();
    serve_retransmissions(requests.publisher);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// What the service does for that reply besides sending it.
void RetransmissionReply_NoSocket(benchmark::State& state) {
    Requests requests(false);
    const auto request = Requests::largest_request();
    for (auto iteration : state) {
        static_cast<void>(iteration);
        answer_request(requests.publisher, request.data(), request.size(), {ignore_packet, nullptr});
    }
    state.SetItemsProcessed(state.iterations() * 65535);
}
BENCHMARK(RetransmissionReply_NoSocket)->Unit(benchmark::kMillisecond);

// Each iteration sends the reply by the service between two bare loops over the same packets. "ratio" is the
// packet rate of the service over that of the bare loop, median of the iterations.
void RetransmissionReply_65535Messages(benchmark::State& state) {
    Requests requests(state.range(0) != 0);
    Packets packets;
    const PacketSink keep{[](void* context, const unsigned char* packet, std::size_t length) {
                              static_cast<Packets*>(context)->emplace_back(packet, packet + length);
                          },
                          &packets};
    const auto request = Requests::largest_request();
    answer_request(requests.publisher, request.data(), request.size(), keep);
    std::vector<double> ratios;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        const double before = seconds_of_bare_loop(requests, packets);
        const std::uint64_t served = requests.publisher.retrans_served;
        const double reply = seconds_of_service(requests);
        if (requests.publisher.retrans_served != served + 1) {
            state.SkipWithError("the request did not arrive");
            break;
        }
        const double after = seconds_of_bare_loop(requests, packets);
        ratios.push_back((before + after) / 2 / reply);
        state.SetIterationTime(reply);
    }
    if (!ratios.empty()) {
        std::sort(ratios.begin(), ratios.end());
        state.counters["ratio"] = ratios[ratios.size() / 2];
        state.counters["packets"] = static_cast<double>(packets.size());
    }
}
BENCHMARK(RetransmissionReply_65535Messages)
    ->ArgName("drained")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(41)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tessel

BENCHMARK_MAIN();
