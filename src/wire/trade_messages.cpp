#include "wire/trade_messages.h"

namespace tessel {

namespace {

constexpr std::uint16_t seller_sale_days = 0;
constexpr char revised_indicator = '7';  // high, low and last may all have changed

void begin_trade(MessageWriter& writer, const MessageHeader& header, char type, std::size_t bytes) {
    begin_message(writer, header, bytes - common_header_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u8(out, 1, 'T');
    put_u8(out, 2, type);
}

void put_conditions(MessageWriter& writer, std::size_t offset, const char* conditions) {
    unsigned char* const out = writer.bytes.get();
    put_alpha(out, offset, std::string_view(conditions, 4), 4);
}

void put_statistics(MessageWriter& writer, std::size_t offset, const StatisticsRecord& statistics) {
    unsigned char* const out = writer.bytes.get();
    put_price_long(out, offset + 0, statistics.high);
    put_price_long(out, offset + 8, statistics.low);
    put_price_long(out, offset + 16, statistics.last);
    put_u64(out, offset + 24, statistics.volume);
}

// Short trade report, type M. Only the price is narrowed: the size keeps its 8 bytes.
void put_short_trade(MessageWriter& writer, const TradeReport& report) {
    static_assert(66 + 1 == short_trade_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u64(out, 29, report.trf_time);
    put_alpha(out, 37, report.symbol, 5);
    put_u64(out, 42, report.trade_id);
    put_price_short(out, 50, report.price);
    put_u64(out, 52, report.size);
    put_conditions(writer, 60, report.conditions);
    put_u8(out, 64, report.trade_through_exempt);
    put_u8(out, 65, report.consolidated_change);
    put_u8(out, 66, report.participant_change);
}

// Long trade report, type N.
void put_long_trade(MessageWriter& writer, const TradeReport& report) {
    static_assert(80 + 1 == long_trade_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u64(out, 29, report.trf_time);
    put_alpha(out, 37, report.symbol, 11);
    put_u64(out, 48, report.trade_id);
    put_price_long(out, 56, report.price);
    put_u64(out, 64, report.size);
    put_conditions(writer, 72, report.conditions);
    put_u8(out, 76, report.trade_through_exempt);
    put_u16(out, 77, seller_sale_days);
    put_u8(out, 79, report.consolidated_change);
    put_u8(out, 80, report.participant_change);
}

}  // namespace

void build_trade(MessageWriter& writer, const TradeReport& report, bool short_form) {
    if (short_form) {
        begin_trade(writer, report.header, 'M', short_trade_bytes);
        put_short_trade(writer, report);
    } else {
        begin_trade(writer, report.header, 'N', long_trade_bytes);
        put_long_trade(writer, report);
    }
}

// Trade cancel or error, type O.
void build_cancel(MessageWriter& writer, const CancelRecord& record) {
    static_assert(114 + 32 == cancel_error_bytes);
    begin_trade(writer, record.header, 'O', cancel_error_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u64(out, 29, record.trf_time);
    put_alpha(out, 37, record.symbol, 11);
    put_u8(out, 48, record.function);
    put_u64(out, 49, record.trade_id);
    put_price_long(out, 57, record.price);
    put_u64(out, 65, record.size);
    put_conditions(writer, 73, record.conditions);
    put_u8(out, 77, record.trade_through_exempt);
    put_u16(out, 78, seller_sale_days);
    put_statistics(writer, 80, record.consolidated);
    put_u8(out, 112, revised_indicator);
    put_u8(out, 113, record.last_market_center);
    put_statistics(writer, 114, record.participant);
}

// Trade correction, type P.
void build_correction(MessageWriter& writer, const CorrectionRecord& record) {
    static_assert(144 + 32 == correction_bytes);
    begin_trade(writer, record.header, 'P', correction_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u64(out, 29, record.trf_time);
    put_alpha(out, 37, record.symbol, 11);
    put_u64(out, 48, record.old_trade_id);
    put_price_long(out, 56, record.old_price);
    put_u64(out, 64, record.old_size);
    put_conditions(writer, 72, record.conditions);
    put_u8(out, 76, record.trade_through_exempt);
    put_u16(out, 77, seller_sale_days);
    put_u64(out, 79, record.new_trade_id);
    put_price_long(out, 87, record.new_price);
    put_u64(out, 95, record.new_size);
    put_conditions(writer, 103, record.conditions);
    put_u8(out, 107, record.trade_through_exempt);
    put_u16(out, 108, seller_sale_days);
    put_statistics(writer, 110, record.consolidated);
    put_u8(out, 142, revised_indicator);
    put_u8(out, 143, record.last_market_center);
    put_statistics(writer, 144, record.participant);
}

// As-of trade, type Q.
void build_as_of(MessageWriter& writer, const AsOfRecord& record) {
    static_assert(80 + 8 == as_of_bytes);
    begin_trade(writer, record.header, 'Q', as_of_bytes);
    unsigned char* const out = writer.bytes.get();
    put_u64(out, 29, record.trf_time);
    put_alpha(out, 37, record.symbol, 11);
    put_u64(out, 48, 0);
    put_price_long(out, 56, record.price);
    put_u64(out, 64, record.size);
    put_conditions(writer, 72, "@   ");
    put_u8(out, 76, ' ');
    put_u16(out, 77, seller_sale_days);
    put_u8(out, 79, 'A');
    put_u64(out, 80, record.execution_time_ns);
}

}  // namespace tessel
