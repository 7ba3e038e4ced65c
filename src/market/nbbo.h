#pragma once

#include "market/best_quotes.h"
#include "market/instrument.h"

namespace tessel {

// Both by a walk through the quotes, O(centers): what the index gives in fewer steps where it can.

// Whether quotes of this condition can set the NBBO: A B H O R Y.
bool is_eligible_condition(char condition);

// The national best bid and offer over the instrument's present quotes of an eligible condition and at least
// a round lot; with an active band, bids above its upper and asks below its lower price don't count.
Nbbo compute_nbbo(const Instrument& instrument);

// The best odd-lot orders inside that NBBO; the first center of those with the same price.
BestOddLot compute_best_odd_lot(const Instrument& instrument, const Nbbo& nbbo);

}  // namespace tessel
