#include "certify/catalog.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

Case named(const std::string& name) {
    Case each;
    each.name = name;
    each.group = name.substr(0, name.find('/'));
    each.title = "About " + name;
    return each;
}

std::vector<std::string> names_of(const std::vector<Case>& cases) {
    std::vector<std::string> names;
    for (const Case& each : cases) {
        names.push_back(each.name);
    }
    return names;
}

using Names = std::vector<std::string>;

TEST(Catalog, GroupsAreInTheirOrder_UnknownOnesLast) {
    std::vector<Case> cases = {named("zeta/a"), named("load/a"),   named("loss/b"),
                               named("loss/a"), named("decode/z"), named("alpha/a")};
    sort_cases(cases);
    EXPECT_EQ(names_of(cases), (Names{"decode/z", "loss/a", "loss/b", "load/a", "alpha/a", "zeta/a"}));
}

TEST(Catalog, GroupsAndNames_LeaveTheCasesThatAreInBoth) {
    const std::vector<Case> all = {named("loss/a"), named("loss/b"), named("join/a")};
    std::string error;
    std::vector<Case> cases = all;
    ASSERT_TRUE(select_cases({"loss"}, {}, cases, error));
    EXPECT_EQ(names_of(cases), (Names{"loss/a", "loss/b"}));
    cases = all;
    ASSERT_TRUE(select_cases({"loss"}, {"loss/b", "join/a"}, cases, error));
    EXPECT_EQ(names_of(cases), (Names{"loss/b"}));
    cases = all;
    EXPECT_FALSE(select_cases({"loss"}, {"join/a"}, cases, error));
    EXPECT_EQ(error, "no case is both in --group and in --only");
}

TEST(Catalog, UnknownNames_AreRefusedWithTheNearest) {
    std::vector<Case> cases = {named("loss/one_packet"), named("join/late")};
    std::string error;
    EXPECT_FALSE(select_cases({"lost"}, {}, cases, error));
    EXPECT_EQ(error, "--group: there is no group 'lost'; did you mean 'loss'?");
    EXPECT_FALSE(select_cases({}, {"loss/one_paket"}, cases, error));
    EXPECT_NE(error.find("did you mean 'loss/one_packet'?"), std::string::npos) << error;
}

TEST(Catalog, List_IsALineACaseAndNothingElse) {
    EXPECT_EQ(list_text({named("loss/a"), named("join/b")}), "loss/a  About loss/a\njoin/b  About join/b\n");
}

TEST(Catalog, ListsWithCommas_AreSplit) {
    EXPECT_EQ(split_list("a,b,,c,"), (Names{"a", "b", "c"}));
    EXPECT_EQ(split_list(""), Names{});
}

}  // namespace
}  // namespace tessel::certify
