#include "app/control_channel.h"

#include "app/reports.h"
#include "support/test_market.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

namespace tessel {
namespace {

using testing::MarketOptions;
using testing::TestMarket;

// A market after its start of day, steered by lines.
struct Steered {
    explicit Steered(const MarketOptions& options = {}) : market(options) {
        market.start_of_day();
        market.run_ticks(5);
        log.take();
    }
    ControlReply command(std::string_view line) {
        return handle_command({&market.engine, &interval_ms}, line.data(), line.size());
    }
    std::string reply(std::string_view line) {
        return command(line).text;
    }
    FeedStats& stats() {
        return market.scenario.stats;
    }
    FaultInjector& faults() {
        return market.publisher.faults;
    }
    std::string at_last() const {
        return " at seq " + std::to_string(market.last()) + "\n";
    }
    testing::StderrCapture log;
    TestMarket market;
    std::int32_t interval_ms = 100;
};

TEST(Control, PauseAndResumeWithNothingSentBetween_NameTheSameSequence) {
    Steered steered;
    EXPECT_EQ(steered.reply("pause"), "ok pause\n");
    EXPECT_TRUE(steered.market.engine.paused);
    steered.market.run_ticks(20);
    EXPECT_EQ(steered.reply("resume"), "ok resume\n");
    EXPECT_FALSE(steered.market.engine.paused);
    EXPECT_EQ(steered.log.take(), "bench: paused" + steered.at_last() + "bench: resumed" + steered.at_last());
    const std::uint64_t before = steered.market.last();
    steered.market.run_ticks(5);
    EXPECT_GT(steered.market.last(), before);
}

TEST(Control, RateOfZeroOrOfAWord_IsAHundredMilliseconds) {
    Steered steered;
    const struct {
        const char* line;
        std::int32_t interval_ms;
    } rows[] = {{"rate 5", 5},   {"rate 0", 100},
                {"rate 7", 7},   {"rate abc", 100},
                {"rate 9", 9},   {"rate", 100},
                {"rate -1", -1}, {"rate 4294967297", 1},
                {"rate 8", 8},   {"rate 18446744073709551616", 100}};
    for (const auto& row : rows) {
        EXPECT_EQ(steered.reply(row.line), std::string("ok ") + row.line + "\n");
        EXPECT_EQ(steered.interval_ms, row.interval_ms) << row.line;
    }
}

TEST(Control, FaultWithoutArgument_DropIsOnePacketAndDropEveryIsOff) {
    Steered steered;
    EXPECT_EQ(steered.reply("drop"), "ok drop\n");
    EXPECT_EQ(steered.faults().pending_drops, 1u);
    steered.faults().drop_every = 10;
    EXPECT_EQ(steered.reply("drop_every"), "ok drop_every\n");
    EXPECT_EQ(steered.faults().drop_every, 0u);
    const std::size_t sent = steered.market.packets.size();
    const unsigned char message[1] = {1};
    append_message(steered.market.publisher, message, 1);
    flush_packet(steered.market.publisher);
    EXPECT_EQ(steered.market.packets.size(), sent);
    append_message(steered.market.publisher, message, 1);
    flush_packet(steered.market.publisher);
    EXPECT_EQ(steered.market.packets.size(), sent + 1) << "exactly one";
}

TEST(Control, FaultCommand_SetsItsCount) {
    Steered steered;
    steered.reply("drop 3");
    steered.reply("dup 4");
    steered.reply("reorder 5");
    steered.reply("drop_every 6");
    steered.reply("dup_every 7");
    steered.reply("reorder_every 8");
    EXPECT_EQ(steered.faults().pending_drops, 3u);
    EXPECT_EQ(steered.faults().pending_dups, 4u);
    EXPECT_EQ(steered.faults().pending_reorders, 5u);
    EXPECT_EQ(steered.faults().drop_every, 6u);
    EXPECT_EQ(steered.faults().dup_every, 7u);
    EXPECT_EQ(steered.faults().reorder_every, 8u);
    steered.reply("dup x");
    steered.reply("reorder");
    steered.reply("dup_every");
    steered.reply("reorder_every y");
    EXPECT_EQ(steered.faults().pending_dups, 1u);
    EXPECT_EQ(steered.faults().pending_reorders, 1u);
    EXPECT_EQ(steered.faults().dup_every, 0u);
    EXPECT_EQ(steered.faults().reorder_every, 0u);
    EXPECT_EQ(steered.log.take(), "");
}

TEST(Control, RepeatedCommand_TrfCancelAndCorrectAddAndDropReplaces) {
    Steered steered;
    for (int twice = 0; twice < 2; ++twice) {
        steered.reply("trf 2");
        steered.reply("cancel 2");
        steered.reply("correct 2");
        steered.reply("drop 2");
        steered.reply("dup 2");
        steered.reply("reorder 2");
    }
    EXPECT_EQ(steered.market.engine.pending_trf, 4u);
    EXPECT_EQ(steered.market.engine.pending_cancels, 4u);
    EXPECT_EQ(steered.market.engine.pending_corrections, 4u);
    EXPECT_EQ(steered.faults().pending_drops, 2u);
    EXPECT_EQ(steered.faults().pending_dups, 2u);
    EXPECT_EQ(steered.faults().pending_reorders, 2u);
    steered.reply("trf -1");
    EXPECT_EQ(steered.market.engine.pending_trf, 3u) << "a negative number subtracts";
    steered.reply("trf");
    EXPECT_EQ(steered.market.engine.pending_trf, 4u);
}

TEST(Control, UnknownSymbol_IsNamedAndChangesNothing) {
    Steered steered;
    const std::uint64_t before = steered.market.last();
    for (const char* word : {"halt", "resume", "luld_pause", "band", "close", "asof"}) {
        EXPECT_EQ(steered.reply(std::string(word) + " NOPE"), "err unknown symbol\n") << word;
        EXPECT_EQ(steered.log.take(), "bench: unknown symbol 'NOPE'\n") << word;
    }
    EXPECT_EQ(steered.reply("halt aapl"), "err unknown symbol\n") << "symbols are case-sensitive";
    EXPECT_EQ(steered.market.last(), before);
}

TEST(Control, SymbolCommandWithoutArgument_LooksUpTheEmptySymbol) {
    Steered steered;
    EXPECT_EQ(steered.reply("halt"), "err unknown symbol\n");
    EXPECT_EQ(steered.log.take(), "bench: unknown symbol ''\n");
    Steered with_empty({.symbols = "A:10,,B:20"});
    EXPECT_EQ(with_empty.reply("halt"), "ok halt\n");
    EXPECT_EQ(with_empty.market.at(1).status, 'H');
}

TEST(Control, Halt_HasReasonT1AndNoEnd) {
    Steered steered;
    EXPECT_EQ(steered.reply("halt MSFT"), "ok halt MSFT\n");
    EXPECT_EQ(steered.market.at(1).status, 'H');
    EXPECT_EQ(steered.log.take(), "bench: MSFT halted (T1)" + steered.at_last());
    steered.market.run_ticks(1000);
    EXPECT_EQ(steered.market.at(1).status, 'H');
    EXPECT_EQ(steered.market.publisher.packet_count, 0u);
}

TEST(Control, ResumeOfAHaltedInstrument_QuotationFirstThenTrading) {
    Steered steered;
    steered.reply("halt AAPL");
    steered.log.take();
    EXPECT_EQ(steered.reply("resume AAPL"), "ok resume AAPL\n");
    EXPECT_EQ(steered.market.at(0).status, 'Q');
    EXPECT_EQ(steered.log.take(), "bench: AAPL quotation resumption" + steered.at_last());
    EXPECT_EQ(steered.market.publisher.packet_count, 0u) << "it is sent immediately";
    const std::uint64_t crosses = steered.stats().cross_prints;
    EXPECT_EQ(steered.reply("resume AAPL"), "ok resume AAPL\n");
    EXPECT_EQ(steered.market.at(0).status, 'T');
    EXPECT_EQ(steered.market.at(0).halt_reason, "T3");
    EXPECT_EQ(steered.market.at(0).trade_resume_ms, 0u);
    EXPECT_EQ(steered.stats().trade_resumes, 1u);
    EXPECT_EQ(steered.stats().cross_prints, crosses + 1);
    EXPECT_EQ(steered.log.take(), "bench: AAPL trading resumption" + steered.at_last());
    EXPECT_EQ(steered.market.publisher.packet_count, 0u);
}

TEST(Control, ResumeOfAPausedInstrument_ResumesQuotation) {
    Steered steered;
    EXPECT_EQ(steered.reply("luld_pause TSLA"), "ok luld_pause TSLA\n");
    EXPECT_EQ(steered.market.at(2).status, 'P');
    EXPECT_EQ(steered.market.at(2).quote_resume_ms, 0u) << "it does not end by itself";
    EXPECT_NE(steered.log.take().find("resuming in 0 s\n"), std::string::npos);
    steered.reply("resume TSLA");
    EXPECT_EQ(steered.market.at(2).status, 'Q');
    EXPECT_EQ(steered.market.at(2).halt_reason, "LUDP");
}

TEST(Control, ResumeOfATradingInstrument_ChangesNothingAndEchoes) {
    Steered steered;
    const std::uint64_t before = steered.market.last();
    EXPECT_EQ(steered.reply("resume AAPL"), "ok resume AAPL\n");
    EXPECT_EQ(steered.market.last(), before);
    EXPECT_EQ(steered.market.at(0).status, 'T');
    EXPECT_EQ(steered.log.take(), "");
}

TEST(Control, Band_IsPublishedWithLetterCAndFlushed) {
    Steered steered;
    const std::uint64_t before = steered.market.last();
    EXPECT_EQ(steered.reply("band AAPL"), "ok band AAPL\n");
    ASSERT_EQ(steered.market.last(), before + 1);
    const testing::Bytes message = steered.market.message(before + 1);
    EXPECT_EQ(testing::letters(message), "APE ");
    EXPECT_EQ(message.at(40), 'C');
    EXPECT_EQ(steered.market.at(0).band_indicator, 'C');
    EXPECT_EQ(steered.market.publisher.packet_count, 0u);
    EXPECT_EQ(steered.log.take(), "");
}

TEST(Control, BreakerWithoutALevel_IsLevelOne) {
    Steered steered;
    EXPECT_EQ(steered.reply("mwcb"), "ok mwcb\n");
    EXPECT_EQ(steered.market.at(0).halt_reason, "MWC1");
    EXPECT_EQ(steered.market.truth_text().find("\"mwcb\":1}") == std::string::npos, false);
    EXPECT_EQ(steered.reply("mwcb 3"), "ok mwcb 3\n");
    EXPECT_EQ(steered.stats().mwcb, 2u);
    EXPECT_EQ(steered.stats().halts, 3u) << "a second breach halts nothing that is halted";
}

TEST(Control, Close_PrintsTheClosingCrossAndTheOfficialClose) {
    Steered steered;
    const std::uint64_t before = steered.market.last();
    const std::uint64_t crosses = steered.stats().cross_prints;
    EXPECT_EQ(steered.reply("close AAPL"), "ok close AAPL\n");
    EXPECT_EQ(steered.market.last(), before + 2);
    EXPECT_EQ(steered.stats().cross_prints, crosses + 2);
    const std::vector<std::string> lines = steered.market.truth_lines();
    EXPECT_NE(lines.at(lines.size() - 2).find(",8000,\"Q\",\"@6  \"]"), std::string::npos) << lines.back();
    EXPECT_NE(lines.back().find(",0,\"Q\",\"@  M\"]"), std::string::npos) << lines.back();
    EXPECT_EQ(steered.market.publisher.packet_count, 0u);
}

TEST(Control, AsOf_PrintsOneTradeOfYesterday) {
    Steered steered;
    const std::uint64_t before = steered.market.last();
    EXPECT_EQ(steered.reply("asof MSFT"), "ok asof MSFT\n");
    EXPECT_EQ(steered.market.letters_of(before + 1, steered.market.last()), std::vector<std::string>{"TQDQ"});
    EXPECT_EQ(steered.stats().asofs, 1u);
    EXPECT_EQ(steered.market.publisher.packet_count, 0u);
}

TEST(Control, WipeoutWithoutExactlyOneLetter_IsRefused) {
    Steered steered;
    const std::uint64_t before = steered.market.last();
    for (const char* line : {"wipeout", "wipeout QN", "wipeout  "}) {
        EXPECT_EQ(steered.reply(line), "err wipeout needs a Market Center Originator ID\n");
    }
    EXPECT_EQ(steered.market.last(), before);
    EXPECT_EQ(steered.reply("wipeout Q"), "ok wipeout Q\n");
    EXPECT_EQ(steered.stats().wipeouts, 1u);
    EXPECT_EQ(steered.log.take(), "bench: quote wipe-out of participant Q" + steered.at_last());
}

TEST(Control, Mark_IsWrittenToTheTruthLogAndStandardError) {
    Steered steered;
    EXPECT_EQ(steered.reply("mark here and there"), "ok mark here and there\n");
    const std::string last = std::to_string(steered.market.last());
    EXPECT_EQ(steered.market.truth_lines().back(), "{\"mark\":\"here\",\"seq\":" + last + "}");
    EXPECT_EQ(steered.log.take(), "bench: mark here" + steered.at_last());
}

TEST(Control, MarkWithoutATruthLog_StillPrintsItsLine) {
    Steered steered({.truth = false});
    EXPECT_EQ(steered.reply("mark x"), "ok mark x\n");
    EXPECT_EQ(steered.log.take(), "bench: mark x" + steered.at_last());
}

TEST(Control, Stats_ReplyHasTheNextSequenceNumberAndTheFaults) {
    Steered steered;
    EXPECT_EQ(steered.reply("stats"), "ok " + stats_line(steered.stats()) + " next_seq=" +
                                          std::to_string(steered.market.publisher.next_sequence) + " " +
                                          faults_summary(steered.market.publisher) + "\n");
    EXPECT_EQ(steered.log.take(), "");
}

TEST(Control, UnknownWord_IsNamedWithoutItsArgument) {
    Steered steered;
    EXPECT_EQ(steered.reply("frobnicate all"), "err unknown command 'frobnicate'\n");
    EXPECT_EQ(steered.reply("PAUSE"), "err unknown command 'PAUSE'\n");
    EXPECT_EQ(steered.reply("paus"), "err unknown command 'paus'\n");
    EXPECT_FALSE(steered.market.engine.paused);
}

TEST(Control, EmptyLine_IsAnUnknownCommandWithoutAName) {
    Steered steered;
    for (const char* line : {"", "\n", " ", " \r\n", "\t", "\v\f"}) {
        EXPECT_EQ(steered.reply(line), "err unknown command ''\n");
    }
}

TEST(Control, TrailingWhiteSpace_LineEndsAreStrippedAndATabIsEchoed) {
    Steered steered;
    EXPECT_EQ(steered.reply("pause\r\n"), "ok pause\n");
    EXPECT_EQ(steered.reply("resume \r\n \n"), "ok resume\n");
    EXPECT_EQ(steered.reply("pause\t"), "ok pause\t\n");
    EXPECT_TRUE(steered.market.engine.paused);
    EXPECT_EQ(steered.reply("\t resume"), "ok \t resume\n") << "leading white space is kept in the echo";
    EXPECT_FALSE(steered.market.engine.paused);
}

TEST(Control, EveryKindOfWhiteSpace_SeparatesWords) {
    Steered steered;
    for (const char* line :
         {"drop 5", "drop\t5", "drop\n5", "drop\v5", "drop\f5", "drop\r5", "drop \t 5 6 7"}) {
        steered.faults().pending_drops = 0;
        steered.reply(line);
        EXPECT_EQ(steered.faults().pending_drops, 5u) << line;
    }
}

TEST(Control, NulInALine_EndsIt) {
    Steered steered;
    EXPECT_EQ(steered.reply(std::string_view("pause\0 junk", 11)), "ok pause\n");
    EXPECT_EQ(steered.reply(std::string_view("\0pause", 6)), "err unknown command ''\n");
}

TEST(Control, LongLine_IsCutAt511Bytes) {
    Steered steered;
    const std::string fits = "mark " + std::string(506, 'x');
    EXPECT_EQ(steered.reply(fits), "ok " + fits + "\n");
    EXPECT_EQ(steered.reply(fits + "y"), "ok " + fits + "\n");
    EXPECT_EQ(steered.reply(std::string(2000, 'z')), "err unknown command '" + std::string(511, 'z') + "'\n");
}

TEST(Control, BytesBeyondAscii_ArePartOfWords) {
    Steered steered;
    EXPECT_EQ(steered.reply("\xff\x80 x"), "err unknown command '\xff\x80'\n");
    EXPECT_EQ(steered.reply("halt \xc3\xa4"), "err unknown symbol\n");
}

TEST(Control, Stop_AsksForTheEndAndItsReplyHasNoLineFeed) {
    Steered steered;
    const ControlReply reply = steered.command("stop now");
    EXPECT_TRUE(reply.stop);
    EXPECT_EQ(reply.text, "ok stopping");
    EXPECT_FALSE(steered.command("stopp").stop);
}

// The channel with its socket on a port that the system chose, and a client.
struct Channel {
    Channel() {
        fd = open_control_channel(0);
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        client = socket(AF_INET, SOCK_DGRAM, 0);
        connect(client, reinterpret_cast<const sockaddr*>(&address), length);
        opening = steered.log.take();
    }
    ~Channel() {
        close(fd);
        close(client);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    void send_line(std::string_view line) const {
        ASSERT_EQ(send(client, line.data(), line.size(), 0), static_cast<ssize_t>(line.size()));
    }
    // A reply that is there already, or "nothing".
    std::string received() const {
        char text[2048];
        const ssize_t length = recv(client, text, sizeof text, MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(length));
    }
    bool serve() {
        return serve_control_channel(fd, {&steered.market.engine, &steered.interval_ms});
    }
    Steered steered;
    int fd = -1;
    int client = -1;
    std::uint16_t port = 0;
    std::string opening;
};

TEST(ControlChannel, Opened_LineNamesEveryCommand) {
    const Channel channel;
    EXPECT_EQ(channel.opening,
              "bench: control on 127.0.0.1:0 (pause | resume | drop N | dup N | reorder N | drop_every N | "
              "dup_every N "
              "| reorder_every N | rate MS | mark LABEL | stats | stop | halt SYM | resume SYM | luld_pause "
              "SYM | band "
              "SYM | mwcb LEVEL | trf N | cancel N | correct N | close SYM | asof SYM | wipeout MC)\n");
}

TEST(ControlChannel, Opened_BoundToTheLoopbackAddressOnly) {
    const Channel channel;
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(channel.fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    ASSERT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
    // A command to any other address of this machine does not get there.
    address.sin_addr.s_addr = htonl(0x7f000002);
    const int client = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(send(client, "pause", 5, 0), 5);
    char reply[100];
    EXPECT_EQ(recv(client, reply, sizeof reply, 0), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    close(client);
}

TEST(ControlChannel, SeveralWaitingCommands_AllAnsweredInOrder) {
    Channel channel;
    channel.send_line("drop 2");
    channel.send_line("nonsense");
    channel.send_line("rate 5\n");
    channel.serve();
    EXPECT_EQ(channel.received(), "ok drop 2\n");
    EXPECT_EQ(channel.received(), "err unknown command 'nonsense'\n");
    EXPECT_EQ(channel.received(), "ok rate 5\n");
    EXPECT_EQ(channel.received(), "nothing");
    EXPECT_EQ(channel.steered.interval_ms, 5);
    channel.serve();
    EXPECT_EQ(channel.received(), "nothing");
}

TEST(ControlChannel, EmptyDatagram_EndsTheDrainingUntilTheNextPass) {
    Channel channel;
    channel.send_line("drop 2");
    channel.send_line("");
    channel.send_line("dup 3");
    channel.serve();
    EXPECT_EQ(channel.received(), "ok drop 2\n");
    EXPECT_EQ(channel.received(), "nothing");
    EXPECT_EQ(channel.steered.faults().pending_dups, 0u);
    channel.serve();
    EXPECT_EQ(channel.received(), "ok dup 3\n");
}

TEST(ControlChannel, DatagramsOf511And512And2000Bytes_AreCut) {
    Channel channel;
    for (const std::size_t length : {std::size_t{511}, std::size_t{512}, std::size_t{2000}}) {
        channel.send_line(std::string(length, 'a'));
        channel.serve();
        EXPECT_EQ(channel.received(), "err unknown command '" + std::string(511, 'a') + "'\n");
    }
}

TEST(ControlChannel, PortInUse_IsReportedAndTheRunGoesOnWithout) {
    // Another socket without SO_REUSEADDR holds the port.
    const int holder = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(holder, reinterpret_cast<const sockaddr*>(&address), length), 0);
    ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length), 0);
    testing::StderrCapture log;
    EXPECT_EQ(open_control_channel(ntohs(address.sin_port)), -1);
    EXPECT_EQ(log.take(), "tessel: control port: Address already in use\n");
    close(holder);
}

TEST(ControlChannel, Stop_AnswersAndReturnsBeforeAnyLaterDatagram) {
    Channel channel;
    channel.send_line("stop");
    channel.send_line("pause");
    EXPECT_FALSE(channel.serve());
    EXPECT_EQ(channel.received(), "ok stopping");
    EXPECT_EQ(channel.received(), "nothing");
    EXPECT_FALSE(channel.steered.market.engine.paused);
    EXPECT_TRUE(channel.serve());
    EXPECT_TRUE(channel.steered.market.engine.paused);
}

}  // namespace
}  // namespace tessel
