#include "ctl/firewall.h"

#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>

namespace tessel::ctl {

namespace {

constexpr std::size_t ruleset_bytes_max = std::size_t{4} << 20;

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool has_word(std::string_view text, std::string_view word) {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._";
    for (std::size_t at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1)) {
        const bool begins = at == 0 || letters.find(text[at - 1]) == std::string_view::npos;
        const std::size_t end = at + word.size();
        if (begins && (end == text.size() || letters.find(text[end]) == std::string_view::npos)) {
            return true;
        }
    }
    return false;
}

// The group's network as rules write all of multicast.
constexpr std::string_view all_multicast = "224.0.0.0/4";

// Whether a rule may be about the feed's packets, as far as its words say.
bool concerns_feed(std::string_view rule, std::string_view group, std::string_view port) {
    for (const std::string_view other : {"tcp", "icmp", "icmpv6", "igmp", "ip6", "sctp", "saddr", "ct"}) {
        if (has_word(rule, other)) {
            return false;
        }
    }
    if (has_word(rule, "dport") && !has_word(rule, port)) {
        return false;
    }
    return !has_word(rule, "daddr") || has_word(rule, group) ||
           rule.find(all_multicast) != std::string_view::npos;
}

// One chain of a rule set, while its lines go by.
struct Chain {
    std::string table;  // "inet filter"
    std::string name;
    bool sees_arrivals = false;
    bool drops_by_policy = false;
    bool decided = false;  // a rule has accepted the feed
};

FirewallFinding finding(const Chain& chain, std::string_view reason, std::string_view group,
                        std::string_view port) {
    FirewallFinding found;
    found.drops = true;
    found.text = "chain " + chain.name + " of table " + chain.table + ": " + std::string(reason);
    found.fix = "nft insert rule " + chain.table + " " + chain.name + " ip daddr " + std::string(group) +
                " udp dport " + std::string(port) + " accept";
    return found;
}

// Takes the head of a base chain: "type filter hook input priority filter; policy drop;".
void take_hook(Chain& chain, std::string_view line) {
    chain.sees_arrivals = line.find("hook input") != std::string_view::npos ||
                          line.find("hook prerouting") != std::string_view::npos ||
                          line.find("hook ingress") != std::string_view::npos;
    chain.drops_by_policy = line.find("policy drop") != std::string_view::npos;
}

}  // namespace

FirewallFinding read_ruleset(std::string_view ruleset, std::string_view group, std::uint16_t port) {
    const std::string port_text = std::to_string(port);
    Chain chain;
    while (!ruleset.empty()) {
        const std::size_t end = ruleset.find('\n');
        const std::string_view line = trim(ruleset.substr(0, end));
        ruleset.remove_prefix(end == std::string_view::npos ? ruleset.size() : end + 1);
        if (line.starts_with("table ") && line.ends_with(" {")) {
            chain.table = line.substr(6, line.size() - 8);
        } else if (line.starts_with("chain ") && line.ends_with(" {")) {
            chain = {chain.table, std::string(line.substr(6, line.size() - 8)), false, false, false};
        } else if (line.starts_with("type ") && line.find(" hook ") != std::string_view::npos) {
            take_hook(chain, line);
        } else if (line == "}" && !chain.name.empty()) {
            if (chain.sees_arrivals && chain.drops_by_policy && !chain.decided) {
                return finding(chain, "policy drop", group, port_text);
            }
            chain.name.clear();
            chain.sees_arrivals = false;
        } else if (chain.sees_arrivals && !chain.decided && concerns_feed(line, group, port_text)) {
            if (has_word(line, "drop") || has_word(line, "reject")) {
                return finding(chain, line.substr(0, 80), group, port_text);
            }
            // An interface by its name may not be the feed's; one that accepts everything is.
            chain.decided = has_word(line, "accept") && !has_word(line, "iif") && !has_word(line, "iifname");
        }
    }
    return {};
}

bool list_ruleset(std::string& ruleset) {
    const char* const paths[] = {"/usr/sbin/nft", "/sbin/nft", "/usr/local/sbin/nft"};
    const char* found = nullptr;
    for (const char* path : paths) {
        found = found == nullptr && access(path, X_OK) == 0 ? path : found;
    }
    if (found == nullptr) {
        return false;
    }
    // A command of ours, from a fixed list of paths.
    // NOLINTNEXTLINE(cert-env33-c)
    std::FILE* const output = popen((std::string(found) + " list ruleset 2>/dev/null").c_str(), "re");
    if (output == nullptr) {
        return false;
    }
    char block[65536];
    std::size_t length = 0;
    ruleset.clear();
    while ((length = std::fread(block, 1, sizeof block, output)) > 0 && ruleset.size() < ruleset_bytes_max) {
        ruleset.append(block, length);
    }
    const int status = pclose(output);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace tessel::ctl
