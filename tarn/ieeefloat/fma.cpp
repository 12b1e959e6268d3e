// Fused multiply-add: a * b + c with a single rounding.
//
// The product is kept exactly. The addend is aligned to it exactly wherever
// cancellation can reach: when the two terms' leading bits lie within one
// binade of each other. Otherwise the sum loses at most one leading bit, so
// the rounding reads nothing below m + 3 bits under the larger term's top;
// whatever of the smaller term lies below both that position and the larger
// term's last bit is reduced to one sticky bit, which rounds exactly as the
// rest it stands for (see word_arith.h). Intermediates thus stay within
// 2m + 4 bits however far apart the exponents are, and no alignment limit
// applies. Generic formats up to 128 bits compute on machine words, the
// others on QNumbers; both end in the rounding core.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/mixed.h"
#include "tarn/ieeefloat/internal/rounding.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <algorithm>
#include <cstdint>
#include <gmp.h>
#include <utility>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// What the table of special cases reads of one operand.
struct OperandKind {
    bool sign, nan, inf, zero, signaling;
};

/// The result of an fma whose operands are not all finite, or whose product
/// is zero: no arithmetic is left to do except for `finite`.
enum class Outcome { first_nan, library_nan, infinity, zero, addend, finite };

struct Special {
    Outcome outcome;
    bool negative; ///< the sign of an infinity or zero result, or of the product
};

/// Classifies an fma and raises its invalid flag. 0 x inf plus a quiet NaN
/// is that NaN without an exception, as the hardware's fused operations
/// give it. Zero products add nothing, so a non-zero addend is the result
/// as it stands.
Special special_case(RoundingContext& r, const OperandKind& a, const OperandKind& b,
                     const OperandKind& c) {
    const bool product_negative = a.sign != b.sign;
    const bool zero_times_inf = (a.zero && b.inf) || (a.inf && b.zero);
    if (a.nan || b.nan || c.nan) {
        if (a.signaling || b.signaling || c.signaling) r.flags |= FLAG_INVALID;
        return {Outcome::first_nan, false};
    }
    if (zero_times_inf || ((a.inf || b.inf) && c.inf && c.sign != product_negative)) {
        r.flags |= FLAG_INVALID;
        return {Outcome::library_nan, false};
    }
    if (a.inf || b.inf) return {Outcome::infinity, product_negative};
    if (c.inf) return {Outcome::addend, c.sign};
    if (a.zero || b.zero) {
        if (!c.zero) return {Outcome::addend, c.sign};
        // Zeros of one sign keep it; opposite ones sum to +0, or to -0
        // rounding downward, as in addition.
        return {Outcome::zero, c.sign == product_negative ? c.sign : r.downward()};
    }
    return {Outcome::finite, product_negative};
}

/// Where the exact sum of two terms starts: given the exponents of their last
/// bits and their bit lengths, with x the term whose top bit is not below
/// y's, how far below x's last bit the sum keeps exact bits. When the tops
/// are at least two binades apart that is down to m + 3 bits under x's top
/// (or x's last bit, if lower); within one binade, down to y's last bit.
long extra_low_bits(bool close, long x_exp_minus_y_exp, long x_length, unsigned long m) {
    if (close) return std::max(0L, x_exp_minus_y_exp);
    return std::max(0L, static_cast<long>(m) + 4 - x_length);
}

// ---- Machine words ------------------------------------------------------------

/// One term of the sum: (-1)^negative * sig * 2^(exp - m).
template <class Wide>
struct Term {
    Wide sig;
    long exp;
    bool negative;
};

/// Rounds x + y, both non-zero, into `out`.
template <class Bits, class Wide, class Out>
void sum_words(const WordFormat<Bits>& wf, RoundingContext& r, Term<Wide> x, Term<Wide> y,
               Out& out) {
    long x_length = bit_length(x.sig), y_length = bit_length(y.sig);
    if (x.exp + x_length < y.exp + y_length) {
        std::swap(x, y);
        std::swap(x_length, y_length);
    }
    const bool close = y.exp + y_length >= x.exp + x_length - 1;
    const long extra = extra_low_bits(close, x.exp - y.exp, x_length, wf.m);
    x.sig = x.sig << extra;
    x.exp -= extra;
    if (y.exp >= x.exp) {
        y.sig = y.sig << (y.exp - x.exp);
    } else {
        // y's bits below x's last one become a sticky bit one place lower.
        const long cut = x.exp - y.exp;
        const bool rest = low_bits_set(y.sig, std::min<long>(cut, bits_of<Wide>));
        y.sig = (cut >= bits_of<Wide> ? Wide{0} : y.sig >> cut) << 1 | Wide{rest};
        x.sig = x.sig << 1;
        --x.exp;
    }

    Wide sum;
    bool negative = x.negative;
    if (x.negative == y.negative) {
        sum = x.sig + y.sig;
    } else if (x.sig >= y.sig) {
        sum = x.sig - y.sig;
    } else {
        sum = y.sig - x.sig;
        negative = y.negative;
    }
    // Only an exact sum can cancel to zero: +0, or -0 rounding downward.
    if (sum == Wide{0}) return write_packed(wf.signed_zero(r.downward()), out);
    round_into(wf, r, negative, sum, x.exp, out);
}

template <class Bits>
OperandKind kind_of(const WordFormat<Bits>& wf, const WordOperand<Bits>& o) {
    return {o.sign, o.nan, o.inf, o.zero, signaling(wf, o)};
}

template <class Bits, class Wide, class Out>
void fma_words(const WordFormat<Bits>& wf, RoundingContext& r, Bits a_bits, Bits b_bits,
               Bits c_bits, Out& out) {
    const WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits), c = unpack(wf, c_bits);
    const Special s = special_case(r, kind_of(wf, a), kind_of(wf, b), kind_of(wf, c));
    switch (s.outcome) {
    case Outcome::first_nan:
        return write_packed(a.nan ? a.bits : b.nan ? b.bits : c.bits, out);
    case Outcome::library_nan:
        return write_packed(wf.nan(), out);
    case Outcome::infinity:
        return write_packed(wf.inf(s.negative), out);
    case Outcome::zero:
        return write_packed(wf.signed_zero(s.negative), out);
    case Outcome::addend:
        return write_packed(c.bits, out);
    case Outcome::finite:
        break;
    }
    const Term<Wide> p{wide_product<Wide>(a.sig, b.sig), a.exp + b.exp - static_cast<long>(wf.m),
                       s.negative};
    if (c.zero) return round_into(wf, r, p.negative, p.sig, p.exp, out);
    sum_words<Bits, Wide, Out>(wf, r, p, Term<Wide>{Wide{c.sig}, c.exp, c.sign}, out);
}

/// x := x * y + z on the words of one path, when all three read as words;
/// false, with nothing done, otherwise.
template <class Bits, class Wide, class Packed>
bool word_fma(format f, RoundingContext& r, Packed& x, const Packed& y, const Packed& z) {
    const WordFormat<Bits> wf(f);
    Bits a, b, c;
    if (!read_packed(x, wf.sign_bit, a) || !read_packed(y, wf.sign_bit, b) ||
        !read_packed(z, wf.sign_bit, c))
        return false;
    fma_words<Bits, Wide>(wf, r, a, b, c, x);
    return true;
}

template <class Packed>
bool try_word_fma(format f, RoundingContext& r, Packed& x, const Packed& y, const Packed& z) {
    switch (word_path(f)) {
    case WordPath::wide64:
        return word_fma<std::uint64_t, std::uint64_t, Packed>(f, r, x, y, z);
    case WordPath::wide128:
        return word_fma<std::uint64_t, u128, Packed>(f, r, x, y, z);
    case WordPath::wide256:
        return word_fma<u128, U256, Packed>(f, r, x, y, z);
    default:
        return false;
    }
}

// ---- QNumbers -------------------------------------------------------------------

OperandKind kind_of(format f, const QNumber& packed) {
    OperandKind k{};
    get_flags(f, packed, k.inf, k.nan, k.zero);
    k.sign = BVNumber::test_bit(packed, f.exponent_width + f.mantissa_width);
    k.signaling = k.nan && nan_is_signaling(f, packed);
    return k;
}

/// Unpacks a finite operand into its exponent (slot `slot`) and significand
/// (slot `slot` + 1), as the rounding core reads them.
void unpack_finite(TempNumProvider& tmp, format f, const QNumber& packed, int slot) {
    bool sign;
    unpack_components(f, packed, sign, tmp[slot], tmp[slot + 1], tmp[4]);
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[slot], tmp[slot + 1]);
}

/// The exponent of the bit above a term's top one.
QNumber top_of(const QNumber& exponent, const QNumber& significand) {
    QNumber top = exponent;
    top += static_cast<long>(bit_length(significand));
    return top;
}

/// Rounds the sum of the terms in slots 0-1 and 2-3 (exponent, significand),
/// both non-zero, into `out`: sum_words on QNumbers.
void sum_exact(TempNumProvider& tmp, format f, RoundingContext& r, bool p_negative, bool c_negative,
               QNumber& out) {
    int x = 0, y = 2;
    const QNumber p_top = top_of(tmp[0], tmp[1]), c_top = top_of(tmp[2], tmp[3]);
    if (cmp(p_top, c_top) < 0) {
        std::swap(x, y);
        std::swap(p_negative, c_negative);
    }
    QNumber& x_exp = tmp[x];
    QNumber& x_sig = tmp[x + 1];
    QNumber& y_exp = tmp[y];
    QNumber& y_sig = tmp[y + 1];

    QNumber gap = x == 0 ? p_top : c_top;
    gap -= x == 0 ? c_top : p_top;
    const bool close = cmp(gap, QNumber(1L)) <= 0;
    long distance = 0;
    if (close) { // both terms are at most 2m + 2 bits long
        QNumber d = x_exp;
        d -= y_exp;
        BVNumber::to_long(d, &distance);
    }
    const long extra =
        extra_low_bits(close, distance, static_cast<long>(bit_length(x_sig)), f.mantissa_width);
    BVNumber::bit_left_shift(x_sig, static_cast<unsigned long>(extra), &x_sig);
    x_exp -= extra;

    QNumber shift = y_exp;
    shift -= x_exp;
    long k = 0;
    if (!shift.is_negative()) {
        BVNumber::to_long(shift, &k); // y's top is not above x's
        BVNumber::bit_left_shift(y_sig, static_cast<unsigned long>(k), &y_sig);
    } else {
        shift.self_neg();
        const bool inside =
            BVNumber::to_long(shift, &k) && static_cast<unsigned long>(k) < bit_length(y_sig);
        if (inside) {
            const auto cut = static_cast<unsigned long>(k);
            const bool rest = BVNumber::scan_bit_1(y_sig, 0) < cut;
            BVNumber::bit_right_shift(y_sig, cut - 1, &y_sig);
            BVNumber::set_bit(y_sig, 0, rest);
        } else {
            y_sig = QNumber(1L);
        }
        BVNumber::bit_left_shift(x_sig, 1, &x_sig);
        x_exp -= 1L;
    }

    if (p_negative) x_sig.self_neg();
    if (c_negative) y_sig.self_neg();
    x_sig += y_sig;
    if (x_sig.is_zero()) return do_make_zero(f, r.downward(), out);
    const bool negative = x_sig.is_negative();
    if (negative) x_sig.self_neg();
    round_and_pack_float(tmp, f, r, negative, x_exp, x_sig, out);
}

/// x := x * y + z on packed integers of format f, exactly with QNumbers.
[[gnu::noinline]] void fma_exact(format f, RoundingContext& r, QNumber& x, const QNumber& y,
                                 const QNumber& z) {
    const OperandKind ka = kind_of(f, x), kb = kind_of(f, y), kc = kind_of(f, z);
    const Special s = special_case(r, ka, kb, kc);
    switch (s.outcome) {
    case Outcome::first_nan:
        if (!ka.nan) x = kb.nan ? y : z;
        return;
    case Outcome::library_nan:
        return do_make_nan(f, x);
    case Outcome::infinity:
        return do_make_inf(f, s.negative, x);
    case Outcome::zero:
        return do_make_zero(f, s.negative, x);
    case Outcome::addend:
        x = z;
        return;
    case Outcome::finite:
        break;
    }
    TempNumProvider tmp;
    unpack_finite(tmp, f, x, 0);
    unpack_finite(tmp, f, y, 2);
    tmp[0] += tmp[2];
    tmp[0] -= static_cast<long>(f.mantissa_width);
    tmp[1] *= tmp[3];
    if (kc.zero) return round_and_pack_float(tmp, f, r, s.negative, tmp[0], tmp[1], x);
    unpack_finite(tmp, f, z, 2);
    sum_exact(tmp, f, r, s.negative, kc.sign, x);
}

/// x := x * y + z on packed integers of format f.
void fma_packed(format f, RoundingContext& r, QNumber& x, const QNumber& y, const QNumber& z) {
    if (!try_word_fma(f, r, x, y, z)) fma_exact(f, r, x, y, z);
}

/// x := x * y + z on the patterns of held values, x a value of its own.
void fma_held(format f, RoundingContext& r, Held& x, const Held& y, const Held& z) {
    if (try_word_fma(f, r, x, y, z)) return;
    const PackedRead b(y), c(z);
    fma_exact(f, r, number(x), *b, *c);
    settle(x);
}

/// x := x * y + z for binary32 and binary64 words, by the soft-float
/// component, settled as every word operation is.
void fma_word_repr(IEEEFloat& x, const IEEEFloat& y, const IEEEFloat& z, RoundingContext& r) {
    auto& held = Access::held(x);
    const int code = swflt_rounding_code(r);
    if (x.get_repr() == IEEEFloat::REPR_FLOAT32)
        held.bits32 = settle_float32(swflt::float32_mul_add(held.bits32, Access::held(y).bits32,
                                                            Access::held(z).bits32, code));
    else
        held.bits64 = settle_float64(swflt::float64_mul_add(held.bits64, Access::held(y).bits64,
                                                            Access::held(z).bits64, code));
}

IEEEFloat fused(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c, RoundingContext& r) {
    if (!same_kind(a, b) || !same_kind(a, c)) return mixed_fma(a, b, c, r);
    IEEEFloat result(a);
    if (a.get_repr() == IEEEFloat::REPR_GENERIC)
        fma_held(a.get_format(), r, Access::held(result), Access::held(b), Access::held(c));
    else
        fma_word_repr(result, b, c, r);
    raise(r.flags);
    return result;
}

} // namespace

void ieeefloat_detail::packed_fma(format f, RoundingContext& r, QNumber& x, const QNumber& y,
                                  const QNumber& z) {
    fma_packed(f, r, x, y, z);
}

IEEEFloat fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c) {
    RoundingContext r = RoundingContext::of_mode(a.get_rounding_mode());
    return fused(a, b, c, r);
}

IEEEFloat fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c, rounding direction) {
    RoundingContext r(direction);
    return fused(a, b, c, r);
}

} // namespace tarn
