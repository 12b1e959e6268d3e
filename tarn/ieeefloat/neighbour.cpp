// Neighbouring values: next_representable and packed_next.
//
// For one sign, patterns read as unsigned integers run through zero, the
// subnormals, the normals, infinity and the NaNs in increasing order, so a
// step is an increment or decrement of the magnitude bits.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/numbers/bvnumber.h"

#include <cstdint>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

constexpr std::uint32_t float32_sign_bit = std::uint32_t{1} << 31;
constexpr std::uint64_t float64_sign_bit = std::uint64_t{1} << 63;
constexpr std::uint32_t float32_max_finite = 0x7F7FFFFF;
constexpr std::uint64_t float64_max_finite = 0x7FEFFFFFFFFFFFFF;

/// Steps the magnitude of a word one place away from zero or toward it,
/// keeping its sign bit.
template <class Word>
Word step_magnitude(Word bits, Word sign_bit, bool away) {
    const Word sign = bits & sign_bit;
    const Word magnitude = bits & ~sign_bit;
    return sign | static_cast<Word>(away ? magnitude + 1 : magnitude - 1);
}

} // namespace

// Stepping inward from an infinity keeps the value's own rounding mode and
// representation, like every other step: an in-place operation should not
// change how the value rounds or how it is held.
//
// A NaN stays as it is; a signaling one raises invalid, the one flag a step
// can raise: every finite value has both neighbours in the format.
void IEEEFloat::next_representable(bool up) {
    if (held_is_nan(get_repr(), value, fmt)) {
        if (held_nan_is_signaling(get_repr(), value, fmt)) raise(FLAG_INVALID);
        return;
    }
    const bool negative = held_sign(get_repr(), value, fmt);
    const unsigned long sign_bit = fmt.exponent_width + fmt.mantissa_width;
    if (held_is_zero(get_repr(), value, fmt)) {
        switch (get_repr()) {
        case REPR_FLOAT32:
            value.bits32 = 1;
            break;
        case REPR_FLOAT64:
            value.bits64 = 1;
            break;
        default:
            set_pattern(value, std::uint64_t{1});
        }
        set_held_sign(get_repr(), value, fmt, !up);
        return;
    }
    if (held_is_inf(get_repr(), value, fmt)) {
        if (up != negative) return; // already the end in that direction
        switch (get_repr()) {
        case REPR_FLOAT32:
            value.bits32 = float32_max_finite;
            break;
        case REPR_FLOAT64:
            value.bits64 = float64_max_finite;
            break;
        default: {
            if (sign_bit <= 63) {
                set_pattern(value, low_mask(sign_bit) - (std::uint64_t{1} << fmt.mantissa_width));
                break;
            }
            QNumber& packed = number(value);
            BVNumber::pow2(sign_bit, &packed);
            packed -= 1L;
            QNumber hidden;
            BVNumber::pow2(fmt.mantissa_width, &hidden);
            packed -= hidden;
        }
        }
        set_held_sign(get_repr(), value, fmt, negative);
        return;
    }
    const bool away = up != negative;
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = step_magnitude(value.bits32, float32_sign_bit, away);
        break;
    case REPR_FLOAT64:
        value.bits64 = step_magnitude(value.bits64, float64_sign_bit, away);
        break;
    default: {
        std::uint64_t word;
        if (sign_bit <= 63 && pattern_word(value, word)) {
            const std::uint64_t sign = std::uint64_t{1} << sign_bit;
            const std::uint64_t magnitude = (word & ~sign) + (away ? 1 : -1);
            set_pattern(value, negative ? magnitude | sign : magnitude);
            break;
        }
        QNumber& packed = number(value);
        BVNumber::set_bit(packed, sign_bit, false);
        packed += away ? 1L : -1L;
        BVNumber::set_bit(packed, sign_bit, negative);
        settle(value);
    }
    }
}

// The order has two ends: the positive NaN with every mantissa bit set at the
// top and the all-ones pattern at the bottom. Stepping past either leaves the
// value where it is; plain arithmetic would wrap to a zero in the word
// representations and grow a bit above the sign in the generic one, a
// pattern no other operation accepts.
void IEEEFloat::packed_next(bool up) {
    const bool negative = held_sign(get_repr(), value, fmt);
    if (held_is_zero(get_repr(), value, fmt) && up == negative) {
        // +0 down gives -0 and -0 up gives +0: the two zeros are two steps.
        set_held_zero(get_repr(), value, fmt, !negative);
        return;
    }
    const bool increment = up != negative;
    const unsigned long sign_bit = fmt.exponent_width + fmt.mantissa_width;
    switch (get_repr()) {
    case REPR_FLOAT32:
        if (increment && (value.bits32 & ~float32_sign_bit) == ~float32_sign_bit) return;
        value.bits32 = increment ? value.bits32 + 1 : value.bits32 - 1;
        break;
    case REPR_FLOAT64:
        if (increment && (value.bits64 & ~float64_sign_bit) == ~float64_sign_bit) return;
        value.bits64 = increment ? value.bits64 + 1 : value.bits64 - 1;
        break;
    default: {
        std::uint64_t word;
        if (sign_bit <= 63 && pattern_word(value, word)) {
            if (increment && (~word & low_mask(sign_bit)) == 0) return;
            set_pattern(value, increment ? word + 1 : word - 1);
            break;
        }
        QNumber& packed = number(value);
        if (increment && BVNumber::scan_bit_0(packed, 0) >= sign_bit) return;
        packed += increment ? 1L : -1L;
        settle(value);
    }
    }
}

} // namespace tarn
