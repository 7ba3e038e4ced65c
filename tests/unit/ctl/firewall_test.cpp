#include "ctl/firewall.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::ctl {
namespace {

std::string table(const std::string& head, const std::string& rules) {
    return "table inet filter {\n\tchain in {\n\t\ttype filter hook " + head + "\n" + rules + "\t}\n}\n";
}

FirewallFinding read(const std::string& ruleset) {
    return read_ruleset(ruleset, "239.255.25.177", 25177);
}

TEST(Firewall, NoRules_DropNothing) {
    EXPECT_FALSE(read("").drops);
    EXPECT_FALSE(read(table("input priority filter; policy accept;", "")).drops);
}

TEST(Firewall, PolicyDrop_DropsWhatNoRuleAccepts) {
    const FirewallFinding found =
        read(table("input priority filter; policy drop;", "\t\ttcp dport 22 accept\n"));
    EXPECT_TRUE(found.drops);
    EXPECT_EQ(found.text, "chain in of table inet filter: policy drop");
    EXPECT_EQ(found.fix, "nft insert rule inet filter in ip daddr 239.255.25.177 udp dport 25177 accept");
    EXPECT_FALSE(read(table("input priority filter; policy drop;", "\t\tudp dport 25177 accept\n")).drops);
    EXPECT_FALSE(
        read(table("input priority filter; policy drop;", "\t\tudp dport { 53, 25177 } accept\n")).drops);
    EXPECT_TRUE(read(table("input priority filter; policy drop;", "\t\tudp dport 125177 accept\n")).drops);
    EXPECT_TRUE(read(table("input priority filter; policy drop;", "\t\tiif \"lo\" accept\n")).drops);
    EXPECT_TRUE(
        read(table("input priority filter; policy drop;", "\t\tct state established accept\n")).drops);
}

TEST(Firewall, RuleThatDropsTheFeed_IsNamed) {
    const FirewallFinding found =
        read(table("input priority filter; policy accept;", "\t\tudp dport 25177 counter drop\n"));
    EXPECT_EQ(found.text, "chain in of table inet filter: udp dport 25177 counter drop");
    EXPECT_TRUE(
        read(table("prerouting priority raw; policy accept;", "\t\tip daddr 239.255.25.177 drop\n")).drops);
    EXPECT_TRUE(
        read(table("input priority filter; policy accept;", "\t\tip daddr 224.0.0.0/4 reject\n")).drops);
}

TEST(Firewall, RulesAboutOthers_ArePassedOver) {
    for (const char* rule : {"udp dport 53 drop", "tcp dport 25177 drop", "ip daddr 239.1.1.1 drop",
                             "ip6 daddr ::1 drop", "ip saddr 10.0.0.0/8 drop", "ct state invalid drop"}) {
        const std::string ruleset =
            table("input priority filter; policy accept;", "\t\t" + std::string(rule) + "\n");
        EXPECT_FALSE(read(ruleset).drops) << rule;
    }
    EXPECT_FALSE(read(table("output priority filter; policy drop;", "\t\tudp dport 25177 drop\n")).drops);
    EXPECT_FALSE(read(table("input priority filter; policy accept;",
                            "\t\tudp dport 25177 accept\n\t\tudp dport 25177 drop\n"))
                     .drops);
}

}  // namespace
}  // namespace tessel::ctl
