#pragma once

#include "wire/layout.h"
#include "wire/message_writer.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel {

constexpr std::size_t short_trade_bytes = layout::message_bytes('T', 'M');
constexpr std::size_t long_trade_bytes = layout::message_bytes('T', 'N');
constexpr std::size_t cancel_error_bytes = layout::message_bytes('T', 'O');
constexpr std::size_t correction_bytes = layout::message_bytes('T', 'P');
constexpr std::size_t as_of_bytes = layout::message_bytes('T', 'Q');

// High, low, last (millionths of a dollar, 0: none yet) and volume (millionths of a share) as the messages
// carry them.
struct StatisticsRecord {
    std::int64_t high = 0;
    std::int64_t low = 0;
    std::int64_t last = 0;
    std::uint64_t volume = 0;
};

// A trade as the messages carry it: price in millionths of a dollar, size in millionths of a share.
struct TradeReport {
    MessageHeader header;
    std::uint64_t trf_time = 0;  // participant time for market center 'D', else 0
    std::string_view symbol;
    std::uint64_t trade_id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;
    const char* conditions = "    ";  // 4 characters
    char trade_through_exempt = ' ';
    char consolidated_change = '0';  // price change indicators, '0' to '7'
    char participant_change = '0';
};

struct CancelRecord {
    MessageHeader header;
    std::uint64_t trf_time = 0;
    std::string_view symbol;
    char function = 'C';  // 'C' cancel or 'E' error
    std::uint64_t trade_id = 0;
    std::int64_t price = 0;
    std::uint64_t size = 0;
    const char* conditions = "    ";
    char trade_through_exempt = ' ';
    StatisticsRecord consolidated;
    char last_market_center = ' ';
    StatisticsRecord participant;
};

struct CorrectionRecord {
    MessageHeader header;
    std::uint64_t trf_time = 0;
    std::string_view symbol;
    std::uint64_t old_trade_id = 0;
    std::int64_t old_price = 0;
    std::uint64_t old_size = 0;
    std::uint64_t new_trade_id = 0;
    std::int64_t new_price = 0;
    std::uint64_t new_size = 0;
    const char* conditions = "    ";  // the same for both
    char trade_through_exempt = ' ';  // the same for both
    StatisticsRecord consolidated;
    char last_market_center = ' ';
    StatisticsRecord participant;
};

struct AsOfRecord {
    MessageHeader header;
    std::uint64_t trf_time = 0;
    std::string_view symbol;
    std::int64_t price = 0;
    std::uint64_t size = 0;
    std::uint64_t execution_time_ns = 0;
};

// Each sets the header's category ("T") and type and leaves the whole message in writer: a trade is of type
// 'M' (short) or 'N' (long), a cancel 'O', a correction 'P', an as-of trade 'Q' with id 0, conditions "@   "
// and action 'A'.
void build_trade(MessageWriter& writer, const TradeReport& report, bool short_form);
void build_cancel(MessageWriter& writer, const CancelRecord& record);
void build_correction(MessageWriter& writer, const CorrectionRecord& record);
void build_as_of(MessageWriter& writer, const AsOfRecord& record);

}  // namespace tessel
