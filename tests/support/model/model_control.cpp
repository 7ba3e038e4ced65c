// One command datagram in, one reply datagram out.

#include "support/model/model.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace tessel::model {

namespace {

// An unsigned decimal as strtoul reads it, its low 32 bits; the fallback when there is none or it passes 64
// bits.
std::uint32_t count_of(const std::string& word, std::uint32_t fallback) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(word.c_str(), &end, 10);
    if (end == word.c_str() || errno == ERANGE) {
        return fallback;
    }
    return static_cast<std::uint32_t>(value);
}

unsigned long long ull(std::uint64_t v) {
    return v;
}

bool names_a_symbol(const std::string& word, const std::string& argument) {
    return word == "halt" || word == "luld_pause" || word == "band" || word == "close" || word == "asof" ||
           (word == "resume" && !argument.empty());
}

}  // namespace

std::string Model::command(const std::string& datagram) {
    std::string line = datagram.substr(0, 511);
    line = line.substr(0, line.find('\0'));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) {
        line.pop_back();
    }
    const std::string reply = run_command(line);
    return reply == "ok stopping" ? reply : reply + "\n";
}

std::string Model::run_command(const std::string& line) {
    std::string word, argument;
    std::istringstream(line) >> word >> argument;
    const std::string echo = "ok " + line;
    const unsigned long long last_sent = ull(next_sequence - 1);
    if (names_a_symbol(word, argument)) {
        return run_symbol_command(word, argument, echo);
    }
    if (word == "pause") {
        paused = true;
        say("bench: paused at seq %llu\n", last_sent);
    } else if (word == "resume") {
        paused = false;
        say("bench: resumed at seq %llu\n", last_sent);
    } else if (word == "drop") {
        faults.pending_drops = count_of(argument, 1);
    } else if (word == "dup") {
        faults.pending_dups = count_of(argument, 1);
    } else if (word == "reorder") {
        faults.pending_reorders = count_of(argument, 1);
    } else if (word == "drop_every") {
        faults.drop_every = count_of(argument, 0);
    } else if (word == "dup_every") {
        faults.dup_every = count_of(argument, 0);
    } else if (word == "reorder_every") {
        faults.reorder_every = count_of(argument, 0);
    } else if (word == "rate") {
        const std::uint32_t ms = count_of(argument, 100);
        interval_ms = ms == 0 ? 100 : static_cast<std::int32_t>(ms);
    } else if (word == "mark") {
        truth_line("{\"mark\":\"" + argument + "\",\"seq\":" + std::to_string(next_sequence - 1) + "}\n");
        say("bench: mark %s at seq %llu\n", argument.c_str(), last_sent);
    } else if (word == "mwcb") {
        breach_mwcb(count_of(argument, 1));
    } else if (word == "trf") {
        pending_trf += count_of(argument, 1);
    } else if (word == "cancel") {
        pending_cancels += count_of(argument, 1);
    } else if (word == "correct") {
        pending_corrections += count_of(argument, 1);
    } else if (word == "wipeout") {
        if (argument.size() != 1) {
            return "err wipeout needs a Market Center Originator ID";
        }
        wipe_out(argument[0]);
    } else if (word == "stats") {
        return "ok " + stats_line() + " next_seq=" + std::to_string(next_sequence) + " " + faults_summary();
    } else if (word == "stop") {
        say("%s\n", faults_summary().c_str());
        return "ok stopping";
    } else {
        return "err unknown command '" + word + "'";
    }
    return echo;
}

std::string Model::run_symbol_command(const std::string& word, const std::string& symbol,
                                      const std::string& echo) {
    Instrument* found = nullptr;
    for (Instrument& in : instruments) {
        if (found == nullptr && in.symbol == symbol) {
            found = &in;
        }
    }
    if (found == nullptr) {
        say("bench: unknown symbol '%s'\n", symbol.c_str());
        return "err unknown symbol";
    }
    Instrument& in = *found;
    if (word == "halt") {
        halt(in, "T1", 0);
    }
    if (word == "luld_pause") {
        luld_pause(in, 0);
    }
    if (word == "asof") {
        emit_asof(in);
    }
    if (word == "band") {
        send_band(in, 'C', wall());
        flush();
    }
    if (word == "close") {
        const std::int64_t price = cross_price(in, false);
        const std::uint64_t now_ns = wall();
        record_trade(in, 'Q', ' ', price, 8000, "@6  ", ' ', now_ns, 2);
        record_trade(in, 'Q', ' ', price, 0, "@  M", ' ', now_ns, 2);
        flush();
    }
    if (word == "resume" && in.status != 'T') {
        if (in.status == 'Q') {
            resume_trading(in, wall());
        } else {
            resume_quotation(in, wall());
        }
        flush();
    }
    return echo;
}

}  // namespace tessel::model
