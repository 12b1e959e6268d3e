// Private to the IEEEFloat units, not installed: the held bits of a value for the free
// operations (the explicit-direction ones, fma, the integer conversions), which are
// IEEEFloat's friends through this one struct rather than one declaration each.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/rounding.h"

namespace tarn::ieeefloat_detail {

struct Access {
    /// The union of held bits; which member is live is given by get_repr().
    template <class Value>
    static auto& held(Value& x) {
        return x.value;
    }

    /// Throws "reached limit on float precision" for a format wider than
    /// IEEEFloat::max_width: called wherever a value of a format comes into being.
    static void check_widths(IEEEFloat::format f);

    /// x := x op y in the direction of `r`, raising its flags; `op` is an
    /// ArithOp of the arithmetic unit.
    static void arithmetic(int op, IEEEFloat& x, const IEEEFloat& y, RoundingContext& r);
    /// x := sqrt(x) in the direction of `r`, raising its flags.
    static void square_root(IEEEFloat& x, RoundingContext& r);
    /// Converts x to `f` in the direction of `r`, raising its flags.
    static void convert(IEEEFloat& x, IEEEFloat::format f, RoundingContext& r);
    /// `q` rounded to `f` in the direction of `r`, stored mode `mode`, raising its flags.
    static IEEEFloat from_number(const QNumber& q, IEEEFloat::format f, rounding_mode mode,
                                 RoundingContext& r);
};

} // namespace tarn::ieeefloat_detail
