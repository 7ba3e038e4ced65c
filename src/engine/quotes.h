#pragma once

#include "engine/sip_engine.h"

#include <cstdint>

namespace tessel {

// Draws a fresh quote for the center of this slot and publishes it. now_ns is the participant's time; an
// override other than a blank is the quote's condition.
void update_participant_quote(SipEngine& engine, Instrument& instrument, std::uint16_t slot,
                              std::uint64_t now_ns, char condition_override);

// Sends a stored quote unchanged: recomputes the NBBO, chooses form and appendages, appends, counts,
// writes the truth line; an ADF quote may be followed by an MPID quote. sip_flag is 'E' for a quote that the
// SIP makes itself.
void publish_quote(SipEngine& engine, Instrument& instrument, ParticipantQuote& quote, char sip_flag,
                   std::uint64_t now_ns);

// Empties the quotes of every participant, letter by letter with repeats, with condition 'L', and sends each:
// what a halt and an LULD pause do.
void empty_all_quotes(SipEngine& engine, Instrument& instrument, std::uint64_t now_ns);

}  // namespace tessel
