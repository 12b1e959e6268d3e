// Conversion to exact numbers and integers, and the rounding of a value to an
// integer that every integer conversion shares.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"

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
    const ValueClass c = decode_value(get_repr(), value, fmt, parts);
    if (c == ValueClass::nan || c == ValueClass::infinite) raise(FLAG_INVALID);
    if (c != ValueClass::finite) return QNumber(0L);
    if (parts.exponent > 0 && width > 0 && static_cast<unsigned long>(parts.exponent) >= width)
        return QNumber(0L); // every kept bit lies below the significand
    RoundedMagnitude n;
    round_magnitude(parts, integer_direction(get_rounding_mode()), false, n);
    QNumber result;
    if (n.in_word) {
        result = integer_from_word(width > 0 ? n.word & low_mask(width) : n.word);
    } else {
        if (width > 0) mpz_fdiv_r_2exp(n.wide.get_mpz_t(), n.wide.get_mpz_t(), width);
        result = QNumber(n.wide);
    }
    if (parts.negative) result.self_neg();
    return result;
}

namespace ieeefloat_detail {

void round_magnitude(const FiniteParts& p, rounding dir, bool word_only, RoundedMagnitude& out) {
    out.in_word = true;
    if (p.in_word &&
        round_word_magnitude(p.negative, p.word, p.exponent, dir, out.word, out.inexact))
        return;
    out.in_word = false;
    if (p.in_word && word_only) return;
    mpz_class& z = out.wide;
    z = p.in_word ? mpz_class(static_cast<unsigned long>(p.word)) : p.wide;
    // The magnitude lies in [2^(length - 1), 2^length) before rounding.
    const long length = static_cast<long>(mpz_sizeinbase(z.get_mpz_t(), 2)) + p.exponent;
    if (word_only && length > 64) return;
    if (p.exponent >= 0) {
        check_exact_size(p.exponent);
        mpz_mul_2exp(z.get_mpz_t(), z.get_mpz_t(), static_cast<mp_bitcnt_t>(p.exponent));
    } else {
        const mp_bitcnt_t shift = static_cast<mp_bitcnt_t>(-p.exponent);
        const bool round_bit = mpz_tstbit(z.get_mpz_t(), shift - 1);
        const bool sticky = mpz_scan1(z.get_mpz_t(), 0) < shift - 1;
        mpz_fdiv_q_2exp(z.get_mpz_t(), z.get_mpz_t(), shift);
        out.inexact = round_bit || sticky;
        if (out.inexact && rounds_away(RoundingContext(dir), p.negative, round_bit, sticky,
                                       mpz_odd_p(z.get_mpz_t())))
            mpz_add_ui(z.get_mpz_t(), z.get_mpz_t(), 1);
    }
    if (mpz_sizeinbase(z.get_mpz_t(), 2) <= 64) {
        out.in_word = true;
        out.word = mpz_get_ui(z.get_mpz_t());
    }
}

} // namespace ieeefloat_detail

} // namespace tarn
