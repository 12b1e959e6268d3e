// Private to the IEEEFloat units, not installed: the rounding core, exact result to pattern.
#pragma once

#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/ieeefloat/internal/errors.h"

#include <cstdint>

namespace tarn::ieeefloat_detail {

/// Scratch numbers of one generic operation, created once on its stack and
/// lent to the routines it calls so that intermediate exponents and
/// significands reuse storage. By convention the caller keeps its exponents
/// and significands in slots 0 to 4; round_and_pack_float works in slots 5
/// and 6. The slots are destroyed from 6 down to 0.
class TempNumProvider {
public:
    static constexpr int slot_count = 7;

    /// Every slot holds 0.
    TempNumProvider() = default;
    /// Slot 0 holds `first`, the others 0.
    explicit TempNumProvider(long first) { slots[0] = QNumber(first); }
    TempNumProvider(const TempNumProvider&) = delete;
    TempNumProvider& operator=(const TempNumProvider&) = delete;

    QNumber& operator[](int slot) { return slots[slot]; }

private:
    QNumber slots[slot_count];
};

/// Whether an inexact result moves one unit away from zero, given the bit
/// just below the kept ones (`round_bit`), whether anything lies below that
/// (`sticky`) and whether the kept significand is odd.
inline bool rounds_away(rounding_mode mode, bool negative, bool round_bit, bool sticky, bool odd) {
    switch (mode) {
    case IEEEFloat::ROUND_NEAREST_EVEN:
        return round_bit && (sticky || odd);
    case IEEEFloat::ROUND_TOWARD_ZERO:
        return false;
    case IEEEFloat::ROUND_TOWARD_POSITIVE:
        return !negative;
    case IEEEFloat::ROUND_TOWARD_NEGATIVE:
        return negative;
    }
    throw_bad_rounding_mode(static_cast<int>(mode));
}

/// Whether a result too large for the format becomes the largest finite
/// magnitude rather than infinity: the modes that round its magnitude down.
inline bool overflow_saturates(rounding_mode mode, bool negative) {
    return mode == IEEEFloat::ROUND_TOWARD_ZERO ||
           static_cast<int>(mode) == IEEEFloat::ROUND_TOWARD_NEGATIVE - static_cast<int>(negative);
}

/// Formats whose rounding fits machine words: exponents, significands and
/// the packed integer (sign bit aside) all stay below 2^63.
inline bool word_rounding_format(format f) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    return e >= 1 && e <= 62 && m <= 61 && e + m <= 63;
}

/// Exponents the word path accepts: far enough from the word limits that the
/// biased exponent and the subnormal shift cannot overflow.
inline constexpr long word_exponent_limit = long{1} << 61;

/// Stores a packed integer below 2^(e+m) with the given sign into out.
inline void store_packed(format f, bool negative, std::uint64_t magnitude_bits, QNumber& out) {
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    if (sign_bit <= 62) {
        out = QNumber(static_cast<long>(magnitude_bits | std::uint64_t{negative} << sign_bit));
        return;
    }
    out = QNumber(static_cast<long>(magnitude_bits));
    if (negative) BVNumber::set_bit(out, sign_bit, true);
}

/// The last steps of the rounding core for formats whose patterns fit words:
/// `kept` is the significand already cut to the format's precision, with the
/// first discarded bit and the sticky bit beside it. `biased` is the biased
/// exponent of a normal result (above 0 and below the all-ones field); 0 or
/// below marks a subnormal one, and it is ignored under `overflow`.
inline void finish_in_words(format f, rounding_mode mode, bool negative, std::uint64_t kept,
                            bool round_bit, bool sticky, long biased, bool overflow, QNumber& out) {
    const unsigned long m = f.mantissa_width;
    const long max_exponent = (long{1} << f.exponent_width) - 1;
    if ((round_bit || sticky) && rounds_away(mode, negative, round_bit, sticky, kept & 1)) {
        ++kept;
        if (kept >> (m + 1)) { // rounded up to the next power of two
            kept >>= 1;
            overflow = overflow || ++biased >= max_exponent;
        }
    }
    std::uint64_t bits;
    if (overflow) {
        bits = static_cast<std::uint64_t>(max_exponent) << m;
        if (overflow_saturates(mode, negative)) --bits;
    } else if (biased > 0) {
        // The hidden bit of kept carries one into the exponent field.
        bits = (static_cast<std::uint64_t>(biased - 1) << m) + kept;
    } else {
        // Subnormal, or zero when everything was shifted out; one that rounded
        // up to 2^m lands on the smallest normal by the same carry.
        bits = kept;
    }
    store_packed(f, negative, bits, out);
}

/// The rounding core on machine words, for word_rounding_format formats and
/// exponents within word_exponent_limit: the steps of round_and_pack_exact
/// with every number in a register.
inline void round_and_pack_word(format f, rounding_mode mode, bool negative, long significand,
                                long exponent, QNumber& out) {
    std::uint64_t s = static_cast<std::uint64_t>(significand);
    if (significand < 0) {
        s = 0 - s;
        negative = !negative;
    }
    if (s == 0) {
        store_packed(f, negative, 0, out);
        return;
    }
    const long bias = (long{1} << (f.exponent_width - 1)) - 1;
    const long max_exponent = (long{1} << f.exponent_width) - 1;
    const long delta = 63 - __builtin_clzll(s) - static_cast<long>(f.mantissa_width);
    const long biased = exponent + delta + bias;
    // A subnormal result keeps the minimum exponent and loses more bits.
    const long shift = biased > 0 ? delta : 1 - bias - exponent;

    bool round_bit = false, sticky = false;
    if (shift < 0) {
        s <<= -shift;
    } else if (shift > 64) {
        sticky = true;
        s = 0;
    } else if (shift > 0) {
        round_bit = (s >> (shift - 1)) & 1;
        sticky = (s & low_mask(static_cast<unsigned long>(shift - 1))) != 0;
        s = shift == 64 ? 0 : s >> shift;
    }
    finish_in_words(f, mode, negative, s, round_bit, sticky, biased, biased >= max_exponent, out);
}

/// The rounding core on QNumbers, for every format and every size of result,
/// with the contract of round_and_pack_float. Formats whose patterns fit
/// words leave it, for finish_in_words, as soon as the significand has been
/// cut to their precision. Out of line: it is the slow path.
void round_and_pack_exact(TempNumProvider& tmp, format f, rounding_mode mode, bool negative,
                          QNumber& exponent, QNumber& significand, QNumber& out);

/// Rounds the exact result (-1)^negative * significand * 2^(exponent - m) to
/// the format under `mode` and writes its packed integer to `out`.
///
/// `significand` may have any size and either sign (a negative one flips
/// `negative`); `exponent` may have any size. Both are working storage and are
/// changed. `out` must be distinct from them and from slots 5 and 6 of `tmp`;
/// it is written only once nothing can fail any more.
///
/// Overflow follows IEEE-754: a result of at least 2^(bias+1) before rounding,
/// or one that rounding carries there, becomes infinity or the largest finite
/// value, as the mode says. Results below the normal range are rounded at
/// subnormal precision; one that rounds to nothing is a zero of its sign.
///
/// Throws "bad rounding mode: N" when an inexact result meets a mode other
/// than 0 to 3, and "reached limit on float precision" when the result lies
/// 2^63 binades or more below the smallest normal value.
///
/// Results whose numbers fit machine words are rounded entirely in registers;
/// the QNumber path handles everything else with identical results.
inline void round_and_pack_float(TempNumProvider& tmp, format f, rounding_mode mode, bool negative,
                                 QNumber& exponent, QNumber& significand, QNumber& out) {
    long s, x;
    if (word_rounding_format(f) && BVNumber::to_long(significand, &s) &&
        BVNumber::to_long(exponent, &x) && x > -word_exponent_limit && x < word_exponent_limit) {
        round_and_pack_word(f, mode, negative, s, x, out);
        return;
    }
    round_and_pack_exact(tmp, f, mode, negative, exponent, significand, out);
}

} // namespace tarn::ieeefloat_detail
