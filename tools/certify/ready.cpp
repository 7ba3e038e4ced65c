#include "certify/ready.h"

#include "common/duration.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <sstream>
#include <vector>

namespace tessel::certify {

namespace {

constexpr double ns_per_second = 1e9;
constexpr std::int64_t delay_max_ns = 3'600'000'000'000;
constexpr const char* forms = "write file:PATH, port:N, line:TEXT or delay:SECONDS";

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream text(line);
    std::vector<std::string> words;
    std::string word;
    while (text >> word) {
        words.push_back(word);
    }
    return words;
}

bool parse_port(const std::string& text, Ready& ready, std::string& error) {
    // A port may also be a placeholder, which has its number when the case runs.
    unsigned port = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, port);
    const bool number = problem == std::errc() && stop == end && port >= 1 && port <= 65535;
    if (!number && text.find('{') == std::string::npos) {
        error = "'" + text + "' is no port, 1 to 65535";
        return false;
    }
    ready.text = text;
    return true;
}

}  // namespace

bool parse_ready(const std::string& text, Ready& ready, std::string& error) {
    const std::size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    const std::string value = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (value.empty()) {
        error = "'" + text + "' has no value: " + forms;
        return false;
    }
    if (kind == "file" || kind == "line") {
        ready.kind = kind == "file" ? ReadyKind::file : ReadyKind::line;
        ready.text = value;
        return true;
    }
    if (kind == "port") {
        ready.kind = ReadyKind::port;
        return parse_port(value, ready, error);
    }
    if (kind == "delay") {
        std::int64_t ns = 0;
        ready.kind = ReadyKind::delay;
        if (!common::parse_duration(value, ns, error)) {
            return false;
        }
        if (ns > delay_max_ns) {
            error = "'" + value + "' is more than an hour";
            return false;
        }
        ready.seconds = static_cast<double>(ns) / ns_per_second;
        return true;
    }
    error = "'" + kind + "' is none of file, port, line and delay: " + forms;
    return false;
}

// A group's line has its address as eight hexadecimal digits in the byte order of the machine, then the
// number of members:
//     1       lo        :     1      V3
//                             B119FFEF     1 0:00000000            0
unsigned group_members(const std::string& igmp, const std::string& group) {
    in_addr address{};
    if (inet_pton(AF_INET, group.c_str(), &address) != 1) {
        return 0;
    }
    char wanted[9];
    std::snprintf(wanted, sizeof wanted, "%08X", address.s_addr);
    std::istringstream lines(igmp);
    std::string line;
    unsigned members = 0;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string first;
        unsigned count = 0;
        if (words >> first >> count && first == wanted) {
            members += count;
        }
    }
    return members;
}

// A socket's line: its number, its address and port, the peer's, its state, six more words, its inode:
//     0: 0100007F:6259 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 12345 ...
// A listening TCP socket is in state 0A.
std::set<std::string> sockets_of_port(const std::string& sockets, bool tcp, std::uint16_t port) {
    constexpr std::size_t local_at = 1;
    constexpr std::size_t state_at = 3;
    constexpr std::size_t inode_at = 9;
    char wanted[6];
    std::snprintf(wanted, sizeof wanted, ":%04X", port);
    std::set<std::string> inodes;
    std::istringstream lines(sockets);
    std::string line;
    while (std::getline(lines, line)) {
        const std::vector<std::string> words = words_of(line);
        if (words.size() > inode_at && words[local_at].ends_with(wanted) &&
            (!tcp || words[state_at] == "0A")) {
            inodes.insert(words[inode_at]);
        }
    }
    return inodes;
}

}  // namespace tessel::certify
