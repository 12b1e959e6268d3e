// Rounding to an integral value of the same format: round_to_integral and round.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"

#include <cstdint>
#include <utility>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// The pattern `bits` of the value p (format with m mantissa bits, the given
/// bias and sign bit), whose lowest significand bit weighs 2^-s with s >= 1,
/// with its magnitude replaced by the integer n it rounds to. When s <= m the
/// low s bits of the pattern are those of the significand: clearing them
/// truncates, and adding 2^s steps to the next integer, a carry out of the
/// mantissa field landing on the next binade or, past the largest finite
/// value, on infinity, as rounding the integer back into the format would.
/// Otherwise the value lies below 1 and n is 0 or 1.
template <class Bits>
Bits integral_pattern(Bits bits, const FiniteParts& p, unsigned long m, long bias,
                      unsigned long sign_bit, std::uint64_t n) {
    const auto s = static_cast<unsigned long>(-p.exponent);
    if (s <= m)
        return (bits & ~static_cast<Bits>(low_mask(s))) +
               static_cast<Bits>((n - (p.word >> s)) << s);
    const Bits one = n != 0 ? static_cast<Bits>(static_cast<Bits>(bias) << m) : Bits{0};
    return (bits & static_cast<Bits>(Bits{1} << sign_bit)) | one;
}

/// Rounds x in place to an integral value in direction `dir`, keeping its
/// format, representation and stored mode. Returns the flags: invalid for a
/// signaling NaN, inexact when the value changed.
unsigned round_in_place(IEEEFloat& x, rounding dir) {
    auto& held = Access::held(x);
    const format f = x.get_format();
    const IEEEFloat::Repr repr = x.get_repr();
    FiniteParts p;
    switch (decode_value(repr, held, f, p)) {
    case ValueClass::nan:
        return held_nan_is_signaling(repr, held, f) ? FLAG_INVALID : 0;
    case ValueClass::finite:
        break;
    default:
        return 0; // zeros and infinities
    }
    // A value whose lowest significand bit weighs 1 or more is integral.
    if (p.exponent >= 0) return 0;
    RoundedMagnitude n;
    round_magnitude(p, dir, false, n);
    if (!n.inexact) return 0;
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    std::uint64_t word;
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        held.bits32 = integral_pattern(held.bits32, p, 23, 127, 31, n.word);
        break;
    case IEEEFloat::REPR_FLOAT64:
        held.bits64 = integral_pattern(held.bits64, p, 52, 1023, 63, n.word);
        break;
    default:
        if (e <= 62 && e + m <= 63 && pattern_word(held, word)) {
            const long bias = static_cast<long>(low_mask(e - 1));
            set_pattern(held, integral_pattern(word, p, m, bias, e + m, n.word));
            break;
        }
        // Wider patterns: the integer, below 2^(m + 1) here, rounded back into
        // the format as from_number would; only a format whose largest finite
        // value is not an integer can make that inexact.
        QNumber integer = n.in_word ? integer_from_word(n.word) : QNumber(n.wide);
        if (p.negative) integer.self_neg();
        RoundingContext back(dir);
        IEEEFloat result = Access::from_number(integer, f, x.get_rounding_mode(), back);
        if (result.is_zero()) result.set_sign(p.negative);
        result.self_specialize_repr(repr);
        x = std::move(result);
    }
    return FLAG_INEXACT;
}

} // namespace

IEEEFloat round_to_integral(const IEEEFloat& x, rounding r, bool exact) {
    IEEEFloat result(x);
    const unsigned flags = round_in_place(result, r);
    raise(exact ? flags : flags & FLAG_INVALID);
    return result;
}

IEEEFloat round(const IEEEFloat& x) {
    IEEEFloat result(x);
    raise(round_in_place(result, integer_direction(x.get_rounding_mode())) & FLAG_INVALID);
    // Finite values come back in the format's usual representation, as
    // from_number would deliver them.
    if (!x.is_zero() && !x.is_inf() && !x.is_nan()) result.self_specialize_repr(best_repr(x.fmt));
    return result;
}

} // namespace tarn
