// Small bridges between tarn values and the oracle's bit patterns, shared by
// the tests of comparison, exact results, neighbours and text.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/oracle.h"

#include <cstdint>
#include <cstdlib>
#include <gmpxx.h>
#include <string>

namespace testing_values {

using tarn::IEEEFloat;
using tarn::QNumber;

using Mode = IEEEFloat::rounding_mode;

/// The four valid rounding modes, for loops in tests.
constexpr Mode all_modes[] = {IEEEFloat::ROUND_NEAREST_EVEN, IEEEFloat::ROUND_TOWARD_ZERO,
                              IEEEFloat::ROUND_TOWARD_POSITIVE, IEEEFloat::ROUND_TOWARD_NEGATIVE};

inline oracle::Format to_oracle(IEEEFloat::format f) {
    return {static_cast<unsigned>(f.exponent_width), static_cast<unsigned>(f.mantissa_width)};
}

/// The value of `f` with pattern `bits`, moved to the generic representation
/// when `generic` is set (binary32 and binary64 otherwise stay in words).
inline IEEEFloat make(IEEEFloat::format f, const mpz_class& bits, bool generic = false) {
    IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), f);
    if (generic) x.self_specialize_repr(IEEEFloat::REPR_GENERIC);
    return x;
}

/// The pattern of a value as a GMP integer.
inline mpz_class bits_of(const IEEEFloat& x) {
    return x.get_bits().to_mpz();
}

/// A QNumber as a GMP rational.
inline mpq_class rational(const QNumber& q) {
    return q.to_mpq();
}

/// "(e,m) 0x..." with the oracle's field breakdown, for failure messages.
inline std::string describe(IEEEFloat::format f, const mpz_class& bits) {
    return oracle::describe(to_oracle(f), bits);
}

/// "e5m10": a test-name fragment for a format.
inline std::string format_name(IEEEFloat::format f) {
    return "e" + std::to_string(f.exponent_width) + "m" + std::to_string(f.mantissa_width);
}

/// Names parameterised tests after their format.
struct FormatName {
    template <class Info>
    std::string operator()(const Info& info) const {
        return format_name(info.param);
    }
};

/// A run of random patterns of one format, held in a word or generically.
struct RandomCase {
    IEEEFloat::format f;
    bool generic;
    int count;
};

/// Names random runs after their format and representation.
struct RandomCaseName {
    template <class Info>
    std::string operator()(const Info& info) const {
        return format_name(info.param.f) + (info.param.generic ? "_generic" : "_word");
    }
};

/// True when the long runs are asked for (TARN_LONG_TESTS=1).
inline bool long_tests() {
    const char* flag = std::getenv("TARN_LONG_TESTS");
    return flag != nullptr && std::string(flag) == "1";
}

/// True in builds under AddressSanitizer, which run the tests about ten times slower.
constexpr bool sanitized() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

/// The number of random cases to run: `count` by default, forty times as
/// many with TARN_LONG_TESTS=1, a quarter under the sanitizers.
inline int case_count(int count) {
    if (long_tests()) return 40 * count;
    return sanitized() ? count / 4 : count;
}

} // namespace testing_values
