#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessel {

// Prices are millionths of a dollar, always whole cents; sizes are shares unless a name says otherwise.
constexpr std::int64_t cent = 10'000;
constexpr std::int64_t price_cents_max = 1'000'000'000'000;  // price_to_cents holds to this
constexpr std::int64_t short_price_max = 655'350'000;        // $655.35: what 16 bits of cents hold
constexpr std::uint32_t round_lot = 100;                     // shares
constexpr std::int64_t odd_lot_max = 99;                     // shares
constexpr std::uint64_t size_unit = 1'000'000;               // trade sizes are millionths of a share

// The market center of the ADF and of the TRFs.
constexpr char adf_market_center = 'D';
// The MPIDs that every ADF quote and odd-lot order carries.
constexpr std::string_view adf_bid_mpid = "NITE";
constexpr std::string_view adf_ask_mpid = "GSCO";

constexpr std::size_t trade_history_bytes_max = 4'000'000;     // counted in records of 40 bytes
constexpr std::size_t trade_history_bytes_erased = 2'000'000;  // in one step, the oldest
constexpr std::size_t trade_history_record_bytes = 40;

}  // namespace tessel
