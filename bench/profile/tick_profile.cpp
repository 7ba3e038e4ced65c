// Runs the market in memory, without a socket, for profilers: whole ticks of many instruments, each packet
// thrown away where it would be sent. Prints the messages made and the CPU time of one.
//
//     tick_profile INSTRUMENTS TICKS [TRUTH-FILE]

#include "base/clock.h"
#include "base/random.h"
#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "mold/publisher.h"
#include "output/truth_log.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

namespace {

std::string symbols_text(int instruments) {
    std::string text;
    for (int at = 0; at < instruments; ++at) {
        const int rest = at % 17576;
        text += at == 0 ? "S" : ",S";
        text += static_cast<char>('A' + rest / 676);
        text += static_cast<char>('A' + rest / 26 % 26);
        text += static_cast<char>('A' + rest % 26);
        text += ":" + std::to_string(20 + at % 400) + ".00";
    }
    return text;
}

double cpu_ns() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

void discard(void* /*context*/, const unsigned char* /*packet*/, std::size_t /*length*/) {}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: tick_profile INSTRUMENTS TICKS [TRUTH-FILE]\n");
        return 2;
    }
    tessel::Clock clock;
    const auto rng = std::make_unique<tessel::Random>();
    tessel::seed_random(*rng, 7);
    tessel::Scenario scenario;
    const auto publisher = std::make_unique<tessel::MoldPublisher>();
    publisher->sink.send = discard;
    tessel::reset_publisher(*publisher, clock, "PROFILE");
    const auto engine = std::make_unique<tessel::SipEngine>();
    tessel::init_engine(*engine, *publisher, *rng, scenario, clock, "QNPZKVD", 0.8, true);
    if (argc > 3) {
        tessel::open_truth_log(engine->truth, argv[3]);
    }
    std::string error;
    if (!tessel::add_instruments(*engine, symbols_text(std::atoi(argv[1])), error)) {
        return 1;
    }
    tessel::start_of_day(*engine);
    const std::uint64_t first = publisher->next_sequence;
    const double start = cpu_ns();
    const int ticks = std::atoi(argv[2]);
    for (int at = 0; at < ticks; ++at) {
        tessel::run_tick(*engine, 0);
    }
    const double spent = cpu_ns() - start;
    const auto messages = static_cast<double>(publisher->next_sequence - first);
    std::printf("messages %.0f ns %.1f\n", messages, spent / messages);
    return 0;
}
