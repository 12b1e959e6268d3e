// Private to the IEEEFloat units, not installed: class and sign of a value's held bits.
//
// The members is_nan, is_inf, is_zero, get_sign, set_sign and self_zero are
// these templates on the value's own fields. Units whose hot paths ask such
// questions of a value (the neighbour steps, the hexadecimal text, rounding
// to integral) call the templates directly, so that word values stay a few
// inlined instructions instead of a call into another unit per question.
// `Held` is IEEEFloat's union of held bits, deduced from the member the
// caller passes.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <cstdint>

namespace tarn::ieeefloat_detail {

template <class Held>
inline bool held_is_inf(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_is_inf(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_is_inf(held.bits64) != 0;
    default:
        return scan_packed(*held.packed, f.mantissa_width).inf(f);
    }
}

template <class Held>
inline bool held_is_nan(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_is_nan(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_is_nan(held.bits64) != 0;
    default:
        return scan_packed(*held.packed, f.mantissa_width).nan(f);
    }
}

/// Whether a NaN held in `repr` is signaling (its first mantissa bit is 0).
template <class Held>
inline bool held_nan_is_signaling(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return ((held.bits32 >> 22) & 1) == 0;
    case IEEEFloat::REPR_FLOAT64:
        return ((held.bits64 >> 51) & 1) == 0;
    default:
        return nan_is_signaling(f, *held.packed);
    }
}

template <class Held>
inline bool held_is_zero(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_is_zero(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_is_zero(held.bits64) != 0;
    default:
        return scan_packed(*held.packed, f.mantissa_width).zero(f);
    }
}

template <class Held>
inline bool held_sign(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_sign(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_sign(held.bits64) != 0;
    default:
        return BVNumber::test_bit(*held.packed, f.exponent_width + f.mantissa_width);
    }
}

template <class Held>
inline void set_held_sign(IEEEFloat::Repr repr, Held& held, format f, bool negative) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        held.bits32 = swflt::float32_set_sign(held.bits32, negative);
        break;
    case IEEEFloat::REPR_FLOAT64:
        held.bits64 = swflt::float64_set_sign(held.bits64, negative);
        break;
    default:
        BVNumber::set_bit(*held.packed, f.exponent_width + f.mantissa_width, negative);
    }
}

template <class Held>
inline void set_held_zero(IEEEFloat::Repr repr, Held& held, format f, bool negative) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        held.bits32 = negative ? std::uint32_t{1} << 31 : 0;
        break;
    case IEEEFloat::REPR_FLOAT64:
        held.bits64 = negative ? std::uint64_t{1} << 63 : 0;
        break;
    default:
        do_make_zero(f, negative, *held.packed);
    }
}

} // namespace tarn::ieeefloat_detail
