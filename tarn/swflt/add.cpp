// Addition and subtraction. Both reduce to adding or subtracting magnitudes, chosen by
// whether the operands' effective signs agree.

#include "tarn/swflt/internal.h"
#include "tarn/swflt/swflt.h"

namespace tarn {
namespace swflt {
namespace {

using namespace detail;

// The operands ordered by magnitude. Without their signs, words order like the magnitudes
// they encode (exponent field first, then mantissa, NaNs above infinities), so one unsigned
// comparison does it, and a select rather than a branch keeps random data cheap.
template <class Word>
struct ByMagnitude {
    Word big;
    Word small;
    bool swapped; // b was the larger

    ByMagnitude(Word a, Word b) {
        Word const mag_a = a & ~Fmt<Word>::sign_bit;
        Word const mag_b = b & ~Fmt<Word>::sign_bit;
        swapped = mag_a < mag_b;
        big = swapped ? mag_b : mag_a;
        small = swapped ? mag_a : mag_b;
    }
};

// A finite magnitude as a working significand shifted `up` places, and its exponent, read as
// 1 for subnormals, which share the scale of the smallest normal binade.
template <class Word>
struct Aligned {
    Word sig;
    int exp;

    Aligned(Word magnitude, int up) {
        Fields<Word> const f(magnitude);
        bool const normal = f.exp != 0;
        sig = (f.man | (normal ? Fmt<Word>::hidden : 0)) << up;
        exp = normal ? f.exp : 1;
    }
};

// |a| + |b| with the result's sign given: the operands' effective signs agree.
template <class Word>
Word add_magnitudes(Word a, Word b, bool sign, int mode) {
    using F = Fmt<Word>;
    ByMagnitude<Word> const m(a, b);
    if (exponent_of(m.big) == F::exponent_max) {
        if (is_nan(m.big)) return propagate_nan(a, b);
        return signed_inf<Word>(sign);
    }
    // Two subnormals (or zeros) share one scale: their sum is exact, and a carry out of the
    // mantissa field lands in the exponent field as the smallest normal exponent.
    if (exponent_of(m.big) == 0) return signed_zero<Word>(sign) | (m.big + m.small);
    // The leading bit sits at width - 3, so the sum has room to carry into width - 2.
    Aligned<Word> const big(m.big, F::extra - 1);
    Aligned<Word> const small(m.small, F::extra - 1);
    Word sum = big.sig + shift_right_jam(small.sig, big.exp - small.exp);
    int const no_carry = sum < F::normal_lead;
    sum <<= no_carry;
    return round_pack(sign, big.exp - no_carry, sum, mode);
}

// |a| - |b|, the result carrying `sign` when |a| is the larger: the effective signs differ.
template <class Word>
Word subtract_magnitudes(Word a, Word b, bool sign, int mode) {
    using F = Fmt<Word>;
    ByMagnitude<Word> const m(a, b);
    sign = sign != m.swapped;
    if (exponent_of(m.big) == F::exponent_max) {
        if (is_nan(m.big)) return propagate_nan(a, b);
        if (m.big == m.small) return invalid_result<Word>(); // inf - inf
        return signed_inf<Word>(sign);
    }
    // An exact zero is +0, except that rounding toward negative gives -0.
    if (m.big == m.small) return signed_zero<Word>(mode == round_toward_negative);
    // The full working precision, leading bit at width - 2: the difference can only shrink.
    Aligned<Word> const big(m.big, F::extra);
    Aligned<Word> const small(m.small, F::extra);
    Word const difference = big.sig - shift_right_jam(small.sig, big.exp - small.exp);
    return normalize_round_pack(sign, big.exp - 1, difference, mode);
}

template <class Word>
Word add(Word a, Word b, bool negate_b, int round) {
    int const mode = checked_mode(round);
    bool const sign_a = sign_of(a);
    bool const sign_b = sign_of(b) != negate_b;
    if (sign_a == sign_b) return add_magnitudes(a, b, sign_a, mode);
    return subtract_magnitudes(a, b, sign_a, mode);
}

} // namespace

std::uint32_t float32_add(std::uint32_t a, std::uint32_t b, int round) {
    return add(a, b, false, round);
}
std::uint32_t float32_sub(std::uint32_t a, std::uint32_t b, int round) {
    return add(a, b, true, round);
}
std::uint64_t float64_add(std::uint64_t a, std::uint64_t b, int round) {
    return add(a, b, false, round);
}
std::uint64_t float64_sub(std::uint64_t a, std::uint64_t b, int round) {
    return add(a, b, true, round);
}

} // namespace swflt
} // namespace tarn
