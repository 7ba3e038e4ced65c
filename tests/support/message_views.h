#pragma once

#include "support/test_market.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::testing {

// Messages as the typed decoder reads them, which shares nothing with the encoders, so that an encoder's
// mistake shows. Prices are millionths of a dollar in every form; a part that the message does not carry
// keeps its default.

struct NbboPart {
    char condition = '-';
    char bid_market_center = '-';
    char ask_market_center = '-';
    std::int64_t bid = -1;
    std::int64_t ask = -1;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;

    bool operator==(const NbboPart&) const = default;
};

struct BestOddLotPart {
    char bid_market_center = '-';
    char ask_market_center = '-';
    std::int64_t bid = -1;
    std::int64_t ask = -1;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    std::string mpids;  // eight letters with indicator '5'

    bool operator==(const BestOddLotPart&) const = default;
};

struct OddLotPart {
    char market_center = '-';
    char side = '-';
    std::int64_t price = 0;
    std::uint32_t size = 0;
    std::string mpid;

    bool operator==(const OddLotPart&) const = default;
};

struct QuoteView {
    char type = '-';  // C, D or M
    char market_center = '-';
    std::uint64_t sip_time = 0;
    std::uint64_t participant_time = 0;
    std::uint64_t adf_time = 0;
    std::string symbol;  // with its padding
    std::int64_t bid = 0;
    std::int64_t ask = 0;
    std::uint32_t bid_size = 0;
    std::uint32_t ask_size = 0;
    char condition = '-';
    char sip_flag = '-';
    char luld_bbo = '-';
    char nbbo_ind = '-';
    char luld_nbbo = '-';
    char mpid_ind = '-';
    char best_ind = '-';
    char list_ind = '-';
    std::uint16_t entries = 0;
    std::string mpids;  // eight letters after an ADF quote, four in an MPID quote
    NbboPart nbbo;
    BestOddLotPart best;
    std::vector<OddLotPart> odd_lots;
};

// Throws when the message is no quote or its length is not what its indicators say.
QuoteView read_quote(const Bytes& message);

struct StatisticsView {
    std::int64_t high = 0;
    std::int64_t low = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;

    bool operator==(const StatisticsView&) const = default;
};

// A trade report, cancel/error, correction or as-of trade.
struct TradeView {
    char type = '-';     // M, N, O, P or Q
    std::string center;  // market center and sub-market center
    std::uint64_t sip_time = 0;
    std::uint64_t participant_time = 0;
    std::uint64_t trf_time = 0;
    std::string symbol;
    std::uint64_t id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;  // millionths of a share
    std::string conditions;
    char exempt = '-';
    std::string changes;       // price change indicators
    char function = '-';       // of a cancel/error
    std::uint64_t new_id = 0;  // from here: of a correction
    std::int64_t new_price = 0;
    std::uint64_t new_size = 0;
    StatisticsView consolidated;  // of a cancel/error or correction
    StatisticsView participant;
    char last_center = '-';
    std::uint64_t execution_time = 0;  // of an as-of trade
};

// Throws when the message is none of these or has another length.
TradeView read_trade(const Bytes& message);

// A message in a few words, which is how a test writes down the order of an event: "action H T1 1" (reason
// and action number), "band D", "collar", "quote Q L" (center and condition, " E" after it when the SIP made
// it), "mpid quote", "trade Q @5  ", "breaker 2", "wipe-out Q"; any other message is its letters.
std::string brief(const Bytes& message);
std::vector<std::string> briefs(const TestMarket& market, std::uint64_t first, std::uint64_t last);

}  // namespace tessel::testing
