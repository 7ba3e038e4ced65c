#pragma once

#include "market/instrument.h"
#include "wire/admin_messages.h"

#include <string>

namespace tessel {

// The issue symbol directory record of an instrument. name_storage holds the issue name that the record
// points to.
DirectoryRecord fill_directory(const Instrument& instrument, AdminTimes times, std::string& name_storage);

}  // namespace tessel
