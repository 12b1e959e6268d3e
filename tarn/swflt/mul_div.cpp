// Multiplication and division. The significands are multiplied or divided exactly in a
// double-width integer, and what does not fit the working significand becomes the sticky bit.

#include "tarn/swflt/internal.h"
#include "tarn/swflt/swflt.h"

namespace tarn {
namespace swflt {
namespace {

using namespace detail;

template <class Word>
Word multiply(Word a, Word b, int round) {
    using F = Fmt<Word>;
    using Wide = typename F::Wide;
    bool const sign = sign_of(a) != sign_of(b);
    Fields<Word> fa(a);
    Fields<Word> fb(b);
    if (fa.is_special() || fb.is_special()) {
        if (is_nan(a) || is_nan(b)) return propagate_nan(a, b);
        if (fa.is_zero() || fb.is_zero()) return invalid_result<Word>(); // 0 * inf
        return signed_inf<Word>(sign);
    }
    if (fa.is_zero() || fb.is_zero()) return signed_zero<Word>(sign);
    // Leading bits at width - 2 and width - 1 put the product's leading bit at 2 * width - 3
    // or 2 * width - 2; the high word, after normalising, is then a working significand.
    Word const sig_a = fa.significand() << F::extra;
    Word const sig_b = fb.significand() << (F::extra + 1);
    Wide product = Wide(sig_a) * sig_b;
    int const short_product = (product >> (2 * F::width - 2)) == 0;
    product <<= short_product;
    int const exp = fa.exp + fb.exp - F::bias - short_product;
    Word const sig = Word(product >> F::width) | Word(Word(product) != 0);
    return round_pack(sign, exp, sig, checked_mode(round));
}

template <class Word>
Word divide(Word a, Word b, int round) {
    using F = Fmt<Word>;
    using Wide = typename F::Wide;
    bool const sign = sign_of(a) != sign_of(b);
    Fields<Word> fa(a);
    Fields<Word> fb(b);
    if (fa.is_special() || fb.is_special()) {
        if (is_nan(a) || is_nan(b)) return propagate_nan(a, b);
        if (fa.is_special() && fb.is_special()) return invalid_result<Word>(); // inf / inf
        return fa.is_special() ? signed_inf<Word>(sign) : signed_zero<Word>(sign);
    }
    if (fb.is_zero()) {
        if (fa.is_zero()) return invalid_result<Word>(); // 0 / 0
        float_exception_flags |= flag_divide_by_zero;
        return signed_inf<Word>(sign);
    }
    if (fa.is_zero()) return signed_zero<Word>(sign);
    Word sig_a = fa.significand();
    Word const sig_b = fb.significand();
    // Doubling the smaller dividend keeps the quotient in [1, 2), so it fills exactly the
    // working significand: leading bit at width - 2.
    int const doubled = sig_a < sig_b;
    sig_a <<= doubled;
    int const exp = fa.exp - fb.exp + F::bias - 1 - doubled;
    Wide const dividend = Wide(sig_a) << (F::width - 2);
    Word const quotient = Word(dividend / sig_b);
    bool const inexact = Word(dividend - Wide(quotient) * sig_b) != 0;
    return round_pack(sign, exp, quotient | Word(inexact), checked_mode(round));
}

} // namespace

std::uint32_t float32_mul(std::uint32_t a, std::uint32_t b, int round) {
    return multiply(a, b, round);
}
std::uint32_t float32_div(std::uint32_t a, std::uint32_t b, int round) {
    return divide(a, b, round);
}
std::uint64_t float64_mul(std::uint64_t a, std::uint64_t b, int round) {
    return multiply(a, b, round);
}
std::uint64_t float64_div(std::uint64_t a, std::uint64_t b, int round) {
    return divide(a, b, round);
}

} // namespace swflt
} // namespace tarn
