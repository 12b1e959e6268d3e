// Operands of different formats or representations: the operations computed in
// a common wider format, rounding to odd, then rounded once into the first
// operand's format (see internal/mixed.h).

#include "tarn/ieeefloat/internal/mixed.h"

#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <utility>

namespace tarn::ieeefloat_detail {

namespace {

/// A pattern as the mixed operations read it, in its own layout: the words of
/// the binary32 and binary64 representations in theirs, whatever the format
/// says, as every word operation reads them. Patterns of up to 63 bits are in
/// `word`, wider ones in `*packed`.
struct Source {
    format f;
    bool in_word;
    std::uint64_t word;
    const QNumber* packed;
    /// The pattern when a wide format's value holds it as a word.
    QNumber copy;

    const QNumber& number() const { return packed ? *packed : copy; }
};

Source packed_source(format f, const QNumber& packed) {
    std::uint64_t word = 0;
    const bool fits = f.exponent_width <= 62 && f.exponent_width + f.mantissa_width <= 63 &&
                      as_word(packed, word);
    return {f, fits, word, &packed, QNumber()};
}

Source source_of(const IEEEFloat& x) {
    const auto& held = Access::held(x);
    switch (x.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        return {binary32_format, true, held.bits32, nullptr, QNumber()};
    case IEEEFloat::REPR_FLOAT64:
        return {binary64_format, true, held.bits64, nullptr, QNumber()};
    default:
        const format f = x.get_format();
        if (!held.wide) return packed_source(f, held.packed);
        if (f.exponent_width <= 62 && f.exponent_width + f.mantissa_width <= 63)
            return {f, true, held.bits64, nullptr, QNumber()};
        return {f, false, 0, nullptr, integer_from_word(held.bits64)};
    }
}

/// The value of `s`, rounded into `to` in the direction of r, as the packed
/// integer `out`; its class is returned. A NaN becomes the library NaN of
/// `to` without a flag: the callers have judged the operands' NaNs already. A
/// format without exponent bits reads as zero, as its text does. Out of line:
/// it is the slow path of every step.
[[gnu::noinline]] ValueClass convert_source(const Source& s, format to, RoundingContext& r,
                                            QNumber& out) {
    const unsigned long m = s.f.mantissa_width;
    FiniteParts p;
    ValueClass c = ValueClass::zero;
    long exponent = 0;
    if (s.in_word) {
        c = decode_word(s.word, s.f.exponent_width, m, p);
        exponent = p.exponent + static_cast<long>(to.mantissa_width);
        if (c == ValueClass::finite && word_rounding_format(to) &&
            exponent > -word_exponent_limit && exponent < word_exponent_limit) {
            round_and_pack_word(to, r, p.negative, static_cast<long>(p.word), exponent, out);
            return c;
        }
    }
    TempNumProvider tmp;
    bool negative = p.negative;
    if (s.in_word) {
        if (c == ValueClass::finite) {
            tmp[0] = QNumber(exponent);
            tmp[1] = QNumber(static_cast<long>(p.word));
        }
    } else if (s.f.exponent_width != 0) {
        bool inf, nan, zero;
        unpack_components(s.f, s.number(), negative, tmp[0], tmp[1], tmp[4]);
        get_flags(s.f, s.number(), inf, nan, zero);
        c = nan    ? ValueClass::nan
            : inf  ? ValueClass::infinite
            : zero ? ValueClass::zero
                   : ValueClass::finite;
        if (c == ValueClass::finite) {
            tmp[4] = s.f.bias();
            get_unbiased(s.f, tmp[4], tmp[0], tmp[1]);
            tmp[0] -= static_cast<long>(m);
            tmp[0] += static_cast<long>(to.mantissa_width);
        }
    }
    switch (c) {
    case ValueClass::finite:
        round_and_pack_float(tmp, to, r, negative, tmp[0], tmp[1], out);
        break;
    case ValueClass::nan:
        do_make_nan(to, out);
        break;
    case ValueClass::infinite:
        do_make_inf(to, negative, out);
        break;
    case ValueClass::zero:
        do_make_zero(to, negative, out);
    }
    return c;
}

/// The exact pattern of `s`, not a NaN, in W, a format of the mixed arithmetic.
/// Every finite value of `s` is normal in W, so a word pattern is widened by
/// moving its leading bit to the hidden place, without the rounding core.
void widen(const Source& s, format w, QNumber& out) {
    if (!s.in_word || !one_word_format(w)) {
        RoundingContext exact(rounding::toward_zero);
        convert_source(s, w, exact, out);
        return;
    }
    const WordFormat<std::uint64_t> ws(s.f), ww(w);
    const WordOperand<std::uint64_t> o = unpack(ws, s.word);
    std::uint64_t bits = ww.signed_zero(o.sign);
    if (o.inf) {
        bits |= ww.inf(false);
    } else if (!o.zero) {
        const int top = bit_length(o.sig) - 1;
        const long biased = o.exp - static_cast<long>(ws.m) + top + ww.bias;
        bits |= static_cast<std::uint64_t>(biased) << ww.m |
                ((o.sig << (static_cast<int>(ww.m) - top)) & ww.mantissa_mask());
    }
    write_packed(bits, out);
}

/// The pattern of W's `wide`, rounded into `f` in the direction of r, into
/// `out`, as convert_source rounds it; on words when both formats allow it (not
/// for one exponent bit, where the rounding core turns a carry into overflow).
ValueClass round_from_wide(format w, const QNumber& wide, format f, RoundingContext& r,
                           QNumber& out) {
    std::uint64_t bits;
    const unsigned long e = f.exponent_width;
    if (!one_word_format(w) || e < 2 || e > 62 || e + f.mantissa_width > 63 || !as_word(wide, bits))
        return convert_source(packed_source(w, wide), f, r, out);
    const WordFormat<std::uint64_t> ww(w), wf(f);
    const WordOperand<std::uint64_t> o = unpack(ww, bits);
    if (o.nan) return ValueClass::nan;
    const std::uint64_t magnitude =
        o.inf    ? wf.inf(false)
        : o.zero ? 0
                 : round_bits<std::uint64_t, std::uint64_t>(wf, r, o.sign, o.sig,
                                                            o.exp - static_cast<long>(ww.m) + wf.m);
    store_packed(f, o.sign, magnitude, out);
    return ValueClass::finite;
}

/// A format that holds every value of `formats` exactly. With `extra` > 0 it
/// has also `extra` more mantissa bits than `first` and so much more exponent
/// range that every result within `first`'s range, down to a quarter of its
/// smallest subnormal, is normal in it: its bias is at least the largest bias
/// plus m_first + 2, and its largest value lies far beyond first's.
format common_format(format first, unsigned long extra, std::initializer_list<format> formats) {
    unsigned long e = first.exponent_width, m = first.mantissa_width + extra;
    for (const format f : formats) {
        e = std::max(e, f.exponent_width);
        m = std::max(m, f.mantissa_width);
    }
    const unsigned long widest = e;
    if (extra > 0) ++e;
    // Exponent fields of 62 bits and more have biases far beyond any mantissa width.
    while (extra > 0 && widest < 62 && e < 63 &&
           (1UL << (e - 1)) < (1UL << (widest - 1)) + first.mantissa_width + extra)
        ++e;
    return {std::max(e, 2UL), m};
}

/// Whether an operand of an arithmetic operation is a NaN, raising invalid in
/// r for a signaling one (first mantissa bit 0). Throws for an operand without
/// a format, or without exponent bits: its values have no exponent to align.
bool judge_operands(RoundingContext& r, std::initializer_list<const IEEEFloat*> operands) {
    bool nan = false;
    for (const IEEEFloat* x : operands) {
        check_has_format(*x);
        const format f = x->get_format();
        if (f.exponent_width == 0) throw_error(precision_limit_message);
        const auto& held = Access::held(*x);
        if (!held_is_nan(x->get_repr(), held, f)) continue;
        nan = true;
        if (held_nan_is_signaling(x->get_repr(), held, f)) r.flags |= FLAG_INVALID;
    }
    return nan;
}

/// Writes the result of a mixed operation whose first operand is `a` into
/// `target` (a itself or another value): rounded into a's format from W's
/// pattern `*wide` in the direction of r, with the first step's invalid,
/// divide-by-zero and inexact, then raised; a NaN without a pattern when an
/// operand is one. A NaN is the one self_nan() makes in the result's
/// representation. On an error nothing is written.
void narrow(const IEEEFloat& a, format w, const QNumber* wide, unsigned wide_flags,
            RoundingContext& r, IEEEFloat& target) {
    const format f = a.get_format();
    IEEEFloat::Repr repr = a.get_repr();
    if (repr != IEEEFloat::REPR_GENERIC && repr != best_repr(f)) repr = best_repr(f);
    // A word rounds under a stored mode outside 0 to 3 to nearest-even, as
    // every word operation does.
    if (repr != IEEEFloat::REPR_GENERIC && r.direction == RoundingContext::invalid_direction)
        r.direction = rounding::nearest_even;
    r.flags |= wide_flags & (FLAG_INVALID | FLAG_DIVBYZERO | FLAG_INEXACT);
    // A generic result is rounded straight into the target's number, which
    // the rounding writes only once nothing can fail.
    const bool ready = target.get_format() == f && target.get_repr() == repr;
    QNumber local;
    QNumber& out = ready && repr == IEEEFloat::REPR_GENERIC ? number(Access::held(target)) : local;
    const bool nan = wide == nullptr || round_from_wide(w, *wide, f, r, out) == ValueClass::nan;
    if (!ready) target = IEEEFloat(f, repr, a.get_rounding_mode());
    auto& held = Access::held(target);
    std::uint64_t low = 0, high;
    if (nan)
        target.self_nan();
    else if (repr == IEEEFloat::REPR_GENERIC && !ready)
        std::swap(number(held), local);
    else if (repr == IEEEFloat::REPR_FLOAT32 && BVNumber::to_words(local, &low, &high))
        held.bits32 = static_cast<std::uint32_t>(low);
    else if (repr == IEEEFloat::REPR_FLOAT64 && BVNumber::to_words(local, &low, &high))
        held.bits64 = low;
    if (repr == IEEEFloat::REPR_GENERIC) settle(held);
    raise(r.flags);
}

/// Rounds the W result of `compute`, which widens the operands and computes
/// in W in the direction it is given, into a's format. An exact zero sum is
/// the one result whose sign depends on the direction (-0 only downward), and
/// rounding to odd does not say downward: such a zero is computed again,
/// exactly, downward.
template <class Compute>
void finish(const IEEEFloat& a, format w, RoundingContext& r, bool any_nan, bool additive,
            IEEEFloat& target, Compute compute) {
    if (any_nan) return narrow(a, w, nullptr, 0, r, target);
    QNumber wide;
    RoundingContext odd(rounding::to_odd);
    compute(odd, wide);
    if (additive && r.downward() && scan_packed(wide, w.mantissa_width).zero(w)) {
        RoundingContext down(rounding::downward);
        compute(down, wide);
    }
    narrow(a, w, &wide, odd.flags, r, target);
}

} // namespace

void check_has_format(const IEEEFloat& x) {
    const format f = x.get_format();
    if ((f.exponent_width | f.mantissa_width) == 0) throw_error(no_format_message);
}

// Flattened, so that the word steps (widening, the operation's entry, the
// rounding into a's format) run as one body: a mixed binary16 + binary32 then
// costs less than twice a binary16 sum. The exact conversions stay out of line.
[[gnu::flatten]] void mixed_arithmetic(int op, const IEEEFloat& a, const IEEEFloat& b,
                                       RoundingContext& r, IEEEFloat& result) {
    const bool any_nan = judge_operands(r, {&a, &b});
    const Source sa = source_of(a), sb = source_of(b);
    const format w = common_format(a.get_format(), 2, {sa.f, sb.f});
    // Addition and subtraction are ops 0 and 1; a quotient is the correctly
    // rounded one (op 3), whatever the operator.
    finish(a, w, r, any_nan, op <= 1, result, [&](RoundingContext& in_w, QNumber& x) {
        QNumber y;
        widen(sa, w, x);
        widen(sb, w, y);
        packed_arithmetic(std::min(op, 3), w, in_w, x, y);
    });
}

IEEEFloat mixed_fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c,
                    RoundingContext& r) {
    IEEEFloat result;
    const bool any_nan = judge_operands(r, {&a, &b, &c});
    const Source sa = source_of(a), sb = source_of(b), sc = source_of(c);
    const format w = common_format(a.get_format(), 2, {sa.f, sb.f, sc.f});
    finish(a, w, r, any_nan, true, result, [&](RoundingContext& in_w, QNumber& x) {
        QNumber y, z;
        widen(sa, w, x);
        widen(sb, w, y);
        widen(sc, w, z);
        packed_fma(w, in_w, x, y, z);
    });
    return result;
}

format widen_pair(const IEEEFloat& a, const IEEEFloat& b, QNumber& x, QNumber& y) {
    const Source sa = source_of(a), sb = source_of(b);
    const format w = common_format(sa.f, 0, {sb.f});
    RoundingContext exact(rounding::toward_zero);
    convert_source(sa, w, exact, x);
    convert_source(sb, w, exact, y);
    return w;
}

} // namespace tarn::ieeefloat_detail
