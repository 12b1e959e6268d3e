// What the tests share: how many random cases to run, random exact numbers aimed
// at the places where the small form of QNumber runs out, and the bridge between
// IEEEFloat values and the oracle's bit patterns (whose OperandGenerator makes the
// edge-biased floating-point operands).
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/operands.h"
#include "tests/oracle/oracle.h"
#include "tests/rows.h"

#include <climits>
#include <cstdlib>
#include <functional>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
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

/// `count` random cases by default, `long_factor` times as many in the long runs.
inline int scaled(int count, int long_factor = 50) {
    return long_tests() ? count * long_factor : count;
}

/// As `scaled`, but only a quarter under the sanitizers, for the runs whose
/// cost is mostly exact arithmetic that the sanitizers slow down most.
inline int sampled(int count) {
    return sanitized() ? count / 4 : scaled(count, 40);
}

/// The message of the IEEEFloat::error that `action` throws, or "no error".
inline std::string error_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const IEEEFloat::error& e) {
        return e.what();
    }
    return "no error";
}

// ---------------------------------------------------------------------------
// Exact numbers
// ---------------------------------------------------------------------------

inline mpz_class pow2z(unsigned long n) {
    mpz_class z;
    mpz_setbit(z.get_mpz_t(), n);
    return z;
}

/// The same value as v, held in the big form (assigning into a big object
/// keeps it big), so "big but fits a word" operands are easy to make.
inline QNumber forced_big(const QNumber& v) {
    QNumber big(pow2z(70), mpz_class(1));
    big = v;
    return big;
}

/// True when q holds exactly the canonical rational v: same numerator and
/// same positive denominator (so lowest terms are checked too).
inline bool holds(const QNumber& q, const mpq_class& v) {
    const mpq_class m = q.to_mpq();
    return m.get_num() == v.get_num() && m.get_den() == v.get_den();
}

/// q and its form, for failure messages.
inline std::string show(const QNumber& q) {
    std::ostringstream os;
    os << q << (q.is_small() ? " (small)" : " (big)");
    return os.str();
}

/// A random word, never -2^63 (which has no small form): within 2 of a
/// value where the small form runs out (2^31, 2^62, 2^63-1, the square root
/// of 2^63...), random bits of random length, or a small number; either sign.
inline long random_word(std::mt19937_64& rng) {
    static const long edges[] = {0, 6, 1L << 31, 1L << 32, 3037000499L, 3L << 61, 1L << 62};
    long v;
    switch (rng() % 4) {
    case 0:
        v = edges[rng() % 7] + static_cast<long>(rng() % 5) - 2;
        break;
    case 1:
        v = LONG_MAX - static_cast<long>(rng() % 3);
        break;
    case 2:
        v = static_cast<long>(rng() >> (1 + rng() % 63));
        break;
    default:
        v = static_cast<long>(rng() % 100);
        break;
    }
    if (v < 0) v = -v;
    return rng() % 2 ? -v : v;
}

/// A random integer of up to 200 bits, either sign, often just beyond a word.
inline mpz_class random_big_integer(std::mt19937_64& rng) {
    mpz_class z;
    if (rng() % 2) {
        z = pow2z(63 + rng() % 3) + static_cast<long>(rng() % 5) - 2;
    } else {
        const unsigned long bits = 64 + rng() % 137;
        for (unsigned long i = 0; i < bits; i += 32)
            z = z * pow2z(32) + (rng() & 0xffffffffUL);
    }
    return rng() % 2 ? mpz_class(-z) : z;
}

/// An operand and its exact value.
struct Operand {
    QNumber q;
    mpq_class v;
};

/// A random rational in a random form: small words near the limits (half of
/// them over the denominator 1), the same values forced big, and values that
/// need the big form.
inline Operand random_operand(std::mt19937_64& rng) {
    const unsigned long form = rng() % 4;
    if (form < 3) {
        const long n = random_word(rng);
        long d = rng() % 2 ? 1 : std::labs(random_word(rng));
        if (d == 0) d = 1;
        mpq_class v{mpz_class(n), mpz_class(d)};
        v.canonicalize();
        return {form == 2 ? forced_big(QNumber(n, d)) : QNumber(n, d), v};
    }
    const mpz_class n = random_big_integer(rng);
    mpz_class d = rng() % 2 ? mpz_class(1) : mpz_class(abs(random_big_integer(rng)));
    if (d == 0) d = 1;
    mpq_class v(n, d);
    v.canonicalize();
    return {QNumber(n, d), v};
}

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

/// Names parameterised tests after their format.
struct FormatName {
    template <class Info>
    std::string operator()(const Info& info) const {
        return format_name(info.param);
    }
};

} // namespace tarn_testing
