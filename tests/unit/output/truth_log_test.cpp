#include "output/truth_log.h"

#include "engine/halts.h"
#include "market/instrument.h"
#include "market/quote_index.h"
#include "support/test_market.h"
#include "unit/output/log_in_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace tessel {
namespace {

using testing::cut_format;
using testing::dollars;
using testing::Log;
using testing::read_file;
using testing::TempFolder;

TEST(CutLines, SymbolsOfEveryLength_EqualTheFormattingCallsIntoTheirBuffers) {
    for (std::size_t length = 0; length <= 260; length += length < 40 || length > 170 ? 10 : 1) {
        const std::string symbol(length, 'S');
        Log log(symbol.empty() ? ":1" : symbol);
        log.instrument().secid = 65535;
        const unsigned long long sequence = 12'345'678'901;
        const std::int64_t price = 190'030'000;
        write_trade_line(log.truth, log.instrument(), sequence, price, 200, 'Q', "@F I", 2, 987'654'321);
        ASSERT_EQ(
            log.take(),
            cut_format<160>(
                "{\"seq\":%llu,\"secid\":%u,\"symbol\":\"%s\",\"trade\":[%.4f,%llu,\"%c\",\"%.4s\"],"
                "\"kind\":%d,\"id\":%llu}\n",
                sequence, 65535u, symbol.c_str(), dollars(price), 200ull, 'Q', "@F I", 2, 987'654'321ull));
        write_cancel_line(log.truth, log.instrument(), sequence, 12, -price, 8'000, 'N', 'E');
        ASSERT_EQ(
            log.take(),
            cut_format<200>("{\"seq\":%llu,\"secid\":%u,\"symbol\":\"%s\",\"cancel_error\":[%llu,%.4f,%llu,"
                            "\"%c\",\"%c\"]}\n",
                            sequence, 65535u, symbol.c_str(), 12ull, dollars(-price), 8'000ull, 'N', 'E'));
        write_correction_line(log.truth, log.instrument(), sequence, 11, 13, price, 100, 'D');
        ASSERT_EQ(log.take(),
                  cut_format<220>(
                      "{\"seq\":%llu,\"secid\":%u,\"symbol\":\"%s\",\"correction\":[%llu,%llu,%.4f,%llu,"
                      "\"%c\"]}\n",
                      sequence, 65535u, symbol.c_str(), 11ull, 13ull, dollars(price), 100ull, 'D'));
    }
}

TEST(CutLines, WholeLines_AreThese) {
    Log log("AAPL");
    write_trade_line(log.truth, log.instrument(), 813, 190'030'000, 200, 'Q', "@   ", 0, 12);
    write_cancel_line(log.truth, log.instrument(), 814, 12, 190'030'000, 200, 'Q', 'C');
    write_correction_line(log.truth, log.instrument(), 815, 11, 13, 0, 100, 'N');
    EXPECT_EQ(log.take(),
              "{\"seq\":813,\"secid\":1,\"symbol\":\"AAPL\",\"trade\":[190.0300,200,\"Q\",\"@   "
              "\"],\"kind\":0,\"id\":12}\n"
              "{\"seq\":814,\"secid\":1,\"symbol\":\"AAPL\",\"cancel_error\":[12,190.0300,200,\"Q\",\"C\"]}\n"
              "{\"seq\":815,\"secid\":1,\"symbol\":\"AAPL\",\"correction\":[11,13,0.0000,100,\"N\"]}\n");
}

TEST(AsOfLine, Price_IsWhatAStreamPrints) {
    Log log("AAPL");
    for (const std::int64_t price : {189'970'000, 1'234'570'000, 100'000'000, 190'500'000, -20'000, 0}) {
        std::ostringstream expected;
        expected << "{\"seq\":816,\"secid\":1,\"symbol\":\"AAPL\",\"asof\":[" << dollars(price)
                 << ",300,\"D\",\"@   \"]}\n";
        write_as_of_line(log.truth, log.instrument(), 816, price);
        EXPECT_EQ(log.take(), expected.str());
    }
}

TEST(MwcbAndMarkLines, AnyArgument_LevelAsGivenAndLabelAsItIs) {
    Log log;
    write_mwcb_line(log.truth, 817, 4'294'967'295u);
    write_mwcb_line(log.truth, 818, 0);
    write_mark_line(log.truth, "", 0);
    write_mark_line(log.truth, std::string(4'000, 'l'), 818);
    EXPECT_EQ(log.take(),
              "{\"seq\":817,\"mwcb\":4294967295}\n{\"seq\":818,\"mwcb\":0}\n{\"mark\":\"\",\"seq\":0}\n"
              "{\"mark\":\"" +
                  std::string(4'000, 'l') + "\",\"seq\":818}\n");
}

TEST(OpenTruthLog, ExistingFile_IsAppendedTo) {
    TempFolder folder;
    const std::string path = folder.path("truth.jsonl");
    for (const unsigned run : {1u, 2u}) {
        TruthLog truth;
        open_truth_log(truth, path);
        ASSERT_TRUE(truth.enabled);
        write_mwcb_line(truth, run, run);
        close_truth_log(truth);
        EXPECT_FALSE(truth.enabled);
        write_mwcb_line(truth, 9, 9);  // closed: nothing
    }
    EXPECT_EQ(read_file(path), "{\"seq\":1,\"mwcb\":1}\n{\"seq\":2,\"mwcb\":2}\n");
}

void write_every_line(TruthLog& truth, const Instrument& instrument) {
    write_quote_line(truth, instrument, 1);
    write_trade_line(truth, instrument, 1, 1, 1, 'Q', "@   ", 0, 1);
    write_cancel_line(truth, instrument, 1, 1, 1, 1, 'Q', 'C');
    write_correction_line(truth, instrument, 1, 1, 2, 1, 1, 'Q');
    write_as_of_line(truth, instrument, 1, 1);
    write_mwcb_line(truth, 1, 1);
    write_mark_line(truth, "m", 1);
}

TEST(OpenTruthLog, PathThatCannotBeOpened_StaysSilent) {
    TempFolder folder;
    TruthLog truth;
    Instrument instrument;
    testing::StderrCapture errors;
    open_truth_log(truth, folder.path("missing/truth.jsonl"));
    EXPECT_FALSE(truth.enabled);
    write_every_line(truth, instrument);
    EXPECT_EQ(errors.take(), "");
    EXPECT_FALSE(truth.enabled);
}

TEST(TruthLog, NeverOpened_NothingIsWrittenAnywhere) {
    TruthLog truth;
    Instrument instrument;
    write_every_line(truth, instrument);
    EXPECT_TRUE(truth.line.empty());
    EXPECT_FALSE(truth.enabled);
}

TEST(TruthLog, WriteThatFails_SilencesItForGood) {
    TempFolder folder;
    TruthLog truth;
    Instrument instrument;
    open_truth_log(truth, "/dev/full");
    ASSERT_TRUE(truth.enabled);
    write_mwcb_line(truth, 1, 1);
    EXPECT_FALSE(truth.enabled);
    // Even with a good file under it nothing more is written.
    const std::string path = folder.path("truth.jsonl");
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ASSERT_GE(file, 0);
    dup2(file, truth.fd);
    write_every_line(truth, instrument);
    EXPECT_EQ(read_file(path), "");
    close(file);
    close_truth_log(truth);
}

TEST(TruthLog, EachLine_IsInTheFileAtOnce) {
    Log log;
    for (unsigned at = 0; at < 3; ++at) {
        write_mwcb_line(log.truth, at, at);
        EXPECT_EQ(log.take(), "{\"seq\":" + std::to_string(at) + ",\"mwcb\":" + std::to_string(at) + "}\n");
    }
}

TEST(TruthLogSink, Sink_ReceivesEachLineWholeInsteadOfAFile) {
    Log log;
    std::vector<std::string> lines;
    close_truth_log(log.truth);
    log.truth.enabled = true;
    log.truth.sink.context = &lines;
    log.truth.sink.write = [](void* context, const char* line, std::size_t length) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(line, length);
    };
    write_mwcb_line(log.truth, 5, 2);
    write_mark_line(log.truth, "here", 5);
    EXPECT_EQ(lines,
              (std::vector<std::string>{"{\"seq\":5,\"mwcb\":2}\n", "{\"mark\":\"here\",\"seq\":5}\n"}));
}

}  // namespace
}  // namespace tessel
