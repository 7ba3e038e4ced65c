// digest_main SEED TICKS PACKETS TRUTH: runs the default market in memory with a simulated clock and writes
// every packet that it sends (2-byte length before each) to PACKETS and its truth log to TRUTH. It is
// compiled with several compilers and levels, and the files must be the same.

#include "base/clock.h"
#include "base/random.h"
#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "mold/publisher.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void write_packet(void* context, const unsigned char* packet, std::size_t length) {
    auto* file = static_cast<std::FILE*>(context);
    std::fputc(static_cast<int>(length >> 8), file);
    std::fputc(static_cast<int>(length & 0xff), file);
    std::fwrite(packet, 1, length, file);
}

}  // namespace

int main(int count, char** arguments) {
    using namespace tessel;
    if (count != 5) {
        std::fprintf(stderr, "digest_main SEED TICKS PACKETS TRUTH\n");
        return 2;
    }
    const unsigned long ticks = std::strtoul(arguments[2], nullptr, 10);
    std::FILE* packets = std::fopen(arguments[3], "wb");
    if (packets == nullptr) {
        return 1;
    }
    Clock clock;
    clock.simulated = true;
    clock.simulated_wall_ns = 1'700'000'000'000'000'000u;
    clock.wall_step_ns = 1;
    clock.simulated_steady_ms = 1'000'000;
    Random rng;
    seed_random(rng, std::strtoull(arguments[1], nullptr, 10));
    MoldPublisher publisher;
    reset_publisher(publisher, clock, "UTPBENCH01");
    publisher.sink = {write_packet, packets};
    Scenario scenario =
        parse_scenario("trf_every=3,cancel_every=5,correct_every=7,asof_every=11,band_every=2");
    SipEngine engine;
    init_engine(engine, publisher, rng, scenario, clock, "QNPZKVD", 0.8, true);
    open_truth_log(engine.truth, arguments[4]);
    std::string error;
    if (!add_instruments(engine, "AAPL:190.00,MSFT:410.00,TSLA:250.00,BERK:700.00,PENNY:0.03", error)) {
        return 1;
    }
    start_of_day(engine);
    for (unsigned long done = 0; done < ticks; ++done) {
        clock.simulated_steady_ms += 100;
        clock.simulated_wall_ns += 100'000'000u;
        if (done % 1000 == 500) {
            halt_instrument(engine, engine.instruments[0], "T1", 3);
            luld_pause(engine, engine.instruments[3], 4);
        }
        run_tick(engine, clock.simulated_steady_ms);
    }
    flush_packet(publisher);
    close_truth_log(engine.truth);
    return std::fclose(packets) == 0 ? 0 : 1;
}
