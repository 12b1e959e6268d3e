// Conversions between values and the fixed-width integer types.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"

#include <cstdint>
#include <limits>
#include <type_traits>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// The result of an invalid conversion to Int: the most negative value, or all ones.
template <class Int>
Int invalid_integer() {
    using Limits = std::numeric_limits<Int>;
    raise(FLAG_INVALID);
    return Limits::is_signed ? Limits::min() : Limits::max();
}

/// (-1)^negative * magnitude as Int, when the magnitude is known (`in_word`)
/// and within the range of the sign; -0 is fine for unsigned types.
template <class Int>
Int to_range(bool negative, bool in_word, std::uint64_t magnitude, bool inexact, bool exact) {
    using Limits = std::numeric_limits<Int>;
    const auto positive_limit = static_cast<std::uint64_t>(Limits::max());
    const std::uint64_t limit =
        negative ? (Limits::is_signed ? positive_limit + 1 : 0) : positive_limit;
    if (!in_word || magnitude > limit) return invalid_integer<Int>();
    if (exact && inexact) raise(FLAG_INEXACT);
    using Unsigned = std::make_unsigned_t<Int>;
    const auto m = static_cast<Unsigned>(magnitude);
    return static_cast<Int>(negative ? static_cast<Unsigned>(0 - m) : m);
}

/// A binary32 or binary64 word rounded to Int, unpacked and rounded in
/// registers.
template <class Int, class Bits>
Int word_to_fixed(Bits bits, format f, rounding r, bool exact) {
    const WordFormat<Bits> wf(f);
    const WordOperand<Bits> o = unpack(wf, bits);
    if (o.nan || o.inf) return invalid_integer<Int>();
    if (o.zero) return 0;
    std::uint64_t magnitude = 0;
    bool inexact = false;
    const bool in_word =
        round_word_magnitude(o.sign, o.sig, o.exp - static_cast<long>(wf.m), r, magnitude, inexact);
    return to_range<Int>(o.sign, in_word, magnitude, inexact, exact);
}

/// x rounded to Int in direction r. Beyond words, round_magnitude reports a
/// magnitude of 2^64 or more from the exponent alone, so a value of a huge
/// binade builds no integer.
template <class Int>
Int to_fixed(const IEEEFloat& x, rounding r, bool exact) {
    const auto& held = Access::held(x);
    switch (x.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        return word_to_fixed<Int>(held.bits32, binary32_format, r, exact);
    case IEEEFloat::REPR_FLOAT64:
        return word_to_fixed<Int>(held.bits64, binary64_format, r, exact);
    default:
        break;
    }
    FiniteParts p;
    switch (decode_value(IEEEFloat::REPR_GENERIC, held, x.get_format(), p)) {
    case ValueClass::zero:
        return 0;
    case ValueClass::finite:
        break;
    default:
        return invalid_integer<Int>();
    }
    RoundedMagnitude n;
    round_magnitude(p, r, true, n);
    return to_range<Int>(p.negative, n.in_word, n.word, n.inexact, exact);
}

/// (-1)^negative * magnitude rounded once to f in direction r.
IEEEFloat from_magnitude(bool negative, std::uint64_t magnitude, IEEEFloat::format f, rounding r) {
    const auto mode = static_cast<unsigned>(r) <= 3u ? static_cast<IEEEFloat::rounding_mode>(r)
                                                     : IEEEFloat::ROUND_NEAREST_EVEN;
    RoundingContext ctx(r);
    const IEEEFloat::Repr repr = best_repr(f);
    IEEEFloat result(f, repr, mode);
    if (word_rounding_format(f)) {
        // The integer is the significand with exponent m: value sig * 2^(m - m).
        const WordFormat<std::uint64_t> wf(f);
        const std::uint64_t bits =
            round_bits(wf, ctx, negative, magnitude, static_cast<long>(wf.m)) |
            wf.signed_zero(negative);
        auto& held = Access::held(result);
        switch (repr) {
        case IEEEFloat::REPR_FLOAT32:
            held.bits32 = static_cast<std::uint32_t>(bits);
            break;
        case IEEEFloat::REPR_FLOAT64:
            held.bits64 = bits;
            break;
        default:
            // All 64 bits: a format of e + m = 63 keeps its sign in bit 63.
            set_pattern(held, bits);
        }
    } else {
        QNumber integer = integer_from_word(magnitude);
        if (negative) integer.self_neg();
        result = Access::from_number(integer, f, mode, ctx);
    }
    raise(ctx.flags);
    return result;
}

} // namespace

std::int32_t to_int32(const IEEEFloat& x, rounding r, bool exact) {
    return to_fixed<std::int32_t>(x, r, exact);
}

std::int64_t to_int64(const IEEEFloat& x, rounding r, bool exact) {
    return to_fixed<std::int64_t>(x, r, exact);
}

std::uint32_t to_uint32(const IEEEFloat& x, rounding r, bool exact) {
    return to_fixed<std::uint32_t>(x, r, exact);
}

std::uint64_t to_uint64(const IEEEFloat& x, rounding r, bool exact) {
    return to_fixed<std::uint64_t>(x, r, exact);
}

IEEEFloat from_int64(std::int64_t v, IEEEFloat::format f, rounding r) {
    const auto magnitude = static_cast<std::uint64_t>(v);
    return from_magnitude(v < 0, v < 0 ? 0 - magnitude : magnitude, f, r);
}

IEEEFloat from_uint64(std::uint64_t v, IEEEFloat::format f, rounding r) {
    return from_magnitude(false, v, f, r);
}

} // namespace tarn
