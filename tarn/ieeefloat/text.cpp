// Decimal text: to_float_str (the shortest decimal that reads back to the
// value) and to_str.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/bits.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/numbers/bvnumber.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <gmp.h>
#include <string>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// Scratch integers of the digit search, kept per thread so that printing in
/// a loop stops allocating once the limbs have grown to the largest size met.
struct DecimalScratch {
    mpz_t significand, num, den, unit, quot, rem, bound, shifted, ratio;
    /// Two powers of five, powers[i] = 5^exponents[i] (-1: none yet), the
    /// older of them replaced first.
    mpz_t powers[2];
    long exponents[2] = {-1, -1};
    int older = 0;
    DecimalScratch() {
        mpz_inits(significand, num, den, unit, quot, rem, bound, shifted, ratio, powers[0],
                  powers[1], nullptr);
    }
    ~DecimalScratch() {
        mpz_clears(significand, num, den, unit, quot, rem, bound, shifted, ratio, powers[0],
                   powers[1], nullptr);
    }
    DecimalScratch(const DecimalScratch&) = delete;
    DecimalScratch& operator=(const DecimalScratch&) = delete;

    /// 5^n, valid until the next call but one. Values of one binade, or of the
    /// subnormal range, share their power, and the coarse and fine starts of
    /// one value need powers a few hundred digits apart, the larger of which
    /// a product by a small power gives faster than raising 5 again.
    mpz_srcptr power_of_five(long n) {
        for (int i = 0; i < 2; ++i)
            if (exponents[i] == n) {
                older = 1 - i;
                return powers[i];
            }
        const int i = older, other = 1 - older;
        if (exponents[other] >= 0 && exponents[other] < n && 2 * exponents[other] >= n) {
            mpz_ui_pow_ui(ratio, 5, static_cast<unsigned long>(n - exponents[other]));
            mpz_mul(powers[i], powers[other], ratio);
        } else {
            mpz_ui_pow_ui(powers[i], 5, static_cast<unsigned long>(n));
        }
        exponents[i] = n;
        older = other;
        return powers[i];
    }
};

DecimalScratch& decimal_scratch() {
    thread_local DecimalScratch scratch;
    return scratch;
}

/// The number of zeros that end x (> 0) in decimal: the smaller of its
/// valuations at 2 and at 5. The one at 2 is a bit scan, and caps the one at
/// 5, which is tested at that cap first: runs of zeros come from values that
/// are short decimals, with as many fives as twos to spare. Only otherwise does
/// GMP's removal of fives, by squared powers of 5, count them.
long decimal_valuation(mpz_srcptr x, DecimalScratch& s) {
    const auto twos = static_cast<long>(mpz_scan1(x, 0));
    if (twos == 0 || !mpz_divisible_ui_p(x, 5)) return 0;
    if (mpz_divisible_p(x, s.power_of_five(twos))) return twos;
    mpz_set_ui(s.bound, 5);
    return std::min(twos, static_cast<long>(mpz_remove(s.shifted, x, s.bound)));
}

/// 10^n for n = 0 to 19, the powers that fit a word.
constexpr auto powers_of_ten = [] {
    std::array<unsigned long, 20> powers{1};
    for (std::size_t n = 1; n < powers.size(); ++n)
        powers[n] = powers[n - 1] * 10;
    return powers;
}();

unsigned long power_of_ten(long n) {
    return powers_of_ten[static_cast<std::size_t>(n)];
}

__extension__ using u128 = unsigned __int128;

/// The quotient of the digit search, also as a native integer when below
/// 2^120, as for binary64 and binary128 values, whose runs and digits are
/// then found without GMP's calls.
struct Quotient {
    mpz_srcptr wide;
    bool narrow;
    u128 value;        // when narrow
    unsigned long low; // the quotient mod 10^18
    explicit Quotient(mpz_srcptr q)
        : wide(q), narrow(mpz_size(q) <= 2 && mpz_getlimbn(q, 1) >> 56 == 0),
          value(narrow ? static_cast<u128>(mpz_getlimbn(q, 1)) << 64 | mpz_getlimbn(q, 0) : 0),
          low(narrow ? static_cast<unsigned long>(value % power_of_ten(18))
                     : mpz_fdiv_ui(q, power_of_ten(18))) {}
};

/// The largest t for which the last t decimal digits of `quot` (digits
/// before its first counting as zeros), read as an integer q_t, pass:
/// q_t <= `bound` when `from_zero`, otherwise 10^t - q_t <= `bound`; when
/// every digit of the quotient passes with `from_zero`, their count. Both
/// sides grow with t, so the first t that fails ends the run; -1 when t = 0
/// already fails. The bound is small (below 10^18), so past its d digits
/// (10^d > bound) a passing q_t is the last d digits r alone, or 10^t - q_t is
/// 10^d - r alone: the digits between are zeros, or nines. The run then ends
/// where the zeros of quot - r, or of quot + 10^d - r, end, which valuations
/// count without writing the quotient in decimal.
long trailing_run(const Quotient& quot, unsigned long bound, bool from_zero, DecimalScratch& s) {
    long d = 0;
    while (power_of_ten(d) <= bound)
        ++d;
    const unsigned long last = quot.low % power_of_ten(d);
    // Only a quotient below 10^d can run out of digits before d.
    long length = 1;
    while (length < d && power_of_ten(length) <= last)
        ++length;
    const bool whole = quot.narrow ? quot.value == last : mpz_cmp_ui(quot.wide, last) == 0;
    for (long t = 0; t <= d; ++t) {
        const unsigned long q_t = last % power_of_ten(t);
        if ((from_zero ? q_t : power_of_ten(t) - q_t) > bound) return t - 1;
        if (from_zero && whole && t == length) return t;
    }
    if (from_zero && whole) return length;
    if (quot.narrow) {
        u128 x = from_zero ? quot.value - last : quot.value + (power_of_ten(d) - last);
        long zeros = 0;
        for (; x >> 64 != 0; x /= 10, ++zeros)
            if (x % 10 != 0) return zeros;
        for (auto word = static_cast<std::uint64_t>(x); word % 10 == 0; word /= 10)
            ++zeros;
        return zeros;
    }
    if (from_zero)
        mpz_sub_ui(s.shifted, quot.wide, last);
    else
        mpz_add_ui(s.shifted, quot.wide, power_of_ten(d) - last);
    return decimal_valuation(s.shifted, s);
}

/// The number of digits the quotient at the fine weight must exceed that at
/// the coarse one before the coarse start is tried: below it, a failed try
/// would cost more than converting the longer quotient saves.
constexpr long coarse_start_gain = 200;

/// Writes the shortest decimal C * 10^j that lies strictly inside the
/// rounding interval of X = significand * 2^k: the open interval between the
/// midpoints to X's neighbours, X + 2^k above and X - 2^k below (X - 2^(k-1)
/// when `finer_below`). Of the two candidates that bracket X at the shortest
/// length, the nearer wins and an exact tie keeps the lower one. C goes to
/// `digits` in decimal and j to `exponent`; false, when the interval holds
/// no multiple of 10^j0, the weight the search starts at.
///
/// The search coarsens the weight while the interval still holds a multiple
/// of 10^(j0+t). Holding a multiple of a power of ten implies holding one of
/// every finer power, so the first weight that fails ends the search, and
/// every start at which the interval holds a multiple ends it alike. A
/// single exact division at j0 serves every weight: the multiples of
/// 10^(j0+t) either side of X are the quotient with its last t digits cut
/// off, or that plus one, and how far X lies from them depends on those t
/// digits alone. Since the interval is at most a few units of 10^j0 wide,
/// the nearer multiple stays inside only while those digits are a small
/// number (below X) or a small distance from 10^t (above X): a run of zeros
/// or nines after the last digit or two, which valuations of the quotient
/// (or of it plus a few units) measure without writing it in decimal. Only
/// C itself is written in decimal. The cost is that of the division and a
/// few exact products and quotients of its size, all subquadratic.
bool shortest_decimal_from(mpz_srcptr significand, long k, bool finer_below, long j0,
                           std::string& digits, long& exponent) {
    DecimalScratch& s = decimal_scratch();

    // X / 10^j0 = num / den and ulp / 10^j0 = unit / den, where
    // num = significand * unit and unit, den are products of powers of 2 and 5.
    const long twos = k - j0;
    const long fives = -j0;
    mpz_set_ui(s.unit, 1);
    mpz_set_ui(s.den, 1);
    if (fives != 0)
        mpz_set(fives > 0 ? s.unit : s.den, s.power_of_five(fives > 0 ? fives : -fives));
    // The power of two goes on by shifting, not into the product.
    mpz_mul(s.num, s.unit, significand);
    if (twos > 0) {
        mpz_mul_2exp(s.unit, s.unit, static_cast<mp_bitcnt_t>(twos));
        mpz_mul_2exp(s.num, s.num, static_cast<mp_bitcnt_t>(twos));
    }
    if (twos < 0) mpz_mul_2exp(s.den, s.den, static_cast<mp_bitcnt_t>(-twos));
    if (fives >= 0 && twos < 0) {
        // For k < -1, bits finer than 1/2, den is 2^(j0 - k) alone: a shift
        // rather than a long division.
        mpz_fdiv_q_2exp(s.quot, s.num, static_cast<mp_bitcnt_t>(-twos));
        mpz_fdiv_r_2exp(s.rem, s.num, static_cast<mp_bitcnt_t>(-twos));
    } else {
        mpz_fdiv_qr(s.quot, s.rem, s.num, s.den);
    }

    // With q_t the last t digits of the quotient, the multiple below X at the
    // weight 10^(j0+t) lies (q_t * den + rem) / den units of 10^j0 below it and
    // the one above (10^t * den - q_t * den - rem) / den units above it. The
    // interval reaches unit / 2 above X and unit / 2 (unit / 4 when
    // finer_below) below it, both ends excluded, so the lower multiple is
    // inside while q_t is at most one bound and the upper one while 10^t - q_t
    // is at most another: bounds of a few units, as unit / den = 2^k / 10^j0
    // is below 20 (below 1 from a coarse start).
    const mp_bitcnt_t below_shift = finer_below ? 2 : 1;
    const Quotient quot(s.quot);
    long lower_run = -1;
    mpz_mul_2exp(s.bound, s.rem, below_shift);
    mpz_sub(s.bound, s.unit, s.bound);
    if (mpz_sgn(s.bound) > 0) {
        mpz_sub_ui(s.bound, s.bound, 1);
        mpz_fdiv_q_2exp(s.bound, s.bound, below_shift);
        mpz_fdiv_q(s.bound, s.bound, s.den);
        lower_run = trailing_run(quot, mpz_get_ui(s.bound), true, s);
    }
    mpz_mul_2exp(s.bound, s.rem, 1);
    mpz_add(s.bound, s.bound, s.unit);
    mpz_sub_ui(s.bound, s.bound, 1);
    mpz_fdiv_q_2exp(s.bound, s.bound, 1);
    mpz_fdiv_q(s.bound, s.bound, s.den);
    const long upper_run = trailing_run(quot, mpz_get_ui(s.bound), false, s);

    // Neither multiple of 10^j0 nearest X inside: only a start coarser than
    // the interval gets here.
    if (lower_run < 0 && upper_run < 0) return false;
    const long t = std::max(lower_run, upper_run);
    const bool lower_ok = lower_run >= t, upper_ok = upper_run >= t;
    bool take_upper = upper_ok;
    // The last t digits of the quotient, q_t, when the lower multiple is
    // inside, or 10^t - q_t when the upper one is: either is at most a bound,
    // so below 10^18, and thus the last digits of the quotient at 10^18.
    const unsigned long tail = quot.low % power_of_ten(std::min(t, 18L));
    if (lower_ok && upper_ok) {
        // Both inside makes 10^t at most the sum of the bounds, so q_t and
        // 10^t fit words. The upper multiple is nearer when
        // 10^t * den - below < below, below = q_t * den + rem.
        const auto power = static_cast<long>(power_of_ten(t)), q_t = static_cast<long>(tail);
        mpz_mul_si(s.bound, s.den, power - 2 * q_t);
        mpz_mul_2exp(s.num, s.rem, 1);
        take_upper = mpz_cmp(s.bound, s.num) < 0;
    }
    // C is the multiple of 10^t chosen, divided by 10^t: an exact division.
    const unsigned long offset = take_upper ? power_of_ten(std::min(t, 18L)) - tail : tail;
    if (quot.narrow) {
        u128 chosen = take_upper ? quot.value + offset : quot.value - offset;
        for (long left = t; left > 0; left -= 19)
            chosen /= power_of_ten(std::min(left, 19L));
        // Below 2^120, so the digits above the last 19 fit a word.
        auto high = static_cast<std::uint64_t>(chosen / power_of_ten(19));
        auto low = static_cast<std::uint64_t>(chosen % power_of_ten(19));
        char buffer[40];
        char* const end = buffer + sizeof buffer;
        char* p = end;
        for (int n = 0; n == 0 || low != 0 || (high != 0 && n < 19); ++n, low /= 10)
            *--p = static_cast<char>('0' + low % 10);
        for (; high != 0; high /= 10)
            *--p = static_cast<char>('0' + high % 10);
        digits.assign(p, end);
    } else {
        if (take_upper)
            mpz_add_ui(s.quot, s.quot, offset);
        else
            mpz_sub_ui(s.quot, s.quot, offset);
        if (t <= 19) {
            mpz_divexact_ui(s.quot, s.quot, power_of_ten(t));
        } else {
            mpz_fdiv_q_2exp(s.quot, s.quot, static_cast<mp_bitcnt_t>(t));
            mpz_divexact(s.quot, s.quot, s.power_of_five(t));
        }
        digits.resize(mpz_sizeinbase(s.quot, 10) + 1);
        mpz_get_str(&digits[0], 10, s.quot);
        digits.resize(std::char_traits<char>::length(digits.c_str()));
    }
    exponent = j0 + t;
    return true;
}

/// shortest_decimal_from at a start that always holds a multiple; j is returned.
///
/// 10^fine <= 2^(k-1) is narrower than the interval, which so holds a
/// multiple of it, but the quotient there has all the digits of X, hundreds
/// of thousands in a wide format, even when the answer is "1.5". A wide value
/// is therefore tried first near its 20th significant digit, where the
/// quotient is short, and only a value with more digits than that, which
/// fails there, starts again at the fine weight.
long shortest_decimal(mpz_srcptr significand, long k, bool finer_below, std::string& digits) {
    const long fine = floor_log10_pow2(k - 1);
    const long bits = static_cast<long>(mpz_sizeinbase(significand, 2)) + k;
    const long coarse = floor_log10_pow2(bits - 1) - 20;
    long exponent;
    // Far above 1 the coarse start needs the larger power of five: the fine
    // one's is computed first, so that the coarse one is a product of it.
    if (coarse - fine >= coarse_start_gain && std::labs(coarse) > std::labs(fine))
        decimal_scratch().power_of_five(std::labs(fine));
    if (coarse - fine < coarse_start_gain ||
        !shortest_decimal_from(significand, k, finer_below, coarse, digits, exponent))
        shortest_decimal_from(significand, k, finer_below, fine, digits, exponent);
    return exponent;
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
