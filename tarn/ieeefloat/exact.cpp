// Conversion to exact numbers and integers; rounding to integral.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"

#include <cstdint>
#include <gmp.h>
#include <gmpxx.h>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// The exact rational (-1)^negative * significand * 2^exponent. Trailing zero
/// bits of the significand are moved into the exponent first, which leaves
/// an odd numerator over a power of two: already in lowest terms.
QNumber exact_value(const FiniteParts& p) {
    if (p.in_word) {
        const int zeros = __builtin_ctzll(p.word);
        const std::uint64_t odd = p.word >> zeros;
        const long k = p.exponent + zeros;
        if (k >= 0 && k <= 62 && (odd >> (62 - k)) == 0) {
            const long magnitude = static_cast<long>(odd << k);
            return QNumber(p.negative ? -magnitude : magnitude);
        }
        const long numerator = p.negative ? -static_cast<long>(odd) : static_cast<long>(odd);
        if (k < 0 && k >= -62) return QNumber(numerator, long{1} << -k);
    }
    mpz_class numerator = p.in_word ? mpz_class(static_cast<unsigned long>(p.word)) : p.wide;
    const mp_bitcnt_t zeros = mpz_scan1(numerator.get_mpz_t(), 0);
    mpz_fdiv_q_2exp(numerator.get_mpz_t(), numerator.get_mpz_t(), zeros);
    const long k = p.exponent + static_cast<long>(zeros);
    mpz_class denominator = 1;
    if (k >= 0)
        mpz_mul_2exp(numerator.get_mpz_t(), numerator.get_mpz_t(), static_cast<mp_bitcnt_t>(k));
    else
        mpz_mul_2exp(denominator.get_mpz_t(), denominator.get_mpz_t(),
                     static_cast<mp_bitcnt_t>(-k));
    if (p.negative) numerator = -numerator;
    return QNumber(numerator, denominator);
}

/// Whether dropping the fraction of a magnitude rounds it up to the next
/// integer. Unlike the rounding core, an unknown mode number truncates
/// instead of failing: integer conversion never raises for the mode.
bool integer_rounds_up(rounding_mode mode, bool negative, bool round_bit, bool sticky, bool odd) {
    if (!round_bit && !sticky) return false;
    switch (mode) {
    case IEEEFloat::ROUND_NEAREST_EVEN:
        return round_bit && (sticky || odd);
    case IEEEFloat::ROUND_TOWARD_POSITIVE:
        return !negative;
    case IEEEFloat::ROUND_TOWARD_NEGATIVE:
        return negative;
    default:
        return false;
    }
}

/// The value rounded to an integer under `mode`, its magnitude reduced to
/// its low `width` bits when width is not 0.
QNumber rounded_integer(const FiniteParts& p, rounding_mode mode, unsigned long width) {
    const bool word_sized =
        p.in_word && (p.exponent <= 0 || (p.exponent < 64 && (p.word >> (64 - p.exponent)) == 0));
    if (word_sized && p.exponent > 0) {
        std::uint64_t magnitude = p.word << p.exponent;
        if (width > 0) magnitude &= low_mask(width);
        QNumber result = integer_from_word(magnitude);
        if (p.negative) result.self_neg();
        return result;
    }
    if (word_sized) {
        const unsigned long shift = static_cast<unsigned long>(-p.exponent);
        const std::uint64_t sig = p.word;
        const bool round_bit = shift >= 1 && shift <= 64 && ((sig >> (shift - 1)) & 1);
        const bool sticky = shift >= 2 && (sig & low_mask(shift - 1)) != 0;
        std::uint64_t magnitude = shift >= 64 ? 0 : sig >> shift;
        magnitude += integer_rounds_up(mode, p.negative, round_bit, sticky, magnitude & 1);
        if (width > 0) magnitude &= low_mask(width);
        QNumber result = integer_from_word(magnitude);
        if (p.negative) result.self_neg();
        return result;
    }
    if (p.exponent > 0 && width > 0 && static_cast<unsigned long>(p.exponent) >= width)
        return QNumber(0L); // every kept bit lies below the significand
    if (p.exponent > 0) check_exact_size(p.exponent);
    mpz_class magnitude = p.in_word ? mpz_class(static_cast<unsigned long>(p.word)) : p.wide;
    mpz_ptr z = magnitude.get_mpz_t();
    if (p.exponent >= 0) {
        mpz_mul_2exp(z, z, static_cast<mp_bitcnt_t>(p.exponent));
    } else {
        const mp_bitcnt_t shift = static_cast<mp_bitcnt_t>(-p.exponent);
        const bool round_bit = mpz_tstbit(z, shift - 1);
        const bool sticky = mpz_scan1(z, 0) < shift - 1;
        mpz_fdiv_q_2exp(z, z, shift);
        if (integer_rounds_up(mode, p.negative, round_bit, sticky, mpz_odd_p(z)))
            mpz_add_ui(z, z, 1);
    }
    if (width > 0) mpz_fdiv_r_2exp(z, z, width);
    if (p.negative) mpz_neg(z, z);
    return QNumber(magnitude);
}

} // namespace

QNumber IEEEFloat::to_number() const {
    FiniteParts parts;
    switch (decode_value(get_repr(), value, fmt, parts)) {
    case ValueClass::zero:
        return QNumber(0L);
    case ValueClass::nan:
        throw_error("can't convert NaN to a Number");
    case ValueClass::infinite:
        throw_error("can't convert infinity to a Number");
    case ValueClass::finite:
        break;
    }
    check_exact_size(parts.exponent);
    return exact_value(parts);
}

QNumber IEEEFloat::to_integer(unsigned long width) const {
    FiniteParts parts;
    if (decode_value(get_repr(), value, fmt, parts) != ValueClass::finite) return QNumber(0L);
    return rounded_integer(parts, get_rounding_mode(), width);
}

IEEEFloat round(const IEEEFloat& x) {
    FiniteParts parts;
    if (decode_value(x.get_repr(), x.value, x.fmt, parts) != ValueClass::finite) return x;
    // A value whose lowest significand bit weighs 1 or more is an integer
    // already; converting it back would give the same bits.
    if (parts.exponent >= 0 && x.get_repr() == best_repr(x.fmt)) return x;
    const rounding_mode mode = x.get_rounding_mode();
    IEEEFloat result = IEEEFloat::from_number(rounded_integer(parts, mode, 0), x.fmt, mode);
    if (held_is_zero(result.get_repr(), result.value, result.fmt))
        set_held_sign(result.get_repr(), result.value, result.fmt,
                      held_sign(x.get_repr(), x.value, x.fmt));
    return result;
}

} // namespace tarn
