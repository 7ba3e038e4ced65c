#pragma once

#include <sys/types.h>
#include <map>
#include <string>
#include <vector>

// Child processes, and whatever they start: the process that calls these is a child subreaper.
namespace tessel::certify {

// From here on, orphans among the descendants become children of this process.
void become_subreaper();

struct ProgramStart {
    std::vector<std::string> words;      // program and arguments; the program is a path
    std::vector<std::string> variables;  // NAME=VALUE, added to the environment
    int output = -1;                     // standard output and standard error
};

// Starts a program in its own process group, its input empty, its signals as a program expects them. It
// is killed when this process ends. 0 with a reason in `error` when it cannot be started.
pid_t start_program(const ProgramStart& start, std::string& error);

// Makes a child that runs on in this program, in its own process group. It gets the signal when this
// process ends. 0 in the child, -1 with a reason in `error` when there can be none.
pid_t fork_child(int end_signal, std::string& error);

// Every signal at its default, none blocked.
void default_signals();

// Children that have ended, with their status as waitpid gives it.
struct Reaped {
    std::map<pid_t, int> statuses;
};

// Collects every child that has ended.
void reap(Reaped& reaped);

inline bool has_ended(const Reaped& reaped, pid_t child) {
    return reaped.statuses.contains(child);
}

// Whether a process group has a process; one that has ended counts until it is collected.
bool group_is_there(pid_t group);

// Kills the process group and then every descendant of this process, but for those kept, until none is left.
// A descendant that cannot be killed is given up after ten seconds.
void kill_descendants(Reaped& reaped, const std::vector<pid_t>& kept);

// A program's path: in TESSEL_BIN when that is set, else beside this program, else on the search path; empty
// when there is none.
std::string find_program(const std::string& name);

}  // namespace tessel::certify
