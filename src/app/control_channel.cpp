#include "app/control_channel.h"

#include "app/reports.h"
#include "base/parse_number.h"
#include "engine/circuit_breaker.h"
#include "engine/halts.h"
#include "engine/luld.h"
#include "engine/publication.h"
#include "engine/trade_revisions.h"
#include "engine/trades.h"
#include "engine/wipe_out.h"
#include "mold/publisher.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstdio>
#include <string_view>

namespace tessel {

namespace {

constexpr std::uint32_t rate_fallback_ms = 100;

// Context of one command. `reply` is preset to "ok <line>"; a command overwrites it.
struct Command {
    const ControlContext& context;
    SipEngine& engine;
    MoldPublisher& publisher;
    const std::string& argument;
    std::string& reply;
    bool& stop;
};

// Looks up the instrument named by the argument; sets the error reply if there is none.
Instrument* named_instrument(const Command& command) {
    Instrument* instrument = find_instrument(command.engine, command.argument);
    if (instrument == nullptr) {
        command.reply = "err unknown symbol";
    }
    return instrument;
}

void run_pause(const Command& command) {
    command.engine.paused = true;
    announce(command.engine, "paused");
}

void run_resume(const Command& command) {
    if (command.argument.empty()) {
        command.engine.paused = false;
        announce(command.engine, "resumed");
        return;
    }
    Instrument* instrument = named_instrument(command);
    if (instrument == nullptr) {
        return;
    }
    if (is_stopped(*instrument)) {
        resume_quotation(command.engine, *instrument, wall_ns(*command.engine.clock));
        flush_messages(command.engine);
    } else if (instrument->status == 'Q') {
        resume_trading(command.engine, *instrument, wall_ns(*command.engine.clock));
        flush_messages(command.engine);
    }
}

void run_drop(const Command& command) {
    command.publisher.faults.pending_drops = parse_count(command.argument, 1);
}

void run_dup(const Command& command) {
    command.publisher.faults.pending_dups = parse_count(command.argument, 1);
}

void run_reorder(const Command& command) {
    command.publisher.faults.pending_reorders = parse_count(command.argument, 1);
}

void run_drop_every(const Command& command) {
    command.publisher.faults.drop_every = parse_count(command.argument, 0);
}

void run_dup_every(const Command& command) {
    command.publisher.faults.dup_every = parse_count(command.argument, 0);
}

void run_reorder_every(const Command& command) {
    command.publisher.faults.reorder_every = parse_count(command.argument, 0);
}

void run_rate(const Command& command) {
    const std::uint32_t interval = parse_count(command.argument, rate_fallback_ms);
    // A count beyond the signed range is a negative interval: the model is frozen.
    *command.context.interval_ms = static_cast<std::int32_t>(interval == 0 ? rate_fallback_ms : interval);
}

void run_mark(const Command& command) {
    write_mark_line(command.engine.truth, command.argument, last_sequence(command.engine));
    announce(command.engine, "mark " + command.argument);
}

void run_halt(const Command& command) {
    if (Instrument* instrument = named_instrument(command)) {
        halt_instrument(command.engine, *instrument, "T1", 0);
    }
}

void run_luld_pause(const Command& command) {
    if (Instrument* instrument = named_instrument(command)) {
        luld_pause(command.engine, *instrument, 0);
    }
}

void run_band(const Command& command) {
    if (Instrument* instrument = named_instrument(command)) {
        send_band(command.engine, *instrument, 'C', wall_ns(*command.engine.clock));
        flush_messages(command.engine);
    }
}

void run_mwcb(const Command& command) {
    breach_mwcb(command.engine, parse_count(command.argument, 1));
}

// These three add to what is pending, unlike the faults above.
void run_trf(const Command& command) {
    command.engine.pending_trf += parse_count(command.argument, 1);
}

void run_cancel(const Command& command) {
    command.engine.pending_cancels += parse_count(command.argument, 1);
}

void run_correct(const Command& command) {
    command.engine.pending_corrections += parse_count(command.argument, 1);
}

void run_close(const Command& command) {
    if (Instrument* instrument = named_instrument(command)) {
        closing_cross(command.engine, *instrument, wall_ns(*command.engine.clock));
        flush_messages(command.engine);
    }
}

void run_asof(const Command& command) {
    if (Instrument* instrument = named_instrument(command)) {
        emit_asof(command.engine, *instrument);
    }
}

void run_wipeout(const Command& command) {
    if (command.argument.size() != 1) {
        command.reply = "err wipeout needs a Market Center Originator ID";
        return;
    }
    wipe_out(command.engine, command.argument[0]);
}

void run_stats(const Command& command) {
    command.reply = "ok " + stats_report(command.engine.scenario->stats, command.publisher);
}

void run_stop(const Command& command) {
    command.reply = "ok stopping";
    command.stop = true;
}

struct CommandRow {
    std::string_view word;
    std::string_view usage;  // as the opening line shows it
    void (*run)(const Command& command);
};

// In the order of the opening line; the words differ, so the order of matching is the same.
constexpr CommandRow command_rows[] = {
    {"pause", "pause", run_pause},
    {"resume", "resume", run_resume},
    {"drop", "drop N", run_drop},
    {"dup", "dup N", run_dup},
    {"reorder", "reorder N", run_reorder},
    {"drop_every", "drop_every N", run_drop_every},
    {"dup_every", "dup_every N", run_dup_every},
    {"reorder_every", "reorder_every N", run_reorder_every},
    {"rate", "rate MS", run_rate},
    {"mark", "mark LABEL", run_mark},
    {"stats", "stats", run_stats},
    {"stop", "stop", run_stop},
    {"halt", "halt SYM", run_halt},
    {"resume", "resume SYM", run_resume},
    {"luld_pause", "luld_pause SYM", run_luld_pause},
    {"band", "band SYM", run_band},
    {"mwcb", "mwcb LEVEL", run_mwcb},
    {"trf", "trf N", run_trf},
    {"cancel", "cancel N", run_cancel},
    {"correct", "correct N", run_correct},
    {"close", "close SYM", run_close},
    {"asof", "asof SYM", run_asof},
    {"wipeout", "wipeout MC", run_wipeout},
};

constexpr std::string_view white_space = " \t\n\v\f\r";

// Takes the next word off the front of text; empty when there is none.
std::string take_word(std::string_view& text) {
    const std::size_t start = text.find_first_not_of(white_space);
    if (start == std::string_view::npos) {
        text = {};
        return {};
    }
    text.remove_prefix(start);
    std::string word(text.substr(0, text.find_first_of(white_space)));
    text.remove_prefix(word.size());
    return word;
}

}  // namespace

ControlReply handle_command(const ControlContext& context, const char* bytes, std::size_t length) {
    std::string_view line(bytes, length < control_line_bytes_max ? length : control_line_bytes_max);
    line = line.substr(0, line.find('\0'));
    const std::size_t last = line.find_last_not_of("\n\r ");  // a trailing tab stays
    line = line.substr(0, last == std::string_view::npos ? 0 : last + 1);

    ControlReply reply;
    reply.text = "ok " + std::string(line);
    std::string_view rest = line;
    const std::string word = take_word(rest);
    const std::string argument = take_word(rest);
    const CommandRow* found = nullptr;
    for (const CommandRow& row : command_rows) {
        if (row.word == word) {
            found = &row;
            break;
        }
    }
    if (found == nullptr) {
        reply.text = "err unknown command '" + word + "'";
    } else {
        found->run({context, *context.engine, *context.engine->publisher, argument, reply.text, reply.stop});
    }
    if (!reply.stop) {
        reply.text += '\n';
    }
    return reply;
}

int open_control_channel(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::perror("tessel: control port");
        return -1;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("tessel: control port");
        close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, O_NONBLOCK);
    std::string usage;
    for (const CommandRow& row : command_rows) {
        usage += usage.empty() ? "" : " | ";
        usage += row.usage;
    }
    std::fprintf(stderr, "bench: control on 127.0.0.1:%u (%s)\n", unsigned{port}, usage.c_str());
    return fd;
}

bool serve_control_channel(int fd, const ControlContext& context) {
    while (true) {
        char line[control_line_bytes_max + 1];
        sockaddr_in sender{};
        socklen_t sender_length = sizeof sender;
        const ssize_t length = recvfrom(fd, line, control_line_bytes_max, 0,
                                        reinterpret_cast<sockaddr*>(&sender), &sender_length);
        if (length <= 0) {
            return true;
        }
        const ControlReply reply = handle_command(context, line, static_cast<std::size_t>(length));
        // A sender that is gone misses its reply.
        sendto(fd, reply.text.data(), reply.text.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&sender), sender_length);
        if (reply.stop) {
            return false;
        }
    }
}

}  // namespace tessel
