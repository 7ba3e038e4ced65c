#include "ctl/options.h"

#include "base/version.h"
#include "common/control_commands.h"
#include "common/nearest_word.h"
#include "ctl/channel_commands.h"
#include "ctl/commands.h"
#include "ctl/doctor.h"
#include "ctl/run_command.h"
#include "ctl/settings.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
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
  tesselctl channels plan --symbols symbols.txt --channels 24 --out day
  tesselctl channels up --dir day              start a feed a channel; status, stats, halt SYM, stop

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
    PlanCommand plan;
    ChannelsOptions channels;
    std::string channels_command;
    std::string argument;  // of a control command
    std::vector<std::string> further;
};

int fail(const std::string& error) {
    std::fprintf(stderr, "tesselctl: %s\n", error.c_str());
    return static_cast<int>(ExitStatus::asked_wrongly);
}

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

void add_channels_plan(CLI::App& channels, CommandLine& line) {
    using channels::Division;
    const std::map<std::string, Division> divisions = {
        {"range", Division::range}, {"hash", Division::hash}, {"count", Division::count}};
    CLI::App* const plan = add_command(
        channels, "plan", "Divide symbols into channels and write their configurations", "Commands");
    channels::PlanOptions& options = line.plan.options;
    plan->add_option("--symbols", line.plan.symbols, "File with SYMBOL:PRICE a line")->required();
    plan->add_option("--channels", options.channels, "Number of channels")->required();
    // The names are in the text, so that --help does not print the numbers behind them.
    plan->add_option("--by", options.by,
                     "range: alphabetical ranges; hash: by the symbol alone; count: in turn [range]")
        ->transform(CLI::CheckedTransformer(divisions, CLI::ignore_case).description(""))
        ->type_name("RULE");
    plan->add_option("--group-base", options.group_base,
                     "Multicast group of the first channel; others follow")
        ->capture_default_str();
    plan->add_option("--port-base", options.port_base, "First port; each channel has four, none twice")
        ->capture_default_str();
    plan->add_option("--iface", options.iface, "IPv4 address of the interface to send on")
        ->capture_default_str();
    // Its own check: the conversion to a number without a sign turns -1 into a large one.
    plan->add_option("--seed", options.seed, "Each channel's seed is made of this one")
        ->check(CLI::Validator([](std::string& text) { return value_error(Form::seed, text); }, ""))
        ->capture_default_str();
    plan->add_option("--out", line.plan.folder, "Folder for channels.json and the other files")->required();
    plan->footer(R"(tesselctl channels plan --symbols FILE --channels N [--by RULE] --out DIR

Examples:
  tesselctl channels plan --symbols symbols.txt --channels 24 --by range --out day)");
}

CLI::App* add_channels_command(CLI::App& channels, CommandLine& line, const std::string& name,
                               const std::string& text, const std::string& group) {
    CLI::App* const command = add_command(channels, name, text, group);
    command->add_option("--dir", line.channels.folder, "Folder of the plan")->required();
    return command;
}

void add_channels(CLI::App& app, CommandLine& line) {
    CLI::App* const channels =
        add_command(app, "channels", "Plan and run a feed of several channels", "Commands");
    channels->require_subcommand(1);
    add_channels_plan(*channels, line);
    add_channels_command(*channels, line, "up", "Start the feed of every channel; returns when all answer",
                         "Commands")
        ->footer(R"(tesselctl channels up --dir DIR [--json] [-- options of every feed]
Truth logs are DIR/truth/NAME.jsonl, standard error DIR/log/NAME.log, process numbers DIR/run/NAME.pid.

Examples:
  tesselctl channels up --dir day -- --interval-ms 100 --drop-every 1000)");
    add_channels_command(*channels, line, "status", "Rate, faults and gaps of every channel", "Commands")
        ->add_option("--interval", line.channels.interval_seconds, "Seconds to look at the channels")
        ->check(CLI::Range(0.01, 3600.0))
        ->capture_default_str();
    add_channels_command(*channels, line, "stats", "The counters of all channels, added up", "Commands");
    add_channels_command(*channels, line, "stop", "End the feeds that up has started", "Commands");
    for (const common::ControlCommand& each : common::control_commands()) {
        if (each.argument == common::Argument::symbol || each.word == "resume") {
            const std::string word(each.word);
            const std::string effect = word == "resume" ? "From halt or pause to quotation, then to trading"
                                                        : std::string(each.effect);
            CLI::App* const command = add_channels_command(
                *channels, line, word, effect + "; the symbol's channel is found", "Control commands");
            command->add_option("SYM", line.argument, "Symbol")->required();
        }
    }
}

int dispatch_channels(const std::string& command, CommandLine& line) {
    line.channels.json = line.plan.json = line.control.json;
    line.channels.timeout_ms = line.control.timeout_ms;
    line.channels.options = line.further;
    if (!line.further.empty() && command != "up") {
        return fail("-- and options of the feed go with channels up, not with channels " + command);
    }
    if (command == "plan") {
        return plan_channels(line.plan);
    }
    if (command == "up") {
        return channels_up(line.channels);
    }
    if (command == "status") {
        return channels_status(line.channels);
    }
    if (command == "stats") {
        return channels_stats(line.channels);
    }
    if (command == "stop") {
        return channels_stop(line.channels);
    }
    return channels_control(line.channels, command, line.argument);
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
    add_channels(app, line);
    add_control_commands(app, line);
    app.footer(examples);
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
    names.insert(names.end(), {"run", "script", "doctor", "account", "relay", "channels"});
    if (word.empty() || std::find(names.begin(), names.end(), word) != names.end()) {
        return "";
    }
    constexpr std::size_t shown_bytes_max = 40;
    return "unknown command '" + word.substr(0, shown_bytes_max) + "'" + common::did_you_mean(word, names);
}

int dispatch(const std::string& command, CommandLine& line) {
    if (!line.further.empty() && command != "run" && command != "channels") {
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
    if (command == "channels") {
        return dispatch_channels(line.channels_command, line);
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
    const CLI::App* const command = app.get_subcommands().front();
    if (!command->get_subcommands().empty()) {
        line.channels_command = command->get_subcommands().front()->get_name();
    }
    return dispatch(command->get_name(), line);
}

}  // namespace tessel::ctl
