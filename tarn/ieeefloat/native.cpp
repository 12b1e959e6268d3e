// Bridges to the native floating types: from_double, from_float, to_double,
// to_float. Each goes through the word of the native type and the library's
// own conversion between formats, so no value passes through text and the
// rounding, its flags and the destination's subnormals are those of convert.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// A NaN keeps only its sign across a bridge: the payloads of two formats
/// have no common meaning, so the result is the NaN self_nan() makes, and a
/// signaling one raises invalid as any conversion does.
void signal_nan(bool signaling) {
    if (signaling) raise(FLAG_INVALID);
}

/// The value whose word is `word`, held in `repr` of `native`, converted to `f`
/// under `mode`; a word of `f` itself is kept bit for bit, NaNs included.
template <class Word>
IEEEFloat from_native(Word word, IEEEFloat::Repr repr, IEEEFloat::format native,
                      IEEEFloat::format f, IEEEFloat::rounding_mode mode) {
    IEEEFloat x(native, repr, mode);
    auto& held = Access::held(x);
    if constexpr (sizeof(Word) == 4)
        held.bits32 = word;
    else
        held.bits64 = word;
    if (f == native) return x;
    if (held_is_nan(repr, held, native)) {
        IEEEFloat nan(f, mode);
        nan.self_nan();
        nan.set_sign(held_sign(repr, held, native));
        signal_nan(held_nan_is_signaling(repr, held, native));
        return nan;
    }
    RoundingContext r = RoundingContext::of_mode(mode);
    Access::convert(x, f, r);
    return x;
}

/// The quiet NaN of a native type with the given sign.
template <class Native>
Native native_nan(bool negative) {
    return std::copysign(std::numeric_limits<Native>::quiet_NaN(), Native(negative ? -1 : 1));
}

/// x rounded to the native type under x's own mode: through the word of the
/// native format, bit for bit when x already has that format.
template <class Native>
Native to_native(const IEEEFloat& x) {
    constexpr bool single = sizeof(Native) == 4;
    const IEEEFloat::format native = single ? binary32_format : binary64_format;
    if (x.is_nan() && x.get_format() != native) {
        signal_nan(held_nan_is_signaling(x.get_repr(), Access::held(x), x.get_format()));
        return native_nan<Native>(x.get_sign());
    }
    IEEEFloat y(x);
    RoundingContext r = RoundingContext::of_mode(x.get_rounding_mode());
    Access::convert(y, native, r);
    y.self_specialize_repr(single ? IEEEFloat::REPR_FLOAT32 : IEEEFloat::REPR_FLOAT64);
    Native v;
    if constexpr (single)
        std::memcpy(&v, &Access::held(y).bits32, sizeof v);
    else
        std::memcpy(&v, &Access::held(y).bits64, sizeof v);
    return v;
}

} // namespace

IEEEFloat IEEEFloat::from_double(double d, format f, rounding_mode mode) {
    std::uint64_t word;
    std::memcpy(&word, &d, sizeof word);
    return from_native(word, REPR_FLOAT64, binary64_format, f, mode);
}

IEEEFloat IEEEFloat::from_float(float v, format f, rounding_mode mode) {
    std::uint32_t word;
    std::memcpy(&word, &v, sizeof word);
    return from_native(word, REPR_FLOAT32, binary32_format, f, mode);
}

double IEEEFloat::to_double() const {
    return to_native<double>(*this);
}

float IEEEFloat::to_float() const {
    return to_native<float>(*this);
}

} // namespace tarn
