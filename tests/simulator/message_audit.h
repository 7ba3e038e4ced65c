#pragma once

#include "engine/scenario.h"
#include "engine/sip_engine.h"
#include "simulator/violations.h"
#include "wire/message_decoder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessel::simulator {

// The rules that hold over a run's messages, checked from the decoded messages alone: statuses move along the
// allowed ways, trade ids rise by one, statistics equal a replay of the live trades, revisions take the trade
// that they must take, counters equal counts.

struct AuditedTrade {
    char center = ' ';
    char sub_center = ' ';
    std::array<char, 4> conditions{};
    std::uint64_t id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;  // millionths of a share
    bool live = true;
};

struct AuditedSales {
    receiver::SaleStatistics sales;
    char last_center = ' ';
};

struct AuditedInstrument {
    char status = 'T';
    std::string reason;
    std::uint32_t actions = 0;
    std::map<std::pair<char, char>, std::uint64_t>
        trade_ids;  // last one of each center and sub-market center
    std::vector<AuditedTrade> trades;
    AuditedSales consolidated;
    std::map<char, AuditedSales> centers;
    std::uint64_t shares = 0;           // of every trade
    std::int64_t last_trade_price = 0;  // of the last trade that sets a last price
};

struct MessageAudit {
    FeedStats counted;
    std::vector<AuditedInstrument> instruments;  // by position
    bool mpid_due = false;                       // an ADF quote wants its MPID quote next
    std::string mpid_symbol;
    std::int64_t mpid_bid = 0;
    std::int64_t mpid_ask = 0;
};

// Takes the next message; position is its instrument's, -1 when it has none.
void audit_message(MessageAudit& audit, const receiver::Message& message, std::ptrdiff_t position,
                   std::uint64_t sequence, Violations& violations);

// Holds the feed's own records against what the messages reported so far.
void audit_engine(const MessageAudit& audit, const SipEngine& engine, Violations& violations);

}  // namespace tessel::simulator
