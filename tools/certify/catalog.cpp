#include "certify/catalog.h"

#include "certify/case_file.h"
#include "common/nearest_word.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <tuple>

namespace tessel::certify {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 7> groups_in_order = {"decode", "book",   "events", "loss",
                                                             "join",   "robust", "load"};
// More than anybody writes by hand; keeps a wrong folder from being read for hours.
constexpr std::size_t cases_max = 10'000;
constexpr std::size_t text_columns = 100;

std::size_t rank(const std::string& group) {
    return static_cast<std::size_t>(std::find(groups_in_order.begin(), groups_in_order.end(), group) -
                                    groups_in_order.begin());
}

// The entries of a folder by name; a reason in `faults` when it cannot be read.
std::vector<fs::path> entries_of(const fs::path& folder, std::vector<std::string>& faults) {
    std::vector<fs::path> entries;
    std::error_code problem;
    for (fs::directory_iterator at(folder, problem), end; !problem && at != end; at.increment(problem)) {
        entries.push_back(at->path());
    }
    if (problem) {
        faults.push_back(folder.string() + ": " + problem.message());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

bool is_there(const std::vector<Case>& cases, const std::string& name) {
    return std::any_of(cases.begin(), cases.end(), [&](const Case& each) { return each.name == name; });
}

void add_group(const fs::path& folder, std::vector<Case>& cases, std::vector<std::string>& faults) {
    const std::string group = folder.filename().string();
    for (const fs::path& file : entries_of(folder, faults)) {
        if (file.extension() != ".toml") {
            continue;
        }
        if (!is_case_word(group) || !is_case_word(file.stem().string())) {
            faults.push_back(file.string() + ": name group and case with letters, digits, '_' and '-'");
            continue;
        }
        Case each;
        if (!read_case_file(file.string(), each, faults)) {
            continue;
        }
        if (is_there(cases, each.name)) {
            faults.push_back(file.string() + ": there is a case " + each.name + " already");
        } else if (cases.size() == cases_max) {
            faults.push_back(file.string() + ": too many cases");
            return;
        } else {
            cases.push_back(std::move(each));
        }
    }
}

// Text broken between words, each line indented.
std::string wrapped(std::string_view text, std::string_view indent) {
    std::string out;
    std::size_t column = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(' '), text.size());
        if (column != 0 && column + 1 + end > text_columns) {
            out += '\n';
            column = 0;
        }
        out += column == 0 ? indent : " ";
        out += text.substr(0, end);
        column += end + (column == 0 ? indent.size() : 1);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return out + "\n";
}

}  // namespace

std::string catalog_folder() {
    if (const char* const given = std::getenv("TESSEL_CASES")) {
        return given;
    }
    std::error_code problem;
    const fs::path program = fs::read_symlink("/proc/self/exe", problem);
    const fs::path beside = program.parent_path();
    // build/PRESET/tessel-certify of a source tree; PREFIX/bin/tessel-certify where it is installed.
    for (const fs::path& folder :
         {beside.parent_path().parent_path() / "certify/cases",
          beside.parent_path() / "share/tessel/certify/cases", fs::path("/usr/share/tessel/certify/cases")}) {
        if (!folder.empty() && fs::is_directory(folder, problem)) {
            return folder.string();
        }
    }
    return "";
}

bool add_cases(const std::string& folder, std::vector<Case>& cases, std::vector<std::string>& faults) {
    const std::size_t before = faults.size();
    for (const fs::path& group : entries_of(folder, faults)) {
        std::error_code problem;
        if (fs::is_directory(group, problem)) {
            add_group(group, cases, faults);
        }
    }
    return faults.size() == before;
}

void sort_cases(std::vector<Case>& cases) {
    std::sort(cases.begin(), cases.end(), [](const Case& left, const Case& right) {
        const std::size_t left_rank = rank(left.group);
        const std::size_t right_rank = rank(right.group);
        return std::tie(left_rank, left.group, left.name) < std::tie(right_rank, right.group, right.name);
    });
}

bool select_cases(const std::vector<std::string>& groups, const std::vector<std::string>& names,
                  std::vector<Case>& cases, std::string& error) {
    std::vector<std::string_view> known_groups;
    std::vector<std::string_view> known_names;
    for (const Case& each : cases) {
        known_groups.push_back(each.group);
        known_names.push_back(each.name);
    }
    for (const std::string& group : groups) {
        if (std::find(known_groups.begin(), known_groups.end(), group) == known_groups.end()) {
            error = "--group: there is no group '" + group + "'" + common::did_you_mean(group, known_groups);
            return false;
        }
    }
    for (const std::string& name : names) {
        if (std::find(known_names.begin(), known_names.end(), name) == known_names.end()) {
            error = "--only: there is no case '" + name + "'" + common::did_you_mean(name, known_names) +
                    " (--list names them)";
            return false;
        }
    }
    std::erase_if(cases, [&](const Case& each) {
        const bool in_groups =
            groups.empty() || std::find(groups.begin(), groups.end(), each.group) != groups.end();
        const bool in_names =
            names.empty() || std::find(names.begin(), names.end(), each.name) != names.end();
        return !in_groups || !in_names;
    });
    if (cases.empty()) {
        error = "no case is both in --group and in --only";
    }
    return !cases.empty();
}

std::string list_text(const std::vector<Case>& cases) {
    std::string text;
    for (const Case& each : cases) {
        text += each.name + "  " + each.title + "\n";
    }
    return text;
}

std::string explain_text(const Case& each) {
    std::string text = each.name + ": " + each.title + "\n";
    const auto section = [&](const char* head, const std::string& body) {
        if (!body.empty()) {
            text += fmt::format("\n{}\n{}", head, wrapped(body, "  "));
        }
    };
    section("What it proves", each.proves);
    section("Why it matters", each.why);
    section("Read", each.page);
    std::string options;
    for (const std::string& word : each.feed_options) {
        options += (options.empty() ? "" : " ") + word;
    }
    section("Options of the feed", options);
    section("Scenario", each.scenario);
    if (!each.timeline.commands.empty()) {
        text += "\nTimeline\n";
        for (const common::TimelineCommand& command : each.timeline.commands) {
            text += "  line " + std::to_string(command.line) + ": " + command.text + "\n";
        }
    }
    std::string traffic;
    for (const Traffic& kind : each.traffic) {
        traffic += (traffic.empty() ? "" : ", ") + kind.kind;
    }
    section("Extra traffic", traffic);
    section("Start of the handler",
            each.start == Start::late
                ? fmt::format("{:g} s after the feed, with {{late}}; it runs for {:g} s", each.late_after,
                              each.seconds)
                : fmt::format("before the feed, which then runs for {:g} s", each.seconds));
    section("File", each.file);
    return text;
}

std::vector<std::string> split_list(const std::string& text) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(',', at), text.size());
        if (end != at) {
            parts.push_back(text.substr(at, end - at));
        }
        at = end + 1;
    }
    return parts;
}

}  // namespace tessel::certify
