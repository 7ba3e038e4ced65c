#include "wire/admin_messages.h"

namespace tessel {

namespace {

// The header letters are category, type and market center; the sub-market center is a blank and the token 0.
MessageHeader admin_header(AdminTimes times, char category, char type, char market_center) {
    MessageHeader header;
    header.category = category;
    header.type = type;
    header.market_center = market_center;
    header.sip_time = times.sip_time;
    header.participant_time = times.participant_time;
    return header;
}

void begin_admin(MessageWriter& writer, AdminTimes times, char category, char type, char market_center,
                 std::size_t bytes) {
    begin_message(writer, admin_header(times, category, type, market_center), bytes - common_header_bytes);
}

}  // namespace

void build_start_of_day(MessageWriter& writer, AdminTimes times) {
    static_assert(control_bytes == common_header_bytes);
    begin_admin(writer, times, 'C', 'I', 'E', control_bytes);
}

void build_session_open(MessageWriter& writer, AdminTimes times, char market_center) {
    begin_admin(writer, times, 'C', 'O', market_center, control_bytes);
}

void build_wipe_out(MessageWriter& writer, AdminTimes times, char market_center) {
    begin_admin(writer, times, 'C', 'P', market_center, control_bytes);
}

void build_decline_levels(MessageWriter& writer, AdminTimes times) {
    static_assert(45 + 8 == decline_levels_bytes);
    begin_admin(writer, times, 'A', 'C', 'E', decline_levels_bytes);
    unsigned char* const out = writer.bytes.get();
    put_price_long(out, 29, decline_level_1);
    put_price_long(out, 37, decline_level_2);
    put_price_long(out, 45, decline_level_3);
}

namespace {

// Issue symbol directory: the long form, type F, continues the short one, type B.
void put_directory_body(unsigned char* out, const DirectoryRecord& record, bool long_form) {
    static_assert(89 + 1 == short_directory_bytes);
    static_assert(109 + 8 == long_directory_bytes);
    constexpr std::uint16_t round_lot = 100;  // shares
    put_alpha(out, 29, record.symbol, 11);
    put_alpha(out, 40, {}, 11);
    put_alpha(out, 51, record.issue_name, 30);
    put_u8(out, 81, 'C');
    put_alpha(out, 82, "C", 2);
    put_u8(out, 84, 'Q');
    put_u8(out, 85, 'P');
    put_u8(out, 86, 'N');
    put_u16(out, 87, round_lot);
    put_u8(out, 89, 'N');
    if (!long_form) {
        return;
    }
    put_u8(out, 90, 'N');
    put_u8(out, 91, '0');
    put_u8(out, 92, '3');
    put_u8(out, 93, record.trading_state);
    put_alpha(out, 94, record.trading_reason, 6);
    put_u8(out, 100, record.indicator);
    put_u64(out, 101, 0);
    put_u64(out, 109, 0);
}

std::size_t directory_bytes(bool long_form) {
    return long_form ? long_directory_bytes : short_directory_bytes;
}

void put_indicator_body(unsigned char* out, std::string_view symbol, char indicator) {
    static_assert(40 + 1 == indicator_bytes);
    put_alpha(out, 29, symbol, 11);
    put_u8(out, 40, indicator);
}

}  // namespace

std::size_t put_directory(unsigned char* out, const DirectoryRecord& record, bool long_form) {
    put_header(out, admin_header(record.times, 'A', long_form ? 'F' : 'B', 'Q'));
    put_directory_body(out, record, long_form);
    return directory_bytes(long_form);
}

void encode_directory(MessageWriter& writer, const DirectoryRecord& record, bool long_form) {
    begin_admin(writer, record.times, 'A', long_form ? 'F' : 'B', 'Q', directory_bytes(long_form));
    put_directory_body(writer.bytes.get(), record, long_form);
}

std::size_t put_indicator(unsigned char* out, AdminTimes times, std::string_view symbol, char indicator) {
    put_header(out, admin_header(times, 'A', 'V', 'Q'));
    put_indicator_body(out, symbol, indicator);
    return indicator_bytes;
}

void build_indicator(MessageWriter& writer, AdminTimes times, std::string_view symbol, char indicator) {
    begin_admin(writer, times, 'A', 'V', 'Q', indicator_bytes);
    put_indicator_body(writer.bytes.get(), symbol, indicator);
}

void build_trading_action(MessageWriter& writer, AdminTimes times, std::string_view symbol, char action,
                          std::uint32_t action_seq, std::uint64_t action_time_ns, std::string_view reason) {
    static_assert(53 + 6 == trading_action_bytes);
    begin_admin(writer, times, 'A', 'H', 'Q', trading_action_bytes);
    unsigned char* const out = writer.bytes.get();
    put_alpha(out, 29, symbol, 11);
    put_u8(out, 40, action);
    put_u32(out, 41, action_seq);
    put_u64(out, 45, action_time_ns);
    put_alpha(out, 53, reason, 6);
}

void build_price_band(MessageWriter& writer, AdminTimes times, std::string_view symbol, char indicator,
                      std::uint64_t effective_time_ns, std::int64_t lower, std::int64_t upper) {
    static_assert(57 + 8 == price_band_bytes);
    begin_admin(writer, times, 'A', 'P', 'E', price_band_bytes);
    unsigned char* const out = writer.bytes.get();
    put_alpha(out, 29, symbol, 11);
    put_u8(out, 40, indicator);
    put_u64(out, 41, effective_time_ns);
    put_price_long(out, 49, lower);
    put_price_long(out, 57, upper);
}

void build_collar(MessageWriter& writer, AdminTimes times, std::string_view symbol, std::uint32_t action_seq,
                  std::int64_t reference, std::int64_t upper, std::int64_t lower) {
    static_assert(68 + 1 == collar_bytes);
    begin_admin(writer, times, 'A', 'E', 'Q', collar_bytes);
    unsigned char* const out = writer.bytes.get();
    put_alpha(out, 29, symbol, 11);
    put_u32(out, 40, action_seq);
    put_price_long(out, 44, reference);
    put_price_long(out, 52, upper);
    put_price_long(out, 60, lower);
    put_u8(out, 68, '\0');
}

void build_mwcb_status(MessageWriter& writer, AdminTimes times, std::uint32_t level) {
    static_assert(29 + 1 == mwcb_status_bytes);
    const std::uint32_t shown = level > 3 ? 3 : level;
    begin_admin(writer, times, 'A', 'D', 'E', mwcb_status_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u8(out, 29, static_cast<char>('0' + shown));
}

void build_end_of_snapshot(MessageWriter& writer, std::uint64_t time_ns, std::uint64_t last_sequence) {
    static_assert(29 + 8 == end_of_snapshot_bytes);
    begin_admin(writer, {time_ns, time_ns}, 'A', 'S', 'E', end_of_snapshot_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u64(out, 29, last_sequence);
}

}  // namespace tessel
