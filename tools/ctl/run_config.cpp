#include "ctl/run_config.h"

#include "common/nearest_word.h"
#include "common/symbol_entry.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unordered_set>

namespace tessel::ctl {

using common::symbol_error;
using common::symbol_of;
using common::symbols_max;

namespace {

constexpr std::array<std::string_view, 3> tables = {"feed", "faults", "scenario"};
constexpr std::string_view white_space = " \t\r";
constexpr std::size_t quoted_bytes_max = 40;

struct Reader {
    std::string name;
    std::string folder;
    RunConfig& config;
    std::vector<std::string>& faults;
};

std::string in_quotes(std::string_view text) {
    return "'" + std::string(text.substr(0, quoted_bytes_max)) + "'";
}

std::string place(const Reader& reader, const TomlEntry& entry) {
    const std::string key = entry.key.substr(0, quoted_bytes_max);
    const char* const dot = entry.table.empty() || entry.key.empty() ? "" : ".";
    return reader.name + ":" + std::to_string(entry.line) + ": " + entry.table.substr(0, quoted_bytes_max) +
           dot + key;
}

void fault(std::vector<std::string>& faults, const std::string& text) {
    if (faults.size() < faults_listed_max) {
        faults.push_back(text);
    }
}

// Reads at most `most` bytes and one more, so that a larger file is noticed.
bool read_file(const std::string& path, std::size_t most, std::string& text, std::string& error) {
    std::FILE* const file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    text.clear();
    char block[65536];
    std::size_t length = 0;
    while (text.size() <= most && (length = std::fread(block, 1, sizeof block, file)) > 0) {
        text.append(block, length);
    }
    const bool good = std::ferror(file) == 0;
    if (!good) {
        error = path + ": " + std::strerror(errno);
    }
    std::fclose(file);
    return good;
}

// The words that a key of this table may be, the two ways to give symbols included.
std::vector<std::string_view> words_of(std::string_view table) {
    std::vector<std::string_view> words;
    for (const SettingKey& key : setting_keys()) {
        if (key.table == table) {
            words.push_back(key.key);
        }
    }
    if (table == "feed") {
        words.push_back("symbols_file");
    }
    return words;
}

std::string unknown_key(const TomlEntry& entry) {
    if (std::find(tables.begin(), tables.end(), entry.table) == tables.end() && !entry.table.empty()) {
        return "unknown table [" + entry.table.substr(0, quoted_bytes_max) + "]" +
               common::did_you_mean(entry.table, tables);
    }
    for (const std::string_view table : tables) {
        const std::vector<std::string_view> words = words_of(table);
        if (std::find(words.begin(), words.end(), entry.key) != words.end()) {
            return "this key belongs into [" + std::string(table) + "]";
        }
    }
    if (entry.table.empty()) {
        return "unknown key outside every table";
    }
    std::string hint = common::did_you_mean(entry.key, words_of(entry.table));
    for (const std::string_view table : tables) {
        const std::string_view nearest = common::nearest_word(entry.key, words_of(table));
        if (hint.empty() && !nearest.empty()) {
            hint = "; did you mean '" + std::string(nearest) + "' of [" + std::string(table) + "]?";
        }
    }
    return "unknown key" + (hint.empty() ? ": [" + entry.table + "] has no such setting" : hint);
}

// Adds the symbols of a list to a setting, each held against what is right; `where` names the place of one.
void add_symbol(Reader& reader, std::string_view entry, const std::string& where, std::string& list,
                std::unordered_set<std::string>& seen) {
    const std::string error = symbol_error(entry);
    if (!error.empty()) {
        fault(reader.faults, where + ": " + error);
    } else if (!seen.insert(std::string(symbol_of(entry))).second) {
        fault(reader.faults, where + ": symbol " + in_quotes(symbol_of(entry)) + " is there twice");
    } else {
        list += (list.empty() ? "" : ",") + std::string(entry);
    }
}

void keep_symbols(Reader& reader, const TomlEntry& entry, std::string list, std::size_t count) {
    const std::string where = place(reader, entry);
    if (setting_of(reader.config, "feed", "symbols") != nullptr) {
        fault(reader.faults, where + ": symbols and symbols_file exclude each other");
    } else if (count > symbols_max) {
        fault(reader.faults, where + ": " + std::to_string(count) + " symbols are too many: at most " +
                                 std::to_string(symbols_max));
    } else {
        reader.config.settings.push_back({find_setting("feed", "symbols"), std::move(list), where});
    }
}

void read_symbols(Reader& reader, const TomlEntry& entry) {
    if (entry.kind != ValueKind::texts) {
        fault(reader.faults,
              place(reader, entry) + ": write an array of texts: [\"AAPL:190.00\", \"MSFT:410.00\"]");
        return;
    }
    std::string list;
    std::unordered_set<std::string> seen;
    for (const TextItem& item : entry.texts) {
        const std::string where = reader.name + ":" + std::to_string(item.line) + ": feed.symbols";
        add_symbol(reader, item.text, where, list, seen);
    }
    keep_symbols(reader, entry, std::move(list), seen.size());
}

// A symbol and its price a line, "AAPL:190.00", "AAPL 190.00" or "AAPL,190.00"; '#' begins a comment.
void read_symbols_file(Reader& reader, const TomlEntry& entry) {
    const std::string where = place(reader, entry);
    if (entry.kind != ValueKind::text || entry.text.empty()) {
        fault(reader.faults, where + ": write the path of a file with a SYMBOL:PRICE a line");
        return;
    }
    const std::filesystem::path relative(entry.text);
    const std::string path =
        relative.is_absolute() || reader.folder.empty() ? entry.text : (reader.folder / relative).string();
    std::string text;
    std::string error;
    if (!read_file(path, toml_bytes_max, text, error)) {
        fault(reader.faults, where + ": " + error);
        return;
    }
    std::string list;
    std::unordered_set<std::string> seen;
    std::size_t line_number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++line_number;
        line.erase(std::min(line.find('#'), line.size()));
        line.erase(line.find_last_not_of(white_space) + 1);
        line.erase(0, line.find_first_not_of(white_space));
        if (line.empty()) {
            continue;
        }
        const std::size_t separator = line.find_first_of(" \t,:");
        if (separator != std::string::npos) {
            const std::size_t price = std::min(line.find_first_not_of(" \t,:", separator), line.size());
            line.replace(separator, price - separator, ":");
        }
        add_symbol(reader, line, path + ":" + std::to_string(line_number), list, seen);
    }
    keep_symbols(reader, entry, std::move(list), seen.size());
}

// Which kinds of TOML value a form is written as, and how that is called.
struct Written {
    bool text = false;
    bool integer = false;
    bool number = false;
    const char* name = "";
};

Written written_as(Form form) {
    switch (form) {
        case Form::group:
        case Form::address:
        case Form::session:
        case Form::participants:
        case Form::path:
        case Form::text: return {true, false, false, "a text in quotes"};
        case Form::burst: return {true, true, false, "a text such as \"500:3\", or a packet number"};
        // A seed beyond TOML's signed 64 bits is written as a text.
        case Form::seed: return {true, true, false, "a whole number"};
        case Form::basis_points: return {false, true, true, "a number"};
        default: return {false, true, false, "a whole number"};
    }
}

void read_setting(Reader& reader, const TomlEntry& entry, const SettingKey& key) {
    const std::string where = place(reader, entry);
    if (key.form == Form::flag) {
        if (entry.kind != ValueKind::flag) {
            fault(reader.faults, where + ": write true or false");
        } else if (entry.text == "true") {
            reader.config.settings.push_back({&key, "", where});
        }
        return;
    }
    const Written written = written_as(key.form);
    if (!((entry.kind == ValueKind::text && written.text) ||
          (entry.kind == ValueKind::integer && written.integer) ||
          (entry.kind == ValueKind::number && written.number))) {
        fault(reader.faults, where + ": write " + written.name);
        return;
    }
    const std::string error = value_error(key.form, entry.text);
    if (!error.empty()) {
        fault(reader.faults, where + ": " + error);
        return;
    }
    reader.config.settings.push_back({&key, entry.text, where});
}

void read_entry(Reader& reader, const TomlEntry& entry) {
    reader.config.has_scenario = reader.config.has_scenario || entry.table == "scenario";
    const bool known_table = std::find(tables.begin(), tables.end(), entry.table) != tables.end();
    if (known_table && entry.key.empty() && entry.kind == ValueKind::other) {
        return;  // an empty table
    }
    if (entry.table == "feed" && entry.key == "symbols") {
        read_symbols(reader, entry);
    } else if (entry.table == "feed" && entry.key == "symbols_file") {
        read_symbols_file(reader, entry);
    } else if (const SettingKey* key = find_setting(entry.table, entry.key)) {
        read_setting(reader, entry, *key);
    } else {
        fault(reader.faults, place(reader, entry) + ": " + unknown_key(entry));
    }
}

}  // namespace

bool read_run_config(std::string_view text, const std::string& name, const std::string& folder,
                     RunConfig& config, std::vector<std::string>& faults) {
    std::vector<TomlEntry> entries;
    std::string error;
    if (!read_toml(text, name, entries, error)) {
        fault(faults, error);
        return false;
    }
    return read_run_entries(entries, name, folder, config, faults);
}

bool read_run_entries(const std::vector<TomlEntry>& entries, const std::string& name,
                      const std::string& folder, RunConfig& config, std::vector<std::string>& faults) {
    const std::size_t before = faults.size();
    Reader reader{name, folder, config, faults};
    for (const TomlEntry& entry : entries) {
        read_entry(reader, entry);
    }
    return faults.size() == before;
}

bool read_run_config_file(const std::string& path, RunConfig& config, std::vector<std::string>& faults) {
    std::string text;
    std::string error;
    if (!read_file(path, toml_bytes_max, text, error)) {
        fault(faults, error);
        return false;
    }
    return read_run_config(text, path, std::filesystem::path(path).parent_path().string(), config, faults);
}

bool add_options(const std::vector<std::string>& arguments, RunConfig& config,
                 std::vector<std::string>& faults) {
    const std::size_t before = faults.size();
    std::vector<std::string_view> options;
    for (const SettingKey& key : setting_keys()) {
        if (!key.option.empty()) {
            options.push_back(key.option);
        }
    }
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string& argument = arguments[at];
        const SettingKey* key = find_option(argument);
        if (key == nullptr) {
            fault(faults, "unknown option " + in_quotes(argument) + common::did_you_mean(argument, options));
            break;  // whether the next one is its value cannot be known
        }
        if (key->form == Form::flag) {
            config.settings.push_back({key, "", argument});
            continue;
        }
        if (at + 1 == arguments.size()) {
            fault(faults, argument + " needs a value");
            break;
        }
        const std::string& value = arguments[++at];
        // An empty text switches an output or the burst off, as it does for the feed.
        const bool off = value.empty() && (key->form == Form::path || key->form == Form::burst);
        const std::string error = off ? "" : value_error(key->form, value);
        if (!error.empty()) {
            fault(faults, argument + ": " + error);
        }
        config.settings.push_back({key, value, argument});
    }
    return faults.size() == before;
}

const Setting* setting_of(const RunConfig& config, std::string_view table, std::string_view key) {
    const SettingKey* wanted = find_setting(table, key);
    const Setting* found = nullptr;
    for (const Setting& setting : config.settings) {
        if (setting.key == wanted) {
            found = &setting;
        }
    }
    return found;
}

std::string value_or(const RunConfig& config, std::string_view table, std::string_view key,
                     std::string_view fallback) {
    const Setting* setting = setting_of(config, table, key);
    return setting == nullptr ? std::string(fallback) : setting->value;
}

std::vector<std::string> feed_arguments(const RunConfig& config) {
    std::vector<std::string> arguments;
    for (const SettingKey& key : setting_keys()) {
        const Setting* setting = setting_of(config, key.table, key.key);
        if (setting == nullptr || key.option.empty()) {
            continue;
        }
        arguments.emplace_back(key.option);
        if (key.form != Form::flag) {
            arguments.push_back(setting->value);
        }
    }
    return arguments;
}

std::string scenario_text(const RunConfig& config) {
    std::string text;
    for (const SettingKey& key : setting_keys()) {
        const Setting* setting = setting_of(config, key.table, key.key);
        if (setting != nullptr && key.table == "scenario") {
            text += (text.empty() ? "" : ",") + std::string(key.key) + "=" + setting->value;
        }
    }
    return text;
}

}  // namespace tessel::ctl
