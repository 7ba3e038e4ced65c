#include "output/truth_log.h"

#include "engine/halts.h"
#include "market/instrument.h"
#include "market/quote_index.h"
#include "support/test_market.h"

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

using testing::read_file;
using testing::TempFolder;

// An instrument with quotes of its own and a log in a file.
struct Log {
    TempFolder folder;
    std::string path = folder.path("truth.jsonl");
    TruthLog truth;
    InstrumentList list;
    std::vector<ParticipantQuote> quotes;
    std::size_t taken = 0;

    explicit Log(const std::string& symbol = "AAPL", std::size_t centers = 0) : quotes(centers) {
        std::string error;
        EXPECT_TRUE(build_instruments(symbol, list, error));
        for (std::size_t at = 0; at < centers; ++at) {
            quotes[at].mc = static_cast<char>('A' + at);
            quotes[at].present = true;
        }
        list[0].quotes = quotes.data();
        list[0].quote_slots = centers;
        open_truth_log(truth, path);
    }
    ~Log() {
        close_truth_log(truth);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    Instrument& instrument() {
        return list[0];
    }
    // What was written since the last call.
    std::string take() {
        std::ifstream file(path, std::ios::binary);
        file.seekg(static_cast<std::streamoff>(taken));
        const std::string fresh{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        taken += fresh.size();
        return fresh;
    }
    std::string quote_line(std::uint64_t sequence, std::string_view extra = {}) {
        write_quote_line(truth, instrument(), sequence, extra);
        return take();
    }
};

// A formatting call into a buffer of N bytes, as the line is defined. The formats are the literals of the
// tests below, which the compiler no longer sees through the parameter.
template <std::size_t N, typename... Values>
std::string cut_format(const char* format, Values... values) {
    std::array<char, N> buffer;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    std::snprintf(buffer.data(), buffer.size(), format, values...);
#pragma GCC diagnostic pop
    return buffer.data();
}

double dollars(std::int64_t price) {
    return static_cast<double>(price) / 1e6;
}

TEST(QuoteLine, NoQuotes_EmptyListsAndZeroNbbo) {
    Log log("IBM");
    EXPECT_EQ(log.quote_line(7),
              "{\"seq\":7,\"secid\":1,\"symbol\":\"IBM\",\"bid\":[],\"ask\":[],"
              "\"nbbo\":[0.0000,0,0.0000,0],\"status\":\"T\"}\n");
}

TEST(QuoteLine, LevelsNbboBandAndStatus_StandInTheirOrder) {
    Log log("AAPL:190", 3);
    log.quotes[0].bid = 190'000'000;
    log.quotes[0].bid_size = 500;
    log.quotes[1].bid = 190'010'000;
    log.quotes[1].bid_size = 300;
    log.quotes[2].ask = 190'030'000;
    log.quotes[2].ask_size = 200;
    Instrument& instrument = log.instrument();
    instrument.nbbo_bid = 190'010'000;
    instrument.nbbo_bid_size = 300;
    instrument.nbbo_ask = 190'030'000;
    instrument.nbbo_ask_size = 200;
    instrument.luld_lower = 180'500'000;
    instrument.luld_upper = 199'500'000;
    instrument.band_indicator = 'A';
    EXPECT_EQ(log.quote_line(812),
              "{\"seq\":812,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[[190.0100,300],[190.0000,500]],"
              "\"ask\":[[190.0300,200]],\"nbbo\":[190.0100,300,190.0300,200],\"band\":[180.5000,199.5000],"
              "\"status\":\"T\"}\n");
    instrument.status = 'H';
    instrument.band_indicator = 'D';
    EXPECT_EQ(log.quote_line(813, ",\"ah\":\"H\",\"reason\":\"T1\""),
              "{\"seq\":813,\"secid\":1,\"symbol\":\"AAPL\",\"bid\":[[190.0100,300],[190.0000,500]],"
              "\"ask\":[[190.0300,200]],\"nbbo\":[190.0100,300,190.0300,200],"
              "\"status\":\"H\",\"ah\":\"H\",\"reason\":\"T1\"}\n");
}

TEST(QuoteLine, TwelveBidPrices_TheBestTenAppear) {
    Log log("A", 12);
    std::string expected;
    for (int at = 0; at < 12; ++at) {
        log.quotes[static_cast<std::size_t>(at)].bid = (at + 1) * 10'000;
        log.quotes[static_cast<std::size_t>(at)].bid_size = 100;
    }
    for (int cents = 12; cents > 2; --cents) {
        expected += cut_format<40>("%s[%.4f,%lld]", cents == 12 ? "" : ",", cents / 100.0, 100LL);
    }
    EXPECT_NE(log.quote_line(1).find("\"bid\":[" + expected + "],\"ask\":[]"), std::string::npos);
}

// One side's list from the quotes: added up by price, best first, ten at most.
std::string formatted_levels(const std::vector<ParticipantQuote>& quotes, bool bids) {
    std::map<std::int64_t, long long> sizes;
    for (const ParticipantQuote& quote : quotes) {
        const std::int64_t price = bids ? quote.bid : quote.ask;
        const std::uint32_t size = bids ? quote.bid_size : quote.ask_size;
        if (quote.present && price > 0 && size > 0) {
            sizes[bids ? -price : price] += size;
        }
    }
    std::string text;
    int count = 0;
    for (const auto& [key, size] : sizes) {
        if (++count > 10) {
            break;
        }
        text += cut_format<80>("%s[%.4f,%lld]", count == 1 ? "" : ",", dollars(bids ? -key : key), size);
    }
    return text;
}

TEST(QuoteLine, Seed8_RandomBooksAroundWholeDollars_EqualTheFormattedPieces) {
    std::mt19937_64 raw(8);
    Log log("A", 14);
    Instrument& instrument = log.instrument();
    constexpr std::int64_t bases[] = {0, 97, 998, 9'997, 99'999, 1'000'003, 999'999'999'990};
    for (int round = 0; round < 1'500; ++round) {
        const std::int64_t base = bases[raw() % 7];
        const auto price = [&] { return (base + static_cast<std::int64_t>(raw() % 9)) * 10'000; };
        for (ParticipantQuote& quote : log.quotes) {
            quote.present = raw() % 6 != 0;
            quote.bid = raw() % 5 == 0 ? 0 : price();
            quote.ask = raw() % 5 == 0 ? -price() : price();
            quote.bid_size = static_cast<std::uint32_t>(raw() % 4 * 1'234);
            quote.ask_size = static_cast<std::uint32_t>(raw() % 4 * 99);
        }
        instrument.nbbo_bid = price();
        instrument.nbbo_ask = raw() % 4 == 0 ? 0 : price();
        instrument.nbbo_bid_size = static_cast<std::uint32_t>(raw());
        instrument.nbbo_ask_size = static_cast<std::uint32_t>(raw() % 2'000);
        const auto expected =
            cut_format<200>("],\"nbbo\":[%.4f,%u,%.4f,%u],\"status\":\"T\"}\n", dollars(instrument.nbbo_bid),
                            instrument.nbbo_bid_size, dollars(instrument.nbbo_ask), instrument.nbbo_ask_size);
        ASSERT_EQ(log.quote_line(5), "{\"seq\":5,\"secid\":1,\"symbol\":\"A\",\"bid\":[" +
                                         formatted_levels(log.quotes, true) + "],\"ask\":[" +
                                         formatted_levels(log.quotes, false) + expected)
            << "round " << round;
    }
}

TEST(QuoteLine, Band_IsLeftOutWhenAPriceIsNotAboveZeroOrTheLetterIsNotChecked) {
    Log log;
    Instrument& instrument = log.instrument();
    for (const char letter : std::string(" ABCDEFGHI")) {
        instrument.luld_lower = 10'000;
        instrument.luld_upper = 20'000;
        instrument.band_indicator = letter;
        const bool checked = std::string("ABCEG").find(letter) != std::string::npos;
        EXPECT_EQ(log.quote_line(1).find(",\"band\":[0.0100,0.0200],") != std::string::npos, checked)
            << letter;
        instrument.luld_lower = 0;
        EXPECT_EQ(log.quote_line(1).find("band"), std::string::npos);
        instrument.luld_lower = 10'000;
        instrument.luld_upper = -1;
        EXPECT_EQ(log.quote_line(1).find("band"), std::string::npos);
    }
}

// The same line whether the levels come from the index or from the quotes themselves.
TEST(QuoteLine, MarketInMotion_TheIndexAndTheQuotesGiveTheSameLine) {
    testing::TestMarket market({.symbols = "A:0.05,B:19.99,C:999.97,D:1234.56,E:167772.00,F:3000000,G:-1",
                                .participants = "ABCDEFGD",
                                .scenario = "odd_lot_every=3",
                                .step_bps = 2,
                                .truth = false});
    testing::StderrCapture messages;
    Log log;
    market.start_of_day();
    int from_index = 0;
    int lines = 0;
    for (int round = 0; round < 400; ++round) {
        market.run_ticks(1);
        if (round % 50 == 20) {
            halt_instrument(market.engine, market.at(1), "T1", 5);
        }
        if (round % 50 == 40) {
            resume_quotation(market.engine, market.at(1), 1);
        }
        for (Instrument& instrument : market.engine.instruments) {
            LevelBuckets bids;
            LevelBuckets asks;
            from_index += fill_level_buckets(instrument, bids, asks) ? 1 : 0;
            ++lines;
            write_quote_line(log.truth, instrument, 1, {});
            const std::string indexed = log.take();
            QuoteBlock* const blocks = instrument.blocks;
            instrument.blocks = nullptr;
            write_quote_line(log.truth, instrument, 1, {});
            instrument.blocks = blocks;
            ASSERT_EQ(log.take(), indexed) << instrument.symbol << " round " << round;
        }
    }
    EXPECT_GT(from_index, lines / 2);
    EXPECT_LT(from_index, lines);
}

TEST(QuoteLine, LargestPricesSizesAndALongSymbol_FitTheLine) {
    const std::string symbol(5'000, 'S');
    Log log(symbol, 20);
    for (ParticipantQuote& quote : log.quotes) {
        quote.bid = 10'000'000'000'000'000 - quote.mc * 10'000;
        quote.ask = quote.bid;
        quote.bid_size = 4'294'967'295u;
        quote.ask_size = quote.bid_size;
    }
    const std::string line = log.quote_line(18'446'744'073'709'551'615u, std::string(3'000, 'x'));
    EXPECT_EQ(line.find("{\"seq\":18446744073709551615,\"secid\":1,\"symbol\":\"" + symbol + "\""), 0u);
    EXPECT_NE(line.find("[9999999999.3500,4294967295],"), std::string::npos);
    EXPECT_EQ(line.substr(line.size() - 3'002), std::string(3'000, 'x') + "}\n");
}

TEST(CutLines, SymbolsOfEveryLength_EqualTheFormattingCallsIntoTheirBuffers) {
    for (std::size_t length = 0; length <= 260; length += length < 40 || length > 170 ? 10 : 1) {
        const std::string symbol(length, 'S');
        Log log("X");
        log.instrument().symbol = symbol;
        log.instrument().secid = 65535;
        make_truth_head(log.instrument());
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

TEST(MwcbAndMarkLines, LevelAsGivenAndLabelAsItIs) {
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
        ASSERT_TRUE(truth.good);
        write_mwcb_line(truth, run, run);
        close_truth_log(truth);
        EXPECT_FALSE(truth.good);
        write_mwcb_line(truth, 9, 9);  // closed: nothing
    }
    EXPECT_EQ(read_file(path), "{\"seq\":1,\"mwcb\":1}\n{\"seq\":2,\"mwcb\":2}\n");
}

void write_every_line(TruthLog& truth, const Instrument& instrument) {
    write_quote_line(truth, instrument, 1, {});
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
    EXPECT_FALSE(truth.good);
    write_every_line(truth, instrument);
    EXPECT_EQ(errors.take(), "");
    EXPECT_FALSE(truth.good);
}

TEST(TruthLog, NeverOpened_NothingIsWrittenAnywhere) {
    TruthLog truth;
    Instrument instrument;
    write_every_line(truth, instrument);
    EXPECT_TRUE(truth.line.empty());
    EXPECT_FALSE(truth.good);
}

TEST(TruthLog, WriteThatFails_SilencesItForGood) {
    TempFolder folder;
    TruthLog truth;
    Instrument instrument;
    open_truth_log(truth, "/dev/full");
    ASSERT_TRUE(truth.good);
    write_mwcb_line(truth, 1, 1);
    EXPECT_FALSE(truth.good);
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

TEST(TruthLogSink, TakesEachLineWholeInPlaceOfAFile) {
    Log log;
    std::vector<std::string> lines;
    close_truth_log(log.truth);
    log.truth.good = true;
    log.truth.sink.context = &lines;
    log.truth.sink.take = [](void* context, const char* line, std::size_t length) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(line, length);
    };
    write_mwcb_line(log.truth, 5, 2);
    write_mark_line(log.truth, "here", 5);
    EXPECT_EQ(lines,
              (std::vector<std::string>{"{\"seq\":5,\"mwcb\":2}\n", "{\"mark\":\"here\",\"seq\":5}\n"}));
}

}  // namespace
}  // namespace tessel
