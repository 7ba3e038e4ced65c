#pragma once

#include "console/feed_control.h"
#include "console/reception.h"

#include <cstdint>
#include <string>

// The command line of tessel-console.
namespace tessel::console {

struct Options {
    ReceptionSettings reception;
    ControlSettings control{"127.0.0.1:25180", ""};
    std::string http_host = "127.0.0.1";
    std::uint16_t http_port = 8080;  // 0: a free one
    bool read_only = false;
    bool listen_anyway = false;
    bool metrics_open = false;
    std::string textfile;  // a directory; empty: no file
};

// Whether an address or name is one of this host alone: 127.0.0.0/8 or localhost.
bool is_loopback(const std::string& host);

// Reads the command line into `options`. Returns -1 to go on, or the status to end with: 0 after --help and
// --version, 2 after an error, which has been reported.
int parse_options(Options& options, int argc, const char* const* argv);

}  // namespace tessel::console
