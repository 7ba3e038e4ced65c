#include "certify/runner.h"

#include "certify/campaign.h"
#include "certify/case_run.h"
#include "certify/kept_files.h"
#include "certify/processes.h"
#include "certify/progress.h"
#include "certify/time_limits.h"
#include "ctl/run_command.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace tessel::certify {

namespace {

namespace fs = std::filesystem;

constexpr unsigned jobs_max = 16;
constexpr unsigned jobs_a_processor = 4;
constexpr std::size_t result_bytes_max = std::size_t{64} << 20;
constexpr double stop_seconds = 10;  // for cases to end their processes
// What a case may take beyond what it should, before it is ended: a hundred things may be slow in it.
constexpr double grace_seconds = 120;

// One run of one case with one handler.
struct Task {
    CaseJob job;
    CaseResult result;
    pid_t process = 0;
    int pipe = -1;
    std::string received;
    double started = 0;
    double limit = 0;  // when it is ended, on the steady clock
    bool ended_by_limit = false;
    bool done = false;
};

struct Runner {
    const Options& options;
    std::vector<Task> tasks;
    Reaped reaped;
    Progress progress;
    std::string folder;
    int signals = -1;
    int stop_signal = 0;
    unsigned jobs = 1;
};

volatile int stop_of_case = 0;

void note_stop(int /*number*/) {
    stop_of_case = 1;
}

// What measures how much a handler takes runs alone.
bool is_load(const Task& task) {
    return task.job.each->group == "load" || !task.job.each->load.rates.empty();
}

// In the case's process: runs it and writes the result to the pipe.
void be_case(Task& task, int pipe) {
    default_signals();
    struct sigaction action {};
    action.sa_handler = note_stop;
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    become_subreaper();
    std::error_code problem;
    fs::create_directories(task.job.folder, problem);
    remove_kept(task.job);
    Certificate one;
    one.cases.push_back(run_case(task.job, stop_of_case));
    fs::remove_all(task.job.folder, problem);
    if (stop_of_case != 0) {
        // When the parent was killed, the last case leaves an empty folder behind; otherwise the parent
        // removes it.
        fs::remove(fs::path(task.job.folder).parent_path(), problem);
    }
    std::string text = certificate_json(one);
    for (std::string_view left = text; !left.empty();) {
        const ssize_t put = write(pipe, left.data(), left.size());
        if (put < 0 && errno != EINTR) {
            break;
        }
        left.remove_prefix(put < 0 ? 0 : static_cast<std::size_t>(put));
    }
    _exit(0);
}

void finish_task(Runner& runner, Task& task) {
    Certificate one;
    std::string error;
    if (!task.ended_by_limit && parse_certificate(task.received, one, error) && one.cases.size() == 1) {
        task.result = std::move(one.cases.front());
    } else {
        CaseResult& result = task.result;
        result.handler = task.job.handler.name;
        result.name = task.job.each->name;
        result.group = task.job.each->group;
        result.title = task.job.each->title;
        result.seed = task.job.seed;
        result.command = task.job.command;
        result.seconds = steady_seconds() - task.started;
        result.verdict = Verdict::error;
        result.reason = task.ended_by_limit
                            ? fmt::format("the case was not over within {:.0f} s", result.seconds)
                            : "the process of the case ended without a result";
    }
    task.done = true;
    close(task.pipe);
    task.pipe = -1;
    std::error_code problem;
    fs::remove_all(task.job.folder, problem);
    note_done(runner.progress, task.result);
}

bool start_task(Runner& runner, Task& task) {
    int ends[2];
    std::string error;
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        print_error(std::string("pipe: ") + std::strerror(errno));
        return false;
    }
    task.started = steady_seconds();
    const double expected = expected_seconds(*task.job.each) + runner.options.ready_timeout_seconds;
    task.limit = task.started + time_scale_max * expected + grace_seconds;
    task.process = fork_child(SIGTERM, error);
    if (task.process == 0) {
        fcntl(ends[1], F_SETFL, 0);
        be_case(task, ends[1]);
    }
    close(ends[1]);
    task.pipe = ends[0];
    if (task.process < 0) {
        print_error(error);
        close(task.pipe);
        return false;
    }
    note_started(runner.progress, *task.job.each);
    return true;
}

void read_pipe(Task& task) {
    char block[65536];
    ssize_t length = 0;
    while (task.received.size() < result_bytes_max && (length = read(task.pipe, block, sizeof block)) > 0) {
        task.received.append(block, static_cast<std::size_t>(length));
    }
}

unsigned running(const Runner& runner) {
    return static_cast<unsigned>(
        std::count_if(runner.tasks.begin(), runner.tasks.end(),
                      [](const Task& task) { return task.process != 0 && !task.done; }));
}

// Starts what may run now. Load cases run alone, after all others.
bool start_due(Runner& runner) {
    for (Task& task : runner.tasks) {
        const unsigned now = running(runner);
        if (now >= runner.jobs || (is_load(task) && now != 0 && task.process == 0)) {
            return true;
        }
        if (task.process == 0 && !start_task(runner, task)) {
            return false;
        }
        if (is_load(task) && !task.done) {
            return true;
        }
    }
    return true;
}

void take_results(Runner& runner) {
    std::vector<pollfd> waited = {{runner.signals, POLLIN, 0}};
    for (const Task& task : runner.tasks) {
        if (task.pipe >= 0) {
            waited.push_back({task.pipe, POLLIN, 0});
        }
    }
    constexpr int wait_ms = 200;
    poll(waited.data(), waited.size(), wait_ms);
    signalfd_siginfo info{};
    while (read(runner.signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo != SIGCHLD) {
            runner.stop_signal = static_cast<int>(info.ssi_signo);
        }
    }
    reap(runner.reaped);
    for (Task& task : runner.tasks) {
        if (task.pipe >= 0) {
            read_pipe(task);
        }
        if (task.process != 0 && !task.done && has_ended(runner.reaped, task.process)) {
            read_pipe(task);
            finish_task(runner, task);
        } else if (task.process != 0 && !task.done && steady_seconds() > task.limit) {
            kill(task.process, task.ended_by_limit ? SIGKILL : SIGTERM);
            task.ended_by_limit = true;
            task.limit = steady_seconds() + stop_seconds;
        }
    }
}

// Ends every case: each ends its own processes, and what is left after some seconds is killed here.
void stop_all(Runner& runner) {
    for (const Task& task : runner.tasks) {
        if (task.process != 0 && !task.done) {
            kill(task.process, SIGTERM);
        }
    }
    const double end = steady_seconds() + stop_seconds;
    while (running(runner) != 0 && steady_seconds() < end) {
        take_results(runner);
    }
    kill_descendants(runner.reaped, {});
}

void taken_elsewhere(int /*number*/) {}

void block_signals(Runner& runner, sigset_t& before) {
    // A shell starts what it runs in the background with these ignored, and what is ignored never comes.
    struct sigaction action {};
    action.sa_handler = taken_elsewhere;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigset_t taken;
    sigemptyset(&taken);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        sigaddset(&taken, number);
    }
    sigprocmask(SIG_BLOCK, &taken, &before);
    runner.signals = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
}

std::string kept_folder(const Options& options, const Case& each, const std::string& handler_word,
                        std::uint64_t seed) {
    if (options.out.empty()) {
        return "";
    }
    std::string folder = options.out;
    if (options.handlers.size() > 1) {
        folder += "/" + handler_word;
    }
    folder += "/" + each.name;
    if (is_campaign(options.campaign)) {
        return folder + ".seed-" + std::to_string(seed);
    }
    return seed == options.seed ? folder : folder + "." + std::to_string(seed - options.seed + 1);
}

// Words for folders, one a handler: names that differ in other letters only get a number.
std::vector<std::string> handler_words(const std::vector<Handler>& handlers) {
    std::vector<std::string> words;
    for (const Handler& handler : handlers) {
        std::string word = file_word(handler.name);
        if (std::find(words.begin(), words.end(), word) != words.end()) {
            word += "-" + std::to_string(words.size() + 1);
        }
        words.push_back(std::move(word));
    }
    return words;
}

void list_tasks(Runner& runner, const std::vector<Case>& cases, std::span<const std::uint64_t> seeds,
                const std::string& feed_program) {
    const Options& options = runner.options;
    const std::vector<std::string> words = handler_words(options.handlers);
    for (const Case& each : cases) {
        for (const std::uint64_t seed : seeds) {
            for (std::size_t index = 0; index != options.handlers.size(); ++index) {
                Task task;
                task.job.each = &each;
                task.job.options = &options;
                task.job.handler = options.handlers[index];
                task.job.seed = seed;
                task.job.feed_program = feed_program;
                task.job.folder = runner.folder + "/" + std::to_string(runner.tasks.size() + 1);
                task.job.kept_folder = kept_folder(options, each, words[index], seed);
                task.job.command = command_alone(options, each, task.job.handler, task.job.seed);
                runner.tasks.push_back(std::move(task));
            }
        }
    }
    std::stable_partition(runner.tasks.begin(), runner.tasks.end(),
                          [](const Task& task) { return !is_load(task); });
}

// A folder of this run alone. Empty when there can be none.
std::string make_folder() {
    const char* const given = std::getenv("TMPDIR");
    std::string name =
        std::string(given != nullptr && *given != '\0' ? given : "/tmp") + "/tessel-certify-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        print_error(name + ": " + std::strerror(errno));
        return "";
    }
    return name;
}

unsigned default_jobs() {
    const long processors = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
    return static_cast<unsigned>(std::min<long>(processors * jobs_a_processor, jobs_max));
}

}  // namespace

std::string command_alone(const Options& options, const Case& each, const Handler& handler,
                          std::uint64_t seed) {
    const bool named = options.handlers.size() > 1 || handler.name != only_handler_name;
    std::string command = "tessel-certify --handler ";
    command += ctl::shell_word(named ? handler.name + "=" + handler.command : handler.command);
    const auto add = [&](const char* option, const std::string& value) {
        if (!value.empty()) {
            command += std::string(" ") + option + "=" + ctl::shell_word(value);
        }
    };
    add("--only", each.name);
    add("--seed", std::to_string(seed));
    add("--late-arg", options.late_arg);
    add("--ready", options.ready_text);
    if (options.ready_timeout_seconds != Options().ready_timeout_seconds) {
        add("--ready-timeout", fmt::format("{:g}", options.ready_timeout_seconds));
    }
    for (const std::string& folder : options.case_folders) {
        std::error_code problem;
        const fs::path whole = fs::absolute(folder, problem);
        add("--cases", problem ? folder : whole.string());
    }
    return command;
}

int run_cases(const Options& options, const std::vector<Case>& cases, std::span<const std::uint64_t> seeds,
              const std::string& feed_program, Certificate& certificate) {
    Runner runner{options, {}, {}, {}, make_folder()};
    if (runner.folder.empty()) {
        return SIGTERM;
    }
    sigset_t before;
    block_signals(runner, before);
    become_subreaper();
    runner.jobs = options.jobs != 0 ? options.jobs : default_jobs();
    list_tasks(runner, cases, seeds, feed_program);
    std::vector<const Case*> all;
    for (const Task& task : runner.tasks) {
        all.push_back(task.job.each);
    }
    begin_progress(runner.progress, all, runner.jobs);
    const auto is_over = [&] {
        return std::all_of(runner.tasks.begin(), runner.tasks.end(),
                           [](const Task& task) { return task.done; });
    };
    bool good = true;
    while (good && runner.stop_signal == 0 && !is_over()) {
        good = start_due(runner);
        take_results(runner);
        show_progress(runner.progress);
    }
    stop_all(runner);
    end_progress(runner.progress);
    std::error_code problem;
    fs::remove_all(runner.folder, problem);
    close(runner.signals);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    for (Task& task : runner.tasks) {
        if (task.done) {
            certificate.cases.push_back(std::move(task.result));
        }
    }
    return good ? runner.stop_signal : SIGTERM;
}

}  // namespace tessel::certify
