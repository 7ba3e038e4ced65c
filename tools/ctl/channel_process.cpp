#include "ctl/channel_process.h"

#include "channels/files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace tessel::ctl {

namespace {

constexpr int kill_wait_ms = 5'000;
constexpr int exec_failed_status = 127;
constexpr std::size_t note_bytes_max = 64;
constexpr std::size_t proc_bytes_max = std::size_t{1} << 20;

std::string note_path(const std::string& folder, const channels::Channel& channel, const char* what) {
    return folder + "/run/" + channel.name + what;
}

// The whole number that a small file begins with; 0 when it has none.
std::uint64_t read_number(const std::string& path) {
    std::string text;
    std::string error;
    std::uint64_t number = 0;
    if (channels::read_text_file(path, note_bytes_max, text, error)) {
        std::from_chars(text.data(), text.data() + text.size(), number);
    }
    return number;
}

// When the process began, in clock ticks since boot; 0 when there is none. See proc(5), stat.
std::uint64_t start_of(pid_t pid) {
    std::string text;
    std::string error;
    if (!channels::read_text_file("/proc/" + std::to_string(pid) + "/stat", proc_bytes_max, text, error)) {
        return 0;
    }
    // The name, which may hold anything, is in parentheses; the start is the twentieth field after it.
    constexpr int start_field = 20;
    std::size_t at = text.rfind(')');
    for (int field = 0; field < start_field && at != std::string::npos; ++field) {
        at = text.find(' ', at + 1);
    }
    std::uint64_t start = 0;
    if (at != std::string::npos) {
        std::from_chars(text.data() + at + 1, text.data() + text.size(), start);
    }
    return start;
}

// Whether the process has been given the channel's session and control port. A process that has ended and is
// not yet waited for has no command line.
bool has_options_of(pid_t pid, const channels::Channel& channel) {
    std::string text;
    std::string error;
    if (!channels::read_text_file("/proc/" + std::to_string(pid) + "/cmdline", proc_bytes_max, text, error)) {
        return false;
    }
    std::vector<std::string> words;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\0', at), text.size());
        words.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    const auto has = [&words](const char* option, const std::string& value) {
        const auto found = std::find(words.begin(), words.end(), option);
        return found != words.end() && found + 1 != words.end() && *(found + 1) == value;
    };
    return has("--session", channel.session) &&
           has("--control-port", channel.control.substr(channel.control.rfind(':') + 1));
}

bool is_channel(pid_t pid, std::uint64_t start, const channels::Channel& channel) {
    return pid > 1 && start != 0 && start_of(pid) == start && has_options_of(pid, channel);
}

// In the child: becomes the feed, or ends.
[[noreturn]] void become_feed(const RunConfig& config, char* const* words, const std::string& program,
                              int log) {
    setsid();
    // A shell starts what it puts in the background with interrupts ignored.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    if (config.has_scenario) {
        setenv("TESSEL_SCENARIO", scenario_text(config).c_str(), 1);
    }
    execv(program.c_str(), words);
    _exit(exec_failed_status);
}

bool note_process(const std::string& folder, const channels::Channel& channel, pid_t pid,
                  std::string& error) {
    const std::string start = std::to_string(start_of(pid)) + "\n";
    return channels::write_text_file(note_path(folder, channel, ".start"), start, error) &&
           channels::write_text_file(note_path(folder, channel, ".pid"), std::to_string(pid) + "\n", error);
}

// True when the process has ended within that time.
bool wait_for_end(int fd, int wait_ms) {
    pollfd waited{fd, POLLIN, 0};
    return poll(&waited, 1, wait_ms) > 0;
}

bool send_signal(int fd, int number) {
    return syscall(SYS_pidfd_send_signal, fd, number, nullptr, 0) == 0;
}

}  // namespace

pid_t start_channel(const std::string& folder, const channels::Channel& channel, const RunConfig& config,
                    const std::string& program, const std::string& log, std::string& error) {
    const int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
    if (log_fd < 0) {
        error = log + ": " + std::strerror(errno);
        return 0;
    }
    std::vector<std::string> arguments = feed_arguments(config);
    std::string name = "tessel";
    std::vector<char*> words = {name.data()};
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        become_feed(config, words.data(), program, log_fd);
    }
    close(log_fd);
    if (pid < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        return 0;
    }
    if (!note_process(folder, channel, pid, error)) {
        kill(pid, SIGKILL);  // our own child, not yet waited for: the number is its
        waitpid(pid, nullptr, 0);
        return 0;
    }
    return pid;
}

pid_t running_channel(const std::string& folder, const channels::Channel& channel) {
    const auto pid = static_cast<pid_t>(read_number(note_path(folder, channel, ".pid")));
    const std::uint64_t start = read_number(note_path(folder, channel, ".start"));
    return is_channel(pid, start, channel) ? pid : 0;
}

Stopping begin_stop(const std::string& folder, const channels::Channel& channel) {
    Stopping stopping;
    const pid_t noted = running_channel(folder, channel);
    if (noted == 0) {
        return stopping;
    }
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, noted, 0));
    // Looked at once more: between the first look and the descriptor the number may have gone to another.
    if (fd >= 0 && running_channel(folder, channel) != noted) {
        close(fd);
        return stopping;
    }
    stopping.pid = noted;
    stopping.fd = fd;
    if (fd >= 0) {
        send_signal(fd, SIGINT);
    }
    return stopping;
}

Stopping begin_stop_child(pid_t pid) {
    const Stopping stopping{pid, static_cast<int>(syscall(SYS_pidfd_open, pid, 0))};
    if (stopping.fd >= 0) {
        send_signal(stopping.fd, SIGINT);
    }
    return stopping;
}

Stopped end_stop(const std::string& folder, const channels::Channel& channel, Stopping& stopping,
                 int wait_ms) {
    Stopped result = Stopped::not_running;
    if (stopping.pid != 0) {
        if (stopping.fd >= 0 && wait_for_end(stopping.fd, wait_ms)) {
            result = Stopped::ended;
        } else {
            const bool killed = stopping.fd >= 0 && send_signal(stopping.fd, SIGKILL) &&
                                wait_for_end(stopping.fd, kill_wait_ms);
            result = killed ? Stopped::killed : Stopped::failed;
        }
        waitpid(stopping.pid, nullptr, WNOHANG);  // when it is a child of ours
    }
    if (stopping.fd >= 0) {
        close(stopping.fd);
    }
    if (result != Stopped::failed) {
        unlink(note_path(folder, channel, ".pid").c_str());
        unlink(note_path(folder, channel, ".start").c_str());
    }
    return result;
}

}  // namespace tessel::ctl
