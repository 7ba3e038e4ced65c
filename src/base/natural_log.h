#pragma once

namespace tessel {

// The natural logarithm of x, a positive, finite, normal double. From additions, multiplications and one
// division alone, which IEEE 754 defines to the last bit, so that every machine gives the same result; a C
// library's logarithm is another on processors with fused multiply-add. The error is below 1 unit in the last
// place.
double natural_log(double x);

}  // namespace tessel
