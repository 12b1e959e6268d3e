#pragma once

// Shared machinery of the soft-float sources: the layout of the two formats, rounding and
// packing, and NaN handling. Private to tarn/swflt; not installed with the public header.
//
// Both widths are written once, as templates over the word type, so that the binary32 and
// binary64 paths cannot drift apart.

#include "tarn/swflt/swflt.h"

#include <cstdint>

namespace tarn {
namespace swflt {
namespace detail {

__extension__ typedef unsigned __int128 u128;

template <class Word>
struct Layout;

template <>
struct Layout<std::uint32_t> {
    using Wide = std::uint64_t; // holds a product of two significands
    static constexpr int mantissa_bits = 23;
    static constexpr int bias = 127;
};

template <>
struct Layout<std::uint64_t> {
    using Wide = u128;
    static constexpr int mantissa_bits = 52;
    static constexpr int bias = 1023;
};

/// Everything the algorithms need to know about one format.
template <class Word>
struct Fmt : Layout<Word> {
    using Layout<Word>::mantissa_bits;
    static constexpr int width = static_cast<int>(sizeof(Word) * 8);
    static constexpr int exponent_max = (1 << (width - 1 - mantissa_bits)) - 1;
    static constexpr Word sign_bit = Word(1) << (width - 1);
    static constexpr Word hidden = Word(1) << mantissa_bits;
    static constexpr Word mantissa_mask = hidden - 1;
    static constexpr Word inf = Word(exponent_max) << mantissa_bits;
    static constexpr Word quiet = hidden >> 1;
    static constexpr Word default_nan = inf | quiet;
    // Working significands carry their leading bit at width - 2: one bit of headroom above it
    // for a carry out of rounding, and `extra` bits below the mantissa for round and sticky.
    static constexpr int extra = width - 2 - mantissa_bits;
    static constexpr Word normal_lead = Word(1) << (width - 2);
};

template <class Word>
constexpr bool sign_of(Word a) {
    return (a >> (Fmt<Word>::width - 1)) != 0;
}
template <class Word>
constexpr int exponent_of(Word a) {
    return static_cast<int>((a >> Fmt<Word>::mantissa_bits) & Fmt<Word>::exponent_max);
}
template <class Word>
constexpr Word mantissa_of(Word a) {
    return a & Fmt<Word>::mantissa_mask;
}
template <class Word>
constexpr Word signed_zero(bool sign) {
    return sign ? Fmt<Word>::sign_bit : Word(0);
}
template <class Word>
constexpr Word signed_inf(bool sign) {
    return signed_zero<Word>(sign) | Fmt<Word>::inf;
}

inline int leading_zeros(std::uint32_t x) {
    return __builtin_clz(x);
}
inline int leading_zeros(std::uint64_t x) {
    return __builtin_clzll(x);
}
inline int leading_zeros(u128 x) {
    auto const high = static_cast<std::uint64_t>(x >> 64);
    return high != 0 ? __builtin_clzll(high) : 64 + __builtin_clzll(static_cast<std::uint64_t>(x));
}

/// x shifted right by n >= 0 places, with every bit shifted out ORed into bit 0. Bit 0 stays
/// below every rounding boundary, so it records "something non-zero was here" without moving
/// the value across a boundary, and it makes the value odd, so a discarded remainder can never
/// look like an exact tie. x must be below 2^(width - 1): a shift by width - 1 then already
/// leaves only the sticky bit, so longer shifts are clamped to it and no branch is needed.
/// Word may also be the double-width type that holds a product.
template <class Word>
inline Word shift_right_jam(Word x, int n) {
    constexpr int width = static_cast<int>(sizeof(Word) * 8);
    n = n < width - 1 ? n : width - 1;
    Word const lost = x & ((Word(1) << n) - 1);
    return (x >> n) | Word(lost != 0);
}

/// Moves the mantissa of a non-zero subnormal up to the hidden-bit position and returns the
/// exponent that keeps the value unchanged (1 - shift, at most 0).
template <class Word>
inline int normalize_subnormal(Word& mantissa) {
    using F = Fmt<Word>;
    int const shift = leading_zeros(mantissa) - (F::width - 1 - F::mantissa_bits);
    mantissa <<= shift;
    return 1 - shift;
}

/// The exponent and mantissa fields of a word, unpacked for arithmetic.
template <class Word>
struct Fields {
    int exp;
    Word man;

    explicit Fields(Word w) : exp(exponent_of(w)), man(mantissa_of(w)) {}

    bool is_zero() const { return exp == 0 && man == 0; }
    bool is_special() const { return exp == Fmt<Word>::exponent_max; }

    /// For a finite non-zero value: the significand, hidden bit at mantissa_bits. A subnormal
    /// is normalised on the way, which moves `exp` to 0 or below.
    Word significand() {
        if (exp == 0) exp = normalize_subnormal(man);
        return man | Fmt<Word>::hidden;
    }
};

/// A rounding code outside 0..5 rounds to nearest even.
inline int checked_mode(int round) {
    return static_cast<unsigned>(round) <= 5u ? round : round_nearest_even;
}

/// What to add to a working significand before truncating its `extra` low bits: half a unit
/// to round to nearest, all-but-one unit to round away from zero, nothing to truncate (round
/// to odd truncates too and then marks an inexact result in the last bit).
template <class Word>
inline Word round_increment(bool sign, int mode) {
    constexpr Word half = Word(1) << (Fmt<Word>::extra - 1);
    constexpr Word almost_one = (Word(1) << Fmt<Word>::extra) - 1;
    switch (mode) {
    case round_nearest_even:
    case round_nearest_away:
        return half;
    case round_toward_negative:
        return sign ? almost_one : 0;
    case round_toward_positive:
        return sign ? 0 : almost_one;
    default:
        return 0;
    }
}

/// Rounds and packs sig * 2^(exp + 1 - bias - (width - 2)).
///
/// `sig` has its leading bit at width - 2 (a normal working significand), so `exp` is the
/// biased exponent of the result minus one; `mode` is a checked rounding mode. The result's
/// exponent field comes from adding the rounded significand, hidden bit included, to
/// exp << mantissa_bits, which makes a rounding carry roll into the exponent for free. A
/// negative `exp` gives a subnormal (or zero) result; underflow is raised when that result is
/// inexact and tiny after rounding. Adding half a unit is all that rounding to nearest with
/// ties away needs; ties to even then clear the last bit of an exact tie, and round to odd
/// sets it when anything was cut off, which can never carry into the next binade.
template <class Word>
Word round_pack(bool sign, int exp, Word sig, int mode) {
    using F = Fmt<Word>;
    constexpr Word round_mask = (Word(1) << F::extra) - 1;
    constexpr Word half = Word(1) << (F::extra - 1);
    constexpr Word carry = Word(1) << (F::width - 1);
    Word const increment = round_increment<Word>(sign, mode);
    std::uint8_t flags = 0;
    if (static_cast<unsigned>(exp) >= static_cast<unsigned>(F::exponent_max - 2)) {
        if (exp < 0) {
            // Tiny unless rounding at full precision would carry up to the smallest normal.
            bool const tiny = exp < -1 || sig + increment < carry;
            sig = shift_right_jam(sig, -exp);
            exp = 0;
            if (tiny && (sig & round_mask) != 0) flags = flag_underflow;
        } else if (exp > F::exponent_max - 2 || sig + increment >= carry) {
            float_exception_flags |= flag_overflow | flag_inexact;
            // Directions that round toward the result's infinity reach it; the others stop at
            // the largest finite magnitude.
            return signed_zero<Word>(sign) | (increment != 0 ? F::inf : F::inf - 1);
        }
    }
    Word const round_bits = sig & round_mask;
    if (round_bits != 0) flags |= flag_inexact;
    sig = (sig + increment) >> F::extra;
    if (mode == round_nearest_even && round_bits == half) sig &= ~Word(1);
    if (mode == round_to_odd) sig |= Word(round_bits != 0);
    float_exception_flags |= flags;
    return signed_zero<Word>(sign) + (Word(exp) << F::mantissa_bits) + sig;
}

/// round_pack for a non-zero significand whose leading bit may lie anywhere below width - 1.
template <class Word>
inline Word normalize_round_pack(bool sign, int exp, Word sig, int mode) {
    int const shift = leading_zeros(sig) - 1;
    return round_pack(sign, exp - shift, sig << shift, mode);
}

template <class Word>
constexpr bool is_signaling_nan(Word a) {
    return is_nan(a) && (a & Fmt<Word>::quiet) == 0;
}

/// The result of an operation with at least one NaN operand: the first NaN made quiet.
template <class Word>
inline Word propagate_nan(Word a, Word b) {
    if (is_signaling_nan(a) || is_signaling_nan(b)) float_exception_flags |= flag_invalid;
    return (is_nan(a) ? a : b) | Fmt<Word>::quiet;
}

/// The result of an invalid operation on non-NaN operands.
template <class Word>
inline Word invalid_result() {
    float_exception_flags |= flag_invalid;
    return Fmt<Word>::default_nan;
}

} // namespace detail
} // namespace swflt
} // namespace tarn
