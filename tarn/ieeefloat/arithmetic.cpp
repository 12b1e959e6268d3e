// Addition, subtraction, multiplication and division. binary32 and binary64
// words go to the soft-float component; generic values of formats up to 128
// bits are computed on machine words, the rest exactly on QNumbers, and both
// end in the rounding core.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/mixed.h"
#include "tarn/ieeefloat/internal/rounding.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <algorithm>
#include <cstdint>
#include <gmp.h>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// Throws the precision limit for an alignment past max_alignment_distance.
void check_alignment_distance(unsigned long distance) {
    if (distance > max_alignment_distance) throw_error(precision_limit_message);
}

/// floor(n / d), and whether the division leaves a remainder (d > 0).
template <class Wide, class Divisor>
inline Wide divide(Wide n, Divisor d, bool& inexact) {
    // The remainder from the quotient: a two-word n / d is a library call,
    // and n % d would be a second one.
    const Wide quotient = n / d;
    inexact = quotient * d != n;
    return quotient;
}
U256 divide(const U256& n, u128 d, bool& inexact) {
    // binary64 held generically lands here for its sign bit alone; its
    // dividends have 107 bits, and a two-word division is far cheaper than
    // GMP's, which first inverts the divisor's top limb.
    if (n.hi == 0) return divide(n.lo, d, inexact);
    mp_limb_t num[4], den[2] = {static_cast<mp_limb_t>(d), static_cast<mp_limb_t>(d >> 64)};
    const int nn = to_limbs(n, num), dn = den[1] != 0 ? 2 : 1;
    if (nn < dn) {
        inexact = n != U256{};
        return {};
    }
    mp_limb_t quotient[4], rest[2];
    mpn_tdiv_qr(quotient, rest, 0, num, nn, den, dn);
    inexact = rest[0] != 0 || (dn == 2 && rest[1] != 0);
    return from_limbs(quotient, nn - dn + 1);
}

template <class Bits, class Wide, class Out>
void add_sub_words(const WordFormat<Bits>& wf, RoundingContext& r, bool subtract, Bits a_bits,
                   Bits b_bits, Out& out) {
    WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits);
    const bool b_sign = b.sign != subtract;

    if (a.nan || b.nan) return write_packed(nan_result(r, wf, a, b), out);
    if (a.inf && b.inf) return write_packed(a.sign == b_sign ? a.bits : invalid_result(r, wf), out);
    if (a.inf) return write_packed(a.bits, out);
    if (b.inf) return write_packed(wf.inf(b_sign), out);
    if (a.zero && b.zero)
        return write_packed(a.sign == b_sign ? a.bits : wf.signed_zero(r.downward()), out);

    // A zero addend needs no alignment.
    if (a.zero) a.exp = b.exp;
    if (b.zero) b.exp = a.exp;

    // `hi` is the addend with the larger exponent.
    const bool a_hi = a.exp >= b.exp;
    const WordOperand<Bits>& hi = a_hi ? a : b;
    const WordOperand<Bits>& lo = a_hi ? b : a;
    const bool hi_sign = a_hi ? a.sign : b_sign;
    const bool lo_sign = a_hi ? b_sign : a.sign;
    const auto distance = static_cast<unsigned long>(hi.exp - lo.exp);
    check_alignment_distance(distance);

    Wide sum;
    long exp;
    bool negative = hi_sign;
    if (distance <= wf.m + 3) {
        // Exact alignment, at most 2m + 4 bits.
        const Wide hi_sig = Wide{hi.sig} << static_cast<long>(distance);
        const Wide lo_sig{lo.sig};
        exp = lo.exp;
        if (hi_sign == lo_sign) {
            sum = hi_sig + lo_sig;
        } else if (hi_sig >= lo_sig) {
            sum = hi_sig - lo_sig;
        } else {
            sum = lo_sig - hi_sig;
            negative = lo_sign;
        }
        // An exact zero sum is +0, or -0 when rounding toward negative.
        if (sum == Wide{0}) return write_packed(wf.signed_zero(r.downward()), out);
    } else {
        // The smaller addend lies below a quarter of an ulp of `hi`, which is
        // normal since its exponent is above the minimum: in quarter ulps the
        // sum lies strictly between 4 hi.sig and 4 hi.sig + 1, or between
        // 4 hi.sig - 1 and 4 hi.sig.
        sum = Wide{hi.sig} << 2;
        exp = hi.exp - 2;
        if (hi_sign != lo_sign) sum = sum - Wide{1};
        append_sticky(sum, exp);
    }
    round_into(wf, r, negative, sum, exp, out);
}

template <class Bits, class Wide, class Out>
void mul_words(const WordFormat<Bits>& wf, RoundingContext& r, Bits a_bits, Bits b_bits, Out& out) {
    const WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits);
    const bool negative = a.sign != b.sign;

    if (a.nan || b.nan) return write_packed(nan_result(r, wf, a, b), out);
    if (a.inf || b.inf)
        return write_packed(a.zero || b.zero ? invalid_result(r, wf) : wf.inf(negative), out);
    round_into(wf, r, negative, wide_product<Wide>(a.sig, b.sig),
               a.exp + b.exp - static_cast<long>(wf.m), out);
}

/// a / b; `two_bit_ties` keeps the compound operator's m = 1 quotients.
template <class Bits, class Wide, class Out>
void div_words(const WordFormat<Bits>& wf, RoundingContext& r, bool two_bit_ties, Bits a_bits,
               Bits b_bits, Out& out) {
    WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits);
    const bool negative = a.sign != b.sign;

    if (a.nan || b.nan) return write_packed(nan_result(r, wf, a, b), out);
    if (a.zero && b.zero) return write_packed(invalid_result(r, wf), out);
    if (b.zero) {
        if (!a.inf) r.flags |= FLAG_DIVBYZERO;
        return write_packed(wf.inf(negative), out);
    }
    if (a.inf && b.inf) return write_packed(invalid_result(r, wf), out);
    if (b.inf) return write_packed(wf.signed_zero(negative), out);
    if (a.inf) return write_packed(wf.inf(negative), out);
    if (a.zero) return write_packed(wf.signed_zero(negative), out);

    normalise(wf, a);
    normalise(wf, b);
    // m + 2 extra bits put the round bit above the sticky bit. The exact
    // path divides a.sig * 2^(2m) by b.sig, which from m = 2 on rounds the
    // same; for the compound operator's m = 1 quotients (`two_bit_ties`) its
    // quotient is reproduced bit for bit.
    const unsigned extra = wf.m >= 2 || !two_bit_ties ? wf.m + 2 : 2 * wf.m;
    long exp = a.exp - b.exp + static_cast<long>(wf.m) - static_cast<long>(extra);
    bool inexact;
    Wide quotient;
    if (sizeof(Bits) == 8 && wf.m + 1 + extra <= 64) {
        // Narrow formats divide in one machine word.
        const auto dividend = static_cast<std::uint64_t>(a.sig) << extra;
        const auto divisor = static_cast<std::uint64_t>(b.sig);
        quotient = Wide{dividend / divisor};
        inexact = dividend % divisor != 0;
    } else {
        quotient = divide(Wide{a.sig} << static_cast<long>(extra), b.sig, inexact);
    }
    if (inexact) append_sticky(quotient, exp);
    round_into(wf, r, negative, quotient, exp, out);
}

/// Which operation a word or exact computation performs. `div_compound` is
/// the quotient of operator/=, whose m = 1 ties are documented apart.
enum class ArithOp { add, sub, mul, div, div_compound };

/// a := a op b on the words of one path, when both packed integers read as
/// words; false, with nothing done, otherwise. `Packed` is a QNumber or a
/// value's Held.
template <class Bits, class Wide, class Packed>
bool word_op(ArithOp op, format f, RoundingContext& r, Packed& a, const Packed& b) {
    const WordFormat<Bits> wf(f);
    Bits a_bits, b_bits;
    if (!read_packed(a, wf.sign_bit, a_bits) || !read_packed(b, wf.sign_bit, b_bits)) return false;
    switch (op) {
    case ArithOp::add:
    case ArithOp::sub:
        add_sub_words<Bits, Wide>(wf, r, op == ArithOp::sub, a_bits, b_bits, a);
        break;
    case ArithOp::mul:
        mul_words<Bits, Wide>(wf, r, a_bits, b_bits, a);
        break;
    default:
        div_words<Bits, Wide>(wf, r, op == ArithOp::div_compound, a_bits, b_bits, a);
    }
    return true;
}

/// a := a op b on the words of the format's path, if it has one and the
/// operands read as words.
template <class Packed>
inline bool try_word_op(ArithOp op, format f, RoundingContext& r, Packed& a, const Packed& b) {
    switch (word_path(f)) {
    case WordPath::wide64:
        return word_op<std::uint64_t, std::uint64_t, Packed>(op, f, r, a, b);
    case WordPath::wide128:
        return word_op<std::uint64_t, u128, Packed>(op, f, r, a, b);
    case WordPath::wide256:
        return word_op<u128, U256, Packed>(op, f, r, a, b);
    default:
        return false;
    }
}

/// Sign and class of one packed operand.
struct OperandClass {
    bool sign = false, inf = false, nan = false, zero = false, signaling = false;
};

/// Splits a packed operand into its biased exponent (slot `slot`) and its
/// mantissa (slot `slot` + 1), and classifies it.
OperandClass unpack_operand(TempNumProvider& tmp, format f, const QNumber& packed, int slot) {
    OperandClass c;
    unpack_components(f, packed, c.sign, tmp[slot], tmp[slot + 1], tmp[4]);
    get_flags(f, packed, c.inf, c.nan, c.zero);
    c.signaling = c.nan && nan_is_signaling(f, packed);
    return c;
}

/// a := the result of an operation with a NaN operand: the first NaN as it
/// stands. Raises invalid when either is signaling.
void take_nan(RoundingContext& r, const OperandClass& ca, const OperandClass& cb, QNumber& a,
              const QNumber& b) {
    if (ca.signaling || cb.signaling) r.flags |= FLAG_INVALID;
    if (!ca.nan) a = b;
}

/// a := the library NaN of an invalid operation, raising invalid.
void make_invalid(RoundingContext& r, format f, QNumber& a) {
    r.flags |= FLAG_INVALID;
    do_make_nan(f, a);
}

/// The difference of the exponents in slots `hi` and `lo`, which the
/// alignment must shift by.
unsigned long alignment_distance(TempNumProvider& tmp, int hi, int lo) {
    QNumber& difference = tmp[5];
    difference = tmp[hi];
    difference -= tmp[lo];
    long d;
    if (!BVNumber::to_long(difference, &d)) throw_error(precision_limit_message);
    check_alignment_distance(static_cast<unsigned long>(d));
    return static_cast<unsigned long>(d);
}

/// a := a + b (a - b when `subtract`) on packed integers of format f, rounded
/// under `mode`. The operands may be one object. On an error a is unchanged.
void add_sub_float(bool subtract, TempNumProvider& tmp, format f, RoundingContext& r, QNumber& a,
                   const QNumber& b) {
    const OperandClass ca = unpack_operand(tmp, f, a, 0);
    const OperandClass cb = unpack_operand(tmp, f, b, 2);
    const bool sa = ca.sign, sb = cb.sign != subtract;
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    const bool toward_negative = r.downward();

    if (ca.nan || cb.nan) return take_nan(r, ca, cb, a, b);
    if (ca.inf && cb.inf) {
        if (sa != sb) make_invalid(r, f, a);
        return;
    }
    if (ca.inf) return;
    if (cb.inf) {
        a = b;
        BVNumber::set_bit(a, sign_bit, sb);
        return;
    }
    if (ca.zero && cb.zero) {
        if (sa != sb) do_make_zero(f, toward_negative, a);
        return;
    }

    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    get_unbiased(f, tmp[4], tmp[2], tmp[3]);
    // A zero addend is 0 at any exponent; lending it the other's spares
    // shifting the other across the exponent range.
    if (ca.zero) tmp[0] = tmp[2];
    if (cb.zero) tmp[2] = tmp[0];

    // Exact alignment onto the smaller exponent, which the sum keeps.
    const int order = cmp(tmp[0], tmp[2]);
    if (order > 0) {
        BVNumber::bit_left_shift(tmp[1], alignment_distance(tmp, 0, 2), &tmp[1]);
        tmp[0] = tmp[2];
    } else if (order < 0) {
        BVNumber::bit_left_shift(tmp[3], alignment_distance(tmp, 2, 0), &tmp[3]);
    }

    if (sa) tmp[1].self_neg();
    if (sb) tmp[3].self_neg();
    tmp[1] += tmp[3];
    bool negative = sa;
    if (!tmp[1].is_zero()) {
        negative = tmp[1].is_negative();
        if (negative) tmp[1].self_neg();
    }
    round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], a);
    // Two values of one format sum to a multiple of the smallest subnormal,
    // so only an exact zero sum packs to zero: x - x is +0, or -0 when
    // rounding toward negative.
    if (BVNumber::scan_bit_1(a, 0) >= sign_bit) do_make_zero(f, toward_negative, a);
}

void mul_float(TempNumProvider& tmp, format f, RoundingContext& r, QNumber& a, const QNumber& b) {
    const OperandClass ca = unpack_operand(tmp, f, a, 0);
    const OperandClass cb = unpack_operand(tmp, f, b, 2);
    const bool negative = ca.sign != cb.sign;

    if (ca.nan || cb.nan) return take_nan(r, ca, cb, a, b);
    if (ca.inf || cb.inf) {
        if (ca.zero || cb.zero) return make_invalid(r, f, a);
        if (!ca.inf) a = b;
        BVNumber::set_bit(a, f.exponent_width + f.mantissa_width, negative);
        return;
    }

    // Subnormal factors need no normalising: the product is exact anyway.
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    get_unbiased(f, tmp[4], tmp[2], tmp[3]);
    tmp[0] += tmp[2];
    tmp[0] -= static_cast<long>(f.mantissa_width);
    tmp[1] *= tmp[3];
    round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], a);
}

/// a := a / b on packed integers of format f, rounded under `mode`.
///
/// The quotient of the two (m + 1)-bit significands is taken to 2m or 2m + 1
/// bits, with one more low 1 bit when the division leaves a remainder; that
/// bit takes part in rounding only as sticky information. From m = 2 on the
/// round bit lies above it and the result is correctly rounded. With m = 0
/// every significand is 1 and every quotient exact. With m = 1 the quotient
/// 1.0 / 1.1 (binary), 2/3 of a binade, keeps just its two kept bits and the
/// appended bit, which then reads as a round bit with nothing below it: under
/// ROUND_NEAREST_EVEN a normal result of that quotient is rounded as a tie,
/// to the even significand 1.0, where 1.1 is nearer. The directed modes and
/// every other quotient are correctly rounded.
void div_float(TempNumProvider& tmp, format f, RoundingContext& r, bool two_bit_ties, QNumber& a,
               const QNumber& b) {
    const OperandClass ca = unpack_operand(tmp, f, a, 0);
    const OperandClass cb = unpack_operand(tmp, f, b, 2);
    const bool negative = ca.sign != cb.sign;
    const unsigned long m = f.mantissa_width;

    if (ca.nan || cb.nan) return take_nan(r, ca, cb, a, b);
    if (ca.zero && cb.zero) return make_invalid(r, f, a);
    if (cb.zero) {
        if (!ca.inf) r.flags |= FLAG_DIVBYZERO;
        return do_make_inf(f, negative, a);
    }
    if (ca.inf && cb.inf) return make_invalid(r, f, a);
    if (cb.inf) return do_make_zero(f, negative, a);
    if (ca.inf) return do_make_inf(f, negative, a);
    if (ca.zero) {
        if (ca.sign != negative) BVNumber::set_bit(a, f.exponent_width + m, negative);
        return;
    }

    // The biased exponent fields still tell the subnormals apart.
    const bool a_subnormal = tmp[0].is_zero(), b_subnormal = tmp[2].is_zero();
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    get_unbiased(f, tmp[4], tmp[2], tmp[3]);
    if (a_subnormal) normalise_subnormal(f, tmp[0], tmp[1]);
    if (b_subnormal) normalise_subnormal(f, tmp[2], tmp[3]);

    // A quotient of 2m bits or more keeps a round bit above the sticky one
    // from m = 2 on; the compound operator keeps 2m for m = 1 too.
    const unsigned long shift = two_bit_ties ? 2 * m : std::max(2 * m, m + 2);
    tmp[0] -= tmp[2];
    tmp[0] -= static_cast<long>(shift - m);
    BVNumber::bit_left_shift(tmp[1], shift, &tmp[1]);
    tmp[1].divmod(tmp[3], tmp[4], tmp[2]);
    if (!tmp[2].is_zero()) {
        tmp[0] -= 1L;
        BVNumber::bit_left_shift(tmp[4], 1, &tmp[4]);
        tmp[4] += 1L;
    }
    round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[4], a);
}

/// a := a op b on packed integers of format f, exactly with QNumbers. Kept
/// out of line so that the word paths' caller stays small.
[[gnu::noinline]] void exact_op(ArithOp op, format f, RoundingContext& r, QNumber& a,
                                const QNumber& b) {
    TempNumProvider tmp;
    switch (op) {
    case ArithOp::add:
        return add_sub_float(false, tmp, f, r, a, b);
    case ArithOp::sub:
        return add_sub_float(true, tmp, f, r, a, b);
    case ArithOp::mul:
        return mul_float(tmp, f, r, a, b);
    default:
        return div_float(tmp, f, r, op == ArithOp::div_compound, a, b);
    }
}

/// exact_op on the patterns of two held values; b may be a.
[[gnu::noinline]] void exact_op(ArithOp op, format f, RoundingContext& r, Held& a, const Held& b) {
    const PackedRead y(b); // before a changes holding
    exact_op(op, f, r, number(a), *y);
    settle(a);
}

/// a := a op b on packed integers of format f: on machine words when the
/// format and both operands allow it, otherwise exactly.
template <class Packed>
void generic_op(ArithOp op, format f, RoundingContext& r, Packed& a, const Packed& b) {
    if (!try_word_op(op, f, r, a, b)) exact_op(op, f, r, a, b);
}

/// The soft-float operations of one ArithOp.
struct WordOps {
    std::uint32_t (*on_float32)(std::uint32_t, std::uint32_t, int);
    std::uint64_t (*on_float64)(std::uint64_t, std::uint64_t, int);
};

constexpr WordOps word_ops[] = {{swflt::float32_add, swflt::float64_add},
                                {swflt::float32_sub, swflt::float64_sub},
                                {swflt::float32_mul, swflt::float64_mul},
                                {swflt::float32_div, swflt::float64_div},
                                {swflt::float32_div, swflt::float64_div}};

/// x := x op y for the held values of a representation, in the direction of
/// `r`, raising the flags: words by the soft-float component's operation,
/// settled, and packed integers by generic_op. Always inlined, so that each
/// operator calls its word operations directly.
[[gnu::always_inline]] inline void compute_held(ArithOp op, IEEEFloat::Repr repr, format f,
                                                RoundingContext& r, Held& x, const Held& y) {
    const WordOps& word = word_ops[static_cast<int>(op)];
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        x.bits32 = settle_float32(word.on_float32(x.bits32, y.bits32, swflt_rounding_code(r)));
        break;
    case IEEEFloat::REPR_FLOAT64:
        x.bits64 = settle_float64(word.on_float64(x.bits64, y.bits64, swflt_rounding_code(r)));
        break;
    default:
        generic_op(op, f, r, x, y);
        raise(r.flags);
    }
}

/// x := x op y for operands not of one kind, under x's own rounding mode.
/// Out of line, so that the operators' common path stays one test.
[[gnu::noinline]] IEEEFloat& mixed_in_place(ArithOp op, IEEEFloat& x, const IEEEFloat& y) {
    RoundingContext r = RoundingContext::of_mode(x.get_rounding_mode());
    mixed_arithmetic(static_cast<int>(op), x, y, r, x);
    return x;
}

/// x := x op y under x's own rounding mode.
[[gnu::always_inline]] inline void compute_in_mode(ArithOp op, const IEEEFloat& x_value, Held& x,
                                                   const Held& y) {
    RoundingContext r = RoundingContext::of_mode(x_value.get_rounding_mode());
    compute_held(op, x_value.get_repr(), x_value.get_format(), r, x, y);
}

/// a op b in direction `direction`, as a new value with a's format,
/// representation and stored rounding mode.
IEEEFloat directed(ArithOp op, const IEEEFloat& a, const IEEEFloat& b, rounding direction) {
    RoundingContext r(direction);
    if (!same_kind(a, b)) {
        IEEEFloat mixed;
        mixed_arithmetic(static_cast<int>(op), a, b, r, mixed);
        return mixed;
    }
    IEEEFloat result(a);
    Access::arithmetic(static_cast<int>(op), result, b, r);
    return result;
}

} // namespace

void ieeefloat_detail::packed_arithmetic(int op, format f, RoundingContext& r, QNumber& a,
                                         const QNumber& b) {
    generic_op(static_cast<ArithOp>(op), f, r, a, b);
}

void Access::arithmetic(int op, IEEEFloat& x, const IEEEFloat& y, RoundingContext& r) {
    compute_held(static_cast<ArithOp>(op), x.get_repr(), x.get_format(), r, x.value, y.value);
}

IEEEFloat& IEEEFloat::operator+=(const IEEEFloat& other) {
    if (__builtin_expect(!same_kind(*this, other), 0))
        return mixed_in_place(ArithOp::add, *this, other);
    compute_in_mode(ArithOp::add, *this, value, other.value);
    return *this;
}

IEEEFloat& IEEEFloat::operator-=(const IEEEFloat& other) {
    if (__builtin_expect(!same_kind(*this, other), 0))
        return mixed_in_place(ArithOp::sub, *this, other);
    compute_in_mode(ArithOp::sub, *this, value, other.value);
    return *this;
}

IEEEFloat& IEEEFloat::operator*=(const IEEEFloat& other) {
    if (__builtin_expect(!same_kind(*this, other), 0))
        return mixed_in_place(ArithOp::mul, *this, other);
    compute_in_mode(ArithOp::mul, *this, value, other.value);
    return *this;
}

IEEEFloat& IEEEFloat::operator/=(const IEEEFloat& other) {
    if (__builtin_expect(!same_kind(*this, other), 0))
        return mixed_in_place(ArithOp::div_compound, *this, other);
    compute_in_mode(ArithOp::div_compound, *this, value, other.value);
    return *this;
}

IEEEFloat add(const IEEEFloat& a, const IEEEFloat& b, rounding r) {
    return directed(ArithOp::add, a, b, r);
}

IEEEFloat sub(const IEEEFloat& a, const IEEEFloat& b, rounding r) {
    return directed(ArithOp::sub, a, b, r);
}

IEEEFloat mul(const IEEEFloat& a, const IEEEFloat& b, rounding r) {
    return directed(ArithOp::mul, a, b, r);
}

IEEEFloat div(const IEEEFloat& a, const IEEEFloat& b, rounding r) {
    return directed(ArithOp::div, a, b, r);
}

} // namespace tarn
