#pragma once

#include "certify/case.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::certify {

// Where a feed is, or where a handler believes it to be.
struct Endpoints {
    std::string group;
    std::uint16_t port = 0;
    std::string iface = "127.0.0.1";
    std::string session;  // ten characters
    std::string retrans;  // HOST:PORT
    std::string snapshot;
};

// Whether the kinds and values of a case's traffic are known; a reason in `error` that names value and what
// would be right. Called when case files are read.
bool check_traffic(const std::vector<Traffic>& traffic, std::string& error);

// Whether the traffic is between feed and handler, so that the handler needs its own endpoints.
bool is_between(const std::vector<Traffic>& traffic);

// Runs the traffic until SIGTERM, then returns 0; in a separate process. `feed` is where the feed is,
// `handler` where the handler listens and asks (the same unless is_between). Writes one byte to `ready_fd`
// and closes it when it is ready. What it did goes to standard error, a line each, as the case's traffic.log.
int run_traffic(const std::vector<Traffic>& traffic, const Endpoints& feed, const Endpoints& handler,
                int ready_fd);

}  // namespace tessel::certify
