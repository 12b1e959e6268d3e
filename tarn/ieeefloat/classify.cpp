// Operations on the class and sign bit alone (classify, is_signaling, abs,
// copysign), and what the general operations of two values share: the layout
// of held bits, the rounding of a word, the NaN result, the exact split.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"

namespace tarn {

using namespace ieeefloat_detail;

format Access::held_format(const IEEEFloat& x) {
    switch (x.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        return binary32_format;
    case IEEEFloat::REPR_FLOAT64:
        return binary64_format;
    default:
        return x.fmt;
    }
}

void Access::store(IEEEFloat& x, const QNumber& bits) {
    switch (x.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        x.value.bits32 = static_cast<std::uint32_t>(low_64_bits(bits));
        break;
    case IEEEFloat::REPR_FLOAT64:
        x.value.bits64 = low_64_bits(bits);
        break;
    default:
        set_pattern(x.value, bits);
    }
}

void Access::store(IEEEFloat& x, std::uint64_t bits) {
    if (x.get_repr() == IEEEFloat::REPR_GENERIC)
        set_pattern(x.value, bits);
    else if (x.get_repr() == IEEEFloat::REPR_FLOAT32)
        x.value.bits32 = static_cast<std::uint32_t>(bits);
    else
        x.value.bits64 = bits;
}

bool Access::word_pattern(format f) {
    return f.exponent_width >= 2 && f.exponent_width <= 32 &&
           f.exponent_width + f.mantissa_width <= 63;
}

RoundingContext Access::context_of(const IEEEFloat& x) {
    RoundingContext r = RoundingContext::of_mode(x.get_rounding_mode());
    if (x.get_repr() != IEEEFloat::REPR_GENERIC &&
        r.direction == RoundingContext::invalid_direction)
        return RoundingContext(rounding::nearest_even);
    return r;
}

IEEEFloat Access::nan_result(const IEEEFloat& a, const IEEEFloat& b) {
    IEEEFloat result(a);
    const bool generic = a.get_repr() == IEEEFloat::REPR_GENERIC;
    if (generic && a.is_nan()) return result;
    if (generic && b.get_repr() == IEEEFloat::REPR_GENERIC && b.fmt == a.fmt)
        result.value.assign_bits(b.value);
    else
        result.self_nan();
    return result;
}

ValueClass Access::split(const IEEEFloat& x, bool& negative, QNumber& exponent,
                         QNumber& significand) {
    const format f = held_format(x);
    negative = x.get_sign();
    if (f.exponent_width == 0) return ValueClass::zero; // no bias, no value but zero
    const QNumber packed = x.get_bits();
    bool inf, nan, zero;
    get_flags(f, packed, inf, nan, zero);
    if (nan || inf || zero)
        return nan ? ValueClass::nan : inf ? ValueClass::infinite : ValueClass::zero;
    QNumber scratch;
    unpack_components(f, packed, negative, exponent, significand, scratch);
    get_unbiased(f, f.bias(), exponent, significand);
    return ValueClass::finite;
}

bool is_signaling(const IEEEFloat& x) {
    const auto& held = Access::held(x);
    return held_is_nan(x.get_repr(), held, x.get_format()) &&
           held_nan_is_signaling(x.get_repr(), held, x.get_format());
}

fp_class classify(const IEEEFloat& x) {
    if (x.is_nan()) return is_signaling(x) ? fp_class::signaling_nan : fp_class::quiet_nan;
    const bool negative = x.get_sign();
    if (x.is_inf()) return negative ? fp_class::negative_infinity : fp_class::positive_infinity;
    if (x.is_zero()) return negative ? fp_class::negative_zero : fp_class::positive_zero;
    if (x.is_subnormal())
        return negative ? fp_class::negative_subnormal : fp_class::positive_subnormal;
    return negative ? fp_class::negative_normal : fp_class::positive_normal;
}

IEEEFloat abs(const IEEEFloat& x) {
    IEEEFloat result(x);
    result.set_sign(false);
    return result;
}

IEEEFloat copysign(const IEEEFloat& x, const IEEEFloat& y) {
    IEEEFloat result(x);
    result.set_sign(y.get_sign());
    return result;
}

} // namespace tarn
