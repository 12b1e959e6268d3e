// What the tests share: how many random cases to run, and the bridge between
// IEEEFloat values and the oracle's bit patterns (whose OperandGenerator makes the
// edge-biased floating-point operands).
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/operands.h"
#include "tests/oracle/oracle.h"
#include "tests/rows.h"

#include <cstdlib>
#include <functional>
#include <gmpxx.h>
#include <string>

namespace tarn_testing {

using tarn::IEEEFloat;
using tarn::QNumber;
using Mode = IEEEFloat::rounding_mode;

/// The four valid rounding modes, for loops in tests.
constexpr Mode all_modes[] = {IEEEFloat::ROUND_NEAREST_EVEN, IEEEFloat::ROUND_TOWARD_ZERO,
                              IEEEFloat::ROUND_TOWARD_POSITIVE, IEEEFloat::ROUND_TOWARD_NEGATIVE};

// ---------------------------------------------------------------------------
// How many cases
// ---------------------------------------------------------------------------

/// True in builds under AddressSanitizer, which run the tests about ten times slower.
constexpr bool sanitized() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
    return __has_feature(address_sanitizer);
#else
    return false;
#endif
}

/// `count` random cases by default, `long_factor` times as many in the long
/// runs (TARN_LONG_TESTS=1).
inline int scaled(int count, int long_factor = 50) {
    const char* flag = std::getenv("TARN_LONG_TESTS");
    return flag != nullptr && std::string(flag) == "1" ? count * long_factor : count;
}

/// As `scaled`, but only a quarter under the sanitizers, for the runs whose
/// cost is mostly exact arithmetic that the sanitizers slow down most.
inline int sampled(int count) {
    return sanitized() ? count / 4 : scaled(count, 40);
}

using rows::error_of;

// ---------------------------------------------------------------------------
// IEEEFloat values and the oracle's patterns
// ---------------------------------------------------------------------------

using rows::bits_of;
using rows::to_oracle;

/// The value of `f` with pattern `bits`, moved to the generic representation
/// when `generic` is set (binary32 and binary64 otherwise stay in words).
inline IEEEFloat make(IEEEFloat::format f, const mpz_class& bits, bool generic = false) {
    IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), f);
    if (generic) x.self_specialize_repr(IEEEFloat::REPR_GENERIC);
    return x;
}

/// "(e,m) 0x..." with the oracle's field breakdown, for failure messages.
inline std::string describe(IEEEFloat::format f, const mpz_class& bits) {
    return oracle::describe(to_oracle(f), bits);
}

/// "e5m10": a test-name fragment for a format.
inline std::string format_name(IEEEFloat::format f) {
    return "e" + std::to_string(f.exponent_width) + "m" + std::to_string(f.mantissa_width);
}

} // namespace tarn_testing
