#pragma once

// The model's encoders: a string that grows to the right, field after field, in the order of the wire.

#include "support/model/model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::model {

// Bytes written left to right. Numbers are big-endian and keep their low `width` bytes.
struct Bytes {
    std::string bytes;
    Bytes& num(std::uint64_t value, int width);
    Bytes& price(std::int64_t price) {
        return num(static_cast<std::uint64_t>(price), 8);
    }
    Bytes& cents(std::int64_t price) {
        return num(static_cast<std::uint64_t>(price / 10000), 2);
    }
    Bytes& text(const std::string& value, std::size_t width);
    Bytes& ch(char c);
};

// The 29-byte common header; token 0.
Bytes header(char category, char type, char market_center, char sub_market_center, std::uint64_t sip_ns,
             std::uint64_t participant_ns);

// Everything a short or long quote message says.
struct QuoteMessage {
    char market_center = ' ';
    std::uint64_t sip_ns = 0, participant_ns = 0, adf_ns = 0;
    std::string symbol;
    Quote quote;
    char sip_flag = ' ', luld_bbo = ' ', nbbo_ind = '0', luld_nbbo = ' ', mpid_ind = ' ', odd_best_ind = '0',
         odd_list_ind = '0';
    char nbbo_condition = ' ';
    Nbbo nbbo;
    OddLot odd_bid, odd_ask;
};
std::string short_quote(const QuoteMessage& m);
std::string long_quote(const QuoteMessage& m);

std::string directory(const Instrument& in, bool long_form, std::uint64_t sip_ns, std::uint64_t time_ns);
std::string indicator_message(const Instrument& in, std::uint64_t sip_ns, std::uint64_t time_ns);
std::string decline_levels(std::uint64_t sip_ns, std::uint64_t time_ns);
std::string trading_action_message(const Instrument& in, char action, const std::string& reason,
                                   std::uint64_t sip_ns, std::uint64_t time_ns);
std::string band_message(const Instrument& in, char indicator, std::uint64_t sip_ns, std::uint64_t time_ns);
std::string collar_message(const Instrument& in, std::uint64_t sip_ns, std::uint64_t time_ns);

}  // namespace tessel::model
