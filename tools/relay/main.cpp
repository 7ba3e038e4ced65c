#include "base/standard_descriptors.h"
#include "relay/live.h"
#include "relay/options.h"
#include "relay/replay.h"

#include <csignal>
#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    tessel::open_standard_descriptors();
    std::signal(SIGPIPE, SIG_IGN);
    tessel::relay::Options options;
    const int end = tessel::relay::parse_options(options, argc, argv);
    if (end >= 0) {
        return end;
    }
    try {
        return options.from_pcap.empty() ? tessel::relay::run_live(options)
                                         : tessel::relay::run_replay(options);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "tessel-relay: %.150s\n", problem.what());
        return 1;
    }
}
