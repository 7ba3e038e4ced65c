#pragma once

// A second, independent market-data feed, kept as plain as possible: no shared code with the program, no
// sockets, no files, no clock. It answers one question for the tests: which bytes, lines and counters should
// a run give? Speed does not matter here; reading each rule off the page does.

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace tessel::model {

// What a scenario arms. Counts and seconds, 0 = off unless the program's defaults say otherwise.
struct ScenarioSettings {
    std::uint32_t halt_after = 0;
    std::uint32_t halt_secs = 8;
    std::uint32_t pause_after = 0;
    std::uint32_t pause_secs = 8;
    std::uint32_t band_every = 0;
    std::uint32_t trf_every = 0;
    std::uint32_t cancel_every = 0;
    std::uint32_t correct_every = 0;
    std::uint32_t mwcb_level = 0;
    std::uint32_t mwcb_after = 10;
    std::uint32_t odd_lot_every = 9;
    std::uint32_t asof_every = 0;
};

// Fault settings and pending counts; packets are numbered from 1.
struct Faults {
    std::uint32_t drop_every = 0;
    std::uint32_t drop_burst_length = 0;
    std::uint32_t dup_every = 0;
    std::uint32_t reorder_every = 0;
    std::uint32_t pending_drops = 0;
    std::uint32_t pending_dups = 0;
    std::uint32_t pending_reorders = 0;
    std::uint64_t drop_burst_start = 0;
};

struct Options {
    std::string symbols = "AAPL:190.00,MSFT:410.00,TSLA:250.00";
    std::string participants = "QNPZKVD";
    double step_bps = 0.8;
    std::uint64_t seed = 7;
    std::string session = "UTPBENCH01";
    ScenarioSettings scenario;
    Faults faults;
    bool truth = true;
};

// The event counters in printing order.
struct Counters {
    std::uint64_t quotes = 0, adf_quotes = 0, nbbo_changes = 0, sip_generated = 0, trades = 0,
                  exchange_prints = 0;
    std::uint64_t trf_prints = 0, cross_prints = 0, odd_lot_prints = 0, sweeps = 0, cancels = 0, errors = 0;
    std::uint64_t corrections = 0, asofs = 0, bands = 0, halts = 0, pauses = 0, quote_resumes = 0;
    std::uint64_t trade_resumes = 0, mwcb = 0, collars = 0, wipeouts = 0, snapshots = 0, snapshot_rejects = 0;
};

// One odd-lot order; price in millionths of a dollar, size in shares.
struct OddLot {
    char market_center = ' ';
    char side = ' ';
    std::int64_t price = 0;
    std::uint32_t size = 0;
    std::string mpid;
};

struct Quote {
    bool present = false;
    std::int64_t bid = 0, ask = 0;
    std::uint32_t bid_size = 0, ask_size = 0;
    char condition = ' ';
    std::uint64_t time_ns = 0;
    std::string bid_mpid, ask_mpid;
    std::vector<OddLot> odd_lots;
};

struct Nbbo {
    std::int64_t bid = 0, ask = 0;
    std::uint32_t bid_size = 0, ask_size = 0;
    char bid_mc = ' ', ask_mc = ' ';
    bool operator==(const Nbbo&) const = default;
};

// One trade of the history; size in millionths of a share.
struct Trade {
    char market_center = ' ', sub_market_center = ' ';
    std::uint64_t id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;
    std::string conditions;
    char exempt = ' ';
    bool live = true;
};

// High, low and last in millionths of a dollar (0 = none yet), volume in millionths of a share.
struct TradeStats {
    std::int64_t high = 0, low = 0, last = 0;
    std::uint64_t volume = 0;
    char last_mc = ' ';
};

struct Instrument {
    std::string symbol;
    std::uint16_t secid = 0;
    double price = 100.0;
    std::map<unsigned char, Quote> quotes;
    Nbbo nbbo;
    bool nbbo_valid = false;
    OddLot best_odd_bid, best_odd_ask;
    bool best_odd_present = false;
    char status = 'T';
    std::string halt_reason;
    std::uint32_t action_seq = 0;
    std::int64_t luld_lower = 0, luld_upper = 0, luld_ref = 0;
    char band_indicator = ' ';
    std::uint64_t quote_resume_ms = 0, trade_resume_ms = 0, band_due_ms = 0;
    std::map<std::string, std::uint64_t> trade_ids;
    std::vector<Trade> trades;
    TradeStats consolidated;
    std::map<char, TradeStats> by_mc;
    std::uint64_t share_volume = 0;
    std::int64_t last_trade_price = 0;
    char indicator = '0';
};

// One price level: price in millionths of a dollar and the summed size in shares.
struct Level {
    std::int64_t price = 0;
    std::int64_t size = 0;
};

// The whole feed. The harness sets `wall_ns` and `steady_ms` before it calls anything.
struct Model {
    explicit Model(const Options& options);

    // Driving it.
    void start_of_day();
    void tick(std::uint64_t now_ms);
    void fire_scenario_events(std::uint64_t now_ms);
    std::string command(const std::string& datagram);  // the reply datagram, line feed included
    void heartbeat(std::uint64_t now_ms);

    // Reading it.
    std::string stats_line() const;
    std::string faults_summary() const;
    std::vector<std::string> spin(std::uint64_t spin_time_ns);  // unframed, without the end of snapshot
    std::string end_of_snapshot(std::uint64_t spin_time_ns) const;
    std::string book(std::uint64_t now_ns) const;
    std::string bbo() const;

    // Time as the harness sets it.
    std::uint64_t wall_ns = 0;
    std::uint64_t wall_step_ns = 0;  // added after each reading, so that readings differ
    std::uint64_t steady_ms = 0;
    std::uint64_t start_ms = 0;  // loop start, from which scenario seconds count

    // What came out.
    std::vector<std::string> messages;  // message with sequence s is messages[s - 1]
    std::vector<std::string> packets;   // every datagram in the order sent, heartbeats included
    std::string truth;
    std::string err;

    // State.
    Options options;
    std::mt19937_64 rng;
    std::vector<Instrument> instruments;
    Counters counters;
    Faults faults;
    bool paused = false;
    std::int32_t interval_ms = 100;
    std::uint64_t ticks = 0;
    std::uint32_t pending_cancels = 0, pending_corrections = 0, pending_trf = 0;
    bool halt_fired = false, pause_fired = false, mwcb_fired = false;
    std::vector<std::string> retained;

    // Draws and the wall clock.
    std::uint64_t wall();
    std::uint64_t uniform_int(std::uint64_t lo, std::uint64_t hi);
    double uniform_real();
    double normal_deviate();
    bool have_deviate = false;
    double saved_deviate = 0;

    // Transport.
    std::uint64_t append(const std::string& message);
    void flush();
    void send_or_damage(std::uint64_t packet_number, const std::string& packet, std::size_t count);
    std::string header_of(std::uint64_t sequence, std::uint16_t count) const;
    std::string open_packet;  // message blocks only, without the 20-byte header
    std::uint16_t open_count = 0;
    std::uint64_t open_first = 1;
    std::uint64_t next_sequence = 1;
    std::uint64_t packets_flushed = 0, dropped = 0, duplicated = 0, reordered = 0;
    std::int64_t last_flush_ms = 0;
    std::string held;

    // Quotes.
    void update_participant_quote(Instrument& in, char market_center, std::uint64_t now_ns,
                                  char override_condition);
    void publish_quote(Instrument& in, char market_center, char sip_flag, std::uint64_t now_ns);
    void empty_all_quotes(Instrument& in, std::uint64_t now_ns);
    void every_participant_quotes(Instrument& in, std::uint64_t now_ns);
    char store_best_odd_lot(Instrument& in);
    void mpid_quote(const Instrument& in, const Quote& quote);

    // Trades.
    void record_trade(Instrument& in, char market_center, char sub_market_center, std::int64_t price,
                      std::uint64_t shares, const std::string& conditions, char exempt, std::uint64_t time_ns,
                      int kind);
    void cancel_one(Instrument& in, std::uint64_t time_ns);
    void correct_one(Instrument& in, std::uint64_t time_ns);
    void emit_asof(Instrument& in);
    void trf_print(Instrument& in, std::uint64_t now_ns);
    void exchange_print(Instrument& in, std::uint64_t now_ns);

    // Regulatory events.
    void trading_action(Instrument& in, char action, const std::string& reason, std::uint64_t time_ns);
    void halt(Instrument& in, const std::string& reason, std::uint32_t seconds);
    void resume_quotation(Instrument& in, std::uint64_t time_ns);
    void resume_trading(Instrument& in, std::uint64_t time_ns);
    void send_band(Instrument& in, char indicator, std::uint64_t time_ns);
    void luld_pause(Instrument& in, std::uint32_t seconds);
    void breach_mwcb(std::uint32_t level);
    void wipe_out(char market_center);

    // Steps of a tick.
    void step(Instrument& in, bool first, std::uint64_t now_ms, std::uint64_t now_ns);
    void step_halted(Instrument& in, bool first, std::uint64_t now_ns);

    // Control.
    std::string run_command(const std::string& line);
    std::string run_symbol_command(const std::string& word, const std::string& symbol,
                                   const std::string& echo);

    // Texts.
    void truth_line(const std::string& line);
    void quote_line(const Instrument& in, std::uint64_t sequence, const std::string& extra);
    void say(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

// Dollars to whole cents: half away from zero, NaN is 0, held to plus or minus 10^12 cents.
std::int64_t cents_of(double dollars);
// The same in millionths of a dollar.
std::int64_t price_of(double dollars);
// Millionths cut toward zero to whole cents.
std::int64_t cut_to_cents(std::int64_t price);
bool band_active(const Instrument& in);
Nbbo compute_nbbo(const Instrument& in);
std::vector<Level> build_levels(const Instrument& in, char side, std::size_t most);
char luld_bbo_letter(const Instrument& in, const Quote& quote);
char luld_national_letter(const Instrument& in);
// Does this quote carry the whole NBBO of its instrument?
bool is_whole_nbbo(const Nbbo& nbbo, char market_center, const Quote& quote);
// Price for opening, re-opening and closing prints: NBBO midpoint cut to cents, or the reference price.
std::int64_t cross_price(const Instrument& in, bool only_bid_asked);
// A number as a default output stream writes it: six significant digits, no trailing zeros.
std::string plain(double value);
// The arguments through printf, uncut.
std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tessel::model
