#pragma once

#include "engine/sip_engine.h"

namespace tessel {

// Withdraws every present quote of one market center, across all instruments.
void wipe_out(SipEngine& engine, char participant);

}  // namespace tessel
