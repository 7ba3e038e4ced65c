#include "ctl/run_command.h"

#include "ctl/json_text.h"
#include "ctl/run_checks.h"

#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tessel::ctl {

namespace {

constexpr int status_asked_wrongly = 2;

void print_faults(const std::vector<std::string>& faults) {
    for (const std::string& fault : faults) {
        std::fprintf(stderr, "tesselctl: %s\n", fault.c_str());
    }
}

int become_feed(const RunConfig& config, const std::string& program) {
    std::vector<std::string> arguments = feed_arguments(config);
    std::vector<char*> words;
    std::string name = "tessel";
    words.push_back(name.data());
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    if (config.has_scenario) {
        setenv("TESSEL_SCENARIO", scenario_text(config).c_str(), 1);
    }
    execv(program.c_str(), words.data());
    std::fprintf(stderr, "tesselctl: %s: %s\n", program.c_str(), std::strerror(errno));
    return status_asked_wrongly;
}

}  // namespace

std::string find_feed() {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    if (length > 0 && length < static_cast<ssize_t>(sizeof self)) {
        std::string beside(self, static_cast<std::size_t>(length));
        beside.resize(beside.rfind('/') + 1);
        beside += "tessel";
        if (access(beside.c_str(), X_OK) == 0) {
            return beside;
        }
    }
    const char* search = std::getenv("PATH");
    std::string folders = search == nullptr ? "" : search;
    while (!folders.empty()) {
        const std::size_t colon = folders.find(':');
        std::string candidate = folders.substr(0, colon) + "/tessel";
        if (candidate != "/tessel" && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        folders.erase(0, colon == std::string::npos ? folders.size() : colon + 1);
    }
    return "";
}

std::string shell_word(const std::string& text) {
    constexpr std::string_view plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,=+@%";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char letter : text) {
        quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    }
    return quoted + "'";
}

std::string command_line(const RunConfig& config, const std::string& program) {
    std::string text;
    if (config.has_scenario) {
        text = "TESSEL_SCENARIO=" + shell_word(scenario_text(config)) + " ";
    }
    text += shell_word(program);
    for (const std::string& argument : feed_arguments(config)) {
        text += " " + shell_word(argument);
    }
    return text;
}

int run(const RunOptions& options) {
    RunConfig config;
    std::vector<std::string> faults;
    if (!options.config.empty()) {
        read_run_config_file(options.config, config, faults);
    }
    add_options(options.options, config, faults);
    const bool readable = faults.empty();
    const std::string program = find_feed();
    if (readable) {
        check_host(config, faults);
        if (program.empty()) {
            faults.push_back("no program 'tessel' beside this one or on the search path");
        }
    }
    if (readable && options.dry_run) {
        const std::string name = program.empty() ? "tessel" : program;
        const std::string text = options.json ? command_json(config, name) : command_line(config, name);
        std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    }
    print_faults(faults);
    if (!faults.empty()) {
        return status_asked_wrongly;
    }
    return options.dry_run ? 0 : become_feed(config, program);
}

}  // namespace tessel::ctl
