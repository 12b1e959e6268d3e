// Private to the IEEEFloat units, not installed: machine-word helpers on QNumbers and words.
#pragma once

#include "tarn/numbers/bvnumber.h"
#include "tarn/numbers/qnumber.h"

#include <climits>
#include <cstdint>

namespace tarn::ieeefloat_detail {

/// What the bit scans answer when there is no such bit.
inline constexpr unsigned long no_bit = ULONG_MAX;

/// 2^n - 1 for n up to 64.
constexpr std::uint64_t low_mask(unsigned long n) {
    return n >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << n) - 1;
}

/// Reads a non-negative integer that fits a signed word. Small-form numbers
/// always do, so this is the gate to every word path of the float code.
inline bool as_word(const QNumber& q, std::uint64_t& word) {
    long v;
    if (!BVNumber::to_long(q, &v) || v < 0) return false;
    word = static_cast<std::uint64_t>(v);
    return true;
}

/// The number of bits of a positive integer. Words use the leading-zero
/// count of the machine; big integers ask GMP for their size through the
/// leading-zero count against the widest possible width.
inline unsigned long bit_length(const QNumber& q) {
    long v;
    if (BVNumber::to_long(q, &v) && v > 0)
        return 64 - static_cast<unsigned long>(__builtin_clzll(static_cast<unsigned long long>(v)));
    return no_bit - BVNumber::count_leading_zeros(q, no_bit);
}

/// The low 64 bits of a non-negative integer.
inline std::uint64_t low_64_bits(const QNumber& q) {
    std::uint64_t word, upper;
    if (BVNumber::to_words(q, &word, &upper)) return word;
    QNumber part;
    BVNumber::bit_right_shift(q, 32, &part);
    BVNumber::trim(part, 32);
    long high = 0;
    BVNumber::to_long(part, &high);
    part = q;
    BVNumber::trim(part, 32);
    long low = 0;
    BVNumber::to_long(part, &low);
    return static_cast<std::uint64_t>(high) << 32 | static_cast<std::uint64_t>(low);
}

/// The non-negative integer whose bits are those of `word`. Bit 63 needs the
/// big form.
inline QNumber integer_from_word(std::uint64_t word) {
    QNumber q;
    BVNumber::assign_words(word, 0, &q);
    return q;
}

/// floor(n * log10(2)), or one less, for every 64-bit n; never more. The
/// 64-bit fixed-point constant lies below log10(2) by less than one unit, so
/// the product errs by less than |n| units of 2^-64, toward zero. Only a
/// negative n can thereby land just above an integer it should lie below,
/// and then the step down is taken.
inline long floor_log10_pow2(long n) {
    __extension__ using wide = __int128;
    constexpr std::uint64_t log10_2_q64 = 0x4D104D427DE7FBCCULL;
    const wide product = static_cast<wide>(n) * static_cast<wide>(log10_2_q64);
    long result = static_cast<long>(product >> 64);
    const std::uint64_t fraction = static_cast<std::uint64_t>(product);
    const std::uint64_t magnitude =
        n < 0 ? 0 - static_cast<std::uint64_t>(n) : static_cast<std::uint64_t>(n);
    if (n < 0 && fraction <= magnitude) --result;
    return result;
}

} // namespace tarn::ieeefloat_detail
