// Operands of different formats or representations: the operations computed in
// a common wider format, rounding to odd, then rounded once into the first
// operand's format (see internal/mixed.h).

#include "tarn/ieeefloat/internal/mixed.h"

#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"

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
};

Source packed_source(format f, const QNumber& packed) {
    std::uint64_t word = 0;
    const bool fits = f.exponent_width <= 62 && f.exponent_width + f.mantissa_width <= 63 &&
                      as_word(packed, word);
    return {f, fits, word, &packed};
}

Source source_of(const IEEEFloat& x) {
    const auto& held = Access::held(x);
    switch (x.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        return {binary32_format, true, held.bits32, nullptr};
    case IEEEFloat::REPR_FLOAT64:
        return {binary64_format, true, held.bits64, nullptr};
    default:
        return packed_source(x.get_format(), *held.packed);
    }
}

/// The value of `s`, rounded into `to` in the direction of r, as the packed
/// integer `out`; its class is returned. A NaN becomes the library NaN of
/// `to` without a flag: the callers have judged the operands' NaNs already. A
/// format without exponent bits reads as zero, as its text does.
ValueClass convert_source(const Source& s, format to, RoundingContext& r, QNumber& out) {
    const unsigned long m = s.f.mantissa_width;
    TempNumProvider tmp;
    bool negative = false;
    ValueClass c = ValueClass::zero;
    if (s.in_word) {
        FiniteParts p;
        c = decode_word(s.word, s.f.exponent_width, m, p);
        negative = p.negative;
        if (c == ValueClass::finite) {
            const long exponent = p.exponent + static_cast<long>(to.mantissa_width);
            if (word_rounding_format(to) && exponent > -word_exponent_limit &&
                exponent < word_exponent_limit) {
                round_and_pack_word(to, r, negative, static_cast<long>(p.word), exponent, out);
                return c;
            }
            tmp[0] = QNumber(exponent);
            tmp[1] = QNumber(static_cast<long>(p.word));
        }
    } else if (s.f.exponent_width != 0) {
        bool inf, nan, zero;
        unpack_components(s.f, *s.packed, negative, tmp[0], tmp[1], tmp[4]);
        get_flags(s.f, *s.packed, inf, nan, zero);
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

/// Throws for operands of an arithmetic operation without a format, or
/// without exponent bits, whose values have no exponent to align or round.
void check_arithmetic(std::initializer_list<const IEEEFloat*> operands) {
    for (const IEEEFloat* x : operands) {
        check_has_format(*x);
        if (x->get_format().exponent_width == 0) throw_error(precision_limit_message);
    }
}

/// Whether x is a NaN, and raises invalid in r for a signaling one.
bool judge_nan(const IEEEFloat& x, RoundingContext& r) {
    const auto& held = Access::held(x);
    const IEEEFloat::Repr repr = x.get_repr();
    if (!held_is_nan(repr, held, x.get_format())) return false;
    if (held_nan_is_signaling(repr, held, x.get_format())) r.flags |= FLAG_INVALID;
    return true;
}

/// The result of a mixed operation whose first operand is `a`: rounded into
/// a's format from W's pattern `*wide` in the direction of r, with the first
/// step's invalid, divide-by-zero and inexact, then raised; a NaN without a
/// pattern when an operand is one. A NaN is the one self_nan() makes in the
/// result's representation.
IEEEFloat narrowed(const IEEEFloat& a, format w, const QNumber* wide, unsigned wide_flags,
                   RoundingContext& r) {
    const format f = a.get_format();
    IEEEFloat::Repr repr = a.get_repr();
    if (repr != IEEEFloat::REPR_GENERIC && repr != best_repr(f)) repr = best_repr(f);
    // A word rounds under a stored mode outside 0 to 3 to nearest-even, as
    // every word operation does.
    if (repr != IEEEFloat::REPR_GENERIC && r.direction == RoundingContext::invalid_direction)
        r.direction = rounding::nearest_even;
    IEEEFloat result(f, repr, a.get_rounding_mode());
    r.flags |= wide_flags & (FLAG_INVALID | FLAG_DIVBYZERO | FLAG_INEXACT);
    QNumber out;
    if (wide == nullptr || convert_source(packed_source(w, *wide), f, r, out) == ValueClass::nan) {
        result.self_nan();
    } else {
        auto& held = Access::held(result);
        std::uint64_t low = 0, high;
        BVNumber::to_words(out, &low, &high);
        if (repr == IEEEFloat::REPR_FLOAT32) held.bits32 = static_cast<std::uint32_t>(low);
        if (repr == IEEEFloat::REPR_FLOAT64) held.bits64 = low;
        if (repr == IEEEFloat::REPR_GENERIC) std::swap(*held.packed, out);
    }
    raise(r.flags);
    return result;
}

/// Rounds the W result of `compute`, which widens the operands and computes
/// in W in the direction it is given, into a's format. An exact zero sum is
/// the one result whose sign depends on the direction (-0 only downward), and
/// rounding to odd does not say downward: such a zero is computed again,
/// exactly, downward.
template <class Compute>
IEEEFloat finish(const IEEEFloat& a, format w, RoundingContext& r, bool any_nan, bool additive,
                 Compute compute) {
    if (any_nan) return narrowed(a, w, nullptr, 0, r);
    QNumber wide;
    RoundingContext odd(rounding::to_odd);
    compute(odd, wide);
    if (additive && r.downward() && scan_packed(wide, w.mantissa_width).zero(w)) {
        RoundingContext down(rounding::downward);
        compute(down, wide);
    }
    return narrowed(a, w, &wide, odd.flags, r);
}

} // namespace

void check_has_format(const IEEEFloat& x) {
    const format f = x.get_format();
    if ((f.exponent_width | f.mantissa_width) == 0) throw_error(no_format_message);
}

IEEEFloat mixed_arithmetic(int op, const IEEEFloat& a, const IEEEFloat& b, RoundingContext& r) {
    check_arithmetic({&a, &b});
    const Source sa = source_of(a), sb = source_of(b);
    const format w = common_format(a.get_format(), 2, {sa.f, sb.f});
    const bool any_nan = judge_nan(a, r) | judge_nan(b, r);
    // Addition and subtraction are ops 0 and 1; a quotient is the correctly
    // rounded one (op 3), whatever the operator.
    return finish(a, w, r, any_nan, op <= 1, [&](RoundingContext& in_w, QNumber& x) {
        QNumber y;
        convert_source(sa, w, in_w, x);
        convert_source(sb, w, in_w, y);
        packed_arithmetic(std::min(op, 3), w, in_w, x, y);
    });
}

IEEEFloat mixed_fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c,
                    RoundingContext& r) {
    check_arithmetic({&a, &b, &c});
    const Source sa = source_of(a), sb = source_of(b), sc = source_of(c);
    const format w = common_format(a.get_format(), 2, {sa.f, sb.f, sc.f});
    const bool any_nan = judge_nan(a, r) | judge_nan(b, r) | judge_nan(c, r);
    return finish(a, w, r, any_nan, true, [&](RoundingContext& in_w, QNumber& x) {
        QNumber y, z;
        convert_source(sa, w, in_w, x);
        convert_source(sb, w, in_w, y);
        convert_source(sc, w, in_w, z);
        packed_fma(w, in_w, x, y, z);
    });
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
