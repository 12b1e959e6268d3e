// Conversions between binary32 and binary64.

#include "tarn/swflt/internal.h"
#include "tarn/swflt/swflt.h"

namespace tarn {
namespace swflt {

namespace {
using namespace detail;
using F32 = Fmt<std::uint32_t>;
using F64 = Fmt<std::uint64_t>;

constexpr int mantissa_gap = F64::mantissa_bits - F32::mantissa_bits;

// A NaN keeps its sign and the top of its payload, and becomes quiet.
std::uint32_t narrow_nan(std::uint64_t a) {
    if (is_signaling_nan(a)) float_exception_flags |= flag_invalid;
    auto const payload = static_cast<std::uint32_t>(mantissa_of(a) >> mantissa_gap);
    return signed_inf<std::uint32_t>(sign_of(a)) | F32::quiet | payload;
}

std::uint64_t widen_nan(std::uint32_t a) {
    if (is_signaling_nan(a)) float_exception_flags |= flag_invalid;
    std::uint64_t const payload = std::uint64_t(mantissa_of(a)) << mantissa_gap;
    return signed_inf<std::uint64_t>(sign_of(a)) | F64::quiet | payload;
}

} // namespace

std::uint32_t float64_to_float32(std::uint64_t a, int round) {
    bool const sign = sign_of(a);
    int const exp = exponent_of(a);
    std::uint64_t const man = mantissa_of(a);
    if (exp == F64::exponent_max) {
        if (man != 0) return narrow_nan(a);
        return signed_inf<std::uint32_t>(sign);
    }
    if (exp == 0 && man == 0) return signed_zero<std::uint32_t>(sign);
    // A binary64 subnormal is far below the binary32 range; leaving it unnormalised is
    // harmless because round_pack then shifts everything into the sticky bit anyway.
    std::uint64_t const sig = exp == 0 ? man : (man | F64::hidden);
    // Leading bit from 52 down to 30, the working position of binary32.
    auto const narrow = static_cast<std::uint32_t>(shift_right_jam(sig, mantissa_gap - F32::extra));
    return round_pack(sign, exp - F64::bias + F32::bias - 1, narrow, checked_mode(round));
}

std::uint64_t float32_to_float64(std::uint32_t a) {
    bool const sign = sign_of(a);
    int exp = exponent_of(a);
    std::uint32_t man = mantissa_of(a);
    if (exp == F32::exponent_max) {
        if (man != 0) return widen_nan(a);
        return signed_inf<std::uint64_t>(sign);
    }
    if (exp == 0) {
        if (man == 0) return signed_zero<std::uint64_t>(sign);
        exp = normalize_subnormal(man);
        man &= F32::mantissa_mask;
    }
    auto const biased = static_cast<std::uint64_t>(exp - F32::bias + F64::bias);
    return signed_zero<std::uint64_t>(sign) | (biased << F64::mantissa_bits) |
           (std::uint64_t(man) << mantissa_gap);
}

} // namespace swflt
} // namespace tarn
