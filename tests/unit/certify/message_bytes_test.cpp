#include "certify/message_bytes.h"

#include "mold/packet.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tessel::certify {
namespace {

std::string text_of(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The bytes of the first test vector of a kind of message.
std::vector<unsigned char> first_vector(const std::filesystem::path& path) {
    const std::string text = text_of(path);
    const std::string hex = nlohmann::json::parse(text.substr(0, text.find('\n'))).at("hex");
    std::vector<unsigned char> bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

std::vector<unsigned char> packet(const std::string& session, std::uint64_t first,
                                  const std::vector<std::vector<unsigned char>>& messages) {
    std::vector<unsigned char> bytes(mold_header_bytes);
    put_mold_header(bytes.data(), session.data(), first, messages.size());
    for (const std::vector<unsigned char>& message : messages) {
        bytes.push_back(static_cast<unsigned char>(message.size() >> 8));
        bytes.push_back(static_cast<unsigned char>(message.size()));
        bytes.insert(bytes.end(), message.begin(), message.end());
    }
    return bytes;
}

TEST(MessageBytes, EveryKindOfMessage_HasTheNameOfTheReference) {
    const std::filesystem::path root(TESSEL_SOURCE_DIR);
    const std::string reference = text_of(root / "docs/messages.md");
    std::size_t kinds = 0;
    for (const auto& entry : std::filesystem::directory_iterator(root / "vectors")) {
        const std::string kind = entry.path().stem().string();
        if (entry.path().extension() != ".jsonl" ||
            reference.find(", `" + kind + "`)") == std::string::npos) {
            continue;
        }
        const std::vector<unsigned char> bytes = first_vector(entry.path());
        const SentMessage message = describe_message(bytes.data(), bytes.size(), 9);
        std::string name = message.name;
        ASSERT_NE(name, "") << kind;
        name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
        EXPECT_NE(reference.find("### " + name + " (category"), std::string::npos) << name;
        EXPECT_TRUE(message.decoded.starts_with("{\"seq\":9,\"kind\":\"" + kind + "\"")) << message.decoded;
        EXPECT_EQ(message.hex.size(), 2 * bytes.size());
        ++kinds;
    }
    EXPECT_EQ(kinds, 22U);
}

TEST(MessageBytes, Facts_AreLettersAndCodes) {
    const auto bytes = first_vector(std::filesystem::path(TESSEL_SOURCE_DIR) / "vectors/cancel_error.jsonl");
    const SentMessage message = describe_message(bytes.data(), bytes.size(), 1);
    std::map<std::string, std::string> facts(message.facts.begin(), message.facts.end());
    EXPECT_EQ(facts["category"], "T");
    EXPECT_EQ(facts["type"], "O");
    EXPECT_EQ(facts["function"], "C");
    EXPECT_TRUE(facts.contains("conditions"));
    EXPECT_FALSE(facts.contains("price"));
    EXPECT_FALSE(facts.contains("symbol"));
    EXPECT_FALSE(facts.contains("version"));
}

TEST(MessageBytes, AReply_IsTakenApartByNumber) {
    const std::string session = "UTPBENCH01";
    const auto reply = packet(session, 7, {{1, 2, 3}, {4}});
    std::map<std::uint64_t, SentMessage> messages;
    take_reply(session, reply.data(), reply.size(), messages);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[7].hex, "010203");
    EXPECT_EQ(messages[8].hex, "04");
    EXPECT_NE(messages[8].decoded.find("\"kind\":\"unknown\""), std::string::npos);
}

TEST(MessageBytes, AnythingElse_IsPassedOver) {
    std::map<std::uint64_t, SentMessage> messages;
    const auto other = packet("UTPBENCH02", 7, {{1}});
    take_reply("UTPBENCH01", other.data(), other.size(), messages);
    take_reply("UTPBENCH01", other.data(), 5, messages);
    EXPECT_TRUE(messages.empty());
    auto cut = packet("UTPBENCH01", 7, {{1, 2, 3}, {4, 5, 6}});
    cut.resize(cut.size() - 1);
    take_reply("UTPBENCH01", cut.data(), cut.size(), messages);
    EXPECT_EQ(messages.size(), 1U);
}

}  // namespace
}  // namespace tessel::certify
