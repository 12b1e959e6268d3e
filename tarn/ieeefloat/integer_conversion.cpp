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

/// x rounded to Int in direction r. The range test reads the rounded
/// magnitude, which round_magnitude reports as too large from the exponent
/// alone, so a value of a huge binade builds no integer.
template <class Int>
Int to_fixed(const IEEEFloat& x, rounding r, bool exact) {
    using Limits = std::numeric_limits<Int>;
    // The result of an invalid conversion: the most negative value, or all ones.
    constexpr Int invalid_value = Limits::is_signed ? Limits::min() : Limits::max();
    FiniteParts p;
    switch (decode_value(x.get_repr(), Access::held(x), x.get_format(), p)) {
    case ValueClass::zero:
        return 0;
    case ValueClass::finite:
        break;
    default:
        raise(FLAG_INVALID);
        return invalid_value;
    }
    RoundedMagnitude n;
    round_magnitude(p, r, true, n);
    // The largest magnitude of the value's sign; -0 is fine for unsigned types.
    const auto positive_limit = static_cast<std::uint64_t>(Limits::max());
    const std::uint64_t limit =
        p.negative ? (Limits::is_signed ? positive_limit + 1 : 0) : positive_limit;
    if (!n.in_word || n.word > limit) {
        raise(FLAG_INVALID);
        return invalid_value;
    }
    if (exact && n.inexact) raise(FLAG_INEXACT);
    using Unsigned = std::make_unsigned_t<Int>;
    const auto magnitude = static_cast<Unsigned>(n.word);
    return static_cast<Int>(p.negative ? static_cast<Unsigned>(0 - magnitude) : magnitude);
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
            write_packed(bits, *held.packed);
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
