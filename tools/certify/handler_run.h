#pragma once

#include "certify/certificate.h"
#include "certify/placeholders.h"
#include "certify/processes.h"
#include "certify/ready.h"

#include <sys/types.h>
#include <cstdint>
#include <set>
#include <string>

// One handler of a case: its process, what it prints, whether it is ready.
namespace tessel::certify {

// Of what a handler prints, this much is kept from the beginning, and this much from the end.
inline constexpr std::size_t log_head_bytes_max = std::size_t{4} << 20;
inline constexpr std::size_t log_tail_bytes_max = 4'000;
// A handler that writes more than this is ended: no case has nearly as much to say.
inline constexpr std::uint64_t output_bytes_max = std::uint64_t{8} << 30;

struct HandlerRun {
    std::string command;  // placeholders filled
    Values values;
    std::string case_name;
    std::string out_path;
    std::string log_path;
    Ready ready;  // placeholders filled

    pid_t process = 0;
    int log_pipe = -1;
    int log_file = -1;
    std::uint64_t log_bytes = 0;
    std::string log_tail;
    std::string partial_line;  // of its output, for Ready::line
    bool line_seen = false;
    unsigned members_before = 0;
    std::set<std::string>
        sockets_before;       // that had the ready port open before the start: others' and our own
    std::string file_before;  // the ready file as it was before the start, "" when there was none
    double started_at = 0;
};

// Starts the handler. False with a reason in `error` when there is no shell.
bool start_handler(HandlerRun& handler, std::string& error);

// Takes what the handler has printed. Never waits.
void read_log(HandlerRun& handler);

// Whether it is ready by now.
bool is_handler_ready(const HandlerRun& handler);

// Writes the end of what was printed, and closes its log.
void close_log(HandlerRun& handler);

// "handler ended with status N" or "handler was killed by signal N". A shell's status for a command that a
// signal has killed, 128 and the signal, is one.
std::string end_text(int wait_status);

// The status that means: this case is not supported.
inline constexpr int status_not_supported = 127;
bool is_not_supported(int wait_status);

// Whether a wait status is that of a signal that was not asked for: any but SIGINT, SIGTERM and SIGKILL.
bool is_crash(int wait_status);

}  // namespace tessel::certify
