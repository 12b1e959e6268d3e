// Private to the IEEEFloat units, not installed: glue to the soft-float component.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/swflt/swflt.h"

#include <cstdint>

namespace tarn::ieeefloat_detail {

inline constexpr IEEEFloat::format binary32_format{8, 23};
inline constexpr IEEEFloat::format binary64_format{11, 52};

/// IEEEFloat::get_best_repr, inline for the units that specialise results.
inline IEEEFloat::Repr best_repr(IEEEFloat::format f) {
    if (f == binary32_format) return IEEEFloat::REPR_FLOAT32;
    if (f == binary64_format) return IEEEFloat::REPR_FLOAT64;
    return IEEEFloat::REPR_GENERIC;
}

/// The soft-float component's code for a rounding mode. Its order differs
/// from ours; an invalid mode becomes -1, which the component handles
/// without an error.
inline int swflt_rounding_code(rounding_mode mode) {
    switch (mode) {
    case IEEEFloat::ROUND_NEAREST_EVEN:
        return 0;
    case IEEEFloat::ROUND_TOWARD_ZERO:
        return 3;
    case IEEEFloat::ROUND_TOWARD_POSITIVE:
        return 2;
    case IEEEFloat::ROUND_TOWARD_NEGATIVE:
        return 1;
    }
    return -1;
}

/// Settles a binary32 result of the component: no exception state outlives
/// a library operation, and every NaN becomes the component's one NaN so that
/// results do not depend on operand payloads.
inline std::uint32_t settle_float32(std::uint32_t result) {
    swflt::float_exception_flags = 0;
    return swflt::float32_is_nan(result) ? swflt::float32_make_nan() : result;
}

/// The binary64 twin of settle_float32.
inline std::uint64_t settle_float64(std::uint64_t result) {
    swflt::float_exception_flags = 0;
    return swflt::float64_is_nan(result) ? swflt::float64_make_nan() : result;
}

/// The soft-float code of a value's rounding mode.
inline int swflt_code(const IEEEFloat& x) {
    return swflt_rounding_code(x.get_rounding_mode());
}

} // namespace tarn::ieeefloat_detail
