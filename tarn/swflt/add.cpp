// Addition and subtraction. Both reduce to adding or subtracting magnitudes, chosen by
// whether the operands' effective signs agree.

#include "tarn/swflt/internal.h"
#include "tarn/swflt/swflt.h"

#include <utility>

namespace tarn {
namespace swflt {
namespace {

using namespace detail;

// |a| + |b| with the result's sign given: the operands' effective signs agree.
template <class Word>
Word add_magnitudes(Word a, Word b, bool sign, int mode) {
    using F = Fmt<Word>;
    Fields<Word> const fa(a);
    Fields<Word> const fb(b);
    if (fa.is_special() || fb.is_special()) {
        if (is_nan(a) || is_nan(b)) return propagate_nan(a, b);
        return signed_inf<Word>(sign);
    }
    // Two subnormals (or zeros) share one scale: their sum is exact, and a carry out of the
    // mantissa field lands in the exponent field as the smallest normal exponent.
    if (fa.exp == 0 && fb.exp == 0) return signed_zero<Word>(sign) | (fa.man + fb.man);
    bool const a_larger = fa.exp >= fb.exp;
    int const exp_a = a_larger ? fa.exp : fb.exp;
    int exp_b = a_larger ? fb.exp : fa.exp;
    Word const man_a = a_larger ? fa.man : fb.man;
    Word const man_b = a_larger ? fb.man : fa.man;
    // The leading bit sits at width - 3, so the sum has room to carry into width - 2.
    constexpr int up = F::extra - 1;
    Word const sig_a = (man_a | F::hidden) << up;
    Word sig_b = man_b << up;
    if (exp_b == 0) {
        exp_b = 1;
    } else {
        sig_b |= F::hidden << up;
    }
    Word sum = sig_a + shift_right_jam(sig_b, exp_a - exp_b);
    int exp = exp_a;
    if (sum < F::normal_lead) {
        sum <<= 1;
        --exp;
    }
    return round_pack(sign, exp, sum, mode);
}

// |a| - |b|, the result carrying `sign` when |a| is the larger: the effective signs differ.
template <class Word>
Word subtract_magnitudes(Word a, Word b, bool sign, int mode) {
    using F = Fmt<Word>;
    int exp_a = exponent_of(a);
    int exp_b = exponent_of(b);
    if (exp_a == F::exponent_max || exp_b == F::exponent_max) {
        if (is_nan(a) || is_nan(b)) return propagate_nan(a, b);
        if (exp_a == exp_b) return invalid_result<Word>(); // inf - inf
        return signed_inf<Word>(exp_a == F::exponent_max ? sign : !sign);
    }
    // The full working precision, leading bit at width - 2: the difference can only shrink.
    Word sig_a = mantissa_of(a) << F::extra;
    Word sig_b = mantissa_of(b) << F::extra;
    if (exp_a == 0) {
        exp_a = 1;
    } else {
        sig_a |= F::normal_lead;
    }
    if (exp_b == 0) {
        exp_b = 1;
    } else {
        sig_b |= F::normal_lead;
    }
    if (exp_a < exp_b || (exp_a == exp_b && sig_a < sig_b)) {
        std::swap(exp_a, exp_b);
        std::swap(sig_a, sig_b);
        sign = !sign;
    }
    // An exact zero is +0, except that rounding toward negative gives -0.
    if (exp_a == exp_b && sig_a == sig_b) return signed_zero<Word>(mode == round_toward_negative);
    Word const difference = sig_a - shift_right_jam(sig_b, exp_a - exp_b);
    return normalize_round_pack(sign, exp_a - 1, difference, mode);
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
