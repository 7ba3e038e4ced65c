#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tessel::ctl {

// What a packet filter would do to the feed.
struct FirewallFinding {
    bool drops = false;
    std::string text;  // "chain input of table inet filter: policy drop"
    std::string fix;   // the command that lets the feed in
};

// Reads what `nft list ruleset` prints and looks, in the chains that see arriving packets, for the first rule
// or policy that would drop the feed's. It reads rules, it does not run them: a rule that asks for a protocol
// other than UDP, another port or another group is passed over, and so is everything after a rule that
// accepts the feed.
FirewallFinding read_ruleset(std::string_view ruleset, std::string_view group, std::uint16_t port);

// The rules of this host. False when they cannot be read: there is no nft, or this process may not ask.
bool list_ruleset(std::string& ruleset);

}  // namespace tessel::ctl
