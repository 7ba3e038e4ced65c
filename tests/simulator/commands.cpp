#include "simulator/simulation.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace tessel::simulator {

namespace {

// Words that name an instrument; the answer to an unknown one is an error.
bool names_instrument(const std::string& word) {
    static const char* const words[] = {"halt", "luld_pause", "band", "close", "asof"};
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

bool is_known(const std::string& word) {
    static const char* const words[] = {
        "pause", "resume", "drop", "dup", "reorder", "drop_every", "dup_every", "reorder_every",
        "rate",  "mark",   "mwcb", "trf", "cancel",  "correct",    "wipeout",   "stop"};
    return names_instrument(word) || std::find(std::begin(words), std::end(words), word) != std::end(words);
}

std::string expected_answer(const Simulation& sim, const std::string& line, const std::string& word,
                            const std::string& argument) {
    const std::vector<std::string>& symbols = sim.follower.symbols;
    const bool known_symbol = std::find(symbols.begin(), symbols.end(), argument) != symbols.end();
    if (word == "stop") {
        return "ok stopping";
    }
    if (!is_known(word)) {
        return "err unknown command '" + word + "'\n";
    }
    if ((names_instrument(word) || (word == "resume" && !argument.empty())) && !known_symbol) {
        return "err unknown symbol\n";
    }
    if (word == "wipeout" && argument.size() != 1) {
        return "err wipeout needs a Market Center Originator ID\n";
    }
    return "ok " + line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

// Sends a command line and holds its answer against what it must be.
void send_command(Simulation& sim, const std::string& line) {
    static const char* const endings[] = {"", "\n", "\r\n", "  ", " \r\n\n"};
    std::istringstream words(line);
    std::string word;
    std::string argument;
    words >> word >> argument;
    const std::string datagram = line + endings[sim.random.below(std::size(endings))];
    ControlReply reply =
        handle_command({&sim.market.engine, &sim.interval_ms}, datagram.data(), datagram.size());
    if (plants(sim, "answer")) {
        reply.text[0] = static_cast<char>(reply.text[0] ^ 1);
    }
    const bool right = word == "stats" ? reply.text.starts_with("ok quotes=") && reply.text.ends_with('\n')
                                       : reply.text == expected_answer(sim, line, word, argument);
    if (!right || reply.stop != (word == "stop")) {
        sim.violations.report("answers", "'" + line + "' is answered by '" + reply.text + "'");
    }
    if (word == "mark") {
        sim.marks_due.push_back("{\"mark\":\"" + argument +
                                "\",\"seq\":" + std::to_string(sim.market.last()) + "}");
    }
    sim.stopped = sim.stopped || reply.stop;
}

}  // namespace

void run_random_command(Simulation& sim) {
    SplitMix& random = sim.random;
    std::string line = testing::random_command(random, sim.market.engine);
    if (random.once_in(12)) {
        static const char* const others[] = {"stats",      "frobnicate AAPL",
                                             "",           "wipeout",
                                             "wipeout QN", "rate 5",
                                             "rate",       "rate -1",
                                             "rate x",     "mark",
                                             "  resume",   "halt nope",
                                             "Pause",      "stop",
                                             "trf x",      "mwcb",
                                             "mwcb 99"};
        line = others[random.below(std::size(others))];
    }
    if (line == "stop" && !random.once_in(4)) {
        line = "stats";
    }
    send_command(sim, line);
}

void run_random_fault(Simulation& sim) {
    static const char* const words[] = {"drop", "dup", "reorder", "drop_every", "dup_every", "reorder_every"};
    const std::string word = words[sim.random.below(std::size(words))];
    const bool is_period = word.ends_with("_every");
    std::uint32_t value = static_cast<std::uint32_t>(sim.random.below(5));
    std::string line = word + " " + std::to_string(value);
    if (sim.random.once_in(6)) {
        // No number, or none that can be read: the command's own default.
        line = word + (sim.random.once_in(2) ? "" : " x");
        value = is_period ? 0 : 1;
    }
    send_command(sim, line);
    if (sim.faultless) {
        sim.market.publisher.faults = {};
    } else {
        sim.packets.commands.push_back({sim.market.publisher.packets_flushed, word, value});
    }
}

}  // namespace tessel::simulator
