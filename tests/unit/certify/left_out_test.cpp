#include "certify/judging.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>

namespace tessel::certify {
namespace {

const std::string truth_text =
    "{\"seq\":1,\"symbol\":\"A\",\"band\":[1.00,2.00],\"status\":\"T\"}\n"
    "{\"seq\":2,\"symbol\":\"A\",\"status\":\"T\"}\n"
    "{\"seq\":3,\"symbol\":\"A\",\"band\":[1.00,2.00],\"status\":\"T\"}\n";

// Judges that OUTPUT, which agrees in all that it gives.
Judgment judged(const std::string& output, const Expectation& expect) {
    const std::string folder = testing::TempDir() + "left_out_" + std::to_string(getpid());
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/truth.jsonl") << truth_text;
    std::ofstream(folder + "/out.jsonl") << output;
    const Judgment judgment =
        judge_output({folder + "/truth.jsonl", folder + "/out.jsonl", folder, expect, {{}}});
    std::filesystem::remove_all(folder);
    return judgment;
}

Expectation expecting(const std::string& member) {
    Expectation expect;
    expect.members = {member};
    return expect;
}

TEST(LeftOut, EveryTruthLinesMemberIsGiven_Passes) {
    EXPECT_EQ(judged(truth_text, expecting("band")).reason, "");
}

TEST(LeftOut, OneLineLacksTheMember_Fails) {
    const std::string output = "{\"seq\":1,\"band\":[1.00,2.00]}\n{\"seq\":2}\n{\"seq\":3}\n";
    EXPECT_EQ(judged(output, expecting("band")).reason,
              "member 'band' is not in 1 line whose truth lines have it");
    EXPECT_FALSE(judged(output, expecting("band")).good);
}

TEST(LeftOut, MemberThatTheCaseDoesNotAskFor_MayBeLeftOut) {
    const std::string output =
        "{\"seq\":1,\"status\":\"T\"}\n{\"seq\":2,\"status\":\"T\"}\n"
        "{\"seq\":3,\"status\":\"T\"}\n";
    EXPECT_EQ(judged(output, expecting("status")).reason, "");
}

TEST(LeftOut, LinesBeforeALateHandlersFirst_DoNotCount) {
    Expectation expect = expecting("band");
    expect.from_first = true;
    EXPECT_EQ(judged("{\"seq\":2}\n{\"seq\":3,\"band\":[1.00,2.00]}\n", expect).reason, "");
    EXPECT_EQ(
        judged("{\"seq\":2,\"status\":\"T\"}\n{\"seq\":3,\"band\":[1.00,2.00]}\n", expecting("band")).good,
        false);
}

}  // namespace
}  // namespace tessel::certify
