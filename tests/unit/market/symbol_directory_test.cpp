#include "market/symbol_directory.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel {
namespace {

Instrument make(const std::string& symbol) {
    InstrumentList list;
    std::string error;
    EXPECT_TRUE(build_instruments(symbol, list, error));
    return list.at(0);
}

TEST(Directory, TradingInstrument_HasItsNameTimesAndNoReason) {
    Instrument instrument = make("IBM:100");
    instrument.halt_reason = "T3";  // of an earlier halt
    instrument.indicator = '4';
    std::string name;
    const DirectoryRecord record = fill_directory(instrument, {11, 22}, name);
    EXPECT_EQ(record.symbol, "IBM        ");
    EXPECT_EQ(record.issue_name, "IBM COMMON STOCK");
    EXPECT_EQ(record.times.sip_time, 11u);
    EXPECT_EQ(record.times.participant_time, 22u);
    EXPECT_EQ(record.trading_state, 'T');
    EXPECT_EQ(record.trading_reason, "");
    EXPECT_EQ(record.indicator, '4');
}

TEST(Directory, EveryStatus_HaltedAndPausedAreHWithTheirReason) {
    for (const char status : std::string("THPQ")) {
        Instrument instrument = make("A");
        instrument.status = status;
        instrument.halt_reason = "LUDP";
        std::string name;
        const DirectoryRecord record = fill_directory(instrument, {}, name);
        const bool stopped = status == 'H' || status == 'P';
        EXPECT_EQ(record.trading_state, stopped ? 'H' : 'T') << status;
        EXPECT_EQ(record.trading_reason, stopped ? "LUDP" : "") << status;
    }
}

TEST(Directory, LongSymbol_IsCutInTheSymbolAndWholeInTheName) {
    std::string name;
    const Instrument instrument = make("ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    const DirectoryRecord record = fill_directory(instrument, {}, name);
    EXPECT_EQ(record.symbol, "ABCDEFGHIJK");
    EXPECT_EQ(record.issue_name, "ABCDEFGHIJKLMNOPQRSTUVWXYZ COMMON STOCK");
    MessageWriter writer;
    encode_directory(writer, record, true);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(writer.bytes.get()) + 51, 30),
              "ABCDEFGHIJKLMNOPQRSTUVWXYZ COM");
}

TEST(Directory, EmptySymbol_NameBeginsWithABlank) {
    std::string name = "left from before";
    const Instrument instrument = make(",");
    EXPECT_EQ(fill_directory(instrument, {}, name).issue_name, " COMMON STOCK");
}

}  // namespace
}  // namespace tessel
