// Private to the IEEEFloat units, not installed: word arithmetic for formats up to 128 bits.
//
// A generic value of a small format (binary16, bfloat16, the 8-bit formats,
// binary32 held generically) has a packed integer that fits one machine word,
// and one of a medium format (binary64 held generically, binary128, the
// extended formats up to 128 bits) fits two. The exact path would still
// unpack such integers into QNumbers and combine them one call at a time,
// with GMP allocating for every intermediate above a word. The routines here,
// and the operations built on them, compute the same results on the packed
// words, with intermediates of 64 or 128 bits for one-word formats (as their
// mantissa width requires) and of 256 bits for two-word formats.
//
// They are the exact path in another notation, not an approximation of it.
// Each operation rounds either the very significand and exponent that the
// exact path builds, or a shorter significand whose extra low 1 bit stands
// for a non-zero rest (for quotients, roots and addends far apart). Such a
// significand keeps at least one bit below the rounding position, so it lies
// strictly inside the rounding interval of the exact value and rounds to the
// same result under every mode; it is exact exactly when the exact value is,
// so an invalid rounding mode fails in the same cases. The special operands
// follow the same tables, NaN operands keep their packed integers and exact
// zeros get the same signs. The differential tests run formats of every path
// against one reference.
#pragma once

#include "tarn/ieeefloat/internal/packed.h"
#include "tarn/ieeefloat/internal/rounding.h"

#include <cstdint>
#include <gmp.h>

namespace tarn::ieeefloat_detail {

// ---- A 256-bit unsigned integer, the intermediate of two-word formats -------

/// An unsigned integer of 256 bits: products, aligned sums, shifted dividends
/// and radicands of two-word formats. Only what those need is defined.
struct U256 {
    u128 hi = 0, lo = 0;

    U256() = default;
    U256(u128 v) : lo(v) {} // NOLINT: widening, like the built-in integers
    U256(u128 h, u128 l) : hi(h), lo(l) {}
    explicit operator u128() const { return lo; }
};

inline bool operator==(const U256& a, const U256& b) {
    return a.hi == b.hi && a.lo == b.lo;
}
inline bool operator!=(const U256& a, const U256& b) {
    return !(a == b);
}
inline bool operator<(const U256& a, const U256& b) {
    return a.hi != b.hi ? a.hi < b.hi : a.lo < b.lo;
}
inline bool operator>=(const U256& a, const U256& b) {
    return !(a < b);
}
inline U256 operator+(const U256& a, const U256& b) {
    const u128 lo = a.lo + b.lo;
    return {a.hi + b.hi + (lo < a.lo), lo};
}
inline U256 operator-(const U256& a, const U256& b) {
    return {a.hi - b.hi - (a.lo < b.lo), a.lo - b.lo};
}
inline U256 operator|(const U256& a, const U256& b) {
    return {a.hi | b.hi, a.lo | b.lo};
}
/// Shifts by 0 to 255 bits.
[[gnu::always_inline]] inline U256 operator<<(const U256& v, long n) {
    if (n == 0) return v;
    if (n >= 128) return {v.lo << (n - 128), 0};
    return {v.hi << n | v.lo >> (128 - n), v.lo << n};
}
[[gnu::always_inline]] inline U256 operator>>(const U256& v, long n) {
    if (n == 0) return v;
    if (n >= 128) return {0, v.hi >> (n - 128)};
    return {v.hi >> n, v.lo >> n | v.hi << (128 - n)};
}

/// The exact product of two significands, in the path's intermediate type.
template <class Wide, class Bits>
inline Wide wide_product(Bits a, Bits b) {
    return Wide{a} * Wide{b};
}
template <>
inline U256 wide_product<U256, u128>(u128 a, u128 b) {
    const u128 mask = ~std::uint64_t{0};
    const u128 a0 = a & mask, a1 = a >> 64, b0 = b & mask, b1 = b >> 64;
    const u128 low = a0 * b0, mid1 = a0 * b1, mid2 = a1 * b0, high = a1 * b1;
    const u128 mid = (low >> 64) + (mid1 & mask) + (mid2 & mask);
    return {high + (mid1 >> 64) + (mid2 >> 64) + (mid >> 64), (mid << 64) | (low & mask)};
}

// ---- Width-generic helpers ----------------------------------------------------

inline int bit_length(std::uint64_t v) {
    return v == 0 ? 0 : 64 - __builtin_clzll(v);
}
inline int bit_length(u128 v) {
    const auto high = static_cast<std::uint64_t>(v >> 64);
    return high != 0 ? 64 + bit_length(high) : bit_length(static_cast<std::uint64_t>(v));
}
inline int bit_length(const U256& v) {
    return v.hi != 0 ? 128 + bit_length(v.hi) : bit_length(v.lo);
}

/// The width of an intermediate type, in bits.
template <class W>
inline constexpr int bits_of = sizeof(W) * 8;

/// Bit n of v.
template <class W>
bool bit_at(const W& v, long n) {
    return (static_cast<std::uint64_t>(static_cast<u128>(v >> n)) & 1) != 0;
}

/// Whether any of the n lowest bits of v is set (0 <= n <= the width of W).
template <class W>
bool low_bits_set(const W& v, long n) {
    if (n == 0) return false;
    if (n >= bits_of<W>) return v != W{0};
    return (v << (bits_of<W> - n)) != W{0};
}

/// The limbs of a 256-bit number, lowest first, and how many are in use.
inline int to_limbs(const U256& v, mp_limb_t* limbs) {
    limbs[0] = static_cast<mp_limb_t>(v.lo);
    limbs[1] = static_cast<mp_limb_t>(v.lo >> 64);
    limbs[2] = static_cast<mp_limb_t>(v.hi);
    limbs[3] = static_cast<mp_limb_t>(v.hi >> 64);
    int used = 4;
    while (used > 0 && limbs[used - 1] == 0)
        --used;
    return used;
}

/// The 256-bit number of the `count` limbs given, lowest first.
inline U256 from_limbs(const mp_limb_t* limbs, int count) {
    mp_limb_t all[4] = {0, 0, 0, 0};
    for (int i = 0; i < count && i < 4; ++i)
        all[i] = limbs[i];
    return {u128{all[3]} << 64 | all[2], u128{all[1]} << 64 | all[0]};
}

// ---- Packed words -----------------------------------------------------------

/// Reads a packed integer as a word pattern. Fails (and the caller takes the
/// exact path) for integers too wide and for bits above the sign, which the
/// exact path would keep in NaN results and the words would not.
inline bool read_packed(const QNumber& packed, unsigned sign_bit, std::uint64_t& bits) {
    return as_word(packed, bits) && (bits >> sign_bit) <= 1;
}
inline bool read_packed(const QNumber& packed, unsigned sign_bit, u128& bits) {
    std::uint64_t low, high;
    if (!BVNumber::to_words(packed, &low, &high)) return false;
    bits = u128{high} << 64 | low;
    return (bits >> sign_bit) <= 1;
}

/// The generic pattern of a value, read without a QNumber when it is a word.
template <class Bits>
inline bool read_packed(const Held& h, unsigned sign_bit, Bits& bits) {
    if (!h.wide) return read_packed(h.packed, sign_bit, bits);
    bits = h.bits64;
    return (bits >> sign_bit) <= 1;
}

[[gnu::always_inline]] inline void write_packed(std::uint64_t bits, Held& out) {
    set_pattern(out, bits);
}
[[gnu::always_inline]] inline void write_packed(u128 bits, Held& out) {
    set_pattern(out, bits);
}
[[gnu::always_inline]] inline void write_packed(std::uint64_t bits, QNumber& out) {
    out = QNumber(static_cast<long>(bits));
}
[[gnu::always_inline]] inline void write_packed(u128 bits, QNumber& out) {
    BVNumber::assign_words(static_cast<std::uint64_t>(bits), static_cast<std::uint64_t>(bits >> 64),
                           &out);
}

/// The word paths, named by the width of their intermediates. With at most
/// 32 exponent bits no exponent sum, difference or biased exponent comes near
/// the limits of a signed word. One-word formats keep the sign below bit 63
/// (the small form of QNumber); their intermediates (at most 2m + 6 bits, for
/// a square root's radicand) fit 64 bits up to m = 29 and 128 bits, with room
/// for the root's correction, up to m = 60. Two-word formats are those of up
/// to 128 bits, with 256-bit intermediates.
enum class WordPath { none, wide64, wide128, wide256 };

inline WordPath word_path(format f) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    if (e < 2 || e > 32) return WordPath::none;
    if (m <= 29 && e + m + 1 <= 63) return WordPath::wide64;
    if (m <= 60 && e + m + 1 <= 63) return WordPath::wide128;
    if (e + m + 1 <= 128) return WordPath::wide256;
    return WordPath::none;
}

/// Whether the packed integers of a format are single words.
inline bool one_word_format(format f) {
    const WordPath path = word_path(f);
    return path == WordPath::wide64 || path == WordPath::wide128;
}

/// The constants of a format, for packed integers of type Bits.
template <class Bits>
struct WordFormat {
    unsigned m;        ///< mantissa width
    unsigned sign_bit; ///< e + m
    long bias;         ///< 2^(e-1) - 1
    long max_field;    ///< 2^e - 1, the exponent field of infinities and NaNs

    explicit WordFormat(format f)
        : m(static_cast<unsigned>(f.mantissa_width)),
          sign_bit(static_cast<unsigned>(f.exponent_width + f.mantissa_width)),
          bias((long{1} << (f.exponent_width - 1)) - 1),
          max_field((long{1} << f.exponent_width) - 1) {}

    Bits sign_mask() const { return Bits{1} << sign_bit; }
    Bits mantissa_mask() const { return (Bits{1} << m) - 1; }
    Bits signed_zero(bool negative) const { return negative ? sign_mask() : Bits{0}; }
    Bits inf(bool negative) const {
        return static_cast<Bits>(max_field) << m | signed_zero(negative);
    }
    /// The library NaN: sign 1, exponent field all ones, mantissa field 1.
    Bits nan() const { return inf(true) | 1; }
};

/// One operand: its packed bits, its class and, when finite, the exact
/// significand and exponent of (-1)^sign * sig * 2^(exp - m).
template <class Bits>
struct WordOperand {
    Bits bits;
    bool sign, nan, inf, zero;
    long exp;
    Bits sig;
};

template <class Bits>
[[gnu::always_inline]] inline WordOperand<Bits> unpack(const WordFormat<Bits>& wf, Bits bits) {
    WordOperand<Bits> o;
    o.bits = bits;
    o.sign = ((bits >> wf.sign_bit) & 1) != 0;
    const auto field = static_cast<long>((bits & (wf.sign_mask() - 1)) >> wf.m);
    const Bits mantissa = bits & wf.mantissa_mask();
    o.nan = field == wf.max_field && mantissa != 0;
    o.inf = field == wf.max_field && mantissa == 0;
    o.zero = field == 0 && mantissa == 0;
    o.exp = field == 0 ? 1 - wf.bias : field - wf.bias;
    o.sig = field == 0 ? mantissa : mantissa | Bits{1} << wf.m;
    return o;
}

/// Whether an operand is a signaling NaN (first mantissa bit 0).
template <class Bits>
bool signaling(const WordFormat<Bits>& wf, const WordOperand<Bits>& o) {
    return o.nan && ((o.bits >> (wf.m - 1)) & 1) == 0;
}

/// The packed result of an operation with a NaN operand: the first NaN as
/// it stands. Raises invalid when either operand is a signaling NaN.
template <class Bits>
Bits nan_result(RoundingContext& r, const WordFormat<Bits>& wf, const WordOperand<Bits>& a,
                const WordOperand<Bits>& b) {
    if (signaling(wf, a) || signaling(wf, b)) r.flags |= FLAG_INVALID;
    return a.nan ? a.bits : b.bits;
}

/// The library NaN of an invalid operation, raising invalid.
template <class Bits>
Bits invalid_result(RoundingContext& r, const WordFormat<Bits>& wf) {
    r.flags |= FLAG_INVALID;
    return wf.nan();
}

/// Gives a subnormal significand m + 1 bits, lowering its exponent to match.
template <class Bits>
void normalise(const WordFormat<Bits>& wf, WordOperand<Bits>& o) {
    const int shift = static_cast<int>(wf.m) + 1 - bit_length(o.sig);
    if (shift > 0) {
        o.sig <<= shift;
        o.exp -= shift;
    }
}

/// Marks a truncated significand as inexact: one more low bit, set.
template <class Wide>
[[gnu::always_inline]] inline void append_sticky(Wide& sig, long& exp) {
    sig = sig << 1 | Wide{1};
    --exp;
}

/// The packed bits, sign bit excluded, of (-1)^negative * sig * 2^(exp - m)
/// rounded to the format in the direction of `r`, raising its flags: the
/// decisions of round_and_pack_float (normal, subnormal or overflow; the
/// discarded bits; the carry into the next binade), taken on words.
template <class Bits, class Wide>
[[gnu::always_inline]] inline Bits round_bits(const WordFormat<Bits>& wf, RoundingContext& r,
                                              bool negative, Wide sig, long exp) {
    if (sig == Wide{0}) return 0;
    const long delta = bit_length(sig) - static_cast<long>(wf.m + 1);
    long biased = exp + delta + wf.bias;
    bool overflow = biased >= wf.max_field;
    // A result below the normal range keeps the minimum exponent and loses
    // the bits below the smallest subnormal.
    const long shift = biased > 0 ? delta : 1 - wf.bias - exp;
    exp += shift;

    Discarded d;
    const Wide unrounded = sig;
    if (shift < 0) {
        sig = sig << -shift;
    } else if (shift > bits_of<Wide>) {
        d.sticky = true;
        sig = Wide{0};
    } else if (shift > 0) {
        d.round_bit = bit_at(sig, shift - 1);
        d.sticky = low_bits_set(sig, shift - 1);
        sig = shift == bits_of<Wide> ? Wide{0} : sig >> shift;
    }

    if (round_up(r, negative, d, bit_at(sig, 0))) {
        sig = sig + Wide{1};
        if (bit_at(sig, wf.m + 1)) { // rounded up to the next power of two
            if (++biased >= wf.max_field) {
                overflow = true;
            } else {
                ++exp;
                sig = sig >> 1;
            }
        }
    }

    if (overflow) {
        const Bits inf = wf.inf(false);
        return overflow_saturates(r, negative) ? inf - 1 : inf;
    }
    const auto s = static_cast<Bits>(sig);
    if (biased <= 0) {
        // Only the tininess of a subnormal result needs the second discarded bit.
        d.fine_round_bit = shift >= 2 && shift <= bits_of<Wide> && bit_at(unrounded, shift - 2);
        note_tiny(r, negative, (s >> wf.m) & 1, d);
    }
    if ((s >> wf.m) & 1) return static_cast<Bits>(exp + wf.bias) << wf.m | (s & wf.mantissa_mask());
    return s; // subnormal, or zero when everything was shifted out
}

/// Rounds (-1)^negative * sig * 2^(exp - m) into the packed integer `out`.
template <class Bits, class Wide, class Out>
[[gnu::always_inline]] inline void round_into(const WordFormat<Bits>& wf, RoundingContext& r,
                                              bool negative, Wide sig, long exp, Out& out) {
    write_packed(round_bits(wf, r, negative, sig, exp) | wf.signed_zero(negative), out);
}

} // namespace tarn::ieeefloat_detail
