#include "certify/handler_run.h"

#include "certify/file_text.h"
#include "certify/time_limits.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace tessel::certify {

namespace {

constexpr int shell_signal_base = 128;
constexpr std::size_t partial_bytes_max = 65'536;
constexpr int reads_a_pass = 64;

// The signal that has ended a process, 0 for none.
int signal_of(int wait_status) {
    if (WIFSIGNALED(wait_status)) {
        return WTERMSIG(wait_status);
    }
    const int status = WEXITSTATUS(wait_status);
    return status > shell_signal_base && status < shell_signal_base + SIGSYS + 1 ? status - shell_signal_base
                                                                                 : 0;
}

unsigned members_now(const HandlerRun& handler) {
    return group_members(file_text("/proc/net/igmp"), fill_placeholders("{group}", handler.values));
}

// Which file there is and when it was written, "" for none: a file that an earlier run has left shows
// nothing.
std::string file_facts(const std::string& path) {
    struct stat facts {};
    if (stat(path.c_str(), &facts) != 0) {
        return "";
    }
    return std::to_string(facts.st_ino) + " " + std::to_string(facts.st_ctim.tv_sec) + " " +
           std::to_string(facts.st_ctim.tv_nsec);
}

bool is_file_new(const HandlerRun& handler) {
    const std::string facts = file_facts(handler.ready.text);
    return !facts.empty() && facts != handler.file_before;
}

// The sockets that have the port of Ready::port open now.
std::set<std::string> sockets_now(const HandlerRun& handler) {
    std::set<std::string> all;
    if (handler.ready.kind == ReadyKind::port) {
        const auto port = static_cast<std::uint16_t>(std::strtoul(handler.ready.text.c_str(), nullptr, 10));
        for (const char* const table : {"tcp", "tcp6", "udp", "udp6"}) {
            const std::string text = file_text(std::string("/proc/net/") + table);
            all.merge(sockets_of_port(text, table[0] == 't', port));
        }
    }
    return all;
}

bool is_port_open(const HandlerRun& handler) {
    const std::set<std::string> now = sockets_now(handler);
    return !std::includes(handler.sockets_before.begin(), handler.sockets_before.end(), now.begin(),
                          now.end());
}

void look_for_line(HandlerRun& handler, std::string_view text) {
    if (handler.ready.kind != ReadyKind::line || handler.line_seen) {
        return;
    }
    handler.partial_line += text;
    std::size_t end = 0;
    while ((end = handler.partial_line.find('\n')) != std::string::npos) {
        handler.line_seen = handler.line_seen ||
                            handler.partial_line.substr(0, end).find(handler.ready.text) != std::string::npos;
        handler.partial_line.erase(0, end + 1);
    }
    if (handler.partial_line.size() > partial_bytes_max) {
        handler.partial_line.erase(0, handler.partial_line.size() - partial_bytes_max);
    }
}

void keep_log(HandlerRun& handler, std::string_view text) {
    const std::size_t room =
        handler.log_bytes < log_head_bytes_max ? log_head_bytes_max - handler.log_bytes : 0;
    const std::string_view head = text.substr(0, room);
    if (!head.empty() && write(handler.log_file, head.data(), head.size()) < 0) {
        handler.log_file = -1;  // no room on the disk: the tail is still there for the report
    }
    handler.log_bytes += text.size();
    handler.log_tail += text;
    if (handler.log_tail.size() > log_tail_bytes_max) {
        handler.log_tail.erase(0, handler.log_tail.size() - log_tail_bytes_max);
    }
}

}  // namespace

bool start_handler(HandlerRun& handler, std::string& error) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    handler.log_pipe = ends[0];
    handler.log_file = open(handler.log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    handler.members_before = members_now(handler);
    handler.sockets_before = sockets_now(handler);
    handler.file_before = file_facts(handler.ready.text);
    ProgramStart start;
    start.words = {"/bin/sh", "-c", handler.command};
    start.variables = handler_environment(handler.values, handler.case_name);
    start.output = ends[1];
    handler.process = start_program(start, error);
    handler.started_at = steady_seconds();
    close(ends[1]);
    return handler.process != 0;
}

void read_log(HandlerRun& handler) {
    char block[65536];
    // A handler that prints without end is left to itself after some blocks: there are other things to do.
    for (int count = 0; handler.log_pipe >= 0 && count != reads_a_pass; ++count) {
        const ssize_t length = read(handler.log_pipe, block, sizeof block);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            if (length == 0) {
                close(handler.log_pipe);
                handler.log_pipe = -1;
            }
            return;
        }
        const std::string_view text(block, static_cast<std::size_t>(length));
        look_for_line(handler, text);
        keep_log(handler, text);
    }
}

bool is_handler_ready(const HandlerRun& handler) {
    switch (handler.ready.kind) {
        case ReadyKind::membership: return members_now(handler) > handler.members_before;
        case ReadyKind::file: return is_file_new(handler);
        case ReadyKind::port: return is_port_open(handler);
        case ReadyKind::line: return handler.line_seen;
        case ReadyKind::delay: return steady_seconds() >= handler.started_at + handler.ready.seconds;
    }
    return false;
}

void close_log(HandlerRun& handler) {
    read_log(handler);
    if (handler.log_bytes > log_head_bytes_max && handler.log_file >= 0) {
        const std::uint64_t left_out =
            handler.log_bytes - std::min<std::uint64_t>(handler.log_bytes, log_head_bytes_max);
        const std::string end = "\n[tessel-certify: " + std::to_string(left_out) +
                                " more bytes were printed; the last of them follow]\n" + handler.log_tail;
        if (write(handler.log_file, end.data(), end.size()) < 0) {
            handler.log_bytes = 0;  // a full disk has nothing of it
        }
    }
    for (int* const fd : {&handler.log_pipe, &handler.log_file}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

std::string end_text(int wait_status) {
    const int signal = signal_of(wait_status);
    return signal != 0 ? "handler was killed by signal " + std::to_string(signal)
                       : "handler ended with status " + std::to_string(WEXITSTATUS(wait_status));
}

bool is_not_supported(int wait_status) {
    return WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == status_not_supported;
}

bool is_crash(int wait_status) {
    const int signal = signal_of(wait_status);
    return signal != 0 && signal != SIGINT && signal != SIGTERM && signal != SIGKILL;
}

}  // namespace tessel::certify
