#include "listen/report.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::listen {
namespace {

TEST(Report, Line_BeginsWithTheProgram) {
    EXPECT_EQ(report_line("no packets received", error_line_max), "tessel-listen: no packets received");
}

TEST(Report, LongLine_IsCutToTheLimitAndMarked) {
    const std::string fits(error_line_max - 15, 'x');
    EXPECT_EQ(report_line(fits, error_line_max).size(), error_line_max);
    EXPECT_TRUE(report_line(fits, error_line_max).ends_with("xxx"));
    const std::string line = report_line(fits + "y", error_line_max);
    EXPECT_EQ(line.size(), error_line_max);
    EXPECT_TRUE(line.ends_with("xxx..."));
}

TEST(Report, ControlCharacters_NeverReachTheTerminal) {
    EXPECT_EQ(report_line("a\nb\x1b[2Jc\x7f", error_line_max), "tessel-listen: a?b?[2Jc?");
}

}  // namespace
}  // namespace tessel::listen
