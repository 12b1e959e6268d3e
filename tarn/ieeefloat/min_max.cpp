// minimum, maximum, minimum_number and maximum_number: the extremes of two
// values, -0 counting below +0, compared by value with ieee_cmp so that
// operands of different formats and representations meet on their values.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/flag_state.h"

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// b as the result of an operation whose first operand is a: itself when it
/// is held like a, otherwise converted to a's held format under a's mode
/// (the conversion raises its flags) and stored in a copy of a.
IEEEFloat as_result(const IEEEFloat& a, const IEEEFloat& b) {
    IEEEFloat result(a);
    if (b.get_format() == a.get_format() && b.get_repr() == a.get_repr()) {
        Access::held(result).assign_bits(Access::held(b));
        return result;
    }
    IEEEFloat converted(b);
    RoundingContext r = Access::context_of(a);
    Access::convert(converted, Access::held_format(a), r);
    Access::store(result, converted.get_bits());
    return result;
}

IEEEFloat extreme(const IEEEFloat& a, const IEEEFloat& b, bool maximum, bool number) {
    const bool a_nan = a.is_nan(), b_nan = b.is_nan();
    if (a_nan || b_nan) {
        if (is_signaling(a) || is_signaling(b)) raise(FLAG_INVALID);
        if (!number || (a_nan && b_nan)) return Access::nan_result(a, b);
        return b_nan ? IEEEFloat(a) : as_result(a, b);
    }
    const int order = ieee_cmp(a, b);
    // Equal values give a, except for zeros of opposite signs.
    const bool b_wins = order == 0
                            ? a.is_zero() && a.get_sign() != b.get_sign() && b.get_sign() != maximum
                            : (order < 0) == maximum;
    return b_wins ? as_result(a, b) : IEEEFloat(a);
}

} // namespace

IEEEFloat minimum(const IEEEFloat& a, const IEEEFloat& b) {
    return extreme(a, b, false, false);
}

IEEEFloat maximum(const IEEEFloat& a, const IEEEFloat& b) {
    return extreme(a, b, true, false);
}

IEEEFloat minimum_number(const IEEEFloat& a, const IEEEFloat& b) {
    return extreme(a, b, false, true);
}

IEEEFloat maximum_number(const IEEEFloat& a, const IEEEFloat& b) {
    return extreme(a, b, true, true);
}

} // namespace tarn
