#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// A feed's control channel from the outside: one datagram a command, one a reply.
namespace tessel::ctl {

struct ControlClient {
    int fd = -1;  // connected: only the feed's replies come in
    std::string endpoint;
    int timeout_ms = 0;  // how long a reply may take
};

enum class Answer { reply, nobody };

// Opens a client for HOST:PORT. False with the reason when that is no address.
bool open_control(const std::string& endpoint, int timeout_ms, ControlClient& client, std::string& error);

// Sends a command and waits for its reply, given without the line feed. A command is sent once only, since
// most are not safe to repeat; so a lost reply does not show whether it was done. `nobody` with the reason in
// `error`.
Answer ask(ControlClient& client, std::string_view command, std::string& reply, std::string& error);

// The two halves of `ask`, for whoever sends several commands before the first reply: replies come in the
// order of the commands. receive_reply waits `wait_ms` at most and gives false when nothing came; then `gone`
// says whether the port is closed.
bool send_command(ControlClient& client, std::string_view command, std::string& error);
bool receive_reply(ControlClient& client, int wait_ms, std::string& reply, bool& gone);

// "nobody answers at 127.0.0.1:25180; ..." with what would be right.
std::string nobody_text(const ControlClient& client);

}  // namespace tessel::ctl
