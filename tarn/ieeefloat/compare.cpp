// Comparison: <, <=, == and ieee_cmp.
//
// binary32 and binary64 values are compared by the soft-float component.
// Generic values are compared on their packed integers: for one sign the
// pattern grows with the magnitude, so after the NaN test only the signs and
// the pair of zeros need a look before a single integer comparison.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <cstdint>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// The order of two generic values neither of which is a NaN: -1, 0 or 1 as a
/// lies below, on or above b, with +0 and -0 equal.
int packed_order(format f, const QNumber& a, const QNumber& b) {
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    const bool a_negative = BVNumber::test_bit(a, sign_bit);
    const bool b_negative = BVNumber::test_bit(b, sign_bit);
    if (a_negative != b_negative) {
        const unsigned long m = f.mantissa_width;
        if (scan_packed(a, m).zero(f) && scan_packed(b, m).zero(f)) return 0;
        return a_negative ? -1 : 1;
    }
    const int order = cmp(a, b);
    return a_negative ? -order : order;
}

/// One comparison of a and b, whose held values are `x` and `y`: on words the
/// soft-float component's predicate, after which its exception byte is
/// cleared; on packed integers the order of the two values, which `holds`
/// turns into the answer. A NaN operand makes every comparison false.
template <class Held, class Holds>
bool compare_held(const IEEEFloat& a, const IEEEFloat& b, const Held& x, const Held& y,
                  std::uint8_t (*on_float32)(std::uint32_t, std::uint32_t),
                  std::uint8_t (*on_float64)(std::uint64_t, std::uint64_t), Holds holds) {
    bool result;
    switch (a.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        result = on_float32(x.bits32, y.bits32) != 0;
        break;
    case IEEEFloat::REPR_FLOAT64:
        result = on_float64(x.bits64, y.bits64) != 0;
        break;
    default:
        if (a.is_nan() || b.is_nan()) return false;
        return holds(packed_order(a.get_format(), *x.packed, *y.packed));
    }
    swflt::float_exception_flags = 0;
    return result;
}

} // namespace

bool operator<(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, swflt::float32_lt, swflt::float64_lt,
                        [](int order) { return order < 0; });
}

bool operator<=(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, swflt::float32_le, swflt::float64_le,
                        [](int order) { return order <= 0; });
}

bool operator==(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, swflt::float32_eq_signaling,
                        swflt::float64_eq_signaling, [](int order) { return order == 0; });
}

int ieee_cmp(const IEEEFloat& a, const IEEEFloat& b) {
    if (a.get_repr() >= IEEEFloat::REPR_GENERIC) {
        // One pass instead of up to three comparisons: the answers coincide.
        if (a.is_nan() || b.is_nan()) return -2;
        return packed_order(a.fmt, *a.value.packed, *b.value.packed);
    }
    if (a < b) return -1;
    if (b < a) return 1;
    if (a == b) return 0;
    return -2;
}

} // namespace tarn
