#pragma once

namespace tessel::model {

/// The natural logarithm of a positive finite double, rounded once from more than 100 binary digits. The same
/// on every machine, which the last bit of std::log is not; and nothing of the program's own logarithm is in
/// it.
double logarithm(double x);

}  // namespace tessel::model
