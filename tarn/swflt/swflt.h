#pragma once

/// \file
/// IEEE-754 binary32 and binary64 arithmetic computed in software.
///
/// Every function here works on the raw bit patterns (`std::uint32_t` for binary32,
/// `std::uint64_t` for binary64) and computes its result with integer arithmetic only, so the
/// answer is the same on every platform and does not depend on the host's floating-point
/// environment (its rounding direction, flush-to-zero or denormals-are-zero settings).
///
/// Behaviour that IEEE-754 leaves open is settled as follows.
///
/// - **Rounding code.** The `round` argument selects the direction: 0 to nearest with ties to
///   even, 1 toward negative infinity, 2 toward positive infinity, 3 toward zero, 4 to nearest
///   with ties away from zero, 5 to odd (truncate, then set the last mantissa bit of an inexact
///   result; an overflow stops at the largest finite magnitude; a result rounded to odd two or
///   more bits beyond a narrower precision rounds correctly to that precision). Any other code
///   (the library passes -1 for a mode it does not know) rounds to nearest with ties to even, the
///   IEEE default, so that an unknown mode still yields a correctly rounded result.
/// - **Exception flags.** Operations OR the IEEE exceptions they signal into
///   `float_exception_flags` and never clear it; the caller resets it. Underflow is signalled
///   when the result is tiny and inexact, and tininess is detected after rounding (the result,
///   rounded as if the exponent range were unbounded, lies strictly between -2^emin and 2^emin).
///   Overflow always comes with inexact.
/// - **NaNs.** A word is a signalling NaN when the top bit of its mantissa field is clear.
///   An operation with a NaN operand returns that NaN made quiet (the first operand's when both
///   are NaNs) and signals invalid only for a signalling operand. An invalid operation without a
///   NaN operand (inf - inf, 0 * inf, 0 / 0, inf / inf, sqrt of a negative number) returns the
///   canonical NaN of `float32_make_nan` / `float64_make_nan`: sign clear, exponent field all
///   ones, only the quiet bit set in the mantissa field (0x7FC00000 and 0x7FF8000000000000).
///   Converting a NaN keeps its sign and the leading bits of its payload and makes it quiet.
/// - **Fused multiply-add.** a * b + c with a NaN operand returns the first NaN of a, b, c made
///   quiet. 0 * inf + c signals invalid unless c is a quiet NaN, which is then simply returned:
///   the choice x86 hardware makes where the IEEE rules leave it open, so results and flags match
///   the host's `fma`. An exact zero sum of opposite-signed terms is +0 (-0 rounding toward
///   negative); a zero product plus a zero of the same sign keeps that sign.
/// - **Comparisons.** `lt`, `le` and `eq_signaling` are the signalling predicates: a NaN
///   operand, quiet or not, makes them false and signals invalid.
///
/// The flag byte is thread-local, so threads that compute on distinct values never race on it.
/// Nothing here allocates, locks or reads the locale. The predicates, comparisons, sign
/// operations and special values are inline; the arithmetic and conversions are ordinary calls
/// (a few nanoseconds each, see bench/README.md).

#include <cstdint>

namespace tarn {
namespace swflt {

/// Sticky IEEE exception flags of the calling thread: a bitwise OR of the `flag_` constants
/// for every exception signalled since the caller last cleared it.
/// Defined here with its constant initial value, so that every access is a plain thread-local
/// load or store rather than a call that checks for a dynamic initialisation.
inline thread_local std::uint8_t float_exception_flags = 0;

/// The result was rounded: it differs from the exact mathematical result.
constexpr std::uint8_t flag_inexact = 0x01;
/// The result is tiny (below the smallest normal magnitude after rounding) and inexact.
constexpr std::uint8_t flag_underflow = 0x02;
/// The rounded result exceeded the largest finite magnitude.
constexpr std::uint8_t flag_overflow = 0x04;
/// A finite non-zero number was divided by zero.
constexpr std::uint8_t flag_divide_by_zero = 0x08;
/// The operation had no meaningful result (or read a signalling NaN, or compared a NaN).
constexpr std::uint8_t flag_invalid = 0x10;

// Rounding codes accepted by the arithmetic and the narrowing conversion.
/// Round to nearest, ties to the even last bit.
constexpr int round_nearest_even = 0;
/// Round toward -infinity.
constexpr int round_toward_negative = 1;
/// Round toward +infinity.
constexpr int round_toward_positive = 2;
/// Round toward zero (truncate).
constexpr int round_toward_zero = 3;
/// Round to nearest, ties away from zero.
constexpr int round_nearest_away = 4;
/// Round to odd: truncate, and set the last mantissa bit when inexact.
constexpr int round_to_odd = 5;

// ---------------------------------------------------------------------------------------------
// Arithmetic, correctly rounded under the rounding code.

/// a + b.
std::uint32_t float32_add(std::uint32_t a, std::uint32_t b, int round);
/// a - b.
std::uint32_t float32_sub(std::uint32_t a, std::uint32_t b, int round);
/// a * b.
std::uint32_t float32_mul(std::uint32_t a, std::uint32_t b, int round);
/// a / b.
std::uint32_t float32_div(std::uint32_t a, std::uint32_t b, int round);
/// The square root of a; sqrt(-0) is -0.
std::uint32_t float32_sqrt(std::uint32_t a, int round);
/// a * b + c, rounded once.
std::uint32_t float32_mul_add(std::uint32_t a, std::uint32_t b, std::uint32_t c, int round);

/// a + b.
std::uint64_t float64_add(std::uint64_t a, std::uint64_t b, int round);
/// a - b.
std::uint64_t float64_sub(std::uint64_t a, std::uint64_t b, int round);
/// a * b.
std::uint64_t float64_mul(std::uint64_t a, std::uint64_t b, int round);
/// a / b.
std::uint64_t float64_div(std::uint64_t a, std::uint64_t b, int round);
/// The square root of a; sqrt(-0) is -0.
std::uint64_t float64_sqrt(std::uint64_t a, int round);
/// a * b + c, rounded once.
std::uint64_t float64_mul_add(std::uint64_t a, std::uint64_t b, std::uint64_t c, int round);

// ---------------------------------------------------------------------------------------------
// Conversions between the two widths.

/// a rounded to binary32 under the rounding code.
std::uint32_t float64_to_float32(std::uint64_t a, int round);
/// a widened to binary64; exact for every number, a signalling NaN comes back quiet.
std::uint64_t float32_to_float64(std::uint32_t a);

// ---------------------------------------------------------------------------------------------
// Bit-level helpers shared by the inline functions below.

namespace detail {

constexpr std::uint32_t sign32 = 0x80000000u;
constexpr std::uint32_t inf32 = 0x7F800000u;
constexpr std::uint32_t quiet32 = 0x00400000u;
constexpr std::uint64_t sign64 = 0x8000000000000000u;
constexpr std::uint64_t inf64 = 0x7FF0000000000000u;
constexpr std::uint64_t quiet64 = 0x0008000000000000u;

constexpr bool is_nan(std::uint32_t a) {
    return (a & ~sign32) > inf32;
}
constexpr bool is_nan(std::uint64_t a) {
    return (a & ~sign64) > inf64;
}

// Zeros of either sign compare equal; shifting the sign out makes both of them 0.
constexpr bool both_zero(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::uint32_t>((a | b) << 1) == 0;
}
constexpr bool both_zero(std::uint64_t a, std::uint64_t b) {
    return ((a | b) << 1) == 0;
}

// Ordered words compare like sign-magnitude integers: for equal signs the magnitude order is
// the unsigned order of the words, reversed when both are negative.
template <class Word>
constexpr bool less_ordered(Word a, Word b) {
    bool const sign_a = (a >> (sizeof(Word) * 8 - 1)) != 0;
    bool const sign_b = (b >> (sizeof(Word) * 8 - 1)) != 0;
    if (sign_a != sign_b) return sign_a && !both_zero(a, b);
    return a != b && (sign_a != (a < b));
}

template <class Word>
inline std::uint8_t compare_less(Word a, Word b, bool or_equal) {
    if (is_nan(a) || is_nan(b)) {
        float_exception_flags |= flag_invalid;
        return 0;
    }
    bool const equal = a == b || both_zero(a, b);
    return (or_equal && equal) || less_ordered(a, b);
}

template <class Word>
inline std::uint8_t compare_equal(Word a, Word b) {
    if (is_nan(a) || is_nan(b)) {
        float_exception_flags |= flag_invalid;
        return 0;
    }
    return a == b || both_zero(a, b);
}

} // namespace detail

// ---------------------------------------------------------------------------------------------
// Comparisons. A NaN operand makes each of them false and signals invalid.

/// a < b.
inline std::uint8_t float32_lt(std::uint32_t a, std::uint32_t b) {
    return detail::compare_less(a, b, false);
}
/// a <= b.
inline std::uint8_t float32_le(std::uint32_t a, std::uint32_t b) {
    return detail::compare_less(a, b, true);
}
/// a == b, +0 equal to -0.
inline std::uint8_t float32_eq_signaling(std::uint32_t a, std::uint32_t b) {
    return detail::compare_equal(a, b);
}
/// a < b.
inline std::uint8_t float64_lt(std::uint64_t a, std::uint64_t b) {
    return detail::compare_less(a, b, false);
}
/// a <= b.
inline std::uint8_t float64_le(std::uint64_t a, std::uint64_t b) {
    return detail::compare_less(a, b, true);
}
/// a == b, +0 equal to -0.
inline std::uint8_t float64_eq_signaling(std::uint64_t a, std::uint64_t b) {
    return detail::compare_equal(a, b);
}

// ---------------------------------------------------------------------------------------------
// Sign operations. They touch only the sign bit, NaNs included, and signal nothing.

/// 1 when the sign bit of a is set, else 0.
constexpr std::uint8_t float32_sign(std::uint32_t a) {
    return static_cast<std::uint8_t>(a >> 31);
}
/// a with its sign bit set when `negative` is non-zero and cleared otherwise.
constexpr std::uint32_t float32_set_sign(std::uint32_t a, std::uint8_t negative) {
    return negative ? (a | detail::sign32) : (a & ~detail::sign32);
}
/// a with its sign bit flipped.
constexpr std::uint32_t float32_negate(std::uint32_t a) {
    return a ^ detail::sign32;
}

/// 1 when the sign bit of a is set, else 0.
constexpr std::uint8_t float64_sign(std::uint64_t a) {
    return static_cast<std::uint8_t>(a >> 63);
}
/// a with its sign bit set when `negative` is non-zero and cleared otherwise.
constexpr std::uint64_t float64_set_sign(std::uint64_t a, std::uint8_t negative) {
    return negative ? (a | detail::sign64) : (a & ~detail::sign64);
}
/// a with its sign bit flipped.
constexpr std::uint64_t float64_negate(std::uint64_t a) {
    return a ^ detail::sign64;
}

// ---------------------------------------------------------------------------------------------
// Class tests: 1 when a belongs to the class, else 0. Either sign counts.

/// a is an infinity.
constexpr std::uint8_t float32_is_inf(std::uint32_t a) {
    return (a & ~detail::sign32) == detail::inf32;
}
/// a is a NaN, quiet or signalling.
constexpr std::uint8_t float32_is_nan(std::uint32_t a) {
    return detail::is_nan(a);
}
/// a is a zero.
constexpr std::uint8_t float32_is_zero(std::uint32_t a) {
    return (a & ~detail::sign32) == 0;
}
/// a is subnormal: exponent field 0, mantissa field not 0.
constexpr std::uint8_t float32_is_subnormal(std::uint32_t a) {
    return (a & detail::inf32) == 0 && (a & ~detail::sign32) != 0;
}

/// a is an infinity.
constexpr std::uint8_t float64_is_inf(std::uint64_t a) {
    return (a & ~detail::sign64) == detail::inf64;
}
/// a is a NaN, quiet or signalling.
constexpr std::uint8_t float64_is_nan(std::uint64_t a) {
    return detail::is_nan(a);
}
/// a is a zero.
constexpr std::uint8_t float64_is_zero(std::uint64_t a) {
    return (a & ~detail::sign64) == 0;
}
/// a is subnormal: exponent field 0, mantissa field not 0.
constexpr std::uint8_t float64_is_subnormal(std::uint64_t a) {
    return (a & detail::inf64) == 0 && (a & ~detail::sign64) != 0;
}

// ---------------------------------------------------------------------------------------------
// Special values.

/// +infinity (0x7F800000).
constexpr std::uint32_t float32_make_inf() {
    return detail::inf32;
}
/// The canonical quiet NaN 0x7FC00000, also the result of every invalid operation.
constexpr std::uint32_t float32_make_nan() {
    return detail::inf32 | detail::quiet32;
}
/// +infinity (0x7FF0000000000000).
constexpr std::uint64_t float64_make_inf() {
    return detail::inf64;
}
/// The canonical quiet NaN 0x7FF8000000000000, also the result of every invalid operation.
constexpr std::uint64_t float64_make_nan() {
    return detail::inf64 | detail::quiet64;
}

} // namespace swflt
} // namespace tarn
