#pragma once

#include "market/sip_engine.h"

namespace tessel {

// Withdraws every present quote of one market centre, across all instruments.
void wipe_out(SipEngine& engine, char participant);

}  // namespace tessel
