#include "support/model/replay.h"

#include "app/control_channel.h"
#include "app/reports.h"
#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "mold/message_history.h"
#include "output/book_file.h"
#include "support/message_difference.h"
#include "support/model/model_wire.h"

#include <unistd.h>
#include <algorithm>
#include <array>

namespace tessel::model {

using testing::difference;
using testing::to_hex;
using testing::type_name;

namespace {

// Instruments are compared in every eighth comparison: what differs in them stays different.
constexpr std::size_t instruments_every = 8;

testing::MarketOptions market_options(const Options& options) {
    testing::MarketOptions out;
    out.symbols = options.symbols;
    out.participants = options.participants;
    out.scenario = scenario_text(options.scenario);
    out.seed = options.seed;
    out.step_bps = options.step_bps;
    out.truth = options.truth;
    out.session = options.session;
    return out;
}

std::string read_from(int fd, std::size_t from) {
    std::string out;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t got = pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(from + out.size()));
        if (got <= 0) {
            return out;
        }
        out.append(buffer.data(), static_cast<std::size_t>(got));
    }
}

// Where two texts part, with the line around it on both sides.
std::string text_difference(const std::string& expected, const std::string& got) {
    const auto [e, g] = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
    const auto at = static_cast<std::size_t>(e - expected.begin());
    const std::size_t start = at == 0 ? 0 : expected.rfind('\n', at - 1) + 1;
    auto line = [&](const std::string& text) { return text.substr(start, text.find('\n', start) - start); };
    return "at byte " + std::to_string(at) + "\nexpected " + line(expected) + "\ngot      " + line(got);
}

// The state of an instrument, as a text that is equal exactly when it is. A price counts with every bit.
template <typename State>
std::string state_text(const State& in, std::int64_t bid, std::int64_t ask, std::uint64_t volume) {
    return text("price %a status %c reason %s actions %u band %c %lld %lld %lld resume %llu %llu due %llu",
                in.price, in.status, in.halt_reason.c_str(), in.action_seq, in.band_indicator,
                static_cast<long long>(in.luld_lower), static_cast<long long>(in.luld_upper),
                static_cast<long long>(in.luld_ref), static_cast<unsigned long long>(in.quote_resume_ms),
                static_cast<unsigned long long>(in.trade_resume_ms),
                static_cast<unsigned long long>(in.band_due_ms)) +
           text(" NBBO %lld %lld volume %llu shares %llu last %lld trades %zu", static_cast<long long>(bid),
                static_cast<long long>(ask), static_cast<unsigned long long>(volume),
                static_cast<unsigned long long>(in.share_volume), static_cast<long long>(in.last_trade_price),
                in.trades.size());
}

std::string as_text(const std::vector<unsigned char>& bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace

std::string scenario_text(const ScenarioSettings& s) {
    std::string out = "name=replay";
    auto add = [&](const char* key, std::uint32_t value) {
        out += std::string(",") + key + "=" + std::to_string(value);
    };
    add("halt_after", s.halt_after);
    add("halt_secs", s.halt_secs);
    add("pause_after", s.pause_after);
    add("pause_secs", s.pause_secs);
    add("band_every", s.band_every);
    add("trf_every", s.trf_every);
    add("cancel_every", s.cancel_every);
    add("correct_every", s.correct_every);
    add("mwcb_level", s.mwcb_level);
    add("mwcb_after", s.mwcb_after);
    add("odd_lot_every", s.odd_lot_every);
    add("asof_every", s.asof_every);
    return out;
}

Replay::Replay(const Options& options) : model(options), market(market_options(options)) {
    FaultInjector& faults = market.publisher.faults;
    faults.drop_every = options.faults.drop_every;
    faults.drop_burst_length = options.faults.drop_burst_length;
    faults.drop_burst_start = options.faults.drop_burst_start;
    faults.dup_every = options.faults.dup_every;
    faults.reorder_every = options.faults.reorder_every;
    model.wall_ns = market.clock.simulated_wall_ns;
    model.wall_step_ns = market.clock.wall_step_ns;
    model.steady_ms = market.clock.simulated_steady_ms;
    model.start_ms = model.steady_ms;
}

void Replay::note(const std::string& what) {
    if (found_.empty()) {
        found_ = what + "\nseed " + std::to_string(model.options.seed) + ", tick " +
                 std::to_string(model.ticks) + ", last step: " + last_step_;
    }
}

void Replay::start_of_day() {
    last_step_ = "start of day";
    model.start_of_day();
    market.start_of_day();
}

void Replay::advance_ms(std::uint64_t ms) {
    market.advance_ms(ms);
    model.steady_ms += ms;
    model.wall_ns += ms * 1'000'000;
}

void Replay::tick() {
    last_step_ = "tick";
    model.tick(model.steady_ms);
    tessel::run_tick(market.engine, market.clock.simulated_steady_ms);
}

void Replay::scenario_events() {
    last_step_ = "scenario events";
    model.fire_scenario_events(model.steady_ms);
    fire_scenario_events(market.engine, marks_, model.start_ms, market.clock.simulated_steady_ms);
}

void Replay::heartbeat() {
    last_step_ = "heartbeat";
    model.heartbeat(model.steady_ms);
    const auto now_ms = static_cast<std::int64_t>(market.clock.simulated_steady_ms);
    if (now_ms - market.publisher.last_flush_ms >= heartbeat_after_ms) {
        send_heartbeat(market.publisher);
    }
}

void Replay::command(const std::string& line) {
    last_step_ = "command '" + line + "'";
    const std::string expected = model.command(line);
    const ControlReply got = handle_command({&market.engine, &interval_ms_}, line.data(), line.size());
    if (got.text != expected) {
        note("reply: expected " + expected + "got " + got.text);
    }
    if (interval_ms_ != model.interval_ms) {
        note("interval: expected " + std::to_string(model.interval_ms));
    }
}

void Replay::compare_files() {
    std::string got;
    format_book(got, market.engine.instruments, model.wall_ns);
    const std::string book = model.book(model.wall_ns);
    if (got != book) {
        note("book " + text_difference(book, got));
    }
    format_bbo(got, market.engine.instruments);
    const std::string bbo = model.bbo();
    if (got != bbo) {
        note("BBO " + text_difference(bbo, got));
    }
}

void Replay::compare_spin() {
    last_step_ = "spin";
    std::vector<std::string> expected = model.spin(model.wall_ns);
    expected.push_back(model.end_of_snapshot(model.wall_ns));
    build_spin(spin_, market.engine, market.clock.simulated_wall_ns);
    append_end_of_snapshot(spin_, market.clock.simulated_wall_ns, last_sequence(market.publisher));
    const std::vector<std::span<const unsigned char>> got = spin_messages(spin_);
    for (std::size_t i = 0; i < std::min(expected.size(), got.size()); ++i) {
        const std::string what = difference(expected[i], {got[i].begin(), got[i].end()});
        if (!what.empty()) {
            note("spin message " + std::to_string(i) + ": " + what);
        }
    }
    if (expected.size() != got.size()) {
        note("spin of " + std::to_string(expected.size()) + " messages expected, " +
             std::to_string(got.size()) + " got");
    }
    std::string framed;
    for (const std::string& message : expected) {
        framed += Bytes().num(message.size() + 1, 2).ch('S').bytes + message;
    }
    const std::string sent(reinterpret_cast<const char*>(spin_.bytes.data()), spin_.size);
    if (framed != sent) {
        note("spin of " + std::to_string(framed.size()) + " bytes is framed otherwise");
    }
}

void Replay::compare_messages() {
    const RetransStore& history = market.publisher.history;
    std::array<unsigned char, 65536> blocks{};
    std::uint64_t index = compared_messages_;
    if (index < history.end_index && index < history.first_index) {
        note("more messages in a step than are kept");
    }
    RetransCursor cursor;
    if (index < history.end_index) {
        cursor = find_message(history, index);
    }
    while (index < history.end_index && found_.empty()) {
        std::size_t bytes = 0;
        const std::size_t count =
            copy_blocks(history, cursor, history.end_index, 65534, blocks.data(), blocks.size(), bytes);
        std::size_t at = 0;
        for (std::size_t i = 0; i < count; ++i, ++index) {
            const std::size_t length = static_cast<std::size_t>(blocks[at] << 8 | blocks[at + 1]);
            const std::string got(reinterpret_cast<const char*>(blocks.data()) + at + 2, length);
            at += 2 + length;
            if (index >= model.messages.size()) {
                note("message too many, sequence " + std::to_string(index + 1) + " " + type_name(got) + " " +
                     to_hex(got));
                break;
            }
            if (got != model.messages[index]) {
                note("sequence " + std::to_string(index + 1) + ": " + difference(model.messages[index], got));
                break;
            }
        }
    }
    if (found_.empty() && index < model.messages.size()) {
        note("message missing, sequence " + std::to_string(index + 1) + " " +
             type_name(model.messages[index]) + " " + to_hex(model.messages[index]));
    }
    compared_messages_ = index;
}

void Replay::compare_packets() {
    const auto& got = market.packets;
    for (; compared_packets_ < std::min(got.size(), model.packets.size()); ++compared_packets_) {
        const std::string packet = as_text(got[compared_packets_]);
        if (packet == model.packets[compared_packets_]) {
            continue;
        }
        note("datagram " + std::to_string(compared_packets_) + ":\nexpected " +
             to_hex(model.packets[compared_packets_]) + "\ngot      " + to_hex(packet));
        return;
    }
    if (got.size() != model.packets.size()) {
        note(std::to_string(model.packets.size()) + " datagrams expected, " + std::to_string(got.size()) +
             " got");
    }
}

void Replay::compare_texts() {
    if (market.engine.truth.fd >= 0) {
        const std::string got = read_from(market.engine.truth.fd, compared_truth_);
        const std::string expected = model.truth.substr(compared_truth_);
        if (got != expected) {
            note("truth " + text_difference(expected, got));
        }
        compared_truth_ = model.truth.size();
    }
    const std::string got = standard_error.take();
    const std::string expected = model.err.substr(compared_err_);
    if (got != expected) {
        note("standard error " + text_difference(expected, got));
    }
    compared_err_ = model.err.size();
}

void Replay::compare_state() {
    const std::string expected =
        model.stats_line() + " next_seq=" + std::to_string(model.next_sequence) + " " +
        model.faults_summary() + " messages " + std::to_string(model.messages.size()) + " packets " +
        std::to_string(model.packets_flushed) + " flushed at " + std::to_string(model.last_flush_ms) +
        " clock " + std::to_string(model.wall_ns);
    const MoldPublisher& p = market.publisher;
    const std::string got =
        stats_line(market.scenario.stats) + " next_seq=" + std::to_string(p.next_sequence) + " " +
        faults_summary(p) + " messages " + std::to_string(p.messages_sequenced) + " packets " +
        std::to_string(p.packets_flushed) + " flushed at " + std::to_string(p.last_flush_ms) + " clock " +
        std::to_string(market.clock.simulated_wall_ns);
    if (got != expected) {
        note("counters\nexpected " + expected + "\ngot      " + got);
    }
    if (comparisons_++ % instruments_every != 0) {
        return;
    }
    for (std::size_t i = 0; i < model.instruments.size(); ++i) {
        const Instrument& m = model.instruments[i];
        const tessel::Instrument& in = market.at(i);
        const std::string own = state_text(m, m.nbbo.bid, m.nbbo.ask, m.consolidated.volume);
        const std::string found = state_text(in, in.nbbo.bid, in.nbbo.ask, in.volume);
        if (own != found) {
            note("instrument " + m.symbol + "\nexpected " + own + "\ngot      " + found);
        }
    }
}

std::string Replay::first_difference() {
    compare_messages();
    compare_packets();
    compare_texts();
    compare_state();
    return found_;
}

std::string random_command(std::mt19937_64& random, const Options& options) {
    auto below = [&](std::uint64_t n) { return random() % n; };
    std::vector<std::string> symbols{"NOPE"};
    for (const Instrument& in : Model(options).instruments) {
        symbols.push_back(in.symbol);
    }
    const std::string& letters = options.participants;
    std::string letter = "X";
    if (!letters.empty() && below(8) != 0) {
        letter = letters[below(letters.size())];
    }
    auto symbol = [&] { return symbols[below(20) == 0 ? 0 : below(symbols.size())]; };
    auto number = [&] { return std::to_string(below(4)); };
    switch (below(40)) {
        case 0: return "halt " + symbol();
        case 1: return "luld_pause " + symbol();
        case 2: return below(3) == 0 ? "mwcb " + std::to_string(below(6)) : "mwcb x";
        case 3: return "wipeout " + letter;
        case 4: return "wipeout" + std::string(below(2), ' ') + "QN";
        case 5: return "band " + symbol();
        case 6: return "close " + symbol();
        case 7: return "asof " + symbol();
        case 8:
        case 9: return "trf " + number();
        case 10:
        case 11: return "cancel " + number();
        case 12:
        case 13: return "correct " + number();
        case 14: return "drop " + number();
        case 15: return "dup " + number();
        case 16: return "reorder " + number();
        case 17: return "drop_every " + std::to_string(below(2) * (2 + below(9)));
        case 18: return "dup_every " + std::to_string(below(2) * (2 + below(9)));
        case 19: return "reorder_every " + std::to_string(below(2) * (2 + below(9)));
        case 20: return "pause";
        case 21:
        case 22: return "resume \r\n";
        case 23: return "mark label" + number() + " more\n";
        case 24: return "stats";
        case 25: return "rate " + std::to_string(below(3) * 500);
        case 26: return "frobnicate now";
        case 27: return std::string("drop\0dup", 8);
        default: return "resume " + symbol();
    }
}

}  // namespace tessel::model
