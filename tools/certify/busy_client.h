#pragma once

#include <string>

// A client of ours that holds the Snap-Shot service, which serves one client at a time.
namespace tessel::certify {

struct BusyClient {
    int fd = -1;
    double until = 0;  // on the steady clock
};

// Connects and logs in. False with a reason in `error` when the service is not there.
bool hold_service(BusyClient& client, const std::string& service, double seconds, std::string& error);

// Takes what the service sends, and leaves it when the time has come.
void step_busy_client(BusyClient& client);

}  // namespace tessel::certify
