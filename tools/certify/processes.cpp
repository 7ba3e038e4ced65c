#include "certify/processes.h"

#include "certify/file_text.h"
#include "certify/time_limits.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>

namespace tessel::certify {

namespace {

namespace fs = std::filesystem;

constexpr double kill_seconds_max = 10;
constexpr int not_started = 126;

// In a new child: it ends with its parent, also when that ended before this was asked for.
void end_with_parent(pid_t parent, int end_signal) {
    prctl(PR_SET_PDEATHSIG, end_signal);
    if (getppid() != parent) {
        _exit(not_started);
    }
}

// The environment with the variables added or replaced, and without the scenario that a feed of ours would
// read.
std::vector<std::string> environment_with(const std::vector<std::string>& variables) {
    std::vector<std::string> all = variables;
    for (char** each = environ; *each != nullptr; ++each) {
        const std::string_view variable = *each;
        const std::string_view name = variable.substr(0, variable.find('=') + 1);
        const bool replaced = std::any_of(variables.begin(), variables.end(),
                                          [&](const std::string& added) { return added.starts_with(name); });
        if (!replaced && name != "TESSEL_SCENARIO=") {
            all.emplace_back(variable);
        }
    }
    return all;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The parent of a process, by its line in /proc; 0 when it is gone.
pid_t parent_of(pid_t process) {
    const std::string text = file_text("/proc/" + std::to_string(process) + "/stat");
    const std::size_t name_end = text.rfind(')');  // the name may hold anything
    if (name_end == std::string::npos || name_end + 4 >= text.size()) {
        return 0;
    }
    pid_t parent = 0;
    const char* const begin = text.data() + name_end + 4;  // ") S PARENT"
    std::from_chars(begin, text.data() + text.size(), parent);
    return parent;
}

// All processes with their parents.
std::map<pid_t, pid_t> all_processes() {
    std::map<pid_t, pid_t> parents;
    std::error_code problem;
    for (fs::directory_iterator at("/proc", problem), end; !problem && at != end; at.increment(problem)) {
        const std::string name = at->path().filename().string();
        pid_t process = 0;
        const char* const stop = name.data() + name.size();
        if (std::from_chars(name.data(), stop, process).ptr == stop && process > 0) {
            parents[process] = parent_of(process);
        }
    }
    return parents;
}

// Every descendant of this process, those below a kept one excluded.
std::set<pid_t> descendants(const std::vector<pid_t>& kept) {
    const std::map<pid_t, pid_t> parents = all_processes();
    std::set<pid_t> found;
    const pid_t self = getpid();
    bool grown = true;
    while (grown) {
        grown = false;
        for (const auto& [process, parent] : parents) {
            const bool ours = parent == self || found.contains(parent);
            if (ours && std::find(kept.begin(), kept.end(), process) == kept.end()) {
                grown = found.insert(process).second || grown;
            }
        }
    }
    return found;
}

}  // namespace

void default_signals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        sigaction(number, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void become_subreaper() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

pid_t fork_child(int end_signal, std::string& error) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        error = std::string("fork: ") + std::strerror(errno);
    } else if (child == 0) {
        setpgid(0, 0);
        end_with_parent(parent, end_signal);
    } else {
        setpgid(child, child);  // whoever comes first; the other call does no harm
    }
    return child;
}

pid_t start_program(const ProgramStart& start, std::string& error) {
    std::vector<std::string> words = start.words;
    std::vector<std::string> environment = environment_with(start.variables);
    const std::vector<char*> word_pointers = pointers_to(words);
    const std::vector<char*> environment_pointers = pointers_to(environment);
    const pid_t child = fork_child(SIGKILL, error);
    if (child != 0) {
        return std::max(child, 0);
    }
    default_signals();
    const int input = open("/dev/null", O_RDONLY);
    dup2(input, STDIN_FILENO);
    dup2(start.output, STDOUT_FILENO);
    dup2(start.output, STDERR_FILENO);
    if (input > STDERR_FILENO) {
        close(input);
    }
    execve(word_pointers[0], word_pointers.data(), environment_pointers.data());
    const std::string reason = "tessel-certify: " + words[0] + ": " + std::strerror(errno) + "\n";
    if (write(STDERR_FILENO, reason.data(), reason.size()) < 0) {
        _exit(not_started);
    }
    _exit(not_started);
}

void reap(Reaped& reaped) {
    int status = 0;
    pid_t child = 0;
    while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
        reaped.statuses[child] = status;
    }
}

bool group_is_there(pid_t group) {
    return group > 0 && (kill(-group, 0) == 0 || errno == EPERM);
}

void kill_descendants(Reaped& reaped, const std::vector<pid_t>& kept) {
    const double end = steady_seconds() + kill_seconds_max;
    for (;;) {
        reap(reaped);
        const std::set<pid_t> left = descendants(kept);
        if (left.empty() || steady_seconds() > end) {
            return;
        }
        // Stopped first, so that none makes another while the rest is being killed.
        for (const pid_t process : left) {
            kill(process, SIGSTOP);
        }
        for (const pid_t process : left) {
            kill(process, SIGKILL);
        }
        poll(nullptr, 0, 2);
    }
}

std::string find_program(const std::string& name) {
    const auto usable = [](const std::string& path) { return access(path.c_str(), X_OK) == 0; };
    if (const char* const folder = std::getenv("TESSEL_BIN")) {
        std::string path = std::string(folder) + "/" + name;
        return usable(path) ? path : "";
    }
    std::error_code problem;
    const fs::path self = fs::read_symlink("/proc/self/exe", problem);
    if (!problem && usable((self.parent_path() / name).string())) {
        return (self.parent_path() / name).string();
    }
    const char* const search = std::getenv("PATH");
    std::string folders = search == nullptr ? "" : search;
    while (!folders.empty()) {
        const std::size_t colon = folders.find(':');
        std::string path = folders.substr(0, colon) + "/" + name;
        if (colon != 0 && usable(path)) {
            return path;
        }
        folders.erase(0, colon == std::string::npos ? folders.size() : colon + 1);
    }
    return "";
}

}  // namespace tessel::certify
