#pragma once

#include "console/doors.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

// The sockets and HTTP of the doors. The library that reads requests and writes replies is used here and
// nowhere else; sockets, threads and all limits are ours: a connection serves one request, which has to be
// there in five seconds and in 16 KiB, and a reply that the client does not read within some seconds is
// abandoned.
namespace tessel::console {

// Connections at one time, streams included; more are answered 503 right away. Each has a thread.
constexpr int connections_max = 128;

struct WebServer {
    Site* site = nullptr;
    int fd = -1;  // listening
    std::uint16_t port = 0;
    std::atomic<bool> stopping{false};
    std::atomic<int> connections{0};
};

// Binds to an IPv4 address, "localhost" or a name; port 0 takes a free one. False with the reason in `error`.
bool open_web_server(WebServer& server, Site& site, const std::string& host, std::uint16_t port,
                     std::string& error);

// Accepts connections until stop_web_server was called and every connection has ended.
void run_web_server(WebServer& server);

// May be called by any thread.
void stop_web_server(WebServer& server);

// What the server would answer to these bytes on a connection to 127.0.0.1; of a stream the first step. For
// tests.
std::string answer_bytes(Site& site, std::string_view request);

}  // namespace tessel::console
