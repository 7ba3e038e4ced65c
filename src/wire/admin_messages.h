#pragma once

#include "wire/layout.h"
#include "wire/message_writer.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel {

// Start of day, session open, wipe-out: the header alone.
constexpr std::size_t control_bytes = layout::message_bytes('C', 'I');
constexpr std::size_t decline_levels_bytes = layout::message_bytes('A', 'C');
constexpr std::size_t short_directory_bytes = layout::message_bytes('A', 'B');
constexpr std::size_t long_directory_bytes = layout::message_bytes('A', 'F');
constexpr std::size_t indicator_bytes = layout::message_bytes('A', 'V');
constexpr std::size_t trading_action_bytes = layout::message_bytes('A', 'H');
constexpr std::size_t price_band_bytes = layout::message_bytes('A', 'P');
constexpr std::size_t collar_bytes = layout::message_bytes('A', 'E');
constexpr std::size_t mwcb_status_bytes = layout::message_bytes('A', 'D');
constexpr std::size_t end_of_snapshot_bytes = layout::message_bytes('A', 'S');

// The circuit breaker's decline levels: 7 %, 13 % and 20 % below 5,000.00, in millionths of a dollar.
constexpr std::int64_t decline_level_1 = 4'650'000'000;
constexpr std::int64_t decline_level_2 = 4'350'000'000;
constexpr std::int64_t decline_level_3 = 4'000'000'000;

// The two stamps that every administrative message takes.
struct AdminTimes {
    std::uint64_t sip_time = 0;
    std::uint64_t participant_time = 0;
};

struct DirectoryRecord {
    AdminTimes times;
    std::string_view symbol;
    std::string_view issue_name;      // cut to 30
    char trading_state = 'T';         // 'H' while halted or paused
    std::string_view trading_reason;  // empty unless trading_state is 'H'
    char indicator = '0';
};

// Category, type and market center letters: "CI E" start of day, "CO <market_center>" session open, "CP
// <market_center>" wipe-out.
void build_start_of_day(MessageWriter& writer, AdminTimes times);
void build_session_open(MessageWriter& writer, AdminTimes times, char market_center);
void build_wipe_out(MessageWriter& writer, AdminTimes times, char market_center);
void build_decline_levels(MessageWriter& writer, AdminTimes times);
void encode_directory(MessageWriter& writer, const DirectoryRecord& record, bool long_form);
void build_indicator(MessageWriter& writer, AdminTimes times, std::string_view symbol, char indicator);
void build_trading_action(MessageWriter& writer, AdminTimes times, std::string_view symbol, char action,
                          std::uint32_t action_seq, std::uint64_t action_time_ns, std::string_view reason);
void build_price_band(MessageWriter& writer, AdminTimes times, std::string_view symbol, char indicator,
                      std::uint64_t effective_time_ns, std::int64_t lower, std::int64_t upper);
void build_collar(MessageWriter& writer, AdminTimes times, std::string_view symbol, std::uint32_t action_seq,
                  std::int64_t reference, std::int64_t upper, std::int64_t lower);     // extension byte 0
void build_mwcb_status(MessageWriter& writer, AdminTimes times, std::uint32_t level);  // above 3: '3'
void build_end_of_snapshot(MessageWriter& writer, std::uint64_t time_ns, std::uint64_t last_sequence);

// The directory and indicator messages encoded directly into the caller's buffer (used by snapshot spins);
// out has room for them. Each returns the message's length.
std::size_t put_directory(unsigned char* out, const DirectoryRecord& record, bool long_form);
std::size_t put_indicator(unsigned char* out, AdminTimes times, std::string_view symbol, char indicator);

}  // namespace tessel
