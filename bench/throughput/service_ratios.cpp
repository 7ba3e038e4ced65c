// The services beside the feed against the least that they could do, in one process and in alternating
// rounds:
//   retransmission: a full-size reply (65,535 messages) over sending the same packets ready made;
//   spin: building and sending the snapshot of 8,000 instruments over sending a ready buffer of its size;
//   history: resident growth of a full history over the bytes of its messages.
// Prints one JSON object.
//
//     service_ratios ROUNDS

#include "base/clock.h"
#include "engine/sip_engine.h"
#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "mold/publisher.h"
#include "mold/retransmission_server.h"
#include "snapshot/spin.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Packet = std::vector<unsigned char>;

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double cpu_now() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string symbols_text(int instruments) {
    std::string text;
    for (int at = 0; at < instruments; ++at) {
        text += at == 0 ? "S" : ",S";
        text += static_cast<char>('A' + at / 676 % 26);
        text += static_cast<char>('A' + at / 26 % 26);
        text += static_cast<char>('A' + at % 26);
        text += ":" + std::to_string(20 + at % 400) + ".00";
    }
    return text;
}

long resident_kib() {
    long pages = 0;
    if (FILE* file = std::fopen("/proc/self/statm", "r"); file != nullptr) {
        long size = 0;
        if (std::fscanf(file, "%ld %ld", &size, &pages) != 2) {
            pages = 0;
        }
        std::fclose(file);
    }
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

// A whole market in memory; packets go nowhere.
struct Market {
    tessel::Clock clock;
    tessel::Random rng;
    tessel::Scenario scenario;
    tessel::MoldPublisher publisher;
    tessel::SipEngine engine;
};

std::unique_ptr<Market> make_market(int instruments) {
    auto market = std::make_unique<Market>();
    tessel::seed_random(market->rng, 7);
    market->publisher.sink.send = [](void*, const unsigned char*, std::size_t) {};
    tessel::reset_publisher(market->publisher, market->clock, "UTPBENCH01");
    tessel::init_engine(market->engine, market->publisher, market->rng, market->scenario, market->clock,
                        "QNPZKVD", 0.8, true);
    std::string error;
    if (!tessel::add_instruments(market->engine, symbols_text(instruments), error)) {
        std::abort();
    }
    tessel::start_of_day(market->engine);
    return market;
}

// --- history
// --------------------------------------------------------------------------------------------------------

double history_ratio() {
    // Real messages, from a market that has done growing: only the history grows while it is measured.
    auto market = make_market(50);
    std::vector<Packet> messages;
    market->publisher.sink.context = &messages;
    market->publisher.sink.send = [](void* context, const unsigned char* packet, std::size_t length) {
        auto& kept = *static_cast<std::vector<Packet>*>(context);
        for (std::size_t at = tessel::mold_header_bytes; at < length && kept.size() < 20'000;) {
            const std::size_t size = static_cast<std::size_t>(packet[at]) << 8 | packet[at + 1];
            kept.emplace_back(packet + at + 2, packet + at + 2 + size);
            at += 2 + size;
        }
    };
    while (messages.size() < 20'000) {
        tessel::run_tick(market->engine, 0);
    }
    const auto store = std::make_unique<tessel::RetransStore>();
    const long before = resident_kib();
    double payload = 0;
    for (std::size_t at = 0; at < tessel::history_messages_max * 3 / 2; ++at) {
        const Packet& message = messages[at % messages.size()];
        tessel::store_message(*store, message.data(), message.size(), tessel::history_messages_max);
        payload += at < tessel::history_messages_max ? static_cast<double>(message.size()) : 0;
    }
    return static_cast<double>(resident_kib() - before) * 1024 / payload;
}

// --- retransmission
// -------------------------------------------------------------------------------------------------

struct Sender {
    int fd = -1;
    sockaddr_in to{};
};

void send_to(void* context, const unsigned char* packet, std::size_t length) {
    const auto& sender = *static_cast<const Sender*>(context);
    static_cast<void>(sendto(sender.fd, packet, length, 0, reinterpret_cast<const sockaddr*>(&sender.to),
                             sizeof sender.to));
}

void keep_packet(void* context, const unsigned char* packet, std::size_t length) {
    static_cast<std::vector<Packet>*>(context)->emplace_back(packet, packet + length);
}

std::vector<double> retransmission_ratios(int rounds) {
    auto market = make_market(100);
    while (market->publisher.next_sequence < 80'000) {
        tessel::run_tick(market->engine, 0);
    }
    std::array<unsigned char, tessel::retrans_request_bytes> request{};
    std::memcpy(request.data(), "UTPBENCH01", 10);
    request[17] = 1;
    request[18] = 0xFF;
    request[19] = 0xFF;
    std::vector<Packet> ready;
    tessel::answer_request(market->publisher, request.data(), request.size(), {keep_packet, &ready});

    // The asker's socket is not read: its full buffer costs both sides the same.
    Sender sender;
    sender.fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int asker = socket(AF_INET, SOCK_DGRAM, 0);
    sender.to.sin_family = AF_INET;
    sender.to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof sender.to;
    if (bind(asker, reinterpret_cast<const sockaddr*>(&sender.to), sizeof sender.to) != 0 ||
        getsockname(asker, reinterpret_cast<sockaddr*>(&sender.to), &length) != 0) {
        std::abort();
    }
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        const double start = cpu_now();
        for (const Packet& packet : ready) {
            send_to(&sender, packet.data(), packet.size());
        }
        const double bare = cpu_now() - start;
        const double served_start = cpu_now();
        tessel::answer_request(market->publisher, request.data(), request.size(), {send_to, &sender});
        ratios.push_back(bare / (cpu_now() - served_start));
    }
    close(asker);
    close(sender.fd);
    return ratios;
}

// --- spin
// -----------------------------------------------------------------------------------------------------------

// A TCP connection on loopback whose far end a thread reads and throws away.
struct Drain {
    int fd = -1;
    int far = -1;
    std::uint64_t sent = 0;
    std::atomic<std::uint64_t> received = 0;
    std::thread reader;
};

void open_drain(Drain& drain) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::abort();
    }
    drain.far = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(drain.far, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::abort();
    }
    drain.fd = accept(listener, nullptr, nullptr);
    close(listener);
    const int one = 1;
    setsockopt(drain.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    drain.reader = std::thread([&drain] {
        std::vector<char> buffer(1 << 20);
        ssize_t count = 0;
        while ((count = recv(drain.far, buffer.data(), buffer.size(), 0)) > 0) {
            drain.received += static_cast<std::uint64_t>(count);
        }
    });
}

void send_all(void* context, const unsigned char* bytes, std::size_t size) {
    auto& drain = *static_cast<Drain*>(context);
    drain.sent += size;
    while (size > 0) {
        const ssize_t sent = send(drain.fd, bytes, size, MSG_NOSIGNAL);
        if (sent < 0) {
            std::abort();
        }
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

// Every measurement starts with empty socket buffers: otherwise two would share a cost.
void await_drained(const Drain& drain) {
    while (drain.received != drain.sent) {
        usleep(100);
    }
}

struct SpinFigures {
    std::vector<double> ratios;
    std::vector<double> build_ms;
    std::vector<double> send_ms;
    std::size_t bytes = 0;
};

SpinFigures spin_ratios(int rounds) {
    auto market = make_market(8000);
    tessel::run_tick(market->engine, 0);
    Drain drain;
    open_drain(drain);
    tessel::SpinBuffer whole;
    tessel::build_spin(whole, market->engine, 1);
    const Packet ready(whole.bytes.data(), whole.bytes.data() + whole.size);
    tessel::SpinBuffer spin;
    SpinFigures figures;
    figures.bytes = ready.size();
    for (int round = 0; round < rounds; ++round) {
        await_drained(drain);
        const double start = seconds_now();
        send_all(&drain, ready.data(), ready.size());
        const double bare = seconds_now() - start;
        await_drained(drain);
        // As the service does it: built and sent piece by piece.
        spin.sink = {send_all, &drain};
        const double built_start = seconds_now();
        tessel::build_spin(spin, market->engine, 1);
        send_all(&drain, spin.bytes.data(), spin.size);
        figures.ratios.push_back(bare / (seconds_now() - built_start));
        figures.send_ms.push_back(bare * 1e3);
        spin.sink = {[](void*, const unsigned char*, std::size_t) {}, nullptr};
        const double only_built_start = seconds_now();
        tessel::build_spin(spin, market->engine, 1);
        figures.build_ms.push_back((seconds_now() - only_built_start) * 1e3);
    }
    shutdown(drain.fd, SHUT_RDWR);
    drain.reader.join();
    close(drain.fd);
    close(drain.far);
    return figures;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    const double history = history_ratio();
    const std::vector<double> retransmission = retransmission_ratios(rounds);
    const SpinFigures spin = spin_ratios(rounds);
    const auto [slowest, fastest] = std::minmax_element(retransmission.begin(), retransmission.end());
    const auto [spin_slowest, spin_fastest] = std::minmax_element(spin.ratios.begin(), spin.ratios.end());
    std::printf(
        "{\"history\": %.4f, \"retransmission\": %.4f, \"retransmission_min\": %.4f, "
        "\"retransmission_max\": %.4f, \"spin\": %.4f, \"spin_min\": %.4f, \"spin_max\": %.4f, "
        "\"spin_bytes\": %zu, \"spin_build_ms\": %.3f, \"spin_send_ms\": %.3f}\n",
        history, median(retransmission), *slowest, *fastest, median(spin.ratios), *spin_slowest,
        *spin_fastest, spin.bytes, median(spin.build_ms), median(spin.send_ms));
    return 0;
}
