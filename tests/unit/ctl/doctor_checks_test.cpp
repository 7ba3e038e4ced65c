#include "ctl/doctor_checks.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>

namespace tessel::ctl {
namespace {

in_addr address(const char* text) {
    in_addr value{};
    inet_pton(AF_INET, text, &value);
    return value;
}

// A host that receives the default feed on eth0.
Facts healthy() {
    Facts facts;
    facts.options.iface = "10.0.0.2";
    facts.address = address("10.0.0.2");
    facts.group = address("239.255.25.177");
    facts.interfaces = {{"lo", address("127.0.0.1"), true, true, false, 65536},
                        {"eth0", address("10.0.0.2"), true, false, true, 9000}};
    facts.ports = {{"feed", 25177, Transport::udp, true, false, {}, ""}};
    facts.has_route = true;
    facts.route_interface = "eth0";
    facts.rmem_max = 33'554'432;
    facts.ruleset_known = true;
    facts.probe.saw_wire = true;
    facts.probe.packets = 10;
    facts.probe.messages = 100;
    facts.probe.sources = {{"10.0.0.1:4000", "UTPBENCH01", 10}};
    return facts;
}

Check check_of(const Facts& facts, const std::string& name) {
    for (const Check& check : all_checks(facts)) {
        if (check.name == name) {
            return check;
        }
    }
    return {};
}

TEST(DoctorChecks, HealthyHost_HasNothingToRepair) {
    for (const Check& check : all_checks(healthy())) {
        EXPECT_EQ(check.result, "ok") << check.name << ": " << check.text;
        EXPECT_EQ(check.fix, "") << check.name;
    }
}

TEST(DoctorChecks, EveryFinding_HasAFix) {
    Facts facts = healthy();
    facts.address.reset();
    facts.group.reset();
    facts.has_route = false;
    facts.rmem_max = 1;
    facts.probe = {};
    facts.ruleset_known = false;
    for (const Check& check : all_checks(facts)) {
        EXPECT_EQ(check.fix.empty(), check.result == "ok") << check.name;
    }
    EXPECT_EQ(check_of(facts, "firewall").result, "warning");
}

TEST(DoctorChecks, NameOfAnInterface_IsAnsweredWithItsAddress) {
    Facts facts = healthy();
    facts.options.iface = "eth0";
    facts.address.reset();
    EXPECT_EQ(check_of(facts, "interface").result, "problem");
    EXPECT_EQ(check_of(facts, "interface").fix, "tesselctl doctor --iface 10.0.0.2");
}

TEST(DoctorChecks, SmallReceiveBuffer_IsAProblemBelowTheKernelsDefault) {
    Facts facts = healthy();
    facts.rmem_max = rmem_wanted_bytes - 1;
    EXPECT_EQ(check_of(facts, "buffer").result, "warning");
    facts.rmem_max = rmem_default_bytes - 1;
    EXPECT_EQ(check_of(facts, "buffer").result, "problem");
    EXPECT_EQ(check_of(facts, "buffer").fix, "sysctl -w net.core.rmem_max=33554432");
}

TEST(DoctorChecks, RouteThatLeadsElsewhere_IsAWarningAndOnLoopbackUsual) {
    Facts facts = healthy();
    facts.route_interface = "eth1";
    EXPECT_EQ(check_of(facts, "route").result, "warning");
    EXPECT_EQ(check_of(facts, "route").fix, "ip route add 239.255.25.177/32 dev eth0");
    facts.address = address("127.0.0.1");
    EXPECT_EQ(check_of(facts, "route").result, "ok");
    facts.has_route = false;
    EXPECT_EQ(check_of(facts, "route").result, "warning");
}

TEST(DoctorChecks, GroupOfRoutingProtocols_IsAWarning) {
    Facts facts = healthy();
    facts.options.group = "224.0.0.5";
    facts.group = address("224.0.0.5");
    EXPECT_EQ(check_of(facts, "group").result, "warning");
    facts.group = address("224.0.1.5");
    EXPECT_EQ(check_of(facts, "group").result, "ok");
}

TEST(DoctorChecks, StrictReversePath_IsSuspectOnlyWhileNothingArrives) {
    Facts facts = healthy();
    facts.rp_filter = 1;
    EXPECT_EQ(check_of(facts, "rp_filter").result, "ok");
    facts.probe.packets = 0;
    EXPECT_EQ(check_of(facts, "rp_filter").result, "warning");
    facts.probe.reverse_path_drops = 3;
    EXPECT_EQ(check_of(facts, "rp_filter").result, "problem");
    facts.rp_filter = 2;
    EXPECT_EQ(check_of(facts, "rp_filter").result, "ok");
}

TEST(DoctorChecks, PacketsOnTheWireAndNoneAtTheSocket_PointToAFilter) {
    Facts facts = healthy();
    facts.probe.packets = 0;
    facts.probe.on_wire = 5;
    EXPECT_EQ(check_of(facts, "firewall").result, "problem");
    EXPECT_EQ(check_of(facts, "traffic").result, "problem");
    facts.probe.reverse_path_drops = 5;  // these, then
    EXPECT_EQ(check_of(facts, "firewall").result, "ok");
}

TEST(DoctorChecks, TrafficWithGapsOrDrops_IsNotOk) {
    Facts facts = healthy();
    facts.probe.missing = 2;
    EXPECT_EQ(check_of(facts, "traffic").result, "warning");
    facts.probe.kernel_drops = 1;
    EXPECT_EQ(check_of(facts, "traffic").result, "problem");
    facts = healthy();
    facts.probe.packets = 0;
    facts.probe.malformed = 4;
    EXPECT_EQ(check_of(facts, "traffic").text, "4 datagrams in 3.00 s, none of a feed");
}

TEST(DoctorChecks, HolderThatCannotBeSeen_IsAProblemOnlyOnTheFeedsPort) {
    Facts facts = healthy();
    facts.ports = {{"retransmission", 25178, Transport::udp, true, true, {}, ""}};
    EXPECT_EQ(check_of(facts, "ports").result, "warning");
    facts.ports = {{"feed", 25177, Transport::udp, true, true, {}, ""}};
    EXPECT_EQ(check_of(facts, "ports").result, "problem");
    facts.ports = {{"Snap-Shot", 25179, Transport::tcp, true, true, {true, 7, "tessel"}, ""}};
    EXPECT_EQ(check_of(facts, "ports").result, "ok");
}

TEST(DoctorChecks, SecondSession_IsAWarningAndTheSameOneAProblem) {
    Facts facts = healthy();
    facts.probe.sources.push_back({"10.0.0.3:4000", "OTHER", 10});
    EXPECT_EQ(check_of(facts, "session").result, "warning");
    facts.probe.sources.push_back({"10.0.0.4:4000", "OTHER", 10});
    EXPECT_EQ(check_of(facts, "session").result, "problem");
}

}  // namespace
}  // namespace tessel::ctl
