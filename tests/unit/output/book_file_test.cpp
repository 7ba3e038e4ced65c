#include "output/book_file.h"

#include "engine/halts.h"
#include "market/quote_index.h"
#include "output/quote_line.h"
#include "output/truth_log.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace tessel {
namespace {

using testing::read_file;
using testing::TempFolder;
using testing::TestMarket;

// The files without a reserve: these tests are not short of descriptors.
void replace_file(const std::string& path, const std::string& text) {
    ReserveDescriptor none;
    tessel::replace_file(path, text, none);
    close(none.fd);
}

std::string book(const TestMarket& market, std::uint64_t now_ns = 42) {
    std::string text;
    format_book(text, market.engine.instruments, now_ns);
    return text;
}

void set_quote(Instrument& instrument, std::size_t slot, std::int64_t bid_cents, std::uint32_t bid_size,
               std::int64_t ask_cents, std::uint32_t ask_size) {
    ParticipantQuote& quote = instrument.quotes[slot];
    quote.quoted = true;
    quote.present = true;
    quote.condition = 'R';
    quote.bid = bid_cents * cent;
    quote.bid_size = bid_size;
    quote.ask = ask_cents * cent;
    quote.ask_size = ask_size;
    index_quote(quote, instrument.blocks, slot);
}

TEST(Book, InstrumentWithoutQuotes_HasEmptySides) {
    const TestMarket market({.symbols = "IBM:100"});
    EXPECT_EQ(book(market),
              "{\"ts_ns\":42,\"symbols\":{\"IBM\":{\"bid\":[],\"ask\":[],\"last\":0,\"volume\":0,\"status\":"
              "\"T\"}}}\n");
}

TEST(Book, NoInstruments_SymbolsAreEmpty) {
    const TestMarket market({.symbols = ""});
    EXPECT_EQ(book(market, 18446744073709551615u), "{\"ts_ns\":18446744073709551615,\"symbols\":{}}\n");
}

TEST(Book, Members_AreInListOrderWithLastVolumeAndStatus) {
    TestMarket market({.symbols = "B:1,A:2"});
    set_quote(market.at(0), 0, 19001, 300, 19003, 200);
    market.at(0).last_trade_price = 19002 * cent;
    market.at(0).share_volume = 5000;
    market.at(1).status = 'H';
    EXPECT_EQ(book(market),
              "{\"ts_ns\":42,\"symbols\":{\"B\":{\"bid\":[[190.01,300]],\"ask\":[[190.03,200]],\"last\":"
              "190.02,\"volume\":5000,\"status\":\"T\"},\"A\":{\"bid\":[],\"ask\":[],\"last\":0,"
              "\"volume\":0,\"status\":\"H\"}}}\n");
}

TEST(Book, DeepSides_ShowFiveLevelsWhereTheTruthShowsMore) {
    TestMarket market({.symbols = "IBM:100", .participants = "ABCDEFGH"});
    for (std::size_t slot = 0; slot < 8; ++slot) {
        const auto step = static_cast<std::int64_t>(slot);
        set_quote(market.at(0), slot, 9999 - step, 100 + 100 * static_cast<std::uint32_t>(slot), 10001 + step,
                  100);
    }
    EXPECT_EQ(
        book(market),
        "{\"ts_ns\":42,\"symbols\":{\"IBM\":{\"bid\":[[99.99,100],[99.98,200],[99.97,300],[99.96,400],[99.95,"
        "500]],"
        "\"ask\":[[100.01,100],[100.02,100],[100.03,100],[100.04,100],[100.05,100]],\"last\":0,\"volume\":0,"
        "\"status\":\"T\"}}}\n");
    write_quote_line(market.engine.truth, market.at(0), 1);
    EXPECT_NE(market.truth_text().find("[99.9200,800]"), std::string::npos);
}

TEST(Book, EqualPrices_AreOneLevelAndPricesHaveSixDigits) {
    TestMarket market({.symbols = "IBM:100"});
    set_quote(market.at(0), 0, 123456, 300, 123457, 4294967295u);
    set_quote(market.at(0), 1, 123456, 200, 123457, 4294967295u);
    set_quote(market.at(0), 2, 100, 1, 1000000000, 1);
    EXPECT_EQ(book(market),
              "{\"ts_ns\":42,\"symbols\":{\"IBM\":{\"bid\":[[1234.56,500],[1,1]],\"ask\":[[1234.57,"
              "8589934590],[1e+07,1]],\"last\":0,\"volume\":0,\"status\":\"T\"}}}\n");
}

// The same text from a stream, which is what "default formatting" means, over a market in motion.
TEST(Book, EveryPrice_IsWhatAnOutputStreamPrints) {
    TestMarket market(
        {.symbols = "A:0.05,B:9.99,C:99.995,D:655.35,E:9999.99,F:12345.67,G:123456.78,H:99999999,I:-3"});
    testing::StderrCapture log;
    market.start_of_day();
    for (int round = 0; round < 200; ++round) {
        market.run_ticks(1);
        for (const Instrument& instrument : market.engine.instruments) {
            std::string member;
            append_book_member(member, instrument);
            std::ostringstream expected;
            const auto side = [&](char letter) {
                PriceLevels levels;
                build_levels(instrument, letter, book_levels_max, levels);
                for (std::size_t at = 0; at < levels.count; ++at) {
                    expected << (at == 0 ? "" : ",") << '['
                             << static_cast<double>(levels.level[at].price) / 1'000'000.0 << ','
                             << levels.level[at].size << ']';
                }
            };
            expected << '"' << instrument.symbol << "\":{\"bid\":[";
            side('B');
            expected << "],\"ask\":[";
            side('A');
            expected << "],\"last\":" << static_cast<double>(instrument.last_trade_price) / 1'000'000.0
                     << ",\"volume\":" << instrument.share_volume << ",\"status\":\"" << instrument.status
                     << "\"}";
            ASSERT_EQ(member, expected.str());
        }
    }
}

TEST(Book, LongestPossibleMember_Fits) {
    TestMarket market({.symbols = std::string(5000, 'S') + ":1", .participants = "ABCDEFGHIJ"});
    for (std::size_t slot = 0; slot < 10; ++slot) {
        set_quote(market.at(0), slot, 0, 4294967295u, price_cents_max - static_cast<std::int64_t>(slot),
                  4294967295u);
        market.at(0).quotes[slot].bid = 9'223'372'036'854'770'000 - static_cast<std::int64_t>(slot) * cent;
    }
    market.at(0).last_trade_price = -price_cents_max * cent;
    market.at(0).share_volume = 18446744073709551615u;
    std::string member;
    append_book_member(member, market.at(0));
    EXPECT_NE(member.find("\"last\":-1e+10,\"volume\":18446744073709551615,\"status\":\"T\"}"),
              std::string::npos);
}

TEST(Bbo, EachInstrument_IsOneLineWithSixDigitsAndZeroForNone) {
    TestMarket market({.symbols = "AAPL:190,GOOG:1,IBM:1"});
    market.at(0).nbbo.bid = 190'050'000;
    market.at(0).nbbo.ask = 190'100'000;
    market.at(1).nbbo.bid = 1'234'560'000;
    market.at(1).nbbo.ask = 12'345'670'000;
    std::string text = "left from last time";
    format_bbo(text, market.engine.instruments);
    EXPECT_EQ(text, "AAPL 190.05 190.1\nGOOG 1234.56 12345.7\nIBM 0 0\n");
}

TEST(ReplaceFile, NewText_IsInPlaceAndNoTemporaryFileIsLeft) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    replace_file(path, "first\n");
    EXPECT_EQ(read_file(path), "first\n");
    replace_file(path, "second, longer\n");
    EXPECT_EQ(read_file(path), "second, longer\n");
    replace_file(path, "3\n");
    EXPECT_EQ(read_file(path), "3\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST(ReplaceFile, FullDisk_KeepsTheOldFile) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    replace_file(path, "old\n");
    ASSERT_EQ(symlink("/dev/full", (path + ".tmp").c_str()), 0);
    replace_file(path, "new\n");
    EXPECT_EQ(read_file(path), "old\n");
    EXPECT_FALSE(std::filesystem::is_symlink(path + ".tmp"))
        << "the temporary file that could not be written is gone";
    replace_file(path, "new\n");
    EXPECT_EQ(read_file(path), "new\n");
}

// A limit on the size of files makes a write end short; only a separate process can have one.
TEST(ReplaceFile, WriteThatEndsHalfway_KeepsTheOldFile) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    replace_file(path, "old\n");
    const pid_t child = fork();
    if (child == 0) {
        // The feed ignores the signal; without that it would end here.
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        replace_file(path, std::string(5000, 'x'));
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(path), "old\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST(ReplaceFile, FailedOpen_StillRenamesAnOlderTemporaryFile) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    // A temporary file that cannot be opened for writing: a folder of that name, which can still be renamed.
    ASSERT_TRUE(std::filesystem::create_directory(path + ".tmp"));
    replace_file(path, "new\n");
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

// With nobody at the other end of the FIFO, opening it for writing would wait for ever.
TEST(ReplaceFile, TemporaryIsAFifoThatNobodyReads_ReturnsAndKeepsTheOldFile) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    replace_file(path, "old\n");
    ASSERT_EQ(mkfifo((path + ".tmp").c_str(), 0600), 0);
    replace_file(path, "new\n");
    EXPECT_EQ(read_file(path), "old\n");
    replace_file(path, "newer\n");
    EXPECT_EQ(read_file(path), "newer\n");
}

TEST(ReplaceFile, TemporaryIsAFifoWithAReader_NothingIsWrittenAndTheOldFileStays) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    replace_file(path, "old\n");
    ASSERT_EQ(mkfifo((path + ".tmp").c_str(), 0600), 0);
    const int reader = open((path + ".tmp").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    // Far more than a FIFO holds: writing it would wait, or be cut off.
    replace_file(path, std::string(1'000'000, 'x'));
    EXPECT_EQ(read_file(path), "old\n");
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0) << "the end of file: nobody has it open and nothing came";
    close(reader);
}

// A stale .tmp may be longer than what replaces it.
TEST(ReplaceFile, LongerStaleTemporary_IsCutToTheNewText) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    std::ofstream(path + ".tmp") << std::string(1000, 'x');
    replace_file(path, "new\n");
    EXPECT_EQ(read_file(path), "new\n");
}

// In a separate process, which then has no descriptor left.
TEST(ReplaceFile, OutOfDescriptors_WrittenInPlaceOfTheReserveEachTime) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    const pid_t child = fork();
    if (child == 0) {
        ReserveDescriptor reserve;
        open_reserve(reserve);
        const rlimit limit{64, 64};
        setrlimit(RLIMIT_NOFILE, &limit);
        while (open("/dev/null", O_RDONLY) >= 0) {}
        for (const char* text : {"one\n", "two\n", "three\n"}) {
            tessel::replace_file(path, text, reserve);
            if (reserve.fd < 0 || open("/dev/null", O_RDONLY) >= 0) {
                _exit(1);  // the reserve is open again, and nothing else is free
            }
        }
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(path), "three\n");
}

TEST(ReplaceFile, FolderThatDisappearsAndComesBack_IsSurvived) {
    const TempFolder folder;
    const std::string sub = folder.path("out");
    const std::string path = sub + "/book.json";
    replace_file(path, "one\n");
    EXPECT_FALSE(std::filesystem::exists(path));
    std::filesystem::create_directory(sub);
    replace_file(path, "two\n");
    EXPECT_EQ(read_file(path), "two\n");
    std::filesystem::remove_all(sub);
    replace_file(path, "three\n");
    std::filesystem::create_directory(sub);
    replace_file(path, "four\n");
    EXPECT_EQ(read_file(path), "four\n");
}

TEST(ReplaceFile, Reader_SeesThePreviousOrTheNewTextAndNeverAPart) {
    const TempFolder folder;
    const std::string path = folder.path("book.json");
    const std::string texts[2] = {std::string(30'000, 'a') + "\n", std::string(50'000, 'b') + "\n"};
    replace_file(path, texts[0]);
    std::atomic<bool> done{false};
    std::size_t reads = 0;
    std::size_t bad = 0;
    std::thread reader([&] {
        while (!done.load() || reads < 100) {
            const std::string text = read_file(path);
            bad += text != texts[0] && text != texts[1] ? 1 : 0;
            ++reads;
        }
    });
    for (int turn = 0; turn < 400; ++turn) {
        replace_file(path, texts[turn % 2]);
    }
    done = true;
    reader.join();
    EXPECT_EQ(bad, 0u) << "of " << reads;
}

}  // namespace
}  // namespace tessel
