#pragma once

#include "base/clock.h"
#include "base/random.h"
#include "engine/scenario.h"
#include "market/instrument.h"
#include "market/quote_index.h"
#include "output/truth_log.h"
#include "wire/message_writer.h"
#include "wire/quote_messages.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tessel {

struct MoldPublisher;  // mold/publisher

// The market model: one a process. It owns the instruments and the truth log and refers to the publisher, the
// random generator, the scenario and the clock.
struct SipEngine {
    bool paused = false;  // instruments in normal trading generate nothing
    MoldPublisher* publisher = nullptr;
    Random* rng = nullptr;
    double step_bps = 0.8;
    std::string participants;  // as configured: order and repeats kept
    Scenario* scenario = nullptr;
    bool quiet = false;
    InstrumentList instruments;
    TruthLog truth;
    std::uint64_t tick = 0;  // steps run so far
    std::uint32_t pending_cancels = 0;
    std::uint32_t pending_corrections = 0;
    std::uint32_t pending_trf = 0;  // forced TRF prints of the first instrument
    // Start of day and session opens, as published.
    std::vector<std::vector<unsigned char>> retained_messages;
    Clock* clock = nullptr;
    MessageWriter writer;      // every message is built here
    QuoteRecord quote_record;  // every quote's, kept so that what never changes is set once

    std::vector<std::uint16_t> participant_slots;  // quote slot of each character of participants
    std::string slot_letters;                      // the center of each quote slot
    std::array<std::int16_t, 256> trade_slot{};    // trade statistics slot of a market center, -1: none
    std::vector<ParticipantQuote, HugePageAllocator<ParticipantQuote>> quotes;
    std::vector<QuoteBlock, HugePageAllocator<QuoteBlock>> quote_blocks;  // the quotes' index
    std::vector<ParticipantTradeStats, HugePageAllocator<ParticipantTradeStats>> trade_stats;
};

// Sets the references, the participants and their slots. The engine starts without instruments, not paused.
void init_engine(SipEngine& engine, MoldPublisher& publisher, Random& rng, Scenario& scenario, Clock& clock,
                 const std::string& participants, double step_bps, bool quiet);

// Builds the instruments from a --symbols text and gives each its slots. False and the conversion's error
// text when a price cannot be read.
bool add_instruments(SipEngine& engine, const std::string& symbols_text, std::string& error);

// First instrument with exactly this symbol. On a miss: null, and "bench: unknown symbol '...'" on standard
// error.
Instrument* find_instrument(SipEngine& engine, std::string_view symbol);

// A participant's quote slot, drawn uniformly from the letters; there must be one.
std::uint16_t draw_participant(SipEngine& engine);

}  // namespace tessel
