// Fused multiply-add: a * b + c with a single rounding. The product of the significands is
// exact in a double-width integer; c is brought to the same scale there, the two are added or
// subtracted exactly but for a sticky bit where the smaller one was shifted past the bottom,
// and round_pack rounds the top half once.

#include "tarn/swflt/internal.h"
#include "tarn/swflt/swflt.h"

#include <utility>

namespace tarn {
namespace swflt {
namespace {

using namespace detail;

// a * b + c when one of the operands is a NaN or an infinity; the product's sign is given.
template <class Word>
Word mul_add_special(Word a, Word b, Word c, bool product_sign) {
    Fields<Word> const fa(a);
    Fields<Word> const fb(b);
    if (is_nan(a) || is_nan(b) || is_nan(c)) {
        // A quiet NaN c wins even over 0 * inf, without signalling: only a signalling operand
        // raises invalid. The first pass takes care of a and b, the second of c.
        Word const first = is_nan(a) || is_nan(b) ? propagate_nan(a, b) : c;
        return propagate_nan(first, c);
    }
    if (!fa.is_special() && !fb.is_special()) return c; // a finite product plus an infinity
    if (fa.is_zero() || fb.is_zero()) return invalid_result<Word>();         // 0 * inf
    if (c == signed_inf<Word>(!product_sign)) return invalid_result<Word>(); // inf - inf
    return signed_inf<Word>(product_sign);
}

template <class Word>
Word mul_add(Word a, Word b, Word c, int round) {
    using F = Fmt<Word>;
    using Wide = typename F::Wide;
    // Double-width working significands carry their leading bit here, one bit of headroom above
    // it for the carry of an addition; the top half of one is then a working significand.
    constexpr int top = 2 * F::width - 2;
    int const mode = checked_mode(round);
    bool sign = sign_of(a) != sign_of(b);
    Fields<Word> fa(a);
    Fields<Word> fb(b);
    Fields<Word> fc(c);
    if (fa.is_special() || fb.is_special() || fc.is_special())
        return mul_add_special(a, b, c, sign);
    if (fa.is_zero() || fb.is_zero()) {
        if (!fc.is_zero() || sign == sign_of(c)) return c;
        return signed_zero<Word>(mode == round_toward_negative); // +0 plus -0
    }
    Word const sig_a = fa.significand();
    Word const sig_b = fb.significand();
    // The exact product has its leading bit at 2 * mantissa_bits or one above; bring it to top.
    Wide sum = (Wide(sig_a) * sig_b) << (top - 1 - 2 * F::mantissa_bits);
    int const short_product = (sum >> top) == 0;
    sum <<= short_product;
    int exp = fa.exp + fb.exp - F::bias - short_product;
    if (!fc.is_zero()) {
        Wide addend = Wide(fc.significand()) << (top - F::mantissa_bits);
        int const gap = exp - (fc.exp - 1);
        // Order the terms by magnitude so that a difference cannot go negative; equal
        // exponents leave the significands to decide.
        bool const swapped = gap < 0 || (gap == 0 && addend > sum);
        if (swapped) {
            std::swap(sum, addend);
            exp = fc.exp - 1;
        }
        addend = shift_right_jam(addend, swapped ? -gap : gap);
        if (sign == sign_of(c)) {
            sum += addend;
            int const carry = static_cast<int>(sum >> (top + 1));
            sum = shift_right_jam(sum, carry);
            exp += carry;
        } else {
            // An exact zero is +0, except that rounding toward negative gives -0.
            if (sum == addend) return signed_zero<Word>(mode == round_toward_negative);
            sign = sign != swapped;
            sum -= addend;
            int const shift = leading_zeros(sum) - 1;
            sum <<= shift;
            exp -= shift;
        }
    }
    Word const sig = Word(sum >> F::width) | Word(Word(sum) != 0);
    return round_pack(sign, exp, sig, mode);
}

} // namespace

std::uint32_t float32_mul_add(std::uint32_t a, std::uint32_t b, std::uint32_t c, int round) {
    return mul_add(a, b, c, round);
}
std::uint64_t float64_mul_add(std::uint64_t a, std::uint64_t b, std::uint64_t c, int round) {
    return mul_add(a, b, c, round);
}

} // namespace swflt
} // namespace tarn
