#include "simulator/simulation.h"

#include "engine/tick.h"
#include "mold/retransmission_server.h"
#include "support/market_difference.h"

#include <unistd.h>
#include <algorithm>

namespace tessel::simulator {

namespace {

constexpr std::uint64_t replay_every = 8;     // every eighth run is played a second time without faults
constexpr std::size_t state_check_every = 8;  // passes
constexpr std::size_t joiners_max = 3;

std::int64_t now_of(const Simulation& sim) {
    return static_cast<std::int64_t>(sim.market.clock.simulated_steady_ms);
}

// What the truth log gained since the last call.
std::string read_new_truth(Simulation& sim) {
    std::string text;
    char part[1 << 16];
    for (;;) {
        const ssize_t got =
            pread(sim.market.engine.truth.fd, part, sizeof part, static_cast<off_t>(sim.truth_bytes));
        if (got <= 0) {
            break;
        }
        text.append(part, static_cast<std::size_t>(got));
        sim.truth_bytes += static_cast<std::size_t>(got);
    }
    const std::size_t nbbo = text.find("\"nbbo\":[");
    if (nbbo != std::string::npos && plants(sim, "truth_size")) {
        const std::size_t digit = text.find(']', nbbo) - 1;
        text[digit] = text[digit] == '7' ? '3' : '7';
    }
    if (!text.empty() && plants(sim, "truth_line_lost")) {
        text.erase(0, text.find('\n') + 1);
    }
    return text;
}

// The log's next line that is not a mark; marks on the way must be the ones due.
bool next_truth_line(Simulation& sim, testing::TruthReader& reader, std::string_view& line) {
    while (testing::next_line(reader, line)) {
        if (!testing::is_mark(line)) {
            return true;
        }
        if (sim.marks_due.empty() || sim.marks_due.front() != line) {
            sim.violations.report("truth", "a mark line that is not due: " + std::string(line));
        } else {
            sim.marks_due.erase(sim.marks_due.begin());
        }
    }
    return false;
}

void check_line(Simulation& sim, std::uint64_t sequence, testing::TruthReader& reader) {
    if (!testing::has_line(sim.follower) || !sim.plan.market.truth) {
        return;
    }
    std::string_view line;
    const std::string number = "sequence " + std::to_string(sequence) + ": ";
    if (!next_truth_line(sim, reader, line)) {
        sim.violations.report("truth", number + "no line for it");
        return;
    }
    const std::string difference = testing::line_difference(sim.follower, line);
    if (!difference.empty()) {
        sim.violations.report("truth", number + difference);
    }
}

std::ptrdiff_t position_of(const Simulation& sim, const receiver::Message& message) {
    const receiver::Market& market = sim.follower.market;
    const receiver::Instrument* instrument = receiver::find_instrument(market, message.symbol);
    return instrument == nullptr ? -1 : instrument - market.instruments.data();
}

// The message as it is followed: its bytes, or with a byte that a canary changed.
Bytes followed_message(Simulation& sim, const Bytes& message) {
    Bytes copy = message;
    const bool is_short = copy[1] == 'Q' && copy[2] == 'C' && copy[46] == '2';
    const bool is_long = copy[1] == 'Q' && copy[2] == 'D' && copy[76] == '3';
    if ((is_short || is_long) && plants(sim, "nbbo_on_the_wire")) {
        copy[is_short ? 57 : 96] ^= 4;  // last byte of the best bid size
    }
    if (copy[1] == 'Q' && copy[2] == 'M' && plants(sim, "mpid_quote")) {
        copy[55] ^= 1;  // last byte of the bid
    }
    return copy;
}

// Takes the messages that came since the last call through every check of a message.
void follow_messages(Simulation& sim) {
    const std::size_t before = sim.appended.size();
    testing::read_history(sim.market.publisher.history, before + 1, sim.appended);
    if (sim.appended.size() != sim.market.last()) {
        sim.violations.report("sequence", "number " + std::to_string(sim.market.last()) + " is the last, " +
                                              std::to_string(sim.appended.size()) + " messages are kept");
    }
    const std::string truth = read_new_truth(sim);
    testing::TruthReader reader{truth};
    for (std::size_t i = before; i < sim.appended.size(); ++i) {
        const Bytes message = followed_message(sim, sim.appended[i]);
        const std::string wrong = testing::follow(sim.follower, i + 1, message.data(), message.size());
        if (!wrong.empty()) {
            sim.violations.report("messages", "sequence " + std::to_string(i + 1) + ": " + wrong);
            continue;
        }
        check_line(sim, i + 1, reader);
        const receiver::Message& decoded = sim.follower.market.message;
        audit_message(sim.messages, decoded, position_of(sim, decoded), i + 1, sim.violations);
    }
    std::string_view line;
    if (next_truth_line(sim, reader, line)) {
        sim.violations.report("truth", "a line without a message: " + std::string(line));
    }
    if (sim.plan.market.truth && !sim.marks_due.empty()) {
        sim.violations.report("truth", "no line for " + sim.marks_due.front());
    }
    sim.marks_due.clear();
}

void follow_packets(Simulation& sim) {
    std::vector<Bytes>& packets = sim.market.packets;
    for (; sim.packets_seen < packets.size(); ++sim.packets_seen) {
        Bytes& packet = packets[sim.packets_seen];
        const bool is_heartbeat = packet.size() == mold_header_bytes;
        if (is_heartbeat && plants(sim, "heartbeat")) {
            packet[17] ^= 1;
        }
        if (!is_heartbeat && plants(sim, "packet_lost")) {
            continue;
        }
        if (!is_heartbeat && plants(sim, "packet_byte")) {
            packet.back() ^= 1;
        }
        audit_packet(sim.packets, packet, sim.appended, sim.market.publisher.next_sequence, sim.violations);
        for (const std::unique_ptr<Receiver>& receiver : sim.receivers) {
            PacketView view;
            const bool is_new = !is_heartbeat && sim.canary.name == "message_hidden" &&
                                read_packet(packet, sim.packets.session, view) &&
                                view.first >= receiver->next;
            if (is_new && plants(sim, "message_hidden")) {
                receiver->hides_next = true;
            }
            offer_packet(*receiver, packet, now_of(sim));
        }
    }
}

// After anything that may have made messages or packets.
void follow(Simulation& sim) {
    follow_messages(sim);
    follow_packets(sim);
}

Receiver& add_receiver(Simulation& sim, unsigned loss_percent) {
    auto receiver = std::make_unique<Receiver>();
    receiver->publisher = &sim.market.publisher;
    receiver->appended = &sim.appended;
    receiver->violations = &sim.violations;
    receiver->session = sim.packets.session;
    receiver->random.state = sim.random.next();
    receiver->loss_percent = loss_percent;
    sim.receivers.push_back(std::move(receiver));
    return *sim.receivers.back();
}

// A late joiner logs in: what is open goes out, then comes the spin.
void join(Simulation& sim) {
    MoldPublisher& publisher = sim.market.publisher;
    flush_packet(publisher);
    follow(sim);
    const std::uint64_t spin_time = wall_ns(sim.market.clock);
    build_spin(sim.spin, sim.market.engine, spin_time);
    append_end_of_snapshot(sim.spin, spin_time, last_sequence(publisher));
    ++sim.messages.counted.snapshots;
    const auto spun = spin_messages(sim.spin);
    const auto quote =
        std::find_if(spun.begin(), spun.end(), [](const auto& each) { return each[1] == 'Q'; });
    if (quote != spun.end() && plants(sim, "spin_byte")) {
        const_cast<unsigned char*>(quote->data())[59] ^= 1;  // bid size of a long quote
    }
    Receiver& joiner = add_receiver(sim, static_cast<unsigned>(sim.random.below(30)));
    joiner.is_joiner = true;
    std::string wrong = testing::apply_spin(joiner.market, sim.spin);
    if (wrong.empty()) {
        wrong = testing::joiner_difference(sim.follower.market, joiner.market);
    }
    if (!wrong.empty() || joiner.market.snapshot_sequence != sim.appended.size()) {
        sim.violations.report("joiners",
                              "after number " + std::to_string(sim.appended.size()) + ": " + wrong);
    }
    start_receiver(joiner, joiner.market.snapshot_sequence + 1);
}

void collect(void* context, const unsigned char* packet, std::size_t length) {
    static_cast<std::vector<Bytes>*>(context)->emplace_back(packet, packet + length);
}

// Somebody asks for something: mostly a range that there is, sometimes anything.
void send_random_request(Simulation& sim) {
    SplitMix& random = sim.random;
    Bytes request(sim.packets.session.begin(), sim.packets.session.end());
    const std::uint64_t sequence = random.once_in(10) ? random.next() : random.below(sim.appended.size() + 5);
    const std::uint64_t count = random.once_in(5) ? random.below(65536) : random.below(60);
    for (int shift = 56; shift >= 0; shift -= 8) {
        request.push_back(static_cast<unsigned char>(sequence >> shift));
    }
    request.push_back(static_cast<unsigned char>(count >> 8));
    request.push_back(static_cast<unsigned char>(count));
    request.resize(request.size() + random.below(4));
    if (random.once_in(12)) {
        request[random.below(10)] ^= 0x20;  // another session
    }
    if (random.once_in(12)) {
        request.resize(random.below(20));
    }
    std::vector<Bytes> replies;
    const bool taken =
        answer_request(sim.market.publisher, request.data(), request.size(), {collect, &replies});
    const bool whole = request.size() >= retrans_request_bytes;
    const bool ours =
        whole && std::equal(sim.packets.session.begin(), sim.packets.session.end(), request.begin());
    sim.requests_served += ours ? 1 : 0;
    sim.requests_rejected += whole && !ours ? 1 : 0;
    if (taken != whole) {
        sim.violations.report("retransmission", "a request of " + std::to_string(request.size()) + " bytes");
    }
    if (!replies.empty() && plants(sim, "reply_byte")) {
        replies.back().back() ^= 1;
    }
    audit_replies(request, replies, sim.packets.session, sim.appended, sim.violations);
}

void check_state(Simulation& sim) {
    sim.messages.counted.nbbo_changes = 0;
    for (const testing::PlainBook& book : sim.follower.books) {
        sim.messages.counted.nbbo_changes += book.changes;
    }
    audit_engine(sim.messages, sim.market.engine, sim.violations);
    const std::string difference = testing::engine_difference(sim.market.engine, sim.follower.market);
    if (!difference.empty()) {
        sim.violations.report("state", "pass " + std::to_string(sim.pass) + ": " + difference);
    }
}

// One pass of the loop, in the program's order.
void run_pass(Simulation& sim, RunResult& result) {
    testing::TestMarket& market = sim.market;
    market.advance_ms(sim.plan.pass_ms);
    const std::uint64_t now_ms = market.clock.simulated_steady_ms;
    if (sim.plan.command_odds != 0 && sim.random.once_in(sim.plan.command_odds)) {
        run_random_command(sim);
        ++result.commands;
        follow(sim);
    }
    if (sim.plan.fault_odds != 0 && sim.random.once_in(sim.plan.fault_odds)) {
        run_random_fault(sim);
        ++result.commands;
    }
    if (sim.plan.join_odds != 0 && sim.random.once_in(sim.plan.join_odds) && result.joins < joiners_max) {
        join(sim);
        ++result.joins;
    }
    fire_scenario_events(market.engine, sim.marks, sim.start_ms, now_ms);
    const auto interval = static_cast<std::uint64_t>(std::int64_t{sim.interval_ms});
    if (now_ms - sim.last_tick_ms >= interval) {
        run_tick(market.engine, now_ms);
        sim.last_tick_ms = now_ms;
    }
    if (static_cast<std::int64_t>(now_ms) - market.publisher.last_flush_ms >= heartbeat_after_ms) {
        send_heartbeat(market.publisher);
    }
    follow(sim);
    if (sim.plan.request_odds != 0 && sim.random.once_in(sim.plan.request_odds)) {
        send_random_request(sim);
        ++result.requests;
    }
    for (const std::unique_ptr<Receiver>& receiver : sim.receivers) {
        sim.requests_served += pass_time(*receiver, now_of(sim));
    }
    plant_in_market(sim);
    if (sim.pass % state_check_every == 0 || sim.canary.planted) {
        check_state(sim);
    }
}

void finish_receivers(Simulation& sim) {
    flush_packet(sim.market.publisher);
    send_heartbeat(sim.market.publisher);
    follow(sim);
    const Bytes heartbeat = sim.market.packets.back();
    for (const std::unique_ptr<Receiver>& receiver : sim.receivers) {
        // The last heartbeat reaches everyone: a feed that has ended cannot be asked where it ended.
        on_packet(receiver->sequencer, heartbeat.data(), heartbeat.size(), now_of(sim),
                  receiver::PacketSource::multicast);
        sim.requests_served += finish_receiver(*receiver, now_of(sim));
        const std::string difference =
            receiver->is_joiner ? testing::joiner_difference(sim.follower.market, receiver->market) : "";
        if (!difference.empty()) {
            sim.violations.report("joiners", "at the end: " + difference);
        }
    }
}

void check_history(Simulation& sim) {
    std::vector<Bytes> kept;
    testing::read_history(sim.market.publisher.history, 1, kept);
    if (kept != sim.appended) {
        sim.violations.report("history", "what is kept at the end is not what was appended");
    }
    if (sim.market.publisher.messages_sequenced != sim.appended.size()) {
        sim.violations.report("counters", "messages sequenced");
    }
    if (sim.market.publisher.retrans_served != sim.requests_served ||
        sim.market.publisher.retrans_rejected != sim.requests_rejected) {
        sim.violations.report("counters", "retransmission requests served or rejected");
    }
}

void play(Simulation& sim, RunResult& result, const StderrTape& tape) {
    rewind_tape(tape);
    for (const unsigned loss : sim.plan.receiver_loss) {
        start_receiver(add_receiver(sim, loss), 1);
    }
    sim.market.start_of_day();
    follow(sim);
    for (; sim.pass < sim.plan.passes && !sim.stopped; ++sim.pass) {
        run_pass(sim, result);
    }
    finish_receivers(sim);
    check_state(sim);
    check_history(sim);
    const FaultInjector initial = sim.faultless ? FaultInjector{} : sim.plan.faults;
    audit_faults(sim.packets, initial, read_tape(tape), sim.market.publisher, sim.violations);
}

// The same run without faults has to append the same bytes: faults touch packets, never the market.
void replay_faultless(const Simulation& sim, Violations& violations, const StderrTape& tape) {
    auto faultless_run = std::make_unique<Simulation>(sim.plan);
    faultless_run->faultless = true;
    faultless_run->market.publisher.faults = {};
    RunResult ignored;
    play(*faultless_run, ignored, tape);
    if (faultless_run->appended != sim.appended) {
        violations.report("determinism", "the same run without faults appends other messages");
    }
    Random left = sim.market.rng;
    Random right = faultless_run->market.rng;
    if (next_u64(left) != next_u64(right)) {
        violations.report("determinism", "the same run without faults draws another number next");
    }
    for (Violation& each : faultless_run->violations.found) {
        violations.report(each.invariant.c_str(), "without faults: " + each.what);
    }
}

}  // namespace

Simulation::Simulation(const RunPlan& run_plan) : plan(run_plan), market(run_plan.market) {
    interval_ms = plan.interval_ms;
    start_ms = market.clock.simulated_steady_ms;
    last_tick_ms = start_ms;
    random.state = ~plan.seed;
    market.publisher.faults = plan.faults;
    follower = testing::make_follower(plan.market.symbols);
    packets.session = receiver::padded_session(plan.market.session);
}

RunResult play_run(std::uint64_t seed, const std::string& canary, const StderrTape& tape) {
    auto sim = std::make_unique<Simulation>(draw_plan(seed));
    sim->canary.name = canary;
    sim->canary.from_pass = 2 + SplitMix{seed + 1}.below(sim->plan.passes / 2);
    RunResult result;
    play(*sim, result, tape);
    if (seed % replay_every == 0 || canary == "draw_added") {
        replay_faultless(*sim, sim->violations, tape);
    }
    result.messages = sim->appended.size();
    result.planted = sim->canary.planted;
    result.stats = sim->market.scenario.stats;
    result.dropped = sim->market.publisher.faults_dropped;
    result.duplicated = sim->market.publisher.faults_duplicated;
    result.held = sim->market.publisher.faults_reordered;
    result.violations = std::move(sim->violations.found);
    return result;
}

}  // namespace tessel::simulator
