// Numbers of 113 binary digits by the compiler's own arithmetic, which IEEE 754 defines to the last bit.

#include "support/model/logarithm.h"

#include <array>
#include <cfloat>
#include <cmath>
#include <cstddef>

namespace tessel::model {

namespace {

#if LDBL_MANT_DIG == 113
using Quad = long double;
#else
__extension__ using Quad = __float128;
#endif

constexpr std::size_t exp_terms = 26;    // 0.36^26 / 26! is below 2^-126
constexpr std::size_t log2_terms = 120;  // sum of 1 / (n 2^n)

std::array<Quad, exp_terms> inverse_factorials() {
    std::array<Quad, exp_terms> inverse{};
    Quad factorial = 1;
    for (std::size_t n = 0; n < exp_terms; ++n) {
        factorial *= static_cast<Quad>(n + 1);
        inverse[n] = 1 / factorial;
    }
    return inverse;
}

Quad log_of_two() {
    Quad sum = 0;
    Quad power = 1;
    for (std::size_t n = 1; n <= log2_terms; ++n) {
        power /= 2;
        sum += power / static_cast<Quad>(n);
    }
    return sum;
}

}  // namespace

// x = 2^k m, m from 0.7 to 1.4. The C library gives y, the logarithm of m but for its last bits, and one step
// of Halley's method gives the rest: log m = y + 2 (m - e^y) / (m + e^y), with an error of the order of the
// cube of that rest. e^y - 1 is a Taylor series, so that nothing is lost where m is near 1.
double logarithm(double x) {
    static const std::array<Quad, exp_terms> inverse = inverse_factorials();
    static const Quad log2 = log_of_two();
    int k = 0;
    double m = std::frexp(x, &k);
    if (m < 0.7) {
        m *= 2;
        --k;
    }
    const Quad y = std::log(m);
    Quad sum = 0;
    for (std::size_t n = exp_terms; n-- > 0;) {
        sum = y * (inverse[n] + sum);
    }
    const Quad exact = m;
    const Quad rest = 2 * ((exact - 1) - sum) / ((exact + 1) + sum);
    return static_cast<double>(static_cast<Quad>(k) * log2 + (y + rest));
}

}  // namespace tessel::model
