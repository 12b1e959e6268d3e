// Private to the IEEEFloat units, not installed: class and sign of a value's held bits.
//
// The members is_nan, is_inf, is_zero, get_sign, set_sign and self_zero are
// these templates on the value's own fields. Units whose hot paths ask such
// questions of a value (the neighbour steps, the hexadecimal text, rounding
// to integral) call the templates directly, so that word values stay a few
// inlined instructions instead of a call into another unit per question.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/ieeefloat/internal/packed.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <cstdint>

namespace tarn::ieeefloat_detail {

inline bool held_is_inf(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_is_inf(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_is_inf(held.bits64) != 0;
    default:
        return scan_held(held, f.mantissa_width).inf(f);
    }
}

inline bool held_is_nan(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_is_nan(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_is_nan(held.bits64) != 0;
    default:
        return scan_held(held, f.mantissa_width).nan(f);
    }
}

/// Whether a NaN held in `repr` is signaling (its first mantissa bit is 0).
inline bool held_nan_is_signaling(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return ((held.bits32 >> 22) & 1) == 0;
    case IEEEFloat::REPR_FLOAT64:
        return ((held.bits64 >> 51) & 1) == 0;
    default:
        return !pattern_bit(held, f.mantissa_width - 1);
    }
}

inline bool held_is_zero(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_is_zero(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_is_zero(held.bits64) != 0;
    default:
        return scan_held(held, f.mantissa_width).zero(f);
    }
}

inline bool held_sign(IEEEFloat::Repr repr, const Held& held, format f) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return swflt::float32_sign(held.bits32) != 0;
    case IEEEFloat::REPR_FLOAT64:
        return swflt::float64_sign(held.bits64) != 0;
    default:
        return pattern_bit(held, f.exponent_width + f.mantissa_width);
    }
}

inline void set_held_sign(IEEEFloat::Repr repr, Held& held, format f, bool negative) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        held.bits32 = swflt::float32_set_sign(held.bits32, negative);
        break;
    case IEEEFloat::REPR_FLOAT64:
        held.bits64 = swflt::float64_set_sign(held.bits64, negative);
        break;
    default:
        set_pattern_bit(held, f.exponent_width + f.mantissa_width, negative);
    }
}

inline void set_held_zero(IEEEFloat::Repr repr, Held& held, format f, bool negative) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        held.bits32 = negative ? std::uint32_t{1} << 31 : 0;
        break;
    case IEEEFloat::REPR_FLOAT64:
        held.bits64 = negative ? std::uint64_t{1} << 63 : 0;
        break;
    default:
        if (f.exponent_width + f.mantissa_width >= 64) {
            do_make_zero(f, negative, number(held));
            settle(held);
        } else {
            set_pattern(held, std::uint64_t{negative} << (f.exponent_width + f.mantissa_width));
        }
    }
}

} // namespace tarn::ieeefloat_detail
