#include "market/symbol_directory.h"

namespace tessel {

DirectoryRecord fill_directory(const Instrument& instrument, AdminTimes times, std::string& name_storage) {
    name_storage = instrument.symbol;
    name_storage += " COMMON STOCK";
    DirectoryRecord record;
    record.times = times;
    record.symbol = wire_symbol(instrument);
    record.issue_name = name_storage;
    if (is_stopped(instrument)) {
        record.trading_state = 'H';
        record.trading_reason = instrument.halt_reason;
    }
    record.indicator = instrument.indicator;
    return record;
}

}  // namespace tessel
