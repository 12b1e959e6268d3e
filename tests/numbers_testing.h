// Shared helpers of the QNumber and BVNumber tests: operand generators that
// concentrate on the places where the small form runs out, and exact
// comparison against GMP's own rationals.
#pragma once

#include "tarn/numbers/qnumber.h"

#include <climits>
#include <cstdlib>
#include <gmpxx.h>
#include <random>
#include <sstream>
#include <string>

namespace tarn::testing {

/// Bigger runs when TARN_LONG_TESTS=1.
inline int scaled(int iterations) {
    char const* env = std::getenv("TARN_LONG_TESTS");
    return env && std::string(env) == "1" ? iterations * 50 : iterations;
}

inline mpz_class pow2z(unsigned long n) {
    mpz_class z;
    mpz_ui_pow_ui(z.get_mpz_t(), 2, n);
    return z;
}

/// The same value as v, held in the big form (assigning into a big object
/// keeps it big), so "big but fits a word" operands are easy to make.
inline QNumber forced_big(QNumber const& v) {
    QNumber big(pow2z(70), mpz_class(1));
    big = v;
    return big;
}

/// True when q holds exactly the canonical rational v: same numerator and
/// same positive denominator (so lowest terms are checked too).
inline bool holds(QNumber const& q, mpq_class const& v) {
    mpq_class const m = q.to_mpq();
    return m.get_num() == v.get_num() && m.get_den() == v.get_den();
}

/// q and its form, for failure messages.
inline std::string show(QNumber const& q) {
    std::ostringstream os;
    os << q << (q.is_small() ? " (small)" : " (big)");
    return os.str();
}

/// A random word, never -2^63 (which has no small form): within 2 of a
/// value where the small form runs out (2^31, 2^62, 2^63-1, the square root
/// of 2^63...), random bits of random length, or a small number; either sign.
inline long random_word(std::mt19937_64& rng) {
    static long const edges[] = {0, 6, 1L << 31, 1L << 32, 3037000499L, 3L << 61, 1L << 62};
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

/// A positive denominator, 1 half of the time.
inline long random_den(std::mt19937_64& rng) {
    if (rng() % 2) return 1;
    long d = random_word(rng);
    if (d < 0) d = -d;
    return d == 0 ? 1 : d;
}

/// A random big integer of up to 200 bits, either sign, including values
/// just beyond the word limits.
inline mpz_class random_big_integer(std::mt19937_64& rng) {
    mpz_class z;
    if (rng() % 2) {
        z = pow2z(63 + rng() % 3) + static_cast<long>(rng() % 5) - 2;
    } else {
        unsigned long const bits = 64 + rng() % 137;
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

/// A random rational in a random form: small words near the limits, the same
/// values forced big, and values that need the big form.
inline Operand random_operand(std::mt19937_64& rng) {
    switch (rng() % 4) {
    case 0:
    case 1: {
        long const n = random_word(rng);
        long const d = random_den(rng);
        mpq_class v{mpz_class(n), mpz_class(d)};
        v.canonicalize();
        return {QNumber(n, d), v};
    }
    case 2: {
        long const n = random_word(rng);
        long const d = random_den(rng);
        mpq_class v{mpz_class(n), mpz_class(d)};
        v.canonicalize();
        return {forced_big(QNumber(n, d)), v};
    }
    default: {
        mpz_class const n = random_big_integer(rng);
        mpz_class d = rng() % 2 ? mpz_class(1) : random_big_integer(rng);
        if (d < 0) d = -d;
        if (d == 0) d = 1;
        mpq_class v(n, d);
        v.canonicalize();
        return {QNumber(n, d), v};
    }
    }
}

} // namespace tarn::testing
