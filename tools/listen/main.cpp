#include "listen/listener.h"
#include "listen/options.h"

int main(int argc, char** argv) {
    tessel::listen::Options options;
    const int end = tessel::listen::parse_options(options, argc, argv);
    if (end >= 0) {
        return end;
    }
    return static_cast<int>(options.from_pcap.empty() ? tessel::listen::run_live(options)
                                                      : tessel::listen::run_replay(options));
}
