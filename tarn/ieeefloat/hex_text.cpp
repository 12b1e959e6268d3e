// Hexadecimal text: to_hex_str.
//
// The hexadecimal form is read straight off the bit pattern: the mantissa
// field gives the digits and the exponent field the exponent, so no
// arithmetic on the value is needed and formats of any width are written
// without a precision limit.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/bits.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/numbers/bvnumber.h"

#include <charconv>
#include <cstdint>
#include <gmpxx.h>
#include <string>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

constexpr char hex_digits[] = "0123456789abcdef";

/// Appends "." and the mantissa field [0, m) as a binary fraction in hex
/// digits, padded with zero bits on the right and without trailing zero
/// digits; appends nothing when the field is zero.
template <class BitAt>
void append_hex_fraction(unsigned long m, BitAt bit_at, std::string& text) {
    std::string digits;
    digits.reserve((m + 3) / 4);
    for (unsigned long top = m; top > 0;) { // `top` is one above the digit's highest bit
        unsigned digit = 0;
        for (int i = 0; i < 4; ++i) {
            digit <<= 1;
            if (top > 0) digit |= bit_at(--top) ? 1u : 0u;
        }
        digits += hex_digits[digit];
    }
    const std::size_t kept = digits.find_last_not_of('0');
    if (kept == std::string::npos) return;
    text += '.';
    text.append(digits, 0, kept + 1);
}

/// Appends the unbiased exponent of the exponent field [m, m + e): the
/// field minus the bias, or 1 - bias for a subnormal's zero field. Fields of
/// up to 62 bits are worked in a word; wider ones in GMP integers.
template <class BitAt>
void append_hex_exponent(unsigned long e, unsigned long m, BitAt bit_at, std::string& text) {
    if (e <= 62) {
        std::uint64_t biased = 0;
        for (unsigned long i = e; i-- > 0;)
            biased = biased << 1 | (bit_at(m + i) ? 1u : 0u);
        const long bias = static_cast<long>(low_mask(e - 1));
        const long unbiased = biased == 0 ? 1 - bias : static_cast<long>(biased) - bias;
        text += unbiased < 0 ? '-' : '+';
        text += std::to_string(unbiased < 0 ? 0UL - static_cast<unsigned long>(unbiased)
                                            : static_cast<unsigned long>(unbiased));
        return;
    }
    mpz_class unbiased;
    for (unsigned long i = 0; i < e; ++i)
        if (bit_at(m + i)) mpz_setbit(unbiased.get_mpz_t(), i);
    if (unbiased == 0) unbiased = 1;
    mpz_class bias;
    mpz_setbit(bias.get_mpz_t(), e - 1);
    unbiased -= bias - 1;
    text += sgn(unbiased) < 0 ? '-' : '+';
    text += mpz_class(abs(unbiased)).get_str();
}

/// The hexadecimal text of a finite non-zero pattern of format (e, m).
template <class BitAt>
std::string finite_hex_text(unsigned long e, unsigned long m, BitAt bit_at, bool subnormal) {
    std::string text = bit_at(e + m) ? "-0x" : "0x";
    text += subnormal ? '0' : '1';
    append_hex_fraction(m, bit_at, text);
    text += 'p';
    append_hex_exponent(e, m, bit_at, text);
    return text;
}

/// The hexadecimal text of a finite non-zero pattern of format (e, m) that
/// fits a word (e + m <= 63, or the binary32 and binary64 words): the
/// fraction is aligned to whole digits with one shift and written from a
/// buffer, which keeps the text of binary32 and binary64 values cheap.
std::string word_hex_text(std::uint64_t bits, unsigned long e, unsigned long m) {
    char buffer[48]; // "-0x1." + 16 digits + "p-" + 19 exponent digits
    char* out = buffer;
    if ((bits >> (e + m)) & 1) *out++ = '-';
    *out++ = '0';
    *out++ = 'x';
    const std::uint64_t biased = (bits >> m) & low_mask(e);
    *out++ = biased == 0 ? '0' : '1';
    std::uint64_t fraction = bits & low_mask(m);
    if (fraction != 0) {
        unsigned long digits = (m + 3) / 4;
        fraction <<= 4 * digits - m; // pad on the right to whole digits
        while ((fraction & 0xF) == 0) {
            fraction >>= 4;
            --digits;
        }
        *out++ = '.';
        while (digits-- > 0)
            *out++ = hex_digits[(fraction >> (4 * digits)) & 0xF];
    }
    *out++ = 'p';
    const long bias = static_cast<long>(low_mask(e - 1));
    const long unbiased = biased == 0 ? 1 - bias : static_cast<long>(biased) - bias;
    *out++ = unbiased < 0 ? '-' : '+';
    const unsigned long magnitude = unbiased < 0 ? 0UL - static_cast<unsigned long>(unbiased)
                                                 : static_cast<unsigned long>(unbiased);
    out = std::to_chars(out, buffer + sizeof buffer, magnitude).ptr;
    return std::string(buffer, out);
}

} // namespace

std::string IEEEFloat::to_hex_str() const {
    // A format without exponent bits holds only zero, as its decimal text says.
    if (fmt.exponent_width == 0) return "0x0p+0";
    if (held_is_nan(get_repr(), value, fmt)) return "nan";
    if (held_is_inf(get_repr(), value, fmt))
        return held_sign(get_repr(), value, fmt) ? "-inf" : "inf";
    if (held_is_zero(get_repr(), value, fmt))
        return held_sign(get_repr(), value, fmt) ? "-0x0p+0" : "0x0p+0";
    // Words are read with their own layouts, as every word operation does.
    if (get_repr() == REPR_FLOAT32) return word_hex_text(value.bits32, 8, 23);
    if (get_repr() == REPR_FLOAT64) return word_hex_text(value.bits64, 11, 52);
    const unsigned long e = fmt.exponent_width, m = fmt.mantissa_width;
    std::uint64_t word;
    if (e + m <= 63 && pattern_word(value, word)) return word_hex_text(word, e, m);
    const PackedRead read(value);
    const QNumber& packed = *read;
    return finite_hex_text(
        e, m, [&packed](unsigned long i) { return BVNumber::test_bit(packed, i); }, is_subnormal());
}

} // namespace tarn
