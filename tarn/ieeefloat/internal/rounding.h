// Private to the IEEEFloat units, not installed: the rounding core, exact result to pattern.
#pragma once

#include "tarn/ieeefloat/flags.h"
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

/// The direction of one rounding and the flags it raised: what every routine
/// that rounds takes, so that a new direction or flag changes no signature.
///
/// Operations that round under a value's stored mode build it with of_mode,
/// which keeps a mode number outside 0 to 3 as `invalid_direction` with the
/// number beside it: such a mode throws "bad rounding mode: N" when a result
/// is inexact, and never reads as one of the extra directions 4 and 5.
struct RoundingContext {
    rounding direction;
    int mode_number;
    unsigned flags = 0;

    explicit RoundingContext(rounding r) : direction(r), mode_number(static_cast<int>(r)) {}

    static RoundingContext of_mode(rounding_mode mode) {
        RoundingContext r(static_cast<unsigned>(mode) <= 3u ? static_cast<rounding>(mode)
                                                            : invalid_direction);
        r.mode_number = static_cast<int>(mode);
        return r;
    }

    /// Toward -infinity, the one direction in which an exact zero sum is -0.
    bool downward() const { return direction == rounding::downward; }

    static constexpr rounding invalid_direction = static_cast<rounding>(-1);
};

/// The bits a rounding discards: the first of them (`round_bit`), whether
/// any below it is set (`sticky`), and the second (`fine_round_bit`), which
/// only the tininess of a result carried up to the smallest normal needs.
struct Discarded {
    bool round_bit = false, sticky = false, fine_round_bit = false;

    bool inexact() const { return round_bit || sticky; }
};

/// Whether an inexact result moves one unit away from zero, given what was
/// discarded and whether the kept significand is odd. Rounding to odd
/// truncates and then makes the significand odd: it moves only an even one.
[[gnu::always_inline]] inline bool rounds_away(const RoundingContext& r, bool negative,
                                               bool round_bit, bool sticky, bool odd) {
    switch (r.direction) {
    case rounding::nearest_even:
        return round_bit && (sticky || odd);
    case rounding::toward_zero:
        return false;
    case rounding::upward:
        return !negative;
    case rounding::downward:
        return negative;
    case rounding::nearest_away:
        return round_bit;
    case rounding::to_odd:
        return !odd;
    }
    throw_bad_rounding_mode(r.mode_number);
}

/// rounds_away for a result that may be exact, raising inexact when it is not.
[[gnu::always_inline]] inline bool round_up(RoundingContext& r, bool negative, Discarded d,
                                            bool odd) {
    if (!d.inexact()) return false;
    r.flags |= FLAG_INEXACT;
    return rounds_away(r, negative, d.round_bit, d.sticky, odd);
}

/// Whether a result too large for the format becomes the largest finite
/// magnitude rather than infinity: the directions that round its magnitude
/// down. Raises overflow and inexact.
inline bool overflow_saturates(RoundingContext& r, bool negative) {
    r.flags |= FLAG_OVERFLOW | FLAG_INEXACT;
    switch (r.direction) {
    case rounding::toward_zero:
    case rounding::to_odd:
        return true;
    case rounding::upward:
        return negative;
    case rounding::downward:
        return !negative;
    default:
        return false;
    }
}

/// The flags of an inexact result rounded at subnormal precision: underflow,
/// for such a result is tiny unless rounding carried it up to the smallest
/// normal magnitude (`carried`) and rounding at the format's full precision,
/// one bit finer, would have carried too: that needs a round bit of 1 below a
/// kept significand of all ones (odd), and the finer rounding of the bits
/// below it to move away. In a format with one exponent bit (`no_normals`)
/// the carry lands on infinity instead, and is its overflow.
inline unsigned tiny_flags(const RoundingContext& r, bool negative, bool carried, bool round_bit,
                           bool fine_round_bit, bool sticky, bool no_normals) {
    if (carried && no_normals) return FLAG_OVERFLOW | FLAG_INEXACT;
    const bool full_precision_carries =
        carried && round_bit && sticky && rounds_away(r, negative, fine_round_bit, sticky, true);
    return full_precision_carries ? 0 : FLAG_UNDERFLOW;
}

/// Raises tiny_flags for a result that may be exact.
[[gnu::always_inline]] inline void note_tiny(RoundingContext& r, bool negative, bool carried,
                                             Discarded d, bool no_normals = false) {
    if (d.inexact())
        r.flags |=
            tiny_flags(r, negative, carried, d.round_bit, d.fine_round_bit, d.sticky, no_normals);
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
/// `kept` is the significand already cut to the format's precision, `d` what
/// was cut off. `biased` is the biased exponent of a normal result (above 0
/// and below the all-ones field); 0 or below marks a subnormal one, and it is
/// ignored under `overflow`.
inline void finish_in_words(format f, RoundingContext& r, bool negative, std::uint64_t kept,
                            Discarded d, long biased, bool overflow, QNumber& out) {
    const unsigned long m = f.mantissa_width;
    const long max_exponent = (long{1} << f.exponent_width) - 1;
    if (round_up(r, negative, d, kept & 1)) {
        ++kept;
        if (kept >> (m + 1)) { // rounded up to the next power of two
            kept >>= 1;
            overflow = overflow || ++biased >= max_exponent;
        }
    }
    std::uint64_t bits;
    if (overflow) {
        bits = static_cast<std::uint64_t>(max_exponent) << m;
        if (overflow_saturates(r, negative)) --bits;
    } else if (biased > 0) {
        // The hidden bit of kept carries one into the exponent field.
        bits = (static_cast<std::uint64_t>(biased - 1) << m) + kept;
    } else {
        // Subnormal, or zero when everything was shifted out; one that rounded
        // up to 2^m lands on the smallest normal by the same carry.
        note_tiny(r, negative, (kept >> m) != 0, d, f.exponent_width == 1);
        bits = kept;
    }
    store_packed(f, negative, bits, out);
}

/// The rounding core on machine words, for word_rounding_format formats and
/// exponents within word_exponent_limit: the steps of round_and_pack_exact
/// with every number in a register.
inline void round_and_pack_word(format f, RoundingContext& r, bool negative, long significand,
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

    Discarded d;
    if (shift < 0) {
        s <<= -shift;
    } else if (shift > 64) {
        d.sticky = true;
        s = 0;
    } else if (shift > 0) {
        d.round_bit = (s >> (shift - 1)) & 1;
        d.fine_round_bit = shift >= 2 && ((s >> (shift - 2)) & 1);
        d.sticky = (s & low_mask(static_cast<unsigned long>(shift - 1))) != 0;
        s = shift == 64 ? 0 : s >> shift;
    }
    finish_in_words(f, r, negative, s, d, biased, biased >= max_exponent, out);
}

/// The rounding core on QNumbers, for every format and every size of result,
/// with the contract of round_and_pack_float. Formats whose patterns fit
/// words leave it, for finish_in_words, as soon as the significand has been
/// cut to their precision. Out of line: it is the slow path.
void round_and_pack_exact(TempNumProvider& tmp, format f, RoundingContext& r, bool negative,
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
inline void round_and_pack_float(TempNumProvider& tmp, format f, RoundingContext& r, bool negative,
                                 QNumber& exponent, QNumber& significand, QNumber& out) {
    long s, x;
    if (word_rounding_format(f) && BVNumber::to_long(significand, &s) &&
        BVNumber::to_long(exponent, &x) && x > -word_exponent_limit && x < word_exponent_limit) {
        round_and_pack_word(f, r, negative, s, x, out);
        return;
    }
    round_and_pack_exact(tmp, f, r, negative, exponent, significand, out);
}

} // namespace tarn::ieeefloat_detail
