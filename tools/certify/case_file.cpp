#include "certify/case_file.h"

#include "certify/traffic.h"
#include "common/nearest_word.h"
#include "ctl/run_config.h"
#include "ctl/toml_file.h"
#include "judge/line_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tessel::certify {

namespace {

using ctl::TomlEntry;
using ctl::ValueKind;

constexpr std::array<std::string_view, 8> tables = {"feed",    "faults", "scenario", "run",
                                                    "traffic", "expect", "load",     ""};
constexpr std::size_t word_bytes_max = 60;
constexpr std::size_t quoted_bytes_max = 40;

struct Reader {
    const std::string& file;
    Case& out;
    std::vector<std::string>& faults;
    std::string timeline;
    std::uint32_t timeline_line = 0;
};

void fault(Reader& reader, const TomlEntry& entry, const std::string& text) {
    if (reader.faults.size() < ctl::faults_listed_max) {
        const std::string table = entry.table.substr(0, quoted_bytes_max);
        const std::string dot = entry.table.empty() || entry.key.empty() ? "" : ".";
        reader.faults.push_back(reader.file + ":" + std::to_string(entry.line) + ": " + table + dot +
                                entry.key.substr(0, quoted_bytes_max) + ": " + text);
    }
}

// One line without control characters: it is shown as it is.
bool is_one_line(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](unsigned char letter) { return letter >= ' ' && letter != 0x7f; });
}

void read_text(Reader& reader, const TomlEntry& entry, std::string& text) {
    if (entry.kind != ValueKind::text || entry.text.empty()) {
        fault(reader, entry, "write a text in quotes");
    } else if (!is_one_line(entry.text)) {
        fault(reader, entry, "write one line");
    } else {
        text = entry.text;
    }
}

bool parse_decimal(const std::string& text, double& number) {
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, number);
    return problem == std::errc() && stop == end;
}

// A number of seconds from `least` to case_seconds_max.
void read_seconds(Reader& reader, const TomlEntry& entry, double least, double& seconds) {
    double number = 0;
    const bool is_number = entry.kind == ValueKind::integer || entry.kind == ValueKind::number;
    if (!is_number || !parse_decimal(entry.text, number) ||
        !(number >= least && number <= case_seconds_max)) {
        fault(reader, entry,
              "write a number of seconds, " + std::string(least > 0 ? "0.1" : "0") + " to " +
                  std::to_string(static_cast<int>(case_seconds_max)));
        return;
    }
    seconds = number;
}

void read_count(Reader& reader, const TomlEntry& entry, unsigned least, unsigned most, unsigned& count) {
    double number = 0;
    if (entry.kind != ValueKind::integer || !parse_decimal(entry.text, number) || number < least ||
        number > most) {
        fault(reader, entry,
              "write a whole number, " + std::to_string(least) + " to " + std::to_string(most));
        return;
    }
    count = static_cast<unsigned>(number);
}

void read_flag(Reader& reader, const TomlEntry& entry, bool& flag) {
    if (entry.kind != ValueKind::flag) {
        fault(reader, entry, "write true or false");
        return;
    }
    flag = entry.text == "true";
}

// One of two words; `second` becomes whether it is the second.
void read_choice(Reader& reader, const TomlEntry& entry, const char* first_word, const char* second_word,
                 bool& second) {
    if (entry.kind != ValueKind::text || (entry.text != first_word && entry.text != second_word)) {
        fault(reader, entry, "write \"" + std::string(first_word) + "\" or \"" + second_word + "\"");
        return;
    }
    second = entry.text == second_word;
}

void read_members(Reader& reader, const TomlEntry& entry, std::vector<std::string>& members) {
    if (entry.kind != ValueKind::texts) {
        fault(reader, entry, "write an array of members of a truth line: [\"nbbo\", \"bid\"]");
        return;
    }
    for (const ctl::TextItem& item : entry.texts) {
        const auto& names = judge::member_names;
        if (std::find(names.begin(), names.end(), item.text) == names.end()) {
            fault(reader, entry,
                  "no truth line has the member '" + item.text.substr(0, quoted_bytes_max) + "'" +
                      common::did_you_mean(item.text, names));
            return;
        }
        members.push_back(item.text);
    }
}

// Numbers that rise, each from `least` to `most`.
bool read_rising(Reader& reader, const TomlEntry& entry, double least, double most, std::size_t count_max,
                 std::vector<double>& numbers) {
    bool good = (entry.kind == ValueKind::numbers || entry.kind == ValueKind::texts) &&
                entry.texts.size() <= count_max;
    for (const ctl::TextItem& item : entry.texts) {
        double number = 0;
        good = good && entry.kind == ValueKind::numbers && parse_decimal(item.text, number) &&
               number >= least && number <= most && (numbers.empty() || number > numbers.back());
        numbers.push_back(number);
    }
    if (!good) {
        fault(reader, entry,
              "write an array of at most " + std::to_string(count_max) + " rising numbers, each " +
                  std::to_string(static_cast<std::uint64_t>(least)) + " to " +
                  std::to_string(static_cast<std::uint64_t>(most)));
    }
    return good;
}

void unknown(Reader& reader, const TomlEntry& entry, std::span<const std::string_view> words) {
    fault(reader, entry, "unknown key" + common::did_you_mean(entry.key, words));
}

void read_head(Reader& reader, const TomlEntry& entry) {
    constexpr std::array<std::string_view, 4> words = {"title", "proves", "why", "page"};
    Case& out = reader.out;
    if (entry.key == "title") {
        read_text(reader, entry, out.title);
    } else if (entry.key == "proves") {
        read_text(reader, entry, out.proves);
    } else if (entry.key == "why") {
        read_text(reader, entry, out.why);
    } else if (entry.key == "page") {
        read_text(reader, entry, out.page);
    } else {
        unknown(reader, entry, words);
    }
}

void read_run(Reader& reader, const TomlEntry& entry) {
    constexpr std::array<std::string_view, 10> words = {
        "seconds",    "start", "late_after",   "timeline",     "generated_symbols",
        "restart_at", "feeds", "same_session", "busy_seconds", ""};
    constexpr double moment_min = 0.1;
    Case& out = reader.out;
    if (entry.key == "seconds") {
        read_seconds(reader, entry, moment_min, out.seconds);
    } else if (entry.key == "start") {
        bool late = false;
        read_choice(reader, entry, "before", "late", late);
        out.start = late ? Start::late : Start::before;
    } else if (entry.key == "late_after") {
        read_seconds(reader, entry, 0, out.late_after);
    } else if (entry.key == "timeline") {
        if (entry.kind != ValueKind::text) {
            fault(reader, entry, "write a text in three quotes, a line of a script each");
            return;
        }
        reader.timeline = entry.text;
        reader.timeline_line = entry.line;
    } else if (entry.key == "generated_symbols") {
        read_count(reader, entry, 1, generated_symbols_max, out.generated_symbols);
    } else if (entry.key == "restart_at") {
        read_rising(reader, entry, moment_min, case_seconds_max, case_restarts_max, out.restart_at);
    } else if (entry.key == "feeds") {
        read_count(reader, entry, 1, case_feeds_max, out.feeds);
    } else if (entry.key == "same_session") {
        read_flag(reader, entry, out.same_session);
    } else if (entry.key == "busy_seconds") {
        read_seconds(reader, entry, 0, out.busy_seconds);
    } else {
        unknown(reader, entry, words);
    }
}

void read_expect(Reader& reader, const TomlEntry& entry) {
    constexpr std::array<std::string_view, 6> words = {"members",    "compare",    "missing",
                                                       "mismatched", "from_first", "wait_seconds"};
    Expectation& expect = reader.out.expect;
    bool second = false;
    if (entry.key == "members") {
        read_members(reader, entry, expect.members);
    } else if (entry.key == "compare") {
        read_members(reader, entry, expect.compare);
    } else if (entry.key == "missing") {
        read_choice(reader, entry, "none", "dropped", second);
        expect.missing = second ? Missing::dropped : Missing::none;
    } else if (entry.key == "mismatched") {
        read_choice(reader, entry, "none", "after_loss", second);
        expect.mismatched = second ? Mismatched::after_loss : Mismatched::none;
    } else if (entry.key == "from_first") {
        read_flag(reader, entry, expect.from_first);
    } else if (entry.key == "wait_seconds") {
        read_seconds(reader, entry, 0, expect.wait_seconds);
    } else {
        unknown(reader, entry, words);
    }
}

void read_load(Reader& reader, const TomlEntry& entry) {
    constexpr std::array<std::string_view, 3> words = {"rates", "bisect", "pass_rate"};
    constexpr double rate_min = 100;
    constexpr unsigned rate_max = 10'000'000;
    LoadPlan& load = reader.out.load;
    if (entry.key == "rates") {
        std::vector<double> rates;
        if (read_rising(reader, entry, rate_min, rate_max, load_rates_max, rates)) {
            load.rates.assign(rates.begin(), rates.end());
        }
    } else if (entry.key == "bisect") {
        read_flag(reader, entry, load.bisect);
    } else if (entry.key == "pass_rate") {
        unsigned rate = 0;
        read_count(reader, entry, 0, rate_max, rate);
        load.pass_rate = rate;
    } else {
        unknown(reader, entry, words);
    }
}

void read_traffic(Reader& reader, const TomlEntry& entry) {
    if (entry.element == 0) {
        fault(reader, entry, "write [[traffic]], in two brackets");
        return;
    }
    std::vector<Traffic>& traffic = reader.out.traffic;
    if (traffic.size() < entry.element) {
        traffic.resize(entry.element);
    }
    const bool plain = entry.kind == ValueKind::text || entry.kind == ValueKind::integer ||
                       entry.kind == ValueKind::number || entry.kind == ValueKind::flag;
    if (!plain) {
        if (!entry.key.empty()) {
            fault(reader, entry, "write a text, a number, true or false");
        }
    } else if (entry.key == "kind") {
        read_text(reader, entry, traffic[entry.element - 1].kind);
    } else {
        traffic[entry.element - 1].values[entry.key] = entry.text;
    }
}

void read_entry(Reader& reader, const TomlEntry& entry) {
    const bool known = std::find(tables.begin(), tables.end(), entry.table) != tables.end();
    if (!known) {
        fault(reader, entry, "unknown table" + common::did_you_mean(entry.table, tables));
    } else if (entry.table == "traffic") {
        read_traffic(reader, entry);
    } else if (entry.element != 0) {
        fault(reader, entry, "write [" + entry.table + "], in one bracket");
    } else if (entry.table.empty()) {
        read_head(reader, entry);
    } else if (entry.key.empty()) {
        return;  // an empty table
    } else if (entry.table == "run") {
        read_run(reader, entry);
    } else if (entry.table == "expect") {
        read_expect(reader, entry);
    } else {
        read_load(reader, entry);
    }
}

// What is chosen when the case runs, and so cannot stand in its file.
bool is_chosen_by_us(std::string_view key) {
    constexpr std::array<std::string_view, 11> chosen = {
        "mcast",    "port",    "iface",     "retrans_port", "snapshot_port", "session",
        "book_out", "bbo_out", "truth_out", "control_port", "seed"};
    return std::find(chosen.begin(), chosen.end(), key) != chosen.end();
}

void read_feed(Reader& reader, const std::vector<TomlEntry>& entries) {
    std::vector<TomlEntry> of_run;
    for (const TomlEntry& entry : entries) {
        if (entry.table == "feed" && is_chosen_by_us(entry.key)) {
            fault(reader, entry, "this is chosen anew for each run of the case; leave it out");
        } else {
            of_run.push_back(entry);
        }
    }
    ctl::RunConfig config;
    const std::string folder = std::filesystem::path(reader.file).parent_path().string();
    if (ctl::read_run_entries(of_run, reader.file, folder, config, reader.faults)) {
        reader.out.feed_options = ctl::feed_arguments(config);
        reader.out.scenario = ctl::scenario_text(config);
    }
}

void check_whole(Reader& reader) {
    const Case& out = reader.out;
    const auto lacks = [&](const std::string& text) {
        if (reader.faults.size() < ctl::faults_listed_max) {
            reader.faults.push_back(reader.file + ":1: " + text);
        }
    };
    if (out.title.empty()) {
        lacks("title: there is none; write title = \"what the case is about\"");
    }
    const bool has_list =
        std::find(out.feed_options.begin(), out.feed_options.end(), "--symbols") != out.feed_options.end();
    if (out.generated_symbols != 0 && has_list) {
        lacks("run.generated_symbols: feed.symbols is given, too; leave one of them out");
    }
    if (!out.restart_at.empty() && out.restart_at.back() >= case_seconds_max) {
        lacks("run.restart_at: beyond the end of the run");
    }
    std::string error;
    if (!check_traffic(out.traffic, error)) {
        lacks("traffic: " + error);
    }
    if (out.load.rates.empty() && (out.load.bisect || out.load.pass_rate != 0)) {
        lacks("load.rates: there are none");
    }
    if (!out.load.rates.empty() && (has_list || out.generated_symbols != 0)) {
        lacks("load.rates: they decide how many symbols there are; leave feed.symbols out");
    }
}

}  // namespace

bool is_case_word(std::string_view text) {
    const auto allowed = [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '_' || letter == '-';
    };
    return !text.empty() && text.size() <= word_bytes_max && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), allowed);
}

bool read_case(std::string_view text, const std::string& file, const std::string& group,
               const std::string& stem, Case& out, std::vector<std::string>& faults) {
    const std::size_t before = faults.size();
    out.name = group + "/" + stem;
    out.group = group;
    out.file = file;
    std::vector<TomlEntry> entries;
    std::string error;
    if (!ctl::read_toml_with_arrays(text, file, entries, error)) {
        faults.push_back(error);
        return false;
    }
    Reader reader{file, out, faults, {}, 0};
    std::vector<TomlEntry> of_feed;
    for (const TomlEntry& entry : entries) {
        const bool feeds = entry.table == "feed" || entry.table == "faults" || entry.table == "scenario";
        if (feeds && entry.element == 0) {
            of_feed.push_back(entry);
        } else {
            read_entry(reader, entry);
        }
    }
    read_feed(reader, of_feed);
    // Lines of the timeline are counted from its first, as the script player does.
    if (!common::parse_timeline(reader.timeline, file + " timeline", out.timeline, error)) {
        faults.push_back(error);
    }
    check_whole(reader);
    return faults.size() == before;
}

bool read_case_file(const std::string& path, Case& out, std::vector<std::string>& faults) {
    const std::filesystem::path whole(path);
    std::ifstream file(path, std::ios::binary);
    std::string text(case_bytes_max + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad()) {
        faults.push_back(path + ": cannot be read");
        return false;
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > case_bytes_max) {
        faults.push_back(path + ": larger than 1 MiB");
        return false;
    }
    return read_case(text, path, whole.parent_path().filename().string(), whole.stem().string(), out, faults);
}

}  // namespace tessel::certify
