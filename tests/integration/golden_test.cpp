// The first messages of the default feed, kept as a file that a reviewer can read. The file is written by the
// model and never by the program, so the program cannot agree with its own mistake. TESSEL_UPDATE_GOLDEN=1
// rewrites it.

#include "support/message_difference.h"
#include "support/model/model.h"
#include "support/test_market.h"
#include "wire/layout.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tessel {
namespace {

constexpr std::size_t golden_messages = 500;
constexpr std::uint64_t tick_ms = 100;

std::string golden_path() {
    return std::string(TESSEL_SOURCE_DIR) + "/tests/golden/default_500.txt";
}

// What the model sends first with every option at its default, time stamps zeroed.
std::vector<std::string> model_messages() {
    model::Model feed{model::Options{}};
    feed.wall_step_ns = 1;
    feed.start_of_day();
    while (feed.messages.size() < golden_messages) {
        // Time must pass: of two quotes of one price and size, the older one names the NBBO's market center.
        feed.steady_ms += tick_ms;
        feed.wall_ns += tick_ms * 1'000'000;
        feed.tick(feed.steady_ms);
    }
    std::vector<std::string> messages;
    for (std::size_t i = 0; i < golden_messages; ++i) {
        messages.push_back(testing::without_times(feed.messages[i]));
    }
    return messages;
}

std::vector<std::string> program_messages() {
    testing::TestMarket market;
    market.start_of_day();
    while (market.last() < golden_messages) {
        market.run_ticks(1, tick_ms);
    }
    std::vector<std::string> messages;
    for (const testing::Bytes& message : market.messages(1, golden_messages)) {
        messages.push_back(testing::without_times({message.begin(), message.end()}));
    }
    return messages;
}

struct GoldenLine {
    std::size_t sequence = 0;
    std::string type;
    std::string message;
};

// "3 directory-short 3141..." a line; lines that start with '#' are for the reader.
std::vector<GoldenLine> read_golden() {
    std::vector<GoldenLine> lines;
    std::ifstream file(golden_path());
    for (std::string text; std::getline(file, text);) {
        if (text.empty() || text[0] == '#') {
            continue;
        }
        GoldenLine line;
        std::string hex;
        std::istringstream(text) >> line.sequence >> line.type >> hex;
        line.message = testing::from_hex(hex);
        lines.push_back(line);
    }
    return lines;
}

void write_golden(const std::vector<std::string>& messages) {
    std::ofstream file(golden_path());
    file << "# The first " << messages.size()
         << " messages of the default configuration (seed 7), time stamps zeroed:\n"
         << "# sequence number, type, message in hexadecimal. Rewritten by TESSEL_UPDATE_GOLDEN=1 "
            "runs_tests.\n";
    for (std::size_t i = 0; i < messages.size(); ++i) {
        file << i + 1 << ' ' << testing::type_name(messages[i]) << ' ' << testing::to_hex(messages[i])
             << '\n';
    }
    ASSERT_TRUE(file.good()) << golden_path();
}

void expect_golden(const std::vector<std::string>& messages) {
    const std::vector<GoldenLine> golden = read_golden();
    ASSERT_EQ(golden.size(), golden_messages) << golden_path();
    ASSERT_EQ(messages.size(), golden_messages);
    for (std::size_t i = 0; i < golden_messages; ++i) {
        ASSERT_EQ(golden[i].sequence, i + 1);
        ASSERT_EQ(golden[i].type, testing::type_name(golden[i].message));
        ASSERT_EQ(testing::difference(golden[i].message, messages[i]), "") << "sequence " << i + 1;
    }
}

TEST(Golden, DefaultSeed7_ModelStillWritesTheFile) {
    const std::vector<std::string> messages = model_messages();
    if (std::getenv("TESSEL_UPDATE_GOLDEN") != nullptr) {
        ASSERT_NO_FATAL_FAILURE(write_golden(messages));
    }
    expect_golden(messages);
}

TEST(Golden, DefaultSeed7_ProgramSendsTheFile) {
    expect_golden(program_messages());
}

// The comparison itself: a planted change is reported as the field that it is in.
TEST(Golden, PlantedDifference_IsReportedAsTheField) {
    const std::vector<GoldenLine> golden = read_golden();
    ASSERT_EQ(golden.size(), golden_messages);
    for (const GoldenLine& line : golden) {
        std::vector<layout::LocatedField> fields;
        const auto* const bytes = reinterpret_cast<const unsigned char*>(line.message.data());
        ASSERT_EQ(layout::locate_fields(fields, bytes, line.message.size()), line.message.size())
            << "sequence " << line.sequence;
        for (const layout::LocatedField& located : fields) {
            std::string changed = line.message;
            char& last = changed[located.offset + located.field->width - 1];
            last = static_cast<char>(last ^ 1);
            const std::string reported = testing::difference(line.message, changed);
            ASSERT_NE(reported.find(std::string(located.field->name) + " at offset " +
                                    std::to_string(located.offset)),
                      std::string::npos)
                << reported;
        }
    }
    const std::string longer = golden[0].message + "x";
    EXPECT_NE(testing::difference(golden[0].message, longer).find("length: expected 29 bytes, got 30"),
              std::string::npos);
}

}  // namespace
}  // namespace tessel
