#include "base/natural_log.h"

#include <bit>
#include <cassert>
#include <cfloat>
#include <cstdint>

namespace tessel {

static_assert(FLT_EVAL_METHOD == 0 || FLT_EVAL_METHOD == 1, "a double operation rounds to double");

namespace {

// The upper half of a double's digits: products of two such numbers are exact.
double upper_half(double value) {
    return std::bit_cast<double>(std::bit_cast<std::uint64_t>(value) & ~((std::uint64_t{1} << 27) - 1));
}

}  // namespace

// With x = 2^k m, m from sqrt(1/2) to sqrt(2), f = m - 1 and s = f / (2 + f):
//   log x = k log 2 + 2 atanh(s) = k log 2 + 2 s + s (2/3 s^2 + 2/5 s^4 + ...)
// (M. Abramowitz, I. A. Stegun, Handbook of Mathematical Functions, 4.1.27). |s| is below 0.1716, so the
// series is below a hundredth of 2 s, plain doubles do for it, and what is left out is below 2^-60. The rest
// is in two doubles each, after T. J. Dekker, "A floating-point technique for extending the available
// precision", Numerische Mathematik 18 (1971): s, by the remainder of its division, and log 2, whose first
// part is short enough for an exact product with k.
double natural_log(double x) {
    assert(x >= DBL_MIN && x <= DBL_MAX);
    constexpr std::uint64_t root_of_half = 0x3FE6A09E667F3BCDu;
    constexpr double log2_high = 0x1.62e42feep-1;       // 32 bits
    constexpr double log2_low = 0x1.a39ef35793c76p-33;  // the rest
    const auto bits = std::bit_cast<std::uint64_t>(x);
    const std::int64_t exponent = static_cast<std::int64_t>(bits - root_of_half) >> 52;
    const double f = std::bit_cast<double>(bits - (static_cast<std::uint64_t>(exponent) << 52)) - 1.0;
    const auto k = static_cast<double>(exponent);
    const double s = f / (2.0 + f);
    // f - s (2 + f), exactly but for the last, smallest product.
    const double s_high = upper_half(s);
    const double f_high = upper_half(f);
    const double s_low = s - s_high;
    const double f_low = f - f_high;
    const double remainder =
        ((((f - 2.0 * s) - s_high * f_high) - s_high * f_low) - s_low * f_high) - s_low * f_low;
    const double rest_of_s = remainder / (2.0 + f);
    const double z = s * s;
    const double w = z * z;
    // Two sums, of every other term each: a processor works on both side by side.
    const double odd = z * (2.0 / 3 + w * (2.0 / 7 + w * (2.0 / 11 + w * (2.0 / 15 + w * (2.0 / 19)))));
    const double even = w * (2.0 / 5 + w * (2.0 / 9 + w * (2.0 / 13 + w * (2.0 / 17 + w * (2.0 / 21)))));
    const double high = k * log2_high + 2.0 * s;
    const double low = 2.0 * s - (high - k * log2_high);
    return high + (low + (s * (odd + even) + (2.0 * rest_of_s + k * log2_low)));
}

}  // namespace tessel
