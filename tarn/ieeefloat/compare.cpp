// Comparison: <, <=, ==, !=, >, >= and ieee_cmp.
//
// binary32 and binary64 values are compared by the soft-float component.
// Generic values are compared on their packed integers: for one sign the
// pattern grows with the magnitude, so after the NaN test only the signs and
// the pair of zeros need a look before a single integer comparison. Values of
// different formats or representations are first widened exactly into one
// generic format that holds both, and compared there the same way.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/mixed.h"
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

/// packed_order of two held patterns, on words when both are.
int held_order(format f, const Held& x, const Held& y) {
    std::uint64_t a, b;
    if (!pattern_word(x, a) || !pattern_word(y, b)) {
        const PackedRead a_number(x), b_number(y);
        return packed_order(f, *a_number, *b_number);
    }
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    const bool a_negative = sign_bit < 64 && ((a >> sign_bit) & 1) != 0;
    const bool b_negative = sign_bit < 64 && ((b >> sign_bit) & 1) != 0;
    if (a_negative != b_negative) {
        const unsigned long m = f.mantissa_width;
        if (scan_two_words(a, 0, m).zero(f) && scan_two_words(b, 0, m).zero(f)) return 0;
        return a_negative ? -1 : 1;
    }
    const int order = (a > b) - (a < b);
    return a_negative ? -order : order;
}

/// Raises invalid for a comparison with a NaN operand, whose held values are
/// `x` and `y`: any NaN for the ordering predicates (`signaling`), only a
/// signaling one for equality and the quiet three-way comparison.
void raise_for_nans(const IEEEFloat& a, const IEEEFloat& b, const Held& x, const Held& y,
                    bool signaling) {
    const auto is_signaling = [](const IEEEFloat& v, const Held& held) {
        return held_is_nan(v.get_repr(), held, v.get_format()) &&
               held_nan_is_signaling(v.get_repr(), held, v.get_format());
    };
    if (signaling || is_signaling(a, x) || is_signaling(b, y)) raise(FLAG_INVALID);
}

/// The order of a and b, not of one kind, as packed_order gives it, or -2
/// when they are unordered, raising invalid as `signaling` says.
int mixed_order(const IEEEFloat& a, const IEEEFloat& b, bool signaling) {
    check_has_format(a);
    check_has_format(b);
    if (a.is_nan() || b.is_nan()) {
        raise_for_nans(a, b, Access::held(a), Access::held(b), signaling);
        return -2;
    }
    QNumber x, y;
    const format w = widen_pair(a, b, x, y);
    return packed_order(w, x, y);
}

/// One comparison of a and b, whose held values are `x` and `y`: on words the
/// soft-float component's predicate, on packed integers the order of the two
/// values, which `holds` turns into the answer. A NaN operand makes every
/// comparison false and raises invalid as `signaling` says.
template <class Holds>
bool compare_held(const IEEEFloat& a, const IEEEFloat& b, const Held& x, const Held& y,
                  bool signaling, std::uint8_t (*on_float32)(std::uint32_t, std::uint32_t),
                  std::uint8_t (*on_float64)(std::uint64_t, std::uint64_t), Holds holds) {
    if (!same_kind(a, b)) {
        const int order = mixed_order(a, b, signaling);
        return order != -2 && holds(order);
    }
    bool result;
    switch (a.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        result = on_float32(x.bits32, y.bits32) != 0;
        break;
    case IEEEFloat::REPR_FLOAT64:
        result = on_float64(x.bits64, y.bits64) != 0;
        break;
    default:
        if (a.is_nan() || b.is_nan()) {
            raise_for_nans(a, b, x, y, signaling);
            return false;
        }
        return holds(held_order(a.get_format(), x, y));
    }
    // The component's predicates all signal on any NaN; equality is quiet.
    if (swflt::float_exception_flags != 0) {
        swflt::float_exception_flags = 0;
        raise_for_nans(a, b, x, y, signaling);
    }
    return result;
}

} // namespace

bool operator<(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, true, swflt::float32_lt, swflt::float64_lt,
                        [](int order) { return order < 0; });
}

bool operator<=(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, true, swflt::float32_le, swflt::float64_le,
                        [](int order) { return order <= 0; });
}

bool operator==(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, false, swflt::float32_eq_signaling,
                        swflt::float64_eq_signaling, [](int order) { return order == 0; });
}

bool operator!=(const IEEEFloat& a, const IEEEFloat& b) {
    return !(a == b);
}

bool operator>(const IEEEFloat& a, const IEEEFloat& b) {
    return b < a;
}

bool operator>=(const IEEEFloat& a, const IEEEFloat& b) {
    return b <= a;
}

int ieee_cmp(const IEEEFloat& a, const IEEEFloat& b) {
    if (!same_kind(a, b)) return mixed_order(a, b, false);
    if (a.is_nan() || b.is_nan()) {
        raise_for_nans(a, b, a.value, b.value, false);
        return -2;
    }
    if (a.get_repr() >= IEEEFloat::REPR_GENERIC) return held_order(a.fmt, a.value, b.value);
    // Neither is a NaN, so the predicates raise nothing.
    if (a < b) return -1;
    if (b < a) return 1;
    return 0;
}

} // namespace tarn
