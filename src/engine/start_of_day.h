#pragma once

#include "engine/sip_engine.h"

namespace tessel {

// The messages that open the feed: control and directory messages, first bands, opening quotes and trades;
// then a flush.
void start_of_day(SipEngine& engine);

}  // namespace tessel
