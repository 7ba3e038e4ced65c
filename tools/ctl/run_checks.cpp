#include "ctl/run_checks.h"

#include "app/config.h"
#include "common/symbol_entry.h"
#include "ctl/host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

namespace tessel::ctl {

using common::argument_bytes_max;

namespace {

constexpr std::size_t shown_bytes_max = 80;

std::string shown(const std::string& text) {
    return text.size() <= shown_bytes_max ? text : text.substr(0, shown_bytes_max) + "...";
}

std::string where_of(const RunConfig& config, std::string_view table, std::string_view key) {
    const Setting* setting = setting_of(config, table, key);
    return setting == nullptr ? std::string(table) + "." + std::string(key) + " (default)" : setting->where;
}

void check_interface(const RunConfig& config, std::vector<std::string>& faults) {
    const std::string text = value_or(config, "feed", "iface", FeedConfig{}.iface);
    const std::vector<Interface> all = interfaces();
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) == 1 && interface_with(all, address) == nullptr) {
        faults.push_back(where_of(config, "feed", "iface") + ": " + text +
                         " is no address of this host, which has " + interface_list(all));
    }
}

struct Port {
    std::string_view key;
    std::string_view name;
    Transport transport;
    std::uint32_t address;
    std::uint16_t by_default;
};

void check_ports(const RunConfig& config, std::vector<std::string>& faults) {
    const FeedConfig feed;
    const Port ports[] = {
        {"retrans_port", "retransmission", Transport::udp, INADDR_ANY, feed.retrans_port},
        {"snapshot_port", "Snap-Shot", Transport::tcp, INADDR_ANY, feed.snapshot_port},
        {"control_port", "control", Transport::udp, INADDR_LOOPBACK, feed.control_port},
    };
    std::map<std::pair<Transport, unsigned long>, std::string_view> ours;
    for (const Port& port : ports) {
        const std::string text = value_or(config, "feed", port.key, std::to_string(port.by_default));
        const unsigned long number = std::stoul(text);
        const std::string where = where_of(config, "feed", port.key) + ": ";
        if (number == 0) {
            continue;
        }
        const auto [other, is_new] = ours.insert({{port.transport, number}, port.name});
        if (!is_new) {
            faults.push_back(where + "port " + text + " is the " + std::string(other->second) +
                             " port already");
            continue;
        }
        const int error =
            port_error(port.transport, {htonl(port.address)}, static_cast<std::uint16_t>(number));
        const std::string transport = port.transport == Transport::udp ? "udp" : "tcp";
        if (error == EADDRINUSE) {
            const PortHolder holder = port_holder(port.transport, static_cast<std::uint16_t>(number));
            faults.push_back(where + "port " + text + "/" + transport + " is taken by " +
                             holder_text(holder));
        } else if (error != 0) {
            faults.push_back(where + "port " + text + "/" + transport + ": " + std::strerror(error));
        }
    }
}

// Where the path leads, with its folder's links resolved: two spellings of one file become equal.
std::string resolved(const std::string& path) {
    std::error_code error;
    const std::filesystem::path found = std::filesystem::weakly_canonical(path, error);
    return error ? path : found.string();
}

// What keeps the file from being opened for writing; empty when nothing does. One that is not there is made
// and removed again: nothing less shows that it could be made.
std::string open_error(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            unlink(path.c_str());
        }
    }
    if (fd < 0) {
        return shown(path) + ": " + std::strerror(errno);
    }
    close(fd);
    return "";
}

// What keeps an output from being written there; empty when nothing does. A replaced output is written beside
// itself under its name and ".tmp".
std::string output_error(const std::string& path, bool replaced) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return shown(path) + " is no regular file";
    }
    const std::string error = open_error(path);
    return error.empty() && replaced ? open_error(path + ".tmp") : error;
}

void check_outputs(const RunConfig& config, std::vector<std::string>& faults) {
    std::map<std::string, std::string_view> ours;
    for (const std::string_view key : {"truth_out", "book_out", "bbo_out"}) {
        const std::string path = value_or(config, "feed", key, "");
        if (path.empty()) {
            continue;
        }
        const std::string where = where_of(config, "feed", key) + ": ";
        const std::string error = output_error(path, key != "truth_out");
        if (!error.empty()) {
            faults.push_back(where + error);
            continue;
        }
        std::vector<std::string> files = {resolved(path)};
        if (key != "truth_out") {
            files.push_back(files[0] + ".tmp");  // written beside the file and renamed onto it
        }
        for (const std::string& file : files) {
            const auto [other, is_new] = ours.insert({file, key});
            if (!is_new) {
                faults.push_back(where + shown(file) + " is written by " + std::string(other->second) +
                                 " already");
            }
        }
    }
}

void check_lengths(const RunConfig& config, std::vector<std::string>& faults) {
    const auto too_long = [&faults](const std::string& where, std::size_t bytes, const char* hint) {
        faults.push_back(where + ": " + std::to_string(bytes) +
                         " bytes are more than one argument of a command may have: " +
                         std::to_string(argument_bytes_max) + " (128 KiB with its end)" + hint);
    };
    for (const SettingKey& key : setting_keys()) {
        const Setting* setting = setting_of(config, key.table, key.key);
        if (setting != nullptr && !key.option.empty() && setting->value.size() > argument_bytes_max) {
            too_long(setting->where, setting->value.size(),
                     key.form == Form::symbols ? "; use fewer symbols, or shorter prices" : "");
        }
    }
    const std::string scenario = "TESSEL_SCENARIO=" + scenario_text(config);
    if (scenario.size() > argument_bytes_max) {
        too_long("scenario", scenario.size(), "");
    }
}

}  // namespace

void check_host(const RunConfig& config, std::vector<std::string>& faults) {
    check_lengths(config, faults);
    check_interface(config, faults);
    check_ports(config, faults);
    check_outputs(config, faults);
}

}  // namespace tessel::ctl
