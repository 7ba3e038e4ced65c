#include "base/standard_descriptors.h"
#include "listen/listener.h"
#include "listen/options.h"
#include "listen/report.h"
#include "listen/run_channels.h"
#include "listen/stop_signals.h"

#include <exception>

namespace {

using tessel::listen::ExitStatus;

ExitStatus run(int argc, char** argv) {
    tessel::listen::Options options;
    const int end = tessel::listen::parse_options(options, argc, argv);
    if (end >= 0) {
        return static_cast<ExitStatus>(end);
    }
    if (!options.channels.empty()) {
        return tessel::listen::run_channels(options);
    }
    return options.from_pcap.empty() ? tessel::listen::run_live(options)
                                     : tessel::listen::run_replay(options);
}

}  // namespace

int main(int argc, char** argv) {
    tessel::open_standard_descriptors();
    tessel::listen::ignore_write_signals();
    try {
        return static_cast<int>(run(argc, argv));
    } catch (const std::exception& failure) {
        tessel::listen::report(failure.what());
    }
    return static_cast<int>(ExitStatus::something_missing);
}
