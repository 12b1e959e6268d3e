// Seeded operand generators for differential testing of one format. They favour the
// values where floating-point code goes wrong: signed zeros, the ends of the subnormal
// and normal ranges, infinities, NaNs with several payloads, and operand pairs built
// on purpose to land on or next to a rounding tie, to cancel, to be too far apart to
// overlap, to overflow or to underflow. Uniformly random patterns are mixed in too.
//
// The same seed always yields the same sequence, whatever the compiler or platform:
// only std::mt19937_64 output is used, never the distributions of the standard
// library, and no expression draws twice in an unspecified order. A failing case is
// reproduced from the seed printed with it.
#pragma once

#include "tests/oracle/oracle.h"

#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <utility>

namespace oracle {

/// Generates patterns of one format. Not thread-safe.
class OperandGenerator {
public:
    /// `fmt` must be a format the reference supports (oracle.h).
    OperandGenerator(Format fmt, std::uint64_t seed);
    OperandGenerator(const OperandGenerator&) = delete;
    OperandGenerator& operator=(const OperandGenerator&) = delete;

    /// An edge-biased single operand: about one in three is a special or boundary
    /// value (±0, smallest and largest subnormal, smallest normal, largest finite,
    /// ±infinity, NaNs), a few are next to a boundary, the rest random values near 1,
    /// random exponents and mantissas, random subnormals and raw random patterns.
    mpz_class operand();

    /// A pair of operands for `op` (Add, Sub, Mul or Div). Besides independent
    /// operands: for Add/Sub exact and near rounding ties, exponents further apart
    /// than the precision, sums at the overflow edge, cancellations, subnormal sums;
    /// for Mul exact ties in the normal and the subnormal range, near ties, products
    /// landing in the subnormal range or at the overflow edge; for Div quotients next
    /// to a tie, quotients leaving a remainder of one, exact ties in the subnormal range (the only
    /// place a quotient can be one), exact quotients, and quotients that underflow or overflow. For
    /// Sub the pair is built so that a - b is the hard case.
    std::pair<mpz_class, mpz_class> pair(Operation op);

    /// An operand for square root: edge-biased values, negative values, exact squares
    /// and values whose root lies next to a rounding tie.
    mpz_class sqrt_operand();

    /// Operands a, b, c for a x b + c. Besides independent operands: a product of up to
    /// 2m+2 bits (in the normal range, in or below the subnormal range, or at the
    /// overflow edge) with a c that nearly cancels it, that puts the sum exactly on a
    /// rounding tie or one unit of the product's last bit off it, that lies far below
    /// it (sticky only), or that is of its size or tiny; and zeros of both signs, with
    /// 0 x infinity against a NaN or a finite c.
    std::tuple<mpz_class, mpz_class, mpz_class> triple();

    /// An operand for rounding to an integral value and converting to an integer: small
    /// integers, values at and one step around n + 1/2, values in (-1, 0), values near
    /// +-2^31, +-2^32, +-2^63 and +-2^64 (the largest finite value where the format
    /// does not reach them), huge values and the edge-biased operands.
    mpz_class integral_operand();

    /// An integer of a `width`-bit type (signed or not) to convert into the format: 0,
    /// +-1, the type's ends, powers of two and their neighbours, values a few bits wider
    /// than the precision on and next to a rounding tie, random values.
    mpz_class integer(unsigned width, bool is_signed);

    /// A rational for conversion into the format: integers (also wider than the
    /// precision, and integer ties), fractions with small and with wide numerators
    /// and denominators, values just off a rounding tie, numerators a few bits wider
    /// than the precision over small odd denominators (where rounding twice and
    /// rounding once often differ), and magnitudes that overflow or underflow (kept
    /// moderate for formats with very wide exponent fields).
    mpq_class rational();

    /// An operand to compare with `a`: `a` itself, its negation, its neighbour
    /// pattern, or an independent operand.
    mpz_class related(const mpz_class& a);

    /// A numeral for reading into the format: random decimal and hexadecimal numerals
    /// of up to a few hundred digits around the format's range, exact midpoints
    /// between neighbours and their numerals one unit of the last digit either side,
    /// and numerals next to the overflow and underflow thresholds. Either sign.
    std::string numeral();

    /// The underlying engine, for tests that need further random choices.
    std::mt19937_64& engine() { return rng_; }

    /// A uniformly distributed integer in [lo, hi] (lo <= hi).
    long uniform(long lo, long hi);

private:
    bool one_in(unsigned n) { return uniform(0, static_cast<long>(n) - 1) == 0; }
    bool coin() { return (rng_() & 1) != 0; }
    mpz_class random_bits(unsigned long n);
    mpz_class random_odd(unsigned long bits);
    mpz_class random_significand();
    mpz_class random_mantissa();
    long random_exponent();
    long random_normal_exponent();
    mpz_class value(bool negative, const mpz_class& sig, long exp2);
    mpz_class scaled(bool negative, const mpz_class& sig, long leading_exponent);
    mpz_class random_value(bool negative, long leading_exponent);
    mpz_class special();
    mpq_class random_sign(mpq_class q);

    std::pair<mpz_class, mpz_class> add_pair();
    std::pair<mpz_class, mpz_class> mul_pair();
    std::pair<mpz_class, mpz_class> div_pair();
    std::pair<mpz_class, mpz_class> mul_tie(bool subnormal);
    std::pair<mpz_class, mpz_class> div_near_tie();
    std::pair<mpz_class, mpz_class> div_subnormal_tie();
    std::pair<mpz_class, mpz_class> div_small_remainder();

    mpq_class integer_rational();
    mpq_class near_tie_rational();
    mpq_class extreme_rational();
    mpq_class first_rounding_midpoint();
    mpq_class word_width_rational();

    Format fmt_;
    std::mt19937_64 rng_;
    long bias_;
    long min_exponent_; // leading-bit exponent of the smallest subnormal
};

} // namespace oracle
