// Decimal text in scientific form and at a chosen precision: to_sci_str and
// to_str_digits.
//
// to_sci_str rewrites the shortest digits that to_float_str picks, so the
// two never disagree. to_str_digits rounds the exact value once: the value
// M * 2^k scaled by a power of ten is divided out exactly and the quotient
// rounded to an integer, whose decimal digits are the answer. That is one
// exact product or quotient and one conversion to decimal, both of which
// GMP does in near-linear time, so thousands of digits cost little more
// than a few.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/bits.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/notation.h"

#include <algorithm>
#include <gmpxx.h>
#include <string>

namespace tarn {

using namespace ieeefloat_detail;

std::string ieeefloat_detail::scientific_of_positional(std::string_view positional,
                                                       long& exponent) {
    std::string text;
    if (!positional.empty() && positional[0] == '-') {
        text += '-';
        positional.remove_prefix(1);
    }
    const std::size_t point = positional.find('.');
    const long units =
        static_cast<long>(point == std::string_view::npos ? positional.size() : point);
    // Digit i of the numeral, the point skipped, weighs 10^(units - 1 - i).
    const std::size_t first = positional.find_first_not_of("0.");
    exponent = 0;
    if (first == std::string_view::npos) return text + "0e+0";
    const std::size_t last = positional.find_last_not_of("0.");
    const long index = static_cast<long>(first) - (point < first ? 1 : 0);
    exponent = units - 1 - index;
    text += positional[first];
    std::string rest(positional.substr(first + 1, last - first));
    rest.erase(std::remove(rest.begin(), rest.end(), '.'), rest.end());
    if (!rest.empty()) text += '.' + rest;
    text += exponent < 0 ? "e-" : "e+";
    return text + std::to_string(exponent < 0 ? -exponent : exponent);
}

namespace {

/// significand * 2^k / 10^j rounded to the nearest integer, ties to even:
/// the value's digits down to the weight 10^j. `side`, when given, receives
/// the sign of the exact quotient minus the result.
mpz_class scaled_to_decimal(const mpz_class& significand, long k, long j, int* side = nullptr) {
    check_exact_size(j);
    mpz_class num = significand, den = 1, power;
    if (j != 0) {
        mpz_ui_pow_ui(power.get_mpz_t(), 5, static_cast<unsigned long>(j < 0 ? -j : j));
        (j < 0 ? num : den) *= power;
    }
    mpz_class quotient, remainder;
    int half, rest;
    if (j <= 0 && k < j) {
        // A denominator of 2^shift alone, as for digits after the point of a
        // long significand: the quotient is a shift, and the remainder's bits
        // tell its distance to a half.
        const auto shift = static_cast<mp_bitcnt_t>(j - k);
        mpz_fdiv_q_2exp(quotient.get_mpz_t(), num.get_mpz_t(), shift);
        const mp_bitcnt_t lowest = mpz_scan1(num.get_mpz_t(), 0);
        half = !mpz_tstbit(num.get_mpz_t(), shift - 1) ? -1 : lowest < shift - 1 ? 1 : 0;
        rest = lowest < shift ? 1 : 0;
    } else {
        if (k > j)
            num <<= static_cast<mp_bitcnt_t>(k - j);
        else
            den <<= static_cast<mp_bitcnt_t>(j - k);
        mpz_fdiv_qr(quotient.get_mpz_t(), remainder.get_mpz_t(), num.get_mpz_t(), den.get_mpz_t());
        remainder <<= 1;
        half = cmp(remainder, den);
        rest = sgn(remainder);
    }
    const bool up = half > 0 || (half == 0 && mpz_odd_p(quotient.get_mpz_t()));
    if (up) ++quotient;
    if (side) *side = up ? -1 : rest;
    return quotient;
}

/// The first `count` significant digits of significand * 2^k (> 0),
/// correctly rounded, and the decimal exponent of the first of them.
std::string significant_digits(const mpz_class& significand, long k, long count, long& exponent) {
    // The value lies in [2^(bits - 1), 2^bits), so this guess of its decimal
    // exponent is exact or one too low. One too low, or a rounding up to
    // 10^count, shows as a digit too many, and the digits at the next weight
    // are then those rounded once more: knowing on which side of them the
    // value lies makes that rounding exact, where a new division would cost
    // as much as the first.
    const long bits = static_cast<long>(mpz_sizeinbase(significand.get_mpz_t(), 2)) + k;
    exponent = floor_log10_pow2(bits - 1);
    int side;
    std::string digits = scaled_to_decimal(significand, k, exponent - count + 1, &side).get_str();
    while (static_cast<long>(digits.size()) > count) {
        // With D the digits at the weight 10^w, value / 10^w = D + o, where
        // |o| <= 1/2 has the sign `side`, so value / 10^(w+1) is D without its
        // last digit plus (last + o) / 10: that digit and the sign decide.
        const int last = digits.back() - '0';
        digits.pop_back();
        ++exponent;
        const bool up =
            last > 5 || (last == 5 && (side > 0 || (side == 0 && (digits.back() - '0') % 2 == 1)));
        side = up ? -1 : last != 0 ? 1 : side;
        if (!up) continue;
        std::size_t i = digits.size();
        while (i > 0 && digits[i - 1] == '9')
            digits[--i] = '0';
        if (i > 0)
            ++digits[i - 1];
        else
            digits.insert(digits.begin(), '1');
    }
    return digits;
}

/// Appends digits * 10^-fraction positionally, with `fraction` digits after
/// the point (and the point only when there are some).
void append_fixed(std::string digits, long fraction, std::string& text) {
    const auto places = static_cast<std::size_t>(fraction);
    if (digits.size() <= places) digits.insert(0, places + 1 - digits.size(), '0');
    if (places > 0) digits.insert(digits.size() - places, 1, '.');
    text += digits;
}

/// Appends d.ddd "e" and the signed exponent of at least two digits, as printf's %e.
void append_scientific(const std::string& digits, long exponent, std::string& text) {
    text += digits[0];
    if (digits.size() > 1) text.append(".").append(digits, 1, std::string::npos);
    text += exponent < 0 ? "e-" : "e+";
    const std::string magnitude = std::to_string(exponent < 0 ? -exponent : exponent);
    if (magnitude.size() < 2) text += '0';
    text += magnitude;
}

/// Drops the zeros that end a fraction, then a point left bare, as %g does.
void strip_fraction_zeros(std::string& text, std::size_t from) {
    if (text.find('.', from) == std::string::npos) return;
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
}

} // namespace

std::string IEEEFloat::to_sci_str() const {
    if (fmt.exponent_width != 0 && (is_nan() || is_inf())) return to_hex_str();
    long exponent;
    return scientific_of_positional(to_float_str(), exponent);
}

std::string IEEEFloat::to_str_digits(int significant, char style) const {
    if (style != 'e' && style != 'f' && style != 'g')
        throw_error("bad style for to_str_digits: give 'e', 'f' or 'g'");
    if (significant < 0) throw_error("negative precision for to_str_digits");
    FiniteParts parts;
    const ValueClass kind =
        fmt.exponent_width == 0 ? ValueClass::zero : decode_value(get_repr(), value, fmt, parts);
    if (kind == ValueClass::nan || kind == ValueClass::infinite) return to_hex_str();
    std::string text = parts.negative ? "-" : "";
    mpz_class significand = 0;
    if (kind == ValueClass::finite) {
        check_exact_size(parts.exponent);
        significand =
            parts.in_word ? mpz_class(static_cast<unsigned long>(parts.word)) : parts.wide;
    }
    if (style == 'f') {
        append_fixed(
            significand == 0
                ? "0"
                : scaled_to_decimal(significand, parts.exponent, -long{significant}).get_str(),
            significant, text);
        return text;
    }
    // `count` significant digits; a precision of 0 is taken as 1, as %g takes it.
    const long count = significant > 0 ? significant : 1;
    long exponent = 0;
    std::string digits = significand == 0
                             ? std::string(static_cast<std::size_t>(count), '0')
                             : significant_digits(significand, parts.exponent, count, exponent);
    if (style == 'e') {
        append_scientific(digits, exponent, text);
    } else if (exponent >= -4 && exponent < count) {
        const std::size_t start = text.size();
        append_fixed(digits, count - 1 - exponent, text);
        strip_fraction_zeros(text, start);
    } else {
        digits.erase(std::max<std::size_t>(1, digits.find_last_not_of('0') + 1));
        append_scientific(digits, exponent, text);
    }
    return text;
}

} // namespace tarn
