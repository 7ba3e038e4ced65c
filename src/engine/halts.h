#pragma once

#include "engine/sip_engine.h"

#include <cstdint>
#include <string_view>

namespace tessel {

constexpr std::uint64_t trade_resume_after_ms = 2000;  // trading follows quotation by this

// Halts the instrument; quotation resumes by itself after `seconds`, never when that is 0.
void halt_instrument(SipEngine& engine, Instrument& instrument, std::string_view reason,
                     std::uint32_t seconds);

// First stage of a resumption: quotes again; trading follows 2 s later.
void resume_quotation(SipEngine& engine, Instrument& instrument, std::uint64_t time_ns);

// Second stage: trading again, with a reopening cross.
void resume_trading(SipEngine& engine, Instrument& instrument, std::uint64_t time_ns);

}  // namespace tessel
