// Reading numerals: from_string. Numerals of everyday length and range are
// read into word-sized formats without allocating; everything else through
// exact integers and the rounding core.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/ascii.h"
#include "tarn/ieeefloat/internal/bits.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/packed.h"
#include "tarn/ieeefloat/internal/rounding.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/numbers/bvnumber.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <gmp.h>
#include <gmpxx.h>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// Exponents are read saturating at this magnitude: any larger one puts
/// every numeral of a format with up to 62 exponent bits out of its range,
/// and the sums with digit counts below stay far from the word limits.
constexpr long exponent_cap = long{1} << 62;

/// The largest power of ten, in magnitude, that a decimal numeral may need
/// built exactly: 5^(2^24) has about 39 million bits (under 5 MiB).
constexpr long decimal_exponent_limit = long{1} << 24;

/// The significant digits of a finite numeral: the part of its mantissa
/// from the first non-zero digit to the last (a point may lie inside it),
/// how many digits that is, and the position of the last one counted from
/// the units digit (0 for the units digit, negative after the point).
/// `count` is 0 when no digit is non-zero.
struct SignificantDigits {
    std::string_view span;
    long count = 0;
    long last_position = 0;
};

/// A numeral whose syntax has been checked, not yet converted.
struct Numeral {
    enum class Kind { finite, infinity, nan };
    Kind kind = Kind::finite;
    bool negative = false;
    bool hex = false;
    /// The significant digits of the mantissa.
    SignificantDigits digits;
    /// The written exponent (of ten, or of two for hexadecimal), saturated
    /// at +-exponent_cap.
    long exponent = 0;
    bool exponent_saturated = false;
};

[[noreturn, gnu::cold, gnu::noinline]] void throw_invalid_number(std::string_view text) {
    std::string message = "invalid number: \"";
    message.append(text.data(), text.size());
    message += '"';
    throw IEEEFloat::error(message);
}

inline bool is_decimal_digit(char c) {
    return c >= '0' && c <= '9';
}

inline bool is_hex_digit(char c) {
    return is_decimal_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

inline int hex_digit_value(char c) {
    if (is_decimal_digit(c)) return c - '0';
    return (c | 0x20) - 'a' + 10;
}

/// Reads an optionally signed run of decimal digits that makes up the whole
/// of `text`, saturating at exponent_cap. False when the text is not one.
bool read_exponent(std::string_view text, long& value, bool& saturated) {
    std::size_t i = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) ++i;
    if (i == text.size()) return false;
    long magnitude = 0;
    saturated = false;
    for (; i < text.size(); ++i) {
        if (!is_decimal_digit(text[i])) return false;
        const long digit = text[i] - '0';
        saturated = saturated || magnitude > (exponent_cap - digit) / 10;
        magnitude = saturated ? exponent_cap : magnitude * 10 + digit;
    }
    value = negative ? -magnitude : magnitude;
    return true;
}

/// "nan", or "nan(" letters, digits and underscores ")" as C's readers take it
/// (the payload is read and dropped, as every NaN the library makes is one).
bool is_nan_numeral(std::string_view text) {
    if (text.size() < 3 || !equal_ignoring_ascii_case(text.substr(0, 3), "nan")) return false;
    if (text.size() == 3) return true;
    if (text.size() < 5 || text[3] != '(' || text.back() != ')') return false;
    for (const char c : text.substr(4, text.size() - 5))
        if (!is_decimal_digit(c) && c != '_' && (ascii_lower(c) < 'a' || ascii_lower(c) > 'z'))
            return false;
    return true;
}

/// Splits `text` into sign, mantissa and exponent, or names it a NaN or an
/// infinity. False for anything else.
bool parse_numeral(std::string_view text, Numeral& out) {
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        out.negative = text[0] == '-';
        text.remove_prefix(1);
    }
    if (equal_ignoring_ascii_case(text, "inf") || equal_ignoring_ascii_case(text, "infinity")) {
        out.kind = Numeral::Kind::infinity;
        return true;
    }
    if (is_nan_numeral(text)) {
        out.kind = Numeral::Kind::nan;
        return true;
    }
    out.hex = text.size() > 1 && text[0] == '0' && (text[1] | 0x20) == 'x';
    if (out.hex) text.remove_prefix(2);

    // One pass finds the end of the mantissa, its point and its first and
    // last non-zero digits.
    constexpr std::size_t none = std::string_view::npos;
    std::size_t end = 0, point = none, first = none, last = none;
    bool seen_digit = false;
    for (; end < text.size(); ++end) {
        const char c = text[end];
        if (out.hex ? is_hex_digit(c) : is_decimal_digit(c)) {
            seen_digit = true;
            if (c == '0') continue;
            if (first == none) first = end;
            last = end;
        } else if (c == '.' && point == none) {
            point = end;
        } else {
            break;
        }
    }
    if (!seen_digit) return false;
    if (first != none) {
        if (point == none) point = end;
        SignificantDigits& digits = out.digits;
        digits.span = text.substr(first, last - first + 1);
        digits.count = static_cast<long>(digits.span.size()) - (first < point && point < last);
        // The units digit sits just before the point.
        digits.last_position =
            last < point ? static_cast<long>(point - 1 - last) : -static_cast<long>(last - point);
    }
    if (end == text.size()) return true;
    const char marker = static_cast<char>(text[end] | 0x20);
    if (marker != (out.hex ? 'p' : 'e')) return false;
    return read_exponent(text.substr(end + 1), out.exponent, out.exponent_saturated);
}

/// The first `n` digits of `span` without its point, as GMP reads them.
void copy_digits(std::string_view span, long n, std::string& out) {
    out.clear();
    for (std::size_t i = 0; static_cast<long>(out.size()) < n; ++i)
        if (span[i] != '.') out += span[i];
}

/// The first `n` digits of `span` (n at most 19 decimal or 16 hexadecimal
/// digits) read as an integer.
std::uint64_t leading_digits(std::string_view span, long n, bool hex) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; n > 0; ++i) {
        const char c = span[i];
        if (c == '.') continue;
        value = hex ? value << 4 | static_cast<std::uint64_t>(hex_digit_value(c))
                    : value * 10 + static_cast<std::uint64_t>(c - '0');
        --n;
    }
    return value;
}

/// The binary exponents that bound a format's range: values of 2^overflow
/// or more overflow, and values below 2^-underflow (half the smallest
/// subnormal) round as if they were tiny positive numbers. False when the
/// format is too wide for them to be kept in words; then nothing is decided
/// from the exponent alone.
bool range_exponents(format f, long& overflow, long& underflow) {
    if (f.exponent_width < 1 || f.exponent_width > 61 || f.mantissa_width > (1UL << 60))
        return false;
    const long bias = (long{1} << (f.exponent_width - 1)) - 1;
    overflow = bias + 1;
    underflow = bias + static_cast<long>(f.mantissa_width) + 1;
    return true;
}

enum class Reach { in_range, overflow, underflow };

/// Rounds a value that is certainly out of range through the rounding core,
/// with a stand-in of the same sign on the same side: every magnitude above
/// the overflow threshold rounds alike, and so does every magnitude below
/// half the smallest subnormal. The stand-ins are inexact, as the numerals
/// they stand for are, so an invalid mode is reported as for any inexact
/// result.
void round_out_of_range(format f, RoundingContext& r, bool negative, Reach reach, QNumber& out) {
    TempNumProvider tmp;
    tmp[0] = f.bias();
    if (reach == Reach::overflow) {
        // (2^(m+1) + 1) * 2^(bias + 1 - m), above 2^(bias + 2).
        tmp[0] += 1L;
        BVNumber::pow2(f.mantissa_width + 1, &tmp[1]);
        tmp[1] += 1L;
    } else {
        // 2^(-bias - 2 - m), an eighth of the smallest subnormal.
        tmp[0].self_neg();
        tmp[0] -= 2L;
        tmp[1] = QNumber(1L);
    }
    round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], out);
}

/// Rounds C * 2^k, with C > 0 given by its digits in base 16, once into `out`.
void round_hex(format f, RoundingContext& r, bool negative, const std::string& digits, long k,
               QNumber& out) {
    mpz_class c;
    mpz_set_str(c.get_mpz_t(), digits.c_str(), 16);
    TempNumProvider tmp(k);
    tmp[0] += static_cast<long>(f.mantissa_width);
    tmp[1] = QNumber(c);
    round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], out);
}

/// The powers of five the word path uses: enough for every numeral of up to
/// 19 digits within the range of binary64 (|k| <= 343).
constexpr long max_tabled_power = 360;
/// Limbs of 5^max_tabled_power (836 bits), with room to spare.
constexpr mp_size_t max_power_limbs = 14;

/// The powers 5^(step * i) for i below `count`, made once for the process and
/// then only read.
class PowersOfFive {
public:
    PowersOfFive(long step, long count) : powers(static_cast<std::size_t>(count)) {
        mpz_t factor;
        mpz_init(factor);
        mpz_ui_pow_ui(factor, 5, static_cast<unsigned long>(step));
        mpz_init_set_ui(&powers[0], 1);
        for (std::size_t i = 1; i < powers.size(); ++i) {
            mpz_init(&powers[i]);
            mpz_mul(&powers[i], &powers[i - 1], factor);
        }
        mpz_clear(factor);
    }
    ~PowersOfFive() {
        for (__mpz_struct& p : powers)
            mpz_clear(&p);
    }
    PowersOfFive(const PowersOfFive&) = delete;
    PowersOfFive& operator=(const PowersOfFive&) = delete;

    mpz_srcptr operator[](long i) const { return &powers[static_cast<std::size_t>(i)]; }

private:
    std::vector<__mpz_struct> powers;
};

/// Every power up to 5^max_tabled_power, for the word path.
const PowersOfFive& powers_of_five() {
    static const PowersOfFive table(1, max_tabled_power + 1);
    return table;
}

/// Larger powers are made from 5^(27 i), kept for the exponent range of
/// binary128 and a little beyond (about 130 KiB in all), times 5^(k mod 27),
/// which fits a word.
constexpr long coarse_power_step = 27;
constexpr long coarse_power_count = 200;

/// 5^n, from the tables where they reach and otherwise computed in `scratch`.
mpz_srcptr power_of_five(unsigned long n, mpz_ptr scratch) {
    const auto k = static_cast<long>(n);
    if (k <= max_tabled_power) return powers_of_five()[k];
    if (k < coarse_power_step * coarse_power_count) {
        static const PowersOfFive coarse(coarse_power_step, coarse_power_count);
        const long low = k % coarse_power_step;
        mpz_mul_ui(scratch, coarse[k / coarse_power_step],
                   static_cast<unsigned long>(mpz_get_ui(powers_of_five()[low])));
        return scratch;
    }
    mpz_ui_pow_ui(scratch, 5, n);
    return scratch;
}

/// Integers of the exact path, kept per thread so that reading in a loop
/// stops allocating once they have grown to the largest size met.
struct ReadingScratch {
    mpz_t digits, power, remainder;
    ReadingScratch() { mpz_inits(digits, power, remainder, nullptr); }
    ~ReadingScratch() { mpz_clears(digits, power, remainder, nullptr); }
    ReadingScratch(const ReadingScratch&) = delete;
    ReadingScratch& operator=(const ReadingScratch&) = delete;
};

ReadingScratch& reading_scratch() {
    thread_local ReadingScratch scratch;
    return scratch;
}

/// Rounds C * 10^k, with C > 0 given by its decimal digits, once into `out`.
/// C * 10^k is C * 5^k * 2^k: for k >= 0 an integer handed over whole; for
/// k < 0 a quotient C * 2^j / 5^-k cut to at least m + 3 bits, with a last
/// bit added that is 1 when the division left a remainder. That bit lies
/// below every bit the rounding core keeps or looks at as the round bit, so
/// it decides exactly as the whole quotient would.
void round_decimal(format f, RoundingContext& r, bool negative, const std::string& digits, long k,
                   QNumber& out) {
    ReadingScratch& s = reading_scratch();
    mpz_set_str(s.digits, digits.c_str(), 10);
    mpz_srcptr power = power_of_five(static_cast<unsigned long>(k < 0 ? -k : k), s.power);
    long exponent2 = k;
    if (k >= 0) {
        mpz_mul(s.digits, s.digits, power);
    } else {
        const long wanted = static_cast<long>(f.mantissa_width) + 3;
        const long have = static_cast<long>(mpz_sizeinbase(s.digits, 2)) -
                          static_cast<long>(mpz_sizeinbase(power, 2));
        const long j = std::max(0L, wanted - have);
        mpz_mul_2exp(s.digits, s.digits, static_cast<mp_bitcnt_t>(j));
        mpz_fdiv_qr(s.digits, s.remainder, s.digits, power);
        mpz_mul_2exp(s.digits, s.digits, 1);
        if (mpz_sgn(s.remainder) != 0) mpz_setbit(s.digits, 0);
        exponent2 = k - j - 1;
    }
    TempNumProvider tmp(exponent2);
    tmp[0] += static_cast<long>(f.mantissa_width);
    tmp[1] = QNumber(mpz_class(s.digits));
    round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], out);
}

/// Where a decimal C * 10^k of `count` significant digits lies:
/// 10^(k + count - 1) <= C * 10^k < 10^(k + count). floor_log10_pow2 errs
/// low by at most one, so one decade of margin makes each decision certain.
Reach decimal_reach(format f, long count, long k) {
    long overflow, underflow;
    if (!range_exponents(f, overflow, underflow)) return Reach::in_range;
    const long top = k + count; // the value is below 10^top
    if (top - 1 >= floor_log10_pow2(overflow) + 2) return Reach::overflow;
    if (-top >= floor_log10_pow2(underflow) + 2) return Reach::underflow;
    return Reach::in_range;
}

/// How many leading digits of a decimal C * 10^k of `count` digits decide its
/// rounding into f, the rest mattering only by not being all zeros. Every
/// boundary that rounding tells values apart by within the binade
/// [2^E, 2^(E+1)) of the value (the values of f, the midpoints between them,
/// the thresholds of overflow and of tininess) is a multiple of 2^(E - m - 1),
/// as are the binade's ends; so for q at or below that, they are multiples of
/// 10^q when q < 0 and integers otherwise. The numeral cut after the place
/// p = min(0, q), with a 1 appended, lies strictly between the same two
/// neighbouring multiples of 10^p as the numeral, with no boundary between
/// them, and rounds alike, flags included. A long numeral is so read from a
/// few hundred digits in binary64. Returns `count` when every digit counts.
long decisive_digits(format f, long count, long k) {
    if (f.mantissa_width > (1UL << 40)) return count;
    const long top = k + count; // 10^(top - 1) <= C * 10^k < 10^top
    // E, from below, with one to spare for the rounding of the product.
    const auto e = static_cast<long>(std::floor(static_cast<double>(top - 1) * 3.321928094887362));
    const long place = std::min(0L, e - 1 - static_cast<long>(f.mantissa_width) - 1);
    return std::min(count, top - place);
}

/// Where C * 2^k lies, C having `bits` bits: 2^(k + bits - 1) <= C * 2^k < 2^(k + bits).
Reach binary_reach(format f, long bits, long k) {
    long overflow, underflow;
    if (!range_exponents(f, overflow, underflow)) return Reach::in_range;
    if (k + bits - 1 >= overflow) return Reach::overflow;
    if (k + bits <= -underflow) return Reach::underflow;
    return Reach::in_range;
}

// ---- Reading into formats whose patterns fit words -------------------------
//
// Most numerals have at most 19 significant digits and an exponent within the
// range of binary64. For formats whose patterns fit a word they are read with
// no allocation at all: the exact product C * 5^k, or a quotient
// C * 2^j / 5^-k of more than 64 bits with its remainder, is formed in limbs on
// the stack from a table of powers of five, cut to 63 bits with the bits cut
// off folded into a sticky bit, and rounded by the word rounding core. Longer
// numerals are bracketed: their first 19 digits C and C + 1 give two values
// either side of the numeral's, and when both round alike (monotonic
// rounding) so does the numeral; otherwise the exact path decides.

/// Formats the word path serves: their rounding fits words, and a 63-bit
/// significand holds the kept bits, the round bit and a sticky bit below it.
inline bool word_reading_format(format f) {
    return word_rounding_format(f) && f.mantissa_width <= 60;
}

/// A significand cut to at most 63 bits, whatever was cut off (and any
/// remainder left by a division) folded into its lowest bit; its value is
/// bits * 2^shift, give or take that sticky bit.
struct WordSignificand {
    std::uint64_t bits;
    long shift;
};

/// Cuts the n-limb integer at `limbs` (top limb not zero). A set `inexact`
/// stands for a non-zero remainder below the lowest limb; it comes only with
/// quotients of more than 64 bits, which always have bits cut off to carry it.
WordSignificand cut_to_word(const mp_limb_t* limbs, mp_size_t n, bool inexact) {
    const long length = 64 * (n - 1) + (64 - __builtin_clzll(limbs[n - 1]));
    if (length <= 63) return {limbs[0], 0};
    // Keep 63 bits: those at [shift, shift + 63).
    const long shift = length - 63;
    const auto index = static_cast<mp_size_t>(shift / 64);
    const auto offset = static_cast<unsigned>(shift % 64);
    std::uint64_t bits = limbs[index] >> offset;
    if (offset != 0 && index + 1 < n) bits |= limbs[index + 1] << (64 - offset);
    bool sticky = inexact || (offset != 0 && (limbs[index] & low_mask(offset)) != 0);
    for (mp_size_t i = 0; i < index && !sticky; ++i)
        sticky = limbs[i] != 0;
    return {bits | std::uint64_t{sticky}, shift};
}

/// Rounds (-1)^negative * significand * 2^exponent (significand below 2^63)
/// into the pattern of a word_reading_format format.
std::uint64_t round_to_word_pattern(format f, RoundingContext& r, bool negative,
                                    WordSignificand significand, long exponent) {
    // Rounding -v upward is rounding v downward, negated. Rounding the
    // magnitude keeps the pattern clear of the sign bit, where a QNumber word
    // would have to grow into GMP storage.
    RoundingContext of_magnitude = r;
    if (negative && r.direction == rounding::upward)
        of_magnitude.direction = rounding::downward;
    else if (negative && r.direction == rounding::downward)
        of_magnitude.direction = rounding::upward;
    QNumber packed;
    round_and_pack_word(f, of_magnitude, false, static_cast<long>(significand.bits),
                        exponent + significand.shift + static_cast<long>(f.mantissa_width), packed);
    r.flags |= of_magnitude.flags;
    long magnitude = 0;
    BVNumber::to_long(packed, &magnitude);
    return static_cast<std::uint64_t>(magnitude) | std::uint64_t{negative}
                                                       << (f.exponent_width + f.mantissa_width);
}

/// C * 10^k, for |k| <= max_tabled_power, rounded into a word pattern.
std::uint64_t round_decimal_in_words(format f, RoundingContext& r, bool negative, std::uint64_t c,
                                     long k) {
    mpz_srcptr power = powers_of_five()[k < 0 ? -k : k];
    const mp_limb_t* five = mpz_limbs_read(power);
    const auto n = static_cast<mp_size_t>(mpz_size(power));
    if (k >= 0) {
        // C * 10^k = (C * 5^k) * 2^k.
        mp_limb_t product[max_power_limbs + 1];
        product[n] = mpn_mul_1(product, five, n, c);
        return round_to_word_pattern(f, r, negative,
                                     cut_to_word(product, n + (product[n] != 0), false), k);
    }
    // C * 10^k = (C * 2^j / 5^-k) * 2^(k - j), with C placed j = 64 (n + 1)
    // bits up so that the quotient has more than 64 bits.
    mp_limb_t numerator[max_power_limbs + 2] = {};
    numerator[n + 1] = c;
    mp_limb_t quotient[3], remainder[max_power_limbs];
    mpn_tdiv_qr(quotient, remainder, 0, numerator, n + 2, five, n);
    const mp_size_t quotient_limbs = quotient[2] != 0 ? 3 : 2;
    const bool inexact = !mpn_zero_p(remainder, n);
    return round_to_word_pattern(f, r, negative, cut_to_word(quotient, quotient_limbs, inexact),
                                 k - 64 * (n + 1));
}

/// 5^k for |k| <= max_tabled_power cut to its leading 128 bits: 5^k lies in
/// [T * 2^exponent, (T + 1) * 2^exponent), at its lower end only when `exact`
/// (the powers below 2^128). For negative k, T is the quotient of a power of
/// two by 5^-k, 128 bits long.
struct LeadingPower {
    std::uint64_t high, low;
    long exponent;
    bool exact;
};

class LeadingPowers {
public:
    LeadingPowers() {
        mpz_t t;
        mpz_init(t);
        for (long k = -max_tabled_power; k <= max_tabled_power; ++k) {
            mpz_srcptr five = powers_of_five()[k < 0 ? -k : k];
            const auto length = static_cast<long>(mpz_sizeinbase(five, 2));
            LeadingPower& p = powers[static_cast<std::size_t>(k + max_tabled_power)];
            if (k >= 0) {
                p.exact = length <= 128;
                p.exponent = p.exact ? 0 : length - 128;
                mpz_tdiv_q_2exp(t, five, static_cast<mp_bitcnt_t>(p.exponent));
            } else {
                // 2^(length + 127) / 5^-k lies in (2^127, 2^128) and is no integer.
                p.exact = false;
                p.exponent = -(length + 127);
                mpz_set_ui(t, 0);
                mpz_setbit(t, static_cast<mp_bitcnt_t>(length + 127));
                mpz_tdiv_q(t, t, five);
            }
            p.low = mpz_getlimbn(t, 0);
            p.high = mpz_getlimbn(t, 1);
        }
        mpz_clear(t);
    }

    const LeadingPower& operator[](long k) const {
        return powers[static_cast<std::size_t>(k + max_tabled_power)];
    }

private:
    LeadingPower powers[2 * max_tabled_power + 1];
};

/// c * (high * 2^64 + low) into three limbs, lowest first.
void multiply_64_by_128(std::uint64_t c, std::uint64_t high, std::uint64_t low,
                        mp_limb_t (&out)[3]) {
    __extension__ using u128 = unsigned __int128;
    const u128 low_product = static_cast<u128>(c) * low;
    const u128 high_product =
        static_cast<u128>(c) * high + static_cast<std::uint64_t>(low_product >> 64);
    out[0] = static_cast<std::uint64_t>(low_product);
    out[1] = static_cast<std::uint64_t>(high_product);
    out[2] = static_cast<std::uint64_t>(high_product >> 64);
}

/// The quick decision for a decimal in [C_low * 10^k, C_high * 10^k]
/// (C_low = C_high when the numeral is read whole): with 5^k known to 128
/// bits, the value lies between C_low * T and C_high * (T + 1), scaled. When
/// both ends round to the same pattern, so does every value between them,
/// the numeral's included. False when they differ (the value is within about
/// 2^-120 of a rounding boundary) or the power is out of the table.
/// `bracketed` tells whether the pattern was decided from the two ends
/// rather than from the exact value.
bool round_decimal_quickly(format f, RoundingContext& r, bool negative, std::uint64_t c_low,
                           std::uint64_t c_high, long k, std::uint64_t& pattern, bool& bracketed) {
    if (k > max_tabled_power || k < -max_tabled_power) return false;
    static const LeadingPowers leading;
    const LeadingPower& p = leading[k];
    auto cut_product = [](std::uint64_t c, std::uint64_t high, std::uint64_t low) {
        mp_limb_t product[3];
        multiply_64_by_128(c, high, low, product);
        return cut_to_word(product, product[2] != 0 ? 3 : product[1] != 0 ? 2 : 1, false);
    };
    auto round = [&](WordSignificand significand) {
        return round_to_word_pattern(f, r, negative, significand, k + p.exponent);
    };
    const WordSignificand lower = cut_product(c_low, p.high, p.low);
    bracketed = !p.exact || c_low != c_high;
    if (!bracketed) {
        pattern = round(lower);
        return true;
    }
    // T + 1, unless T is all ones (then the slow path decides).
    std::uint64_t high = p.high, low = p.low + (p.exact ? 0 : 1);
    if (low == 0 && !p.exact && ++high == 0) return false;
    const WordSignificand upper = cut_product(c_high, high, low);
    pattern = round(lower);
    // Ends that cut to the same significand, sticky bit included, round
    // alike: the usual case, decided by one rounding.
    if (upper.bits == lower.bits && upper.shift == lower.shift) return true;
    return round(upper) == pattern;
}

/// What the word path read: the pattern, the numeral's first digits as an
/// integer (all of them unless `cut`), and whether the pattern was decided
/// from the ends of an interval holding the value (`bracketed`), whose
/// roundings raised flags of their own, rather than by rounding the value.
struct WordReading {
    std::uint64_t pattern = 0, leading = 0;
    bool cut = false, bracketed = false;
};

/// The numeral read on words, or false when they cannot decide it.
bool read_pattern_in_words(format f, RoundingContext& r, bool negative, bool hex,
                           const SignificantDigits& digits, long k, WordReading& out) {
    // Up to 16 hexadecimal digits are read exactly; longer numerals are
    // bracketed with 15, so that C + 1 still fits a word.
    const long exact_digits = hex ? 16 : 19;
    const long used = digits.count <= exact_digits ? digits.count : hex ? 15 : 19;
    const bool cut = used < digits.count;
    const long scale = k + (digits.count - used) * (hex ? 4 : 1);
    const std::uint64_t c = leading_digits(digits.span, used, hex);
    out.leading = c;
    out.cut = cut;
    if (!hex) {
        if (round_decimal_quickly(f, r, negative, c, cut ? c + 1 : c, scale, out.pattern,
                                  out.bracketed))
            return true;
        if (scale > max_tabled_power || scale < -max_tabled_power) return false;
        r.flags = 0; // the quick attempt's
    }
    out.bracketed = cut;
    auto round = [&](std::uint64_t c) {
        if (!hex) return round_decimal_in_words(f, r, negative, c, scale);
        const mp_limb_t limb = c;
        return round_to_word_pattern(f, r, negative, cut_to_word(&limb, 1, false), scale);
    };
    out.pattern = round(c);
    return !cut || round(c + 1) == out.pattern;
}

/// The last n decimal digits of a span (n <= 19), read as an integer:
/// the significand modulo 10^n.
std::uint64_t trailing_digits(std::string_view span, long n) {
    std::uint64_t value = 0, weight = 1;
    for (std::size_t i = span.size(); n > 0 && i > 0; --i) {
        const char c = span[i - 1];
        if (c == '.') continue;
        value += weight * static_cast<std::uint64_t>(c - '0');
        weight *= 10;
        --n;
    }
    return value;
}

/// Whether the value C * 10^k (C * 2^k for hexadecimal), C > 0 with a
/// non-zero last digit, may be exactly representable with a precision below
/// 62 bits. A cut hexadecimal numeral has more than 57 significant bits. A
/// decimal one is exact only if 5^-k divides C (for k < 0) and the odd part
/// of C * 2^k * 5^k, at least C / (2^v * 5^-k) or C * 5^k / 2^v with 2^v the
/// power of two in C, has fewer than 62 bits. Both are read from the last 18
/// digits, C modulo 10^18, and from C's length; `leading`, the first digits,
/// is all of C unless the numeral was `cut`.
bool may_be_exact(bool hex, const SignificantDigits& digits, long k, std::uint64_t leading,
                  bool cut) {
    if (hex) return !cut;
    static constexpr auto powers_of_five = [] {
        std::array<std::uint64_t, 28> powers{1};
        for (std::size_t i = 1; i < powers.size(); ++i)
            powers[i] = powers[i - 1] * 5;
        return powers;
    }();
    // C's last digit is not 0, so C holds a factor 5 only if it ends in 5,
    // and one of 2 only if it ends in an even digit. Most numerals are
    // decided by that digit alone.
    const int last_digit = digits.span.back() - '0';
    if (k < 0 ? last_digit != 5 : cut && last_digit % 2 != 0) return false;
    constexpr long known_digits = 18;
    const std::uint64_t last = cut ? trailing_digits(digits.span, known_digits) : leading;
    const long fives = k < 0 ? -k : 0;
    if (fives >= static_cast<long>(powers_of_five.size())) {
        // 5^28 exceeds every C of up to 19 digits; a longer one must end in 5^18.
        if (!cut || last % powers_of_five[known_digits] != 0) return false;
    } else if (last % powers_of_five[static_cast<std::size_t>(fives)] != 0 &&
               (!cut || fives <= known_digits)) {
        return false;
    }
    const int twos = __builtin_ctzll(last);
    if (cut && twos >= known_digits) return true; // C modulo 10^18 hides more twos
    const double c_bits = cut ? static_cast<double>(digits.count - 1) * 3.3219280948873622
                              : static_cast<double>(63 - __builtin_clzll(leading));
    return c_bits - twos + static_cast<double>(k) * 2.3219280948873622 < 63;
}

/// The flags of a pattern decided from the two ends of an interval that
/// holds the value strictly inside: the value is inexact, tiny when the
/// pattern is subnormal or zero, and overflows when the pattern is
/// infinite. False for the patterns where the interval cannot tell: the
/// smallest normal (tininess after rounding looks one bit finer) and the
/// largest finite magnitude (which directed rounding also gives on overflow).
bool bracketed_flags(format f, std::uint64_t pattern, unsigned& flags) {
    const unsigned long m = f.mantissa_width;
    const std::uint64_t magnitude = pattern & low_mask(f.exponent_width + m);
    const std::uint64_t smallest_normal = std::uint64_t{1} << m;
    const std::uint64_t infinity = low_mask(f.exponent_width) << m;
    if (magnitude == smallest_normal || magnitude == infinity - 1) return false;
    flags = FLAG_INEXACT;
    if (magnitude < smallest_normal) flags |= FLAG_UNDERFLOW;
    if (magnitude == infinity) flags |= FLAG_OVERFLOW;
    return true;
}

/// The word path: the pattern of the numeral in a word_reading_format format
/// and its flags, or false when the exact path has to decide. `k` is the
/// exponent of the significant digits: the value is C * 10^k, or C * 2^k for
/// hexadecimal.
bool read_in_words(format f, RoundingContext& r, bool negative, bool hex,
                   const SignificantDigits& digits, long k, std::uint64_t& pattern) {
    if (!word_reading_format(f) || r.direction == RoundingContext::invalid_direction) return false;
    // The roundings of the ends of an interval, whose own flags say nothing
    // of the value's unless the interval is the value itself.
    RoundingContext ends(r.direction);
    WordReading read;
    if (!read_pattern_in_words(f, ends, negative, hex, digits, k, read)) return false;
    pattern = read.pattern;
    if (!read.bracketed) {
        r.flags |= ends.flags;
        return true;
    }
    if (may_be_exact(hex, digits, k, read.leading, read.cut)) return false;
    unsigned flags;
    if (!bracketed_flags(f, pattern, flags)) return false;
    r.flags |= flags;
    return true;
}

} // namespace

IEEEFloat IEEEFloat::from_string(std::string_view text, format f, rounding_mode mode) {
    Numeral numeral;
    if (!parse_numeral(text, numeral)) throw_invalid_number(text);
    IEEEFloat result(f, mode);
    switch (numeral.kind) {
    case Numeral::Kind::nan:
        result.self_nan();
        return result;
    case Numeral::Kind::infinity:
        result.self_inf(numeral.negative);
        return result;
    case Numeral::Kind::finite:
        break;
    }

    const SignificantDigits& significant = numeral.digits;
    if (significant.count == 0) {
        result.self_zero(numeral.negative);
        return result;
    }
    // The value is C * base^k with C the significant digits read as an integer.
    long k;
    Reach reach;
    if (numeral.hex) {
        k = numeral.exponent + 4 * significant.last_position;
        const auto first_digit = static_cast<unsigned>(hex_digit_value(significant.span[0]));
        const long bits = 4 * (significant.count - 1) + (32 - __builtin_clz(first_digit));
        reach = binary_reach(f, bits, k);
    } else {
        k = numeral.exponent + significant.last_position;
        reach = decimal_reach(f, significant.count, k);
    }

    RoundingContext r = RoundingContext::of_mode(mode);
    std::uint64_t pattern;
    if (reach == Reach::in_range && !numeral.exponent_saturated &&
        read_in_words(f, r, numeral.negative, numeral.hex, significant, k, pattern)) {
        switch (result.get_repr()) {
        case REPR_FLOAT32:
            result.value.bits32 = static_cast<std::uint32_t>(pattern);
            break;
        case REPR_FLOAT64:
            result.value.bits64 = pattern;
            break;
        default:
            set_pattern(result.value, pattern);
        }
        raise(r.flags);
        return result;
    }

    result.self_specialize_repr(REPR_GENERIC);
    QNumber& packed = number(result.value);
    if (reach != Reach::in_range) {
        round_out_of_range(f, r, numeral.negative, reach, packed);
    } else if (numeral.exponent_saturated ||
               (!numeral.hex && (k > decimal_exponent_limit || k < -decimal_exponent_limit))) {
        throw_error(precision_limit_message);
    } else {
        thread_local std::string digits;
        const long kept =
            numeral.hex ? significant.count : decisive_digits(f, significant.count, k);
        copy_digits(significant.span, kept, digits);
        if (kept < significant.count) {
            // The last digit is not 0, so neither are those left out.
            digits += '1';
            k += significant.count - kept - 1;
        }
        if (numeral.hex)
            round_hex(f, r, numeral.negative, digits, k, packed);
        else
            round_decimal(f, r, numeral.negative, digits, k, packed);
    }
    settle(result.value);
    result.self_specialize_repr(best_repr(f));
    raise(r.flags);
    return result;
}

} // namespace tarn
