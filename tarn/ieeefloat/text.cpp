// Decimal text: to_float_str (the shortest decimal that reads back to the
// value) and to_str.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/bits.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/numbers/bvnumber.h"

#include <algorithm>
#include <cstdint>
#include <gmp.h>
#include <string>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// Scratch integers of the digit search, kept per thread so that printing in
/// a loop stops allocating once the limbs have grown to the largest size met.
struct DecimalScratch {
    mpz_t significand, num, den, unit, quot, rem, power, below, above, tail, probe;
    DecimalScratch() {
        mpz_inits(significand, num, den, unit, quot, rem, power, below, above, tail, probe,
                  nullptr);
    }
    ~DecimalScratch() {
        mpz_clears(significand, num, den, unit, quot, rem, power, below, above, tail, probe,
                   nullptr);
    }
    DecimalScratch(const DecimalScratch&) = delete;
    DecimalScratch& operator=(const DecimalScratch&) = delete;
};

DecimalScratch& decimal_scratch() {
    thread_local DecimalScratch scratch;
    return scratch;
}

/// Writes the shortest decimal C * 10^j that lies strictly inside the
/// rounding interval of X = significand * 2^k: the open interval between the
/// midpoints to X's neighbours, X + 2^k above and X - 2^k below (X - 2^(k-1)
/// when `finer_below`). Of the two candidates that bracket X at the shortest
/// length, the nearer wins and an exact tie keeps the lower one. C goes to
/// `digits` in decimal; j is returned.
///
/// Rather than producing one digit at a time, the search starts at a weight
/// 10^j0 certainly fine enough (10^j0 <= 2^(k-1), narrower than the interval,
/// so the interval holds a multiple of it) and coarsens the weight while the
/// interval still holds a multiple of 10^(j0+t). Holding a multiple of a power
/// of ten implies holding one of every finer power, so the coarsest weight
/// that holds one is the answer. A single exact division at j0 serves every
/// weight: the low decimal digits of its quotient give the remainder at each
/// one, and since the interval spans fewer than 20 units of 10^j0, the
/// coarsest weight follows from the trailing decimal zeros of two integers.
/// For binary64 this is a handful of operations on integers of at most
/// about 1100 bits, and a format of millions of bits costs a few divisions.
long shortest_decimal(mpz_srcptr significand, long k, bool finer_below, std::string& digits) {
    DecimalScratch& s = decimal_scratch();
    const long j0 = floor_log10_pow2(k - 1);

    // X / 10^j0 = num / den and ulp / 10^j0 = unit / den, where
    // num = significand * unit and unit, den are products of powers of 2 and 5.
    const long twos = k - j0;
    const long fives = -j0;
    mpz_ui_pow_ui(s.unit, 5, static_cast<unsigned long>(fives > 0 ? fives : 0));
    if (twos > 0) mpz_mul_2exp(s.unit, s.unit, static_cast<mp_bitcnt_t>(twos));
    mpz_mul(s.num, s.unit, significand);
    mpz_ui_pow_ui(s.den, 5, static_cast<unsigned long>(fives < 0 ? -fives : 0));
    if (twos < 0) mpz_mul_2exp(s.den, s.den, static_cast<mp_bitcnt_t>(-twos));
    if (fives >= 0 && twos < 0) {
        // For k < -1, bits finer than 1/2, den is 2^(j0 - k) alone: a shift
        // rather than a long division.
        mpz_fdiv_q_2exp(s.quot, s.num, static_cast<mp_bitcnt_t>(-twos));
        mpz_fdiv_r_2exp(s.rem, s.num, static_cast<mp_bitcnt_t>(-twos));
    } else {
        mpz_fdiv_qr(s.quot, s.rem, s.num, s.den);
    }

    // At the weight 10^(j0+t), with lower the multiple at or below X and upper
    // the next one: below = (X - lower) * den / 10^j0 and
    // above = (upper - X) * den / 10^j0. The interval reaches unit/2 above X
    // and unit/2 (unit/4 when finer_below) below it, both ends excluded.
    const mp_bitcnt_t below_shift = finer_below ? 2 : 1;
    auto inside_below = [&](mpz_srcptr below) {
        mpz_mul_2exp(s.probe, below, below_shift);
        return mpz_cmp(s.probe, s.unit) < 0;
    };
    auto inside_above = [&](mpz_srcptr above) {
        mpz_mul_2exp(s.probe, above, 1);
        return mpz_cmp(s.probe, s.unit) < 0;
    };
    mpz_set(s.below, s.rem);
    mpz_sub(s.above, s.den, s.rem);
    bool lower_ok = inside_below(s.below);
    bool upper_ok = inside_above(s.above);

    // Coarser weights, without a step per digit (a value such as 1 in a format
    // of a million mantissa bits would take hundreds of thousands of them).
    // unit / den = 2^k / 10^j0 lies in [2, 20), so at a weight 10^t with t >= 1
    // the multiple below X is inside only when quot mod 10^t is below 10, that
    // is the last digit d0 of quot; and the multiple above only when
    // 10^t - (quot mod 10^t) is at most 10, that is 10 - d0 (10 for d0 = 0).
    // Either way the distance to X no longer depends on t, and the weights
    // that qualify are those up to the decimal valuation of quot - d0, or of
    // quot + (10 - d0): the largest t is found from two valuations.
    const unsigned long d0 = mpz_fdiv_ui(s.quot, 10), up = 10 - d0;
    mpz_mul_ui(s.below, s.den, d0);
    mpz_add(s.below, s.below, s.rem);
    mpz_mul_ui(s.above, s.den, up);
    mpz_sub(s.above, s.above, s.rem);
    const bool coarse_lower_ok = inside_below(s.below), coarse_upper_ok = inside_above(s.above);
    // The power of ten dividing quot - d0 (lower) or quot + up (upper).
    auto decimal_valuation = [&](bool upper) {
        if (upper)
            mpz_add_ui(s.tail, s.quot, up);
        else
            mpz_sub_ui(s.tail, s.quot, d0);
        if (mpz_sgn(s.tail) == 0) return 0L; // quot < 10: no coarser multiple is positive
        const mp_bitcnt_t twos = mpz_scan1(s.tail, 0);
        mpz_tdiv_q_2exp(s.tail, s.tail, twos);
        mpz_set_ui(s.power, 5);
        const auto fives = static_cast<long>(mpz_remove(s.probe, s.tail, s.power));
        return std::min(static_cast<long>(twos), fives);
    };
    const long t_lower = coarse_lower_ok ? decimal_valuation(false) : 0;
    const long t_upper = coarse_upper_ok ? decimal_valuation(true) : 0;
    const long t = std::max(t_lower, t_upper);
    if (t > 0) {
        lower_ok = t <= t_lower;
        upper_ok = t <= t_upper;
        // The candidate below is quot - d0 and the one above quot + up, each
        // an exact multiple of 10^t when it qualifies.
        const bool take_upper = upper_ok && (!lower_ok || mpz_cmp(s.above, s.below) < 0);
        if (take_upper)
            mpz_add_ui(s.quot, s.quot, up);
        else
            mpz_sub_ui(s.quot, s.quot, d0);
        mpz_ui_pow_ui(s.power, 10, static_cast<unsigned long>(t));
        mpz_divexact(s.quot, s.quot, s.power);
    } else {
        mpz_set(s.below, s.rem);
        mpz_sub(s.above, s.den, s.rem);
        if (upper_ok && (!lower_ok || mpz_cmp(s.above, s.below) < 0)) mpz_add_ui(s.quot, s.quot, 1);
    }

    digits.resize(mpz_sizeinbase(s.quot, 10) + 1);
    mpz_get_str(&digits[0], 10, s.quot);
    digits.resize(std::char_traits<char>::length(digits.c_str()));
    return j0 + t;
}

/// 5^n for n = 0 to 27, the powers that fit a word.
constexpr std::uint64_t power_of_five(int n) {
    std::uint64_t p = 1;
    while (n-- > 0)
        p *= 5;
    return p;
}

/// The search of shortest_decimal on 128-bit words, for the significands and
/// exponents where every intermediate fits: most binary32 and binary64
/// values of everyday magnitude (about 1e-10 to 1e25 for binary64). Returns
/// false, having written nothing, when the value is out of its reach.
bool shortest_decimal_in_words(std::uint64_t significand, long k, bool finer_below,
                               std::string& digits, long& exponent) {
    __extension__ using u128 = unsigned __int128;
    const long j0 = floor_log10_pow2(k - 1);
    const long twos = k - j0;
    const long fives = -j0;
    if (fives > 27 || fives < -27 || twos > 64 || twos < -64) return false;
    auto bit_length = [](u128 x) {
        const auto high = static_cast<std::uint64_t>(x >> 64);
        const auto low = static_cast<std::uint64_t>(x);
        return high ? 128 - __builtin_clzll(high) : low ? 64 - __builtin_clzll(low) : 0;
    };
    const std::uint64_t unit_odd = fives > 0 ? power_of_five(static_cast<int>(fives)) : 1;
    const std::uint64_t den_odd = fives < 0 ? power_of_five(static_cast<int>(-fives)) : 1;
    const long unit_bits = bit_length(unit_odd) + (twos > 0 ? twos : 0);
    const long den_bits = bit_length(den_odd) + (twos < 0 ? -twos : 0);
    // num = significand * unit and, at the coarsest weight tried, den * 10^20
    // and four times the distances must stay below 2^128.
    // A significand below 2^58 keeps the quotient below 20 * 2^58 < 10^19, so
    // the coarsest weight worth trying, 10^(j0+19), fits a word.
    const long significand_bits = bit_length(significand);
    if (significand_bits > 58 || significand_bits + unit_bits > 124 || den_bits > 56) return false;

    const u128 unit = static_cast<u128>(unit_odd) << (twos > 0 ? twos : 0);
    const u128 den = static_cast<u128>(den_odd) << (twos < 0 ? -twos : 0);
    const u128 num = unit * significand;
    // The quotient is below 20 * 2^58 (see above), so it fits a word; a
    // power-of-two denominator, the case of every value below 10^16 or so,
    // divides by shifting.
    const std::uint64_t quot =
        static_cast<std::uint64_t>(den_odd == 1 ? num >> (twos < 0 ? -twos : 0) : num / den);
    const u128 rem = num - static_cast<u128>(quot) * den;

    const int below_shift = finer_below ? 2 : 1;
    auto inside_below = [&](u128 below) { return (below << below_shift) < unit; };
    auto inside_above = [&](u128 above) { return (above << 1) < unit; };
    u128 below = rem;
    bool lower_ok = inside_below(below);
    bool upper_ok = inside_above(den - rem);
    long t = 0;
    std::uint64_t power = 1;
    u128 scaled_den = den;
    while (t < 19) {
        const std::uint64_t next_power = power * 10;
        const u128 next_scaled_den = scaled_den * 10;
        const u128 tail = static_cast<u128>(quot % next_power) * den + rem;
        const bool next_lower_ok = inside_below(tail);
        const bool next_upper_ok = inside_above(next_scaled_den - tail);
        if (!next_lower_ok && !next_upper_ok) break;
        ++t;
        power = next_power;
        scaled_den = next_scaled_den;
        lower_ok = next_lower_ok;
        upper_ok = next_upper_ok;
        below = tail;
    }
    const u128 above = scaled_den - below;
    std::uint64_t chosen = quot / power;
    if (upper_ok && (!lower_ok || above < below)) ++chosen;

    char buffer[40];
    char* end = buffer + sizeof buffer;
    char* p = end;
    do {
        *--p = static_cast<char>('0' + static_cast<int>(chosen % 10));
        chosen /= 10;
    } while (chosen != 0);
    digits.assign(p, end);
    exponent = j0 + t;
    return true;
}

/// Appends C * 10^j positionally: zeros after C for j >= 0, otherwise a
/// point inside C or "0." and leading zeros before it.
void append_positional(const std::string& digits, long j, std::string& text) {
    const long length = static_cast<long>(digits.size());
    if (j >= 0) {
        text += digits;
        text.append(static_cast<std::size_t>(j), '0');
    } else if (length > -j) {
        text.append(digits, 0, static_cast<std::size_t>(length + j));
        text += '.';
        text.append(digits, static_cast<std::size_t>(length + j), std::string::npos);
    } else {
        text += "0.";
        text.append(static_cast<std::size_t>(-j - length), '0');
        text += digits;
    }
}

/// Appends the bits from `top` down to 0 of a pattern, with "_" before the
/// exponent field and before the mantissa field.
template <class BitAt>
void append_grouped_bits(unsigned long e, unsigned long m, BitAt bit_at, std::string& text) {
    text += '{';
    for (unsigned long i = e + m + 1; i-- > 0;) {
        if (i + 1 == e + m || (m > 0 && i + 1 == m)) text += '_';
        text += bit_at(i) ? '1' : '0';
    }
    text += '}';
}

} // namespace

std::string IEEEFloat::to_float_str() const {
    if (fmt.exponent_width == 0) return "0";
    FiniteParts parts;
    switch (decode_value(get_repr(), value, fmt, parts)) {
    case ValueClass::nan:
        throw_error("can't convert NaN to float str");
    case ValueClass::zero:
        return parts.negative ? "-0" : "0";
    case ValueClass::infinite:
        throw_error("can't convert Infinity to float str");
    case ValueClass::finite:
        break;
    }
    check_exact_size(parts.exponent);
    thread_local std::string digits;
    long j;
    if (!parts.in_word ||
        !shortest_decimal_in_words(parts.word, parts.exponent, parts.finer_below, digits, j)) {
        mpz_srcptr significand = parts.wide.get_mpz_t();
        if (parts.in_word) {
            mpz_ptr word = decimal_scratch().significand;
            mpz_set_ui(word, parts.word);
            significand = word;
        }
        j = shortest_decimal(significand, parts.exponent, parts.finer_below, digits);
    }
    std::string text;
    text.reserve(digits.size() + static_cast<std::size_t>(j < 0 ? 3 - j : j + 1));
    if (parts.negative) text += '-';
    append_positional(digits, j, text);
    return text;
}

std::string IEEEFloat::to_str() const {
    const unsigned long e = fmt.exponent_width, m = fmt.mantissa_width;
    std::string text = "[" + std::to_string(e) + ":" + std::to_string(m) + "]";
    if (e == 0) return text + "+0{0}";
    if (is_nan())
        text += "NaN";
    else if (is_inf())
        text += get_sign() ? "-Inf" : "+Inf";
    else
        text += to_float_str();

    switch (get_repr()) {
    case REPR_FLOAT32:
    case REPR_FLOAT64: {
        const std::uint64_t word = get_repr() == REPR_FLOAT32 ? value.bits32 : value.bits64;
        append_grouped_bits(
            e, m, [word](unsigned long i) { return i < 64 && ((word >> i) & 1); }, text);
        break;
    }
    default: {
        append_grouped_bits(
            e, m, [this](unsigned long i) { return pattern_bit(value, i); }, text);
    }
    }
    return text;
}

} // namespace tarn
