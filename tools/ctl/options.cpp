#include "ctl/options.h"

#include "base/version.h"
#include "common/control_commands.h"
#include "common/nearest_word.h"
#include "ctl/commands.h"
#include "ctl/doctor.h"
#include "ctl/run_command.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace tessel::ctl {

namespace {

constexpr const char* examples = R"(Examples:
  tesselctl run --config day.toml              check the configuration, become the feed
  tesselctl run --dry-run -- --seed 9          only print the command
  tesselctl halt AAPL                          every control command is a command here
  tesselctl stats --json
  tesselctl script day.txt                     "+2.5s halt AAPL", "at seq 10000 drop 3", loops
  tesselctl doctor --iface 10.0.0.2            why does nothing arrive?
  tesselctl account --received 8000
  tesselctl relay --control 127.0.0.1:25190 line A drop=5%

tesselctl COMMAND --help has the options of a command.
Exit status: 0 done; 1 the feed answered err, or doctor found a problem; 2 asked wrongly; 3 nobody answers.)";

// Everything that a command line can say.
struct CommandLine {
    ControlOptions control;
    RunOptions run;
    StatsOptions stats;
    ScriptOptions script;
    std::string script_path;
    AccountOptions account;
    DoctorOptions doctor;
    std::vector<std::string> relay;  // words of a relay's command
    std::string argument;            // of a control command
    std::vector<std::string> further;
};

CLI::App* add_command(CLI::App& app, const std::string& name, const std::string& text,
                      const std::string& group) {
    CLI::App* const command = app.add_subcommand(name, text);
    command->group(group);
    command->fallthrough();  // --control and --json are also accepted after the command
    command->option_defaults()->take_last();
    return command;
}

void add_run(CLI::App& app, CommandLine& line) {
    CLI::App* const run = add_command(app, "run", "Check a run, then become the feed", "Commands");
    run->add_option("--config", line.run.config, "TOML file: [feed], [faults], [scenario]");
    run->add_flag("--dry-run", line.run.dry_run, "Check everything, print the command and start nothing");
    run->footer(R"(tesselctl run [--config FILE] [--dry-run] [--json] [-- options of the feed]
What follows -- are options of the feed's own command line; they win over the file.

Examples:
  tesselctl run --config day.toml
  tesselctl run --config day.toml --dry-run -- --seed 9)");
}

void add_stats(CLI::App& app, CommandLine& line) {
    CLI::App* const stats =
        add_command(app, "stats", "All counters, the next sequence number, the faults", "Commands");
    stats->add_flag("--watch", line.stats.watch, "A line of rates every interval, until stopped");
    stats->add_option("--interval", line.stats.interval_seconds, "Seconds between two lines of --watch")
        ->check(CLI::Range(0.01, 86400.0))
        ->capture_default_str();
    stats->add_option("--count", line.stats.count, "End --watch after this many lines; 0: never")
        ->capture_default_str();
}

void add_script(CLI::App& app, CommandLine& line) {
    CLI::App* const script = add_command(app, "script", "Play a timeline of commands", "Commands");
    script->add_option("FILE", line.script_path, "Timeline; - is standard input")->required();
    script
        ->add_option("--poll-ms", line.script.poll_ms,
                     "Time between two looks at the feed while a line waits for a number")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    script->footer(R"(A line of the timeline is one of
  +2.5s halt AAPL               a time since the start: 1h30m, 2.5s, 250ms, 90
  at seq 10000 drop 3           in the first pass in which the next number is 10000 or more
  +1m loop 3 every 20s          three rounds; the times inside count from the beginning of a round
  at seq 1000 loop 5 every 500  five rounds; the numbers inside are added to the round's
  end                           of a loop
and # begins a comment. Everything is checked before anything is done.)");
}

void add_doctor(CLI::App& app, CommandLine& line) {
    CLI::App* const doctor = add_command(app, "doctor", "Say why nothing of a feed arrives", "Commands");
    DoctorOptions& options = line.doctor;
    doctor->add_option("--mcast", options.group, "Multicast group")->capture_default_str();
    doctor->add_option("--port", options.port, "UDP port of the group")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    doctor->add_option("--iface", options.iface, "IPv4 address of the interface to receive on")
        ->capture_default_str();
    doctor->add_option("--retrans", options.retrans, "HOST:PORT of the retransmission service")
        ->capture_default_str();
    doctor->add_option("--snapshot", options.snapshot, "HOST:PORT of the Snap-Shot service")
        ->capture_default_str();
    doctor->add_option("--seconds", options.seconds, "How long to count what arrives")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
}

void add_account(CLI::App& app, CommandLine& line) {
    CLI::App* const account = add_command(
        app, "account", "Messages sent, damaged on purpose, received, lost on the way", "Commands");
    CLI::Option* const received =
        account->add_option("--received", line.account.received, "Messages that the receiver has")
            ->check(CLI::NonNegativeNumber);
    account
        ->add_option("--listen-summary", line.account.listen_summary,
                     "The same, from what tessel-listen wrote to standard error")
        ->excludes(received);
    account->add_option(
        "--feed-log", line.account.feed_log,
        "What the feed wrote to standard error: counts the messages of dropped packets exactly");
}

void add_relay(CLI::App& app, CommandLine& line) {
    CLI::App* const relay = add_command(app, "relay", "A command for tessel-relay", "Commands");
    relay->add_option("WORDS", line.relay, "line NAME KEY=VALUE, stats or stop")->required()->take_all();
    relay->footer(R"(tesselctl relay --control HOST:PORT WORDS...

Examples:
  tesselctl relay --control 127.0.0.1:25190 line A drop=5%
  tesselctl relay --control 127.0.0.1:25190 stats)");
}

void add_control_commands(CLI::App& app, CommandLine& line) {
    for (const common::ControlCommand& each : common::control_commands()) {
        if (each.word == "stats") {
            continue;
        }
        CLI::App* const command =
            add_command(app, std::string(each.word), std::string(each.effect), "Control commands");
        if (each.argument != common::Argument::none) {
            std::string name(each.usage.substr(each.word.size() + 1));
            std::erase_if(name, [](char letter) { return letter == '[' || letter == ']'; });
            command->add_option(name, line.argument, "");
        }
        command->footer("tesselctl [--control HOST:PORT] [--json] " + std::string(each.usage));
    }
}

void declare(CLI::App& app, CommandLine& line) {
    app.set_version_flag("--version", version_line("tesselctl"));
    app.add_option("--control", line.control.endpoint, "HOST:PORT of the feed's control channel")
        ->take_last()
        ->capture_default_str();
    app.add_option("--timeout-ms", line.control.timeout_ms, "How long a reply may take")
        ->check(CLI::Range(1, 600'000))
        ->take_last()
        ->capture_default_str();
    app.add_flag("--json", line.control.json, "Results as JSON, one object a line");
    app.require_subcommand(1);
    add_run(app, line);
    add_stats(app, line);
    add_script(app, line);
    add_doctor(app, line);
    add_account(app, line);
    add_relay(app, line);
    add_control_commands(app, line);
    app.footer(examples);
}

int fail(const std::string& error) {
    std::fprintf(stderr, "tesselctl: %s\n", error.c_str());
    return static_cast<int>(ExitStatus::asked_wrongly);
}

// What is wrong with the word where the command should be; empty when it is one, or when there is no word.
std::string unknown_command(int count, const char* const* words) {
    std::string word;
    for (int at = 1; at < count && word.empty(); ++at) {
        const std::string each = words[at];
        if (each == "--control" || each == "--timeout-ms") {
            ++at;  // their value
        } else if (!each.starts_with("-")) {
            word = each;
        }
    }
    std::vector<std::string_view> names;
    for (const common::ControlCommand& command : common::control_commands()) {
        names.push_back(command.word);
    }
    names.insert(names.end(), {"run", "script", "doctor", "account", "relay"});
    if (word.empty() || std::find(names.begin(), names.end(), word) != names.end()) {
        return "";
    }
    constexpr std::size_t shown_bytes_max = 40;
    return "unknown command '" + word.substr(0, shown_bytes_max) + "'" + common::did_you_mean(word, names);
}

int dispatch(const std::string& command, CommandLine& line) {
    if (!line.further.empty() && command != "run") {
        return fail("-- and options of the feed go with run, not with " + command);
    }
    if (command == "run") {
        line.run.json = line.control.json;
        line.run.options = line.further;
        return run(line.run);
    }
    if (command == "stats") {
        return show_stats(line.control, line.stats);
    }
    if (command == "script") {
        line.script.json = line.control.json;
        return script(line.control, line.script_path, line.script);
    }
    if (command == "doctor") {
        line.doctor.json = line.control.json;
        return doctor(line.doctor);
    }
    if (command == "account") {
        if (line.account.received < 0 && line.account.listen_summary.empty()) {
            return fail("account needs --received N or --listen-summary FILE");
        }
        return account(line.control, line.account);
    }
    if (command == "relay") {
        std::string words;
        for (const std::string& word : line.relay) {
            words += (words.empty() ? "" : " ") + word;
        }
        return plain_command(line.control, words);
    }
    return control_command(line.control, command + (line.argument.empty() ? "" : " " + line.argument));
}

}  // namespace

int run_command_line(int argc, const char* const* argv) {
    CommandLine line;
    // What follows "--" belongs to the feed, and is not looked at here.
    int own = 1;
    while (own < argc && std::string(argv[own]) != "--") {
        ++own;
    }
    for (int at = own + 1; at < argc; ++at) {
        line.further.emplace_back(argv[at]);
    }
    CLI::App app("Starts, steers and examines a tessel feed.", "tesselctl");
    declare(app, line);
    try {
        app.parse(own, argv);
    } catch (const CLI::Success& end) {  // --help, --version
        return app.exit(end);
    } catch (const CLI::ParseError& fault) {
        const std::string unknown = unknown_command(own, argv);
        const std::string text = unknown.empty() ? fault.what() : unknown;
        return fail(text.substr(0, text.find('\n')) + "; see tesselctl --help");
    }
    return dispatch(app.get_subcommands().front()->get_name(), line);
}

}  // namespace tessel::ctl
