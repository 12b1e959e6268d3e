// Private to the IEEEFloat units, not installed: the packed codec (split, classify, join).
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/bits.h"

#include <cstdint>
#include <gmp.h>

namespace tarn::ieeefloat_detail {

using format = IEEEFloat::format;
using rounding_mode = IEEEFloat::rounding_mode;

/// The two scans that classify a packed integer P of a format (e, m):
/// `lowest_one` is the index of the lowest 1 bit of P (no_bit for P = 0) and
/// `lowest_zero_from_m` the index of the lowest 0 bit at or above m. Every
/// class of IEEE-754 is a comparison of these with m and e + m, so no field
/// is ever extracted.
struct PackedScan {
    unsigned long lowest_one;
    unsigned long lowest_zero_from_m;

    bool exponent_all_ones(format f) const {
        return lowest_zero_from_m >= f.exponent_width + f.mantissa_width;
    }
    bool zero(format f) const { return lowest_one >= f.exponent_width + f.mantissa_width; }
    bool inf(format f) const { return lowest_one == f.mantissa_width && exponent_all_ones(f); }
    bool nan(format f) const { return lowest_one < f.mantissa_width && exponent_all_ones(f); }
};

/// Scans a non-negative word (bit 63 clear, as every word of a small-form
/// integer is), so bits at and above 63 all read as 0.
inline PackedScan scan_word(std::uint64_t word, unsigned long m) {
    unsigned long lowest_one = word ? static_cast<unsigned long>(__builtin_ctzll(word)) : no_bit;
    unsigned long lowest_zero =
        m >= 63 ? m : m + static_cast<unsigned long>(__builtin_ctzll(~(word >> m)));
    return {lowest_one, lowest_zero};
}

/// Scans a non-negative integer of at most two words, low and high.
inline PackedScan scan_two_words(std::uint64_t low, std::uint64_t high, unsigned long m) {
    const unsigned long lowest_one = low    ? static_cast<unsigned long>(__builtin_ctzll(low))
                                     : high ? 64 + static_cast<unsigned long>(__builtin_ctzll(high))
                                            : no_bit;
    if (m >= 128) return {lowest_one, m};
    // The complement shifted down by m has ones from 128 - m up; read as two
    // words it is zero only when every bit from m to 127 is set.
    const std::uint64_t c_low =
        ~(m >= 64 ? high >> (m - 64) : low >> m | (m ? high << (64 - m) : 0));
    const std::uint64_t c_high = m >= 64 ? ~std::uint64_t{0} : ~(high >> m);
    const unsigned long lowest_zero =
        c_low ? static_cast<unsigned long>(__builtin_ctzll(c_low))
              : 64 + static_cast<unsigned long>(c_high ? __builtin_ctzll(c_high) : 64);
    return {lowest_one, m + lowest_zero};
}

/// The scans of a packed integer: on machine words while it has at most two
/// (every pattern of up to 128 bits), with GMP beyond.
inline PackedScan scan_packed(const QNumber& packed, unsigned long m) {
    std::uint64_t word, high;
    if (packed.is_small()) {
        if (as_word(packed, word)) return scan_word(word, m);
    } else if (BVNumber::to_words(packed, &word, &high)) {
        return scan_two_words(word, high, m);
    }
    return {BVNumber::scan_bit_1(packed, 0), BVNumber::scan_bit_0(packed, m)};
}

/// True when no bit of the exponent field [m, e + m) is set.
inline bool exponent_field_zero(const QNumber& packed, format f) {
    const unsigned long m = f.mantissa_width;
    std::uint64_t word;
    if (as_word(packed, word)) return m >= 64 || ((word >> m) & low_mask(f.exponent_width)) == 0;
    return BVNumber::scan_bit_1(packed, m) >= f.exponent_width + m;
}

/// Classifies a packed integer: at most one of inf, nan and zero is set.
inline void get_flags(format f, const QNumber& packed, bool& inf, bool& nan, bool& zero) {
    const PackedScan scan = scan_packed(packed, f.mantissa_width);
    inf = scan.inf(f);
    nan = scan.nan(f);
    zero = scan.zero(f);
}

/// Splits a packed integer into its sign, biased exponent field and mantissa
/// field. `scratch` is working storage and ends holding 2^m - 1.
inline void unpack_components(format f, const QNumber& packed, bool& sign, QNumber& exponent,
                              QNumber& mantissa, QNumber& scratch) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    std::uint64_t word;
    if (e <= 62 && m <= 62 && as_word(packed, word)) {
        sign = e + m < 64 && ((word >> (e + m)) & 1);
        exponent = QNumber(static_cast<long>((word >> m) & low_mask(e)));
        mantissa = QNumber(static_cast<long>(word & low_mask(m)));
        scratch = QNumber(static_cast<long>(low_mask(m)));
        return;
    }
    sign = BVNumber::test_bit(packed, e + m);
    BVNumber::pow2(e, &scratch);
    scratch -= 1L;
    BVNumber::bit_right_shift(packed, m, &exponent);
    BVNumber::bit_op(exponent, scratch, BVNumber::bit_and_l, mpz_and, &exponent);
    BVNumber::pow2(m, &scratch);
    scratch -= 1L;
    BVNumber::bit_op(packed, scratch, BVNumber::bit_and_l, mpz_and, &mantissa);
}

/// Turns a biased exponent field and a mantissa field, in place, into the
/// unbiased exponent E and the integer significand M. Subnormals keep their
/// short significand and the minimum exponent 1 - bias.
inline void get_unbiased(format f, const QNumber& bias, QNumber& exponent, QNumber& significand) {
    const bool subnormal_or_zero = exponent.is_zero();
    exponent -= bias;
    if (subnormal_or_zero)
        exponent += 1L;
    else
        BVNumber::set_bit(significand, f.mantissa_width, true);
}

/// out := exponent * 2^m + significand, with the sign bit set when `sign`;
/// out may be the same object as either input.
/// Nothing is masked, so a significand that still holds its hidden bit
/// carries one into the exponent field: callers may pass either E + bias with
/// the bare mantissa or E + bias - 1 with the full significand.
inline void pack_float(format f, bool sign, const QNumber& exponent, const QNumber& significand,
                       QNumber& out) {
    const unsigned long m = f.mantissa_width;
    long high, low;
    if (m <= 61 && BVNumber::to_long(exponent, &high) && high >= 0 && (high >> (62 - m)) == 0 &&
        BVNumber::to_long(significand, &low) && low >= 0 && (low >> 62) == 0) {
        out = QNumber((high << m) + low); // both below 2^62: the sum fits a word
    } else if (&out == &exponent || &out == &significand) {
        const QNumber exponent_copy = exponent, significand_copy = significand;
        pack_float(f, false, exponent_copy, significand_copy, out);
    } else {
        // A wide pattern is built in out's own storage, which a generic value
        // keeps from one operation to the next: 2^m, times the exponent, plus
        // the significand, each in place.
        BVNumber::pow2(m, &out);
        out *= exponent;
        out += significand;
    }
    if (sign) BVNumber::set_bit(out, f.exponent_width + m, true);
}

/// out := the library NaN: sign 1, exponent field all ones, mantissa field 1.
/// One pattern for every NaN keeps results independent of operand payloads.
inline void do_make_nan(format f, QNumber& out) {
    BVNumber::pow2(f.exponent_width, &out);
    out -= 1L;
    BVNumber::bit_left_shift(out, f.mantissa_width, &out);
    BVNumber::set_bit(out, 0, true);
    BVNumber::set_bit(out, f.exponent_width + f.mantissa_width, true);
}

/// out := the infinity of the given sign.
inline void do_make_inf(format f, bool negative, QNumber& out) {
    pack_float(f, negative, f.max_exponent(), QNumber(0L), out);
}

/// out := the zero of the given sign, reusing out's storage.
inline void do_make_zero(format f, bool negative, QNumber& out) {
    out = QNumber(0L);
    if (negative) BVNumber::set_bit(out, f.exponent_width + f.mantissa_width, true);
}

/// Whether the packed NaN `nan` is signaling: its first mantissa bit, which
/// hardware reads as the quiet bit, is 0. In formats with m >= 2 the library
/// NaN is one; with m = 1 every NaN is quiet.
inline bool nan_is_signaling(format f, const QNumber& nan) {
    return !BVNumber::test_bit(nan, f.mantissa_width - 1);
}

/// The library NaN of a format whose packed integers fit 64 bits.
constexpr std::uint64_t library_nan_word(unsigned long e, unsigned long m) {
    return low_mask(e) << m | 1 | std::uint64_t{1} << (e + m);
}

/// Gives a subnormal significand m + 1 bits, lowering its exponent to
/// match, so that quotients and roots start from full-width significands.
inline void normalise_subnormal(format f, QNumber& exponent, QNumber& significand) {
    const unsigned long z = BVNumber::count_leading_zeros(significand, f.mantissa_width) + 1;
    exponent -= static_cast<long>(z);
    BVNumber::bit_left_shift(significand, z, &significand);
}

} // namespace tarn::ieeefloat_detail
