// Private to the IEEEFloat units, not installed: glue to the soft-float component.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/rounding.h"
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

/// The soft-float component's code for a rounding direction. Its order
/// differs from ours; a stored mode outside 0 to 3 becomes -1, which the
/// component rounds to nearest even without an error.
inline int swflt_rounding_code(const RoundingContext& r) {
    switch (r.direction) {
    case rounding::nearest_even:
        return swflt::round_nearest_even;
    case rounding::toward_zero:
        return swflt::round_toward_zero;
    case rounding::upward:
        return swflt::round_toward_positive;
    case rounding::downward:
        return swflt::round_toward_negative;
    case rounding::nearest_away:
        return swflt::round_nearest_away;
    case rounding::to_odd:
        return swflt::round_to_odd;
    }
    return -1;
}

/// Moves the component's flags to the library's: the bits are the same, and
/// no exception state of the component outlives a library operation.
inline void take_swflt_flags() {
    raise(swflt::float_exception_flags);
    swflt::float_exception_flags = 0;
}

/// Settles a binary32 result of the component: its flags become the
/// library's, and every NaN becomes the component's one NaN so that results
/// do not depend on operand payloads.
inline std::uint32_t settle_float32(std::uint32_t result) {
    take_swflt_flags();
    return swflt::float32_is_nan(result) ? swflt::float32_make_nan() : result;
}

/// The binary64 twin of settle_float32.
inline std::uint64_t settle_float64(std::uint64_t result) {
    take_swflt_flags();
    return swflt::float64_is_nan(result) ? swflt::float64_make_nan() : result;
}

} // namespace tarn::ieeefloat_detail
