#include "certify/options.h"

#include "base/version.h"
#include "certify/campaign.h"
#include "certify/catalog.h"

#include <CLI/CLI.hpp>

#include <unistd.h>
#include <algorithm>
#include <iostream>
#include <set>

namespace tessel::certify {

namespace {

constexpr const char* description =
    "Runs a catalog of cases against a feed handler and names what is wrong with it.";

constexpr const char* footer = R"(Examples:
  tessel-certify --handler './my_handler --group {group} --port {port} --iface {iface}
      --retrans {retrans} --snapshot {snapshot} --session {session} {late} --out {out}' --late-arg=--late
  tessel-certify --handler ./run.sh --group decode,book --html scorecard.html --out failures
  tessel-certify --handler old=./old.sh --handler new=./new.sh --only loss/one_packet --repeat 20
  tessel-certify --handler ./run.sh --campaign seeds=1..1000 --job 3/8 --json job-3.json
  tessel-certify --merge job-*.json --json all.json --html scorecard.html
  tessel-certify --list
  tessel-certify --explain loss/one_packet

Placeholders of the command: {group} {port} {iface} {session} {retrans} {snapshot} {out} {late}; also as
TESSEL_GROUP, TESSEL_PORT, ... in its environment, its case in TESSEL_CASE. A handler that ends with
status 127 does not support the case. Programs and cases: TESSEL_BIN and TESSEL_CASES name other folders.
Exit status: 0 every case passed or was skipped, 1 one failed or none passed, 2 nothing could be run.)";

struct Texts {
    std::vector<std::string> handlers;
    std::vector<std::string> groups;
    std::vector<std::string> names;
    std::string ready;
    std::string campaign;
    std::string job;
};

void declare(CLI::App& app, Options& o, Texts& texts) {
    app.set_version_flag("--version", version_line("tessel-certify"));
    app.add_option("--handler", texts.handlers,
                   "COMMAND or NAME=COMMAND of a handler, for /bin/sh; may be repeated")
        ->take_all();
    app.add_option("--late-arg", o.late_arg, "What {late} becomes where the handler is started in mid-run");
    app.add_option("--ready", texts.ready,
                   "file:PATH, port:N, line:TEXT or delay:S: when the handler is ready (default: it joined)");
    app.add_option("--ready-timeout", o.ready_timeout_seconds, "Seconds that it may take")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
    app.add_option("--group", texts.groups, "Groups of cases to run, with commas between")->take_all();
    app.add_option("--only", texts.names, "Cases to run, GROUP/CASE, with commas between")->take_all();
    app.add_option("--cases", o.case_folders, "A folder with cases to add, DIR/GROUP/CASE.toml")->take_all();
    app.add_option("--repeat", o.repeat, "Run each case N times, each time with the next seed")
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    app.add_option("--seed", o.seed, "Seed of the run; the feed of each case gets one made of it")
        ->capture_default_str();
    app.add_option("--campaign", texts.campaign,
                   "seeds=A..B: run each case with each of these seeds; needs --json");
    app.add_option("--job", texts.job,
                   "J/N: of the campaign's seeds those of the J-th of N jobs (default: 1/1)");
    app.add_option("--merge", o.merge_paths, "Add up FILES that --json wrote, and report the sum")
        ->take_all()
        ->type_name("FILE...");
    app.add_option("--jobs", o.jobs, "Cases side by side (default: four for each processor, at most 16)")
        ->check(CLI::Range(1, 256));
    app.add_option("--out", o.out, "Keep the files of cases that fail in DIR/GROUP/CASE");
    app.add_option("--json", o.json_path, "Write the results as JSON, - for standard output");
    app.add_option("--junit", o.junit_path, "Write the results as JUnit XML");
    app.add_option("--summary-md", o.markdown_path, "Write a summary in Markdown");
    app.add_option("--html", o.html_path, "Write the scorecard, one HTML page");
    app.add_option("--about", o.about, "A line for the head of every report; may be repeated")->take_all();
    app.add_flag("--list", o.list, "Name the cases, a line each, and end");
    app.add_option("--explain", o.explain, "Describe the case GROUP/CASE and end");
    app.footer(footer);
}

std::vector<std::string> split_all(const std::vector<std::string>& texts) {
    std::vector<std::string> parts;
    for (const std::string& text : texts) {
        for (std::string& part : split_list(text)) {
            parts.push_back(std::move(part));
        }
    }
    return parts;
}

// What is before the first '=' when it can be the name of a handler.
std::string name_before_equals(const std::string& text) {
    constexpr std::size_t name_bytes_max = 60;
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals > name_bytes_max) {
        return "";
    }
    const std::string name = text.substr(0, equals);
    const bool is_path = name[0] == '.' || name[0] == '/' || name[0] == '~' || name[0] == '$';
    return is_path || name.find_first_of(" \t\n'\"{}\\") != std::string::npos ? "" : name;
}

// NAME=VALUE at the beginning of a shell's command: a variable of the environment, by custom in capitals.
bool is_environment_name(const std::string& name) {
    return name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") == std::string::npos;
}

std::string check_campaign(const CLI::App& app, const Texts& texts, Options& o) {
    std::string error;
    if (app.count("--campaign") == 0) {
        return app.count("--job") == 0 ? "" : "--job needs --campaign seeds=A..B";
    }
    if (app.count("--seed") != 0 || app.count("--repeat") != 0) {
        return "--campaign chooses the seeds: neither --seed nor --repeat goes with it";
    }
    if (o.json_path.empty() || o.json_path == "-") {
        return "--campaign needs --json FILE, the file that --merge reads";
    }
    if (!parse_campaign(texts.campaign, o.campaign, error)) {
        return "--campaign: " + error;
    }
    if (app.count("--job") != 0 && !parse_job(texts.job, o.campaign, error)) {
        return "--job: " + error;
    }
    o.seed = o.campaign.first;
    return "";
}

std::string check_merge(const CLI::App& app) {
    for (const char* other :
         {"--handler", "--campaign", "--job", "--only", "--group", "--seed", "--repeat"}) {
        if (app.count(other) != 0) {
            return std::string("--merge runs nothing, so ") + other + " does not go with it";
        }
    }
    return "";
}

std::string check(const CLI::App& app, const Texts& texts, Options& o) {
    std::string error;
    if (!o.merge_paths.empty()) {
        return check_merge(app);
    }
    if (app.count("--ready") != 0) {
        o.ready_text = texts.ready;
        if (!parse_ready(texts.ready, o.ready, error)) {
            return "--ready: " + error;
        }
    }
    o.groups = split_all(texts.groups);
    o.names = split_all(texts.names);
    if ((app.count("--group") != 0 && o.groups.empty()) || (app.count("--only") != 0 && o.names.empty())) {
        return "--group and --only need a name";
    }
    if (o.list || !o.explain.empty()) {
        return "";
    }
    error = check_campaign(app, texts, o);
    if (!error.empty()) {
        return error;
    }
    if (texts.handlers.empty()) {
        return "--handler is missing: the command that starts your handler";
    }
    return parse_handlers(texts.handlers, o.handlers, error) ? "" : error;
}

}  // namespace

bool parse_handlers(const std::vector<std::string>& texts, std::vector<Handler>& handlers,
                    std::string& error) {
    std::set<std::string> names;
    const bool only = texts.size() == 1;
    for (const std::string& text : texts) {
        Handler handler;
        handler.name = name_before_equals(text);
        if (only && (handler.name.empty() || is_environment_name(handler.name))) {
            handler.name = only_handler_name;
            handler.command = text;
        } else if (handler.name.empty()) {
            error = "--handler: '" + text + "' has no name: of several handlers each is NAME=COMMAND";
            return false;
        } else {
            handler.command = text.substr(handler.name.size() + 1);
        }
        if (handler.command.find_first_not_of(" \t\n") == std::string::npos) {
            error = "--handler: '" + text + "' has no command";
            return false;
        }
        if (!names.insert(handler.name).second) {
            error = "--handler: the name '" + handler.name + "' is there twice";
            return false;
        }
        handlers.push_back(std::move(handler));
    }
    return true;
}

int parse_options(Options& options, int argc, const char* const* argv) {
    CLI::App app(description, "tessel-certify");
    app.option_defaults()->take_last();
    Texts texts;
    declare(app, options, texts);
    std::string error;
    try {
        app.parse(argc, argv);
        error = check(app, texts, options);
    } catch (const CLI::Success& wanted) {
        app.exit(wanted);
        return std::cout.flush() ? status_passed : status_bad_input;
    } catch (const CLI::ParseError& fault) {
        error = fault.what();
    }
    if (error.empty()) {
        return -1;
    }
    print_error(error + " (see --help)");
    return status_bad_input;
}

std::string error_line(std::string_view text) {
    constexpr std::string_view name = "tessel-certify: ";
    constexpr std::string_view cut = " ... ";
    std::string line(name);
    const std::size_t room = error_bytes_max - name.size();
    if (text.size() <= room) {
        line += text;
    } else {
        const std::size_t head = (room - cut.size()) / 2;
        line += text.substr(0, head);
        line += cut;
        line += text.substr(text.size() - (room - cut.size() - head));
    }
    for (char& letter : line) {
        if (static_cast<unsigned char>(letter) < 0x20 || letter == 0x7f) {
            letter = ' ';
        }
    }
    return line + "\n";
}

void print_error(std::string_view text) {
    const std::string line = error_line(text);
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
        return;  // there is nobody to say it to
    }
}

}  // namespace tessel::certify
