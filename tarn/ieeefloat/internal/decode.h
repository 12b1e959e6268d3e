// Private to the IEEEFloat units, not installed: finite values split for exact work.
//
// The exact results, the rounding to integers and the text all start from
// the same split of a finite value into sign, integer significand M and the
// weight 2^k of its lowest bit (k = E - m). Patterns that fit a machine word,
// which covers binary32 and binary64 in every representation and every small
// generic format, are split with shifts; wider ones go through the packed
// codec on QNumbers.
#pragma once

#include "tarn/ieeefloat/internal/packed.h"
#include "tarn/ieeefloat/internal/rounding.h"

#include <climits>
#include <cstdint>
#include <gmpxx.h>

namespace tarn::ieeefloat_detail {

/// The class of a value as exact results and text need it.
enum class ValueClass { zero, finite, infinite, nan };

/// A value split for exact work: (-1)^negative * significand * 2^exponent.
/// For zeros only `negative` is meaningful.
struct FiniteParts {
    bool negative = false;
    /// The significand is `word` when true, `wide` otherwise.
    bool in_word = true;
    std::uint64_t word = 0;
    mpz_class wide;
    /// k = E - m, the weight of the lowest significand bit.
    long exponent = 0;
    /// The value is a power of two above the lowest binade, so its lower
    /// neighbour lies at half the spacing of its upper one.
    bool finer_below = false;
};

/// Splits a pattern of format (e, m) held in a word (e + m <= 63, e <= 62).
/// A format without exponent bits has no value but zero, as its text "0" says.
inline ValueClass decode_word(std::uint64_t bits, unsigned long e, unsigned long m,
                              FiniteParts& out) {
    if (e == 0) return ValueClass::zero;
    const std::uint64_t mantissa = bits & low_mask(m);
    const std::uint64_t biased = (bits >> m) & low_mask(e);
    out.negative = (bits >> (e + m)) & 1;
    if (biased == low_mask(e)) return mantissa == 0 ? ValueClass::infinite : ValueClass::nan;
    if (biased == 0 && mantissa == 0) return ValueClass::zero;
    const long bias = static_cast<long>(low_mask(e - 1));
    const long unbiased = biased == 0 ? 1 - bias : static_cast<long>(biased) - bias;
    out.in_word = true;
    out.word = biased == 0 ? mantissa : mantissa | std::uint64_t{1} << m;
    out.exponent = unbiased - static_cast<long>(m);
    out.finer_below = mantissa == 0 && biased >= 2;
    return ValueClass::finite;
}

/// Splits a packed integer of any size with the packed codec. Throws the
/// precision limit when the weight of the lowest bit does not fit a word.
inline ValueClass decode_packed(format f, const QNumber& packed, FiniteParts& out) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    if (e == 0) return ValueClass::zero; // no bias, no value but zero
    // A pattern of 64 bits with the sign set is beyond QNumber's small form
    // but still a word.
    std::uint64_t word, high;
    if (e <= 62 && e + m <= 63 && BVNumber::to_words(packed, &word, &high) && high == 0)
        return decode_word(word, e, m, out);

    TempNumProvider tmp;
    QNumber& exponent = tmp[0];
    QNumber& significand = tmp[1];
    bool inf, nan, zero;
    unpack_components(f, packed, out.negative, exponent, significand, tmp[2]);
    get_flags(f, packed, inf, nan, zero);
    if (nan) return ValueClass::nan;
    if (inf) return ValueClass::infinite;
    if (zero) return ValueClass::zero;

    out.finer_below = significand.is_zero() && QNumber(1L) < exponent;
    get_unbiased(f, f.bias(), exponent, significand);
    exponent -= QNumber(static_cast<long>(m));
    long k;
    if (!BVNumber::to_long(exponent, &k) || k == LONG_MIN) throw_error(precision_limit_message);
    out.exponent = k;
    out.in_word = false;
    out.wide = significand.to_mpz();
    return ValueClass::finite;
}

/// Splits any value: words of the binary32 and binary64 representations are
/// read with their own layouts, whatever the format says, as the soft-float
/// component reads them.
inline ValueClass decode_value(IEEEFloat::Repr repr, const Held& held, format f, FiniteParts& out) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return decode_word(held.bits32, 8, 23, out);
    case IEEEFloat::REPR_FLOAT64:
        return decode_word(held.bits64, 11, 52, out);
    default:
        if (held.wide && f.exponent_width <= 62 && f.exponent_width + f.mantissa_width <= 63)
            return decode_word(held.bits64, f.exponent_width, f.mantissa_width, out);
        return decode_packed(f, PackedRead(held), out);
    }
}

/// An exact rational or decimal of a value of weight 2^k needs about |k|
/// bits, so exponent fields wide enough could ask for integers of gigabytes
/// from a single pattern. The same bound as for the alignment of addition
/// applies: past |k| = 2^26 (an 8 MiB integer) the operations that would
/// build such a number report the precision limit instead. Every value of a
/// format with up to 26 exponent bits (and fewer than 2^25 mantissa bits) is
/// within it.
inline void check_exact_size(long k) {
    const long limit = static_cast<long>(max_alignment_distance);
    if (k > limit || k < -limit) throw_error(precision_limit_message);
}

/// The rounding of integer conversion under a stored mode: a mode number
/// outside 0 to 3 truncates rather than failing, so that converting to an
/// integer never throws for the mode.
inline rounding integer_direction(rounding_mode mode) {
    return static_cast<unsigned>(mode) <= 3u ? static_cast<rounding>(mode) : rounding::toward_zero;
}

/// A finite value's magnitude rounded to an integer: in `word` when below
/// 2^64 (`in_word`), in `wide` otherwise.
struct RoundedMagnitude {
    bool inexact = false;
    bool in_word = true;
    std::uint64_t word = 0;
    mpz_class wide;
};

/// The magnitude sig * 2^k (sig below 2^63) rounded to an integer in
/// direction `dir`, into `magnitude`, on words: false, and nothing rounded,
/// when it is 2^64 or more.
inline bool round_word_magnitude(bool negative, std::uint64_t sig, long k, rounding dir,
                                 std::uint64_t& magnitude, bool& inexact) {
    if (k > 0) {
        if (k >= 64 || (sig >> (64 - k)) != 0) return false;
        magnitude = sig << k;
        inexact = false;
        return true;
    }
    const auto shift = static_cast<unsigned long>(-k);
    const bool round_bit = shift >= 1 && shift <= 64 && ((sig >> (shift - 1)) & 1);
    const bool sticky = shift >= 2 && (sig & low_mask(shift - 1)) != 0;
    magnitude = shift >= 64 ? 0 : sig >> shift;
    inexact = round_bit || sticky;
    // The significand is below 2^63, so the increment cannot wrap.
    if (inexact && rounds_away(RoundingContext(dir), negative, round_bit, sticky, magnitude & 1))
        ++magnitude;
    return true;
}

/// The magnitude of p rounded to an integer in direction `dir`, the one
/// rounding shared by the integer conversions and rounding to integral. With
/// `word_only` a magnitude of 2^64 or more is reported (in_word false) but
/// not built, decided from the exponent, so huge exponents cost nothing;
/// otherwise it is built, within check_exact_size's bound.
void round_magnitude(const FiniteParts& p, rounding dir, bool word_only, RoundedMagnitude& out);

} // namespace tarn::ieeefloat_detail
