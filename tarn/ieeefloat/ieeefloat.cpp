// The implementation of tarn::IEEEFloat.
//
// The file is organised bottom-up:
//   1. machine-word helpers and the library's errors;
//   2. the packed codec: splitting a packed integer into sign, exponent and
//      significand, classifying it, and joining the parts again;
//   3. the rounding core, which turns any exact result into the packed
//      integer of the correctly rounded value of a format;
//   4. the soft-float glue used by the binary32 and binary64 paths;
//   5. the members: formats, construction and bit access, classification and
//      special values.
// The conversions, arithmetic, square root, comparison, exact results,
// neighbours and text follow in sections of their own after these.
//
// Throughout, a finite value is (-1)^s * M * 2^(E - m): M the integer
// significand (with the hidden bit 2^m for a normal value) and E the unbiased
// exponent (1 - bias for a zero exponent field).

#include "tarn/ieeefloat/ieeefloat.h"

#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <gmp.h>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace tarn {

namespace {

using format = IEEEFloat::format;
using rounding_mode = IEEEFloat::rounding_mode;

// ---------------------------------------------------------------------------
// Machine-word helpers
// ---------------------------------------------------------------------------

/// What the bit scans answer when there is no such bit.
constexpr unsigned long no_bit = ULONG_MAX;

/// 2^n - 1 for n up to 64.
constexpr std::uint64_t low_mask(unsigned long n) {
    return n >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << n) - 1;
}

/// Reads a non-negative integer that fits a signed word. Small-form numbers
/// always do, so this is the gate to every word path of the file.
inline bool as_word(const QNumber& q, std::uint64_t& word) {
    long v;
    if (!BVNumber::to_long(q, &v) || v < 0) return false;
    word = static_cast<std::uint64_t>(v);
    return true;
}

/// The number of bits of a positive integer. Words use the leading-zero
/// count of the machine; big integers ask GMP for their size through the
/// leading-zero count against the widest possible width.
inline unsigned long bit_length(const QNumber& q) {
    long v;
    if (BVNumber::to_long(q, &v) && v > 0)
        return 64 - static_cast<unsigned long>(__builtin_clzll(static_cast<unsigned long long>(v)));
    return no_bit - BVNumber::count_leading_zeros(q, no_bit);
}

/// The low 64 bits of a non-negative integer.
std::uint64_t low_64_bits(const QNumber& q) {
    std::uint64_t word, upper;
    if (as_word(q, word) || BVNumber::to_words(q, &word, &upper)) return word;
    QNumber part;
    BVNumber::bit_right_shift(q, 32, &part);
    BVNumber::trim(part, 32);
    long high = 0;
    BVNumber::to_long(part, &high);
    part = q;
    BVNumber::trim(part, 32);
    long low = 0;
    BVNumber::to_long(part, &low);
    return static_cast<std::uint64_t>(high) << 32 | static_cast<std::uint64_t>(low);
}

/// The non-negative integer whose bits are those of `word`. Bit 63 needs the
/// big form.
QNumber integer_from_word(std::uint64_t word) {
    QNumber q;
    BVNumber::assign_words(word, 0, &q);
    return q;
}

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

constexpr char precision_limit_message[] = "reached limit on float precision";

[[noreturn, gnu::cold, gnu::noinline]] void throw_error(char const* message) {
    throw IEEEFloat::error(std::string(message));
}

/// The message ends in a number, so it is built in a stream first; the
/// diagnostic hook therefore sees it twice, once without the number.
[[noreturn, gnu::cold, gnu::noinline]] void throw_bad_rounding_mode(int mode) {
    Exception partial(std::string("bad rounding mode: "), true);
    partial << mode;
    throw IEEEFloat::error(std::string(partial.what()));
}

// ---------------------------------------------------------------------------
// The packed codec
// ---------------------------------------------------------------------------

/// The two scans that classify a packed integer P of a format (e, m):
/// `lowest_one` is the index of the lowest 1 bit of P (no_bit for P = 0) and
/// `lowest_zero_from_m` the index of the lowest 0 bit at or above m. Every
/// class of IEEE-754 is a comparison of these with m and e + m, so no field
/// is ever extracted.
struct PackedScan {
    unsigned long lowest_one;
    unsigned long lowest_zero_from_m;

    bool exponent_all_ones(format f) const {
        return lowest_zero_from_m >= f.exponent_width + f.mantissa_width;
    }
    bool zero(format f) const { return lowest_one >= f.exponent_width + f.mantissa_width; }
    bool inf(format f) const { return lowest_one == f.mantissa_width && exponent_all_ones(f); }
    bool nan(format f) const { return lowest_one < f.mantissa_width && exponent_all_ones(f); }
};

/// Scans a non-negative word (bit 63 clear, as every word of a small-form
/// integer is), so bits at and above 63 all read as 0.
inline PackedScan scan_word(std::uint64_t word, unsigned long m) {
    unsigned long lowest_one = word ? static_cast<unsigned long>(__builtin_ctzll(word)) : no_bit;
    unsigned long lowest_zero =
        m >= 63 ? m : m + static_cast<unsigned long>(__builtin_ctzll(~(word >> m)));
    return {lowest_one, lowest_zero};
}

/// Scans a non-negative integer of at most two words, low and high.
inline PackedScan scan_two_words(std::uint64_t low, std::uint64_t high, unsigned long m) {
    const unsigned long lowest_one = low    ? static_cast<unsigned long>(__builtin_ctzll(low))
                                     : high ? 64 + static_cast<unsigned long>(__builtin_ctzll(high))
                                            : no_bit;
    if (m >= 128) return {lowest_one, m};
    // The complement shifted down by m has ones from 128 - m up; read as two
    // words it is zero only when every bit from m to 127 is set.
    const std::uint64_t c_low =
        ~(m >= 64 ? high >> (m - 64) : low >> m | (m ? high << (64 - m) : 0));
    const std::uint64_t c_high = m >= 64 ? ~std::uint64_t{0} : ~(high >> m);
    const unsigned long lowest_zero =
        c_low ? static_cast<unsigned long>(__builtin_ctzll(c_low))
              : 64 + static_cast<unsigned long>(c_high ? __builtin_ctzll(c_high) : 64);
    return {lowest_one, m + lowest_zero};
}

/// The scans of a packed integer: on machine words while it has at most two
/// (every pattern of up to 128 bits), with GMP beyond.
inline PackedScan scan_packed(const QNumber& packed, unsigned long m) {
    std::uint64_t word, high;
    if (packed.is_small()) {
        if (as_word(packed, word)) return scan_word(word, m);
    } else if (BVNumber::to_words(packed, &word, &high)) {
        return scan_two_words(word, high, m);
    }
    return {BVNumber::scan_bit_1(packed, 0), BVNumber::scan_bit_0(packed, m)};
}

/// True when no bit of the exponent field [m, e + m) is set.
inline bool exponent_field_zero(const QNumber& packed, format f) {
    const unsigned long m = f.mantissa_width;
    std::uint64_t word;
    if (as_word(packed, word)) return m >= 64 || ((word >> m) & low_mask(f.exponent_width)) == 0;
    return BVNumber::scan_bit_1(packed, m) >= f.exponent_width + m;
}

/// Classifies a packed integer: at most one of inf, nan and zero is set.
void get_flags(format f, const QNumber& packed, bool& inf, bool& nan, bool& zero) {
    const PackedScan scan = scan_packed(packed, f.mantissa_width);
    inf = scan.inf(f);
    nan = scan.nan(f);
    zero = scan.zero(f);
}

/// Splits a packed integer into its sign, biased exponent field and mantissa
/// field. `scratch` is working storage and ends holding 2^m - 1.
void unpack_components(format f, const QNumber& packed, bool& sign, QNumber& exponent,
                       QNumber& mantissa, QNumber& scratch) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    std::uint64_t word;
    if (e <= 62 && m <= 62 && as_word(packed, word)) {
        sign = e + m < 64 && ((word >> (e + m)) & 1);
        exponent = QNumber(static_cast<long>((word >> m) & low_mask(e)));
        mantissa = QNumber(static_cast<long>(word & low_mask(m)));
        scratch = QNumber(static_cast<long>(low_mask(m)));
        return;
    }
    sign = BVNumber::test_bit(packed, e + m);
    BVNumber::pow2(e, &scratch);
    scratch -= 1L;
    BVNumber::bit_right_shift(packed, m, &exponent);
    BVNumber::bit_op(exponent, scratch, BVNumber::bit_and_l, mpz_and, &exponent);
    BVNumber::pow2(m, &scratch);
    scratch -= 1L;
    BVNumber::bit_op(packed, scratch, BVNumber::bit_and_l, mpz_and, &mantissa);
}

/// Turns a biased exponent field and a mantissa field, in place, into the
/// unbiased exponent E and the integer significand M. Subnormals keep their
/// short significand and the minimum exponent 1 - bias.
void get_unbiased(format f, const QNumber& bias, QNumber& exponent, QNumber& significand) {
    const bool subnormal_or_zero = exponent.is_zero();
    exponent -= bias;
    if (subnormal_or_zero)
        exponent += 1L;
    else
        BVNumber::set_bit(significand, f.mantissa_width, true);
}

/// out := exponent * 2^m + significand, with the sign bit set when `sign`;
/// out may be the same object as either input.
/// Nothing is masked, so a significand that still holds its hidden bit
/// carries one into the exponent field: callers may pass either E + bias with
/// the bare mantissa or E + bias - 1 with the full significand.
void pack_float(format f, bool sign, const QNumber& exponent, const QNumber& significand,
                QNumber& out) {
    const unsigned long m = f.mantissa_width;
    long high, low;
    if (m <= 61 && BVNumber::to_long(exponent, &high) && high >= 0 && (high >> (62 - m)) == 0 &&
        BVNumber::to_long(significand, &low) && low >= 0 && (low >> 62) == 0) {
        out = QNumber((high << m) + low); // both below 2^62: the sum fits a word
    } else if (&out == &exponent || &out == &significand) {
        const QNumber exponent_copy = exponent, significand_copy = significand;
        pack_float(f, false, exponent_copy, significand_copy, out);
    } else {
        // A wide pattern is built in out's own storage, which a generic value
        // keeps from one operation to the next: 2^m, times the exponent, plus
        // the significand, each in place.
        BVNumber::pow2(m, &out);
        out *= exponent;
        out += significand;
    }
    if (sign) BVNumber::set_bit(out, f.exponent_width + m, true);
}

/// out := the library NaN: sign 1, exponent field all ones, mantissa field 1.
/// One pattern for every NaN keeps results independent of operand payloads.
void do_make_nan(format f, QNumber& out) {
    BVNumber::pow2(f.exponent_width, &out);
    out -= 1L;
    BVNumber::bit_left_shift(out, f.mantissa_width, &out);
    BVNumber::set_bit(out, 0, true);
    BVNumber::set_bit(out, f.exponent_width + f.mantissa_width, true);
}

/// out := the infinity of the given sign.
void do_make_inf(format f, bool negative, QNumber& out) {
    pack_float(f, negative, f.max_exponent(), QNumber(0L), out);
}

/// out := the zero of the given sign, reusing out's storage.
void do_make_zero(format f, bool negative, QNumber& out) {
    out = QNumber(0L);
    if (negative) BVNumber::set_bit(out, f.exponent_width + f.mantissa_width, true);
}

/// The library NaN of a format whose packed integers fit 64 bits.
constexpr std::uint64_t library_nan_word(unsigned long e, unsigned long m) {
    return low_mask(e) << m | 1 | std::uint64_t{1} << (e + m);
}

// ---------------------------------------------------------------------------
// The rounding core
// ---------------------------------------------------------------------------

/// Scratch numbers of one generic operation, created once on its stack and
/// lent to the routines it calls so that intermediate exponents and
/// significands reuse storage. By convention the caller keeps its exponents
/// and significands in slots 0 to 4; round_and_pack_float works in slots 5
/// and 6. The slots are destroyed from 6 down to 0.
class TempNumProvider {
public:
    static constexpr int slot_count = 7;

    /// Every slot holds 0.
    TempNumProvider() = default;
    /// Slot 0 holds `first`, the others 0.
    explicit TempNumProvider(long first) { slots[0] = QNumber(first); }
    TempNumProvider(const TempNumProvider&) = delete;
    TempNumProvider& operator=(const TempNumProvider&) = delete;

    QNumber& operator[](int slot) { return slots[slot]; }

private:
    QNumber slots[slot_count];
};

/// Whether an inexact result moves one unit away from zero, given the bit
/// just below the kept ones (`round_bit`), whether anything lies below that
/// (`sticky`) and whether the kept significand is odd.
inline bool rounds_away(rounding_mode mode, bool negative, bool round_bit, bool sticky, bool odd) {
    switch (mode) {
    case IEEEFloat::ROUND_NEAREST_EVEN:
        return round_bit && (sticky || odd);
    case IEEEFloat::ROUND_TOWARD_ZERO:
        return false;
    case IEEEFloat::ROUND_TOWARD_POSITIVE:
        return !negative;
    case IEEEFloat::ROUND_TOWARD_NEGATIVE:
        return negative;
    }
    throw_bad_rounding_mode(static_cast<int>(mode));
}

/// Whether a result too large for the format becomes the largest finite
/// magnitude rather than infinity: the modes that round its magnitude down.
inline bool overflow_saturates(rounding_mode mode, bool negative) {
    return mode == IEEEFloat::ROUND_TOWARD_ZERO ||
           static_cast<int>(mode) == IEEEFloat::ROUND_TOWARD_NEGATIVE - static_cast<int>(negative);
}

/// Formats whose rounding fits machine words: exponents, significands and
/// the packed integer (sign bit aside) all stay below 2^63.
inline bool word_rounding_format(format f) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    return e >= 1 && e <= 62 && m <= 61 && e + m <= 63;
}

/// Exponents the word path accepts: far enough from the word limits that the
/// biased exponent and the subnormal shift cannot overflow.
constexpr long word_exponent_limit = long{1} << 61;

/// Stores a packed integer below 2^(e+m) with the given sign into out.
void store_packed(format f, bool negative, std::uint64_t magnitude_bits, QNumber& out) {
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    if (sign_bit <= 62) {
        out = QNumber(static_cast<long>(magnitude_bits | std::uint64_t{negative} << sign_bit));
        return;
    }
    out = QNumber(static_cast<long>(magnitude_bits));
    if (negative) BVNumber::set_bit(out, sign_bit, true);
}

/// The last steps of the rounding core for formats whose patterns fit words:
/// `kept` is the significand already cut to the format's precision, with the
/// first discarded bit and the sticky bit beside it. `biased` is the biased
/// exponent of a normal result (above 0 and below the all-ones field); 0 or
/// below marks a subnormal one, and it is ignored under `overflow`.
void finish_in_words(format f, rounding_mode mode, bool negative, std::uint64_t kept,
                     bool round_bit, bool sticky, long biased, bool overflow, QNumber& out) {
    const unsigned long m = f.mantissa_width;
    const long max_exponent = (long{1} << f.exponent_width) - 1;
    if ((round_bit || sticky) && rounds_away(mode, negative, round_bit, sticky, kept & 1)) {
        ++kept;
        if (kept >> (m + 1)) { // rounded up to the next power of two
            kept >>= 1;
            overflow = overflow || ++biased >= max_exponent;
        }
    }
    std::uint64_t bits;
    if (overflow) {
        bits = static_cast<std::uint64_t>(max_exponent) << m;
        if (overflow_saturates(mode, negative)) --bits;
    } else if (biased > 0) {
        // The hidden bit of kept carries one into the exponent field.
        bits = (static_cast<std::uint64_t>(biased - 1) << m) + kept;
    } else {
        // Subnormal, or zero when everything was shifted out; one that rounded
        // up to 2^m lands on the smallest normal by the same carry.
        bits = kept;
    }
    store_packed(f, negative, bits, out);
}

/// The rounding core on machine words, for word_rounding_format formats and
/// exponents within word_exponent_limit: the steps of the QNumber path below
/// with every number in a register.
void round_and_pack_word(format f, rounding_mode mode, bool negative, long significand,
                         long exponent, QNumber& out) {
    std::uint64_t s = static_cast<std::uint64_t>(significand);
    if (significand < 0) {
        s = 0 - s;
        negative = !negative;
    }
    if (s == 0) {
        store_packed(f, negative, 0, out);
        return;
    }
    const long bias = (long{1} << (f.exponent_width - 1)) - 1;
    const long max_exponent = (long{1} << f.exponent_width) - 1;
    const long delta = 63 - __builtin_clzll(s) - static_cast<long>(f.mantissa_width);
    const long biased = exponent + delta + bias;
    // A subnormal result keeps the minimum exponent and loses more bits.
    const long shift = biased > 0 ? delta : 1 - bias - exponent;

    bool round_bit = false, sticky = false;
    if (shift < 0) {
        s <<= -shift;
    } else if (shift > 64) {
        sticky = true;
        s = 0;
    } else if (shift > 0) {
        round_bit = (s >> (shift - 1)) & 1;
        sticky = (s & low_mask(static_cast<unsigned long>(shift - 1))) != 0;
        s = shift == 64 ? 0 : s >> shift;
    }
    finish_in_words(f, mode, negative, s, round_bit, sticky, biased, biased >= max_exponent, out);
}

/// Where a result lands in its format: whether it overflows, whether it is
/// normal (else subnormal or smaller), its biased exponent before rounding,
/// and how many bits its significand moves right (left when negative) to be
/// cut to the format's precision.
struct Placement {
    bool overflow, normal;
    long shift;
};

/// Places a result of `delta` surplus significand bits and exponent X,
/// computing the biased exponent X + delta + bias into `biased`. Exponents of
/// word-sized formats are placed in registers; the rest with QNumbers in
/// `scratch`.
Placement place(format f, long delta, const QNumber& exponent, QNumber& biased, QNumber& scratch) {
    long x;
    if (f.exponent_width >= 1 && f.exponent_width <= 62 && BVNumber::to_long(exponent, &x) &&
        x > -word_exponent_limit && x < word_exponent_limit) {
        const long bias = (long{1} << (f.exponent_width - 1)) - 1;
        const long biased_word = x + delta + bias;
        biased = QNumber(biased_word);
        const bool normal = biased_word > 0;
        return {biased_word >= (long{1} << f.exponent_width) - 1, normal,
                normal ? delta : 1 - bias - x};
    }
    const QNumber bias = f.bias();
    biased = exponent;
    biased += delta;
    biased += bias;
    scratch = f.max_exponent();
    Placement p{!(biased < scratch), QNumber(0L) < biased, delta};
    if (!p.normal) {
        // Subnormal: bring the exponent to the minimum 1 - bias.
        scratch = QNumber(1L);
        scratch -= bias;
        scratch -= exponent;
        if (!BVNumber::to_long(scratch, &p.shift)) throw_error(precision_limit_message);
    }
    return p;
}

/// The rounding core on QNumbers, for every format and every size of result.
/// Formats whose patterns fit words leave it, for finish_in_words, as soon as
/// the significand has been cut to their precision.
void round_and_pack_exact(TempNumProvider& tmp, format f, rounding_mode mode, bool negative,
                          QNumber& exponent, QNumber& significand, QNumber& out) {
    const unsigned long m = f.mantissa_width;
    if (significand.is_negative()) {
        significand.self_neg();
        negative = !negative;
    }
    if (significand.is_zero()) {
        do_make_zero(f, negative, out);
        return;
    }
    QNumber& biased = tmp[5];
    const long delta = static_cast<long>(bit_length(significand)) - static_cast<long>(m + 1);
    Placement p = place(f, delta, exponent, biased, tmp[6]);

    bool round_bit = false, sticky = false;
    if (p.shift < 0) {
        BVNumber::bit_left_shift(significand, static_cast<unsigned long>(-p.shift), &significand);
    } else if (p.shift > 0) {
        const unsigned long round_index = static_cast<unsigned long>(p.shift - 1);
        round_bit = BVNumber::test_bit(significand, round_index);
        sticky = BVNumber::scan_bit_1(significand, 0) < round_index;
        BVNumber::bit_right_shift(significand, static_cast<unsigned long>(p.shift), &significand);
    }

    long kept, biased_word = 0;
    if (word_rounding_format(f) && BVNumber::to_long(significand, &kept) &&
        (p.overflow || !p.normal || BVNumber::to_long(biased, &biased_word))) {
        finish_in_words(f, mode, negative, static_cast<std::uint64_t>(kept), round_bit, sticky,
                        biased_word, p.overflow, out);
        return;
    }

    if ((round_bit || sticky) &&
        rounds_away(mode, negative, round_bit, sticky, BVNumber::test_bit(significand, 0))) {
        significand += 1L;
        if (BVNumber::test_bit(significand, m + 1)) { // up to the next power of two
            biased += 1L;
            p.overflow = p.overflow || !(biased < f.max_exponent());
            BVNumber::bit_right_shift(significand, 1, &significand);
        }
    }

    if (p.overflow) {
        do_make_inf(f, false, out);
        if (overflow_saturates(mode, negative)) out -= 1L;
        if (negative) BVNumber::set_bit(out, f.exponent_width + m, true);
    } else if (p.normal) {
        biased -= 1L; // the hidden bit of the significand carries it back
        pack_float(f, negative, biased, significand, out);
    } else {
        // Subnormal or zero; one that rounded up to 2^m carries into the
        // smallest normal.
        pack_float(f, negative, QNumber(0L), significand, out);
    }
}

/// Rounds the exact result (-1)^negative * significand * 2^(exponent - m) to
/// the format under `mode` and writes its packed integer to `out`.
///
/// `significand` may have any size and either sign (a negative one flips
/// `negative`); `exponent` may have any size. Both are working storage and are
/// changed. `out` must be distinct from them and from slots 5 and 6 of `tmp`;
/// it is written only once nothing can fail any more.
///
/// Overflow follows IEEE-754: a result of at least 2^(bias+1) before rounding,
/// or one that rounding carries there, becomes infinity or the largest finite
/// value, as the mode says. Results below the normal range are rounded at
/// subnormal precision; one that rounds to nothing is a zero of its sign.
///
/// Throws "bad rounding mode: N" when an inexact result meets a mode other
/// than 0 to 3, and "reached limit on float precision" when the result lies
/// 2^63 binades or more below the smallest normal value.
///
/// Results whose numbers fit machine words are rounded entirely in registers;
/// the QNumber path handles everything else with identical results.
void round_and_pack_float(TempNumProvider& tmp, format f, rounding_mode mode, bool negative,
                          QNumber& exponent, QNumber& significand, QNumber& out) {
    long s, x;
    if (word_rounding_format(f) && BVNumber::to_long(significand, &s) &&
        BVNumber::to_long(exponent, &x) && x > -word_exponent_limit && x < word_exponent_limit) {
        round_and_pack_word(f, mode, negative, s, x, out);
        return;
    }
    round_and_pack_exact(tmp, f, mode, negative, exponent, significand, out);
}

// ---------------------------------------------------------------------------
// Soft-float glue
// ---------------------------------------------------------------------------

/// The soft-float component's code for a rounding mode. Its order differs
/// from ours; an invalid mode becomes -1, which the component handles
/// without an error.
inline int swflt_rounding_code(rounding_mode mode) {
    switch (mode) {
    case IEEEFloat::ROUND_NEAREST_EVEN:
        return 0;
    case IEEEFloat::ROUND_TOWARD_ZERO:
        return 3;
    case IEEEFloat::ROUND_TOWARD_POSITIVE:
        return 2;
    case IEEEFloat::ROUND_TOWARD_NEGATIVE:
        return 1;
    }
    return -1;
}

/// Settles a binary32 result of the component: no exception state outlives
/// a library operation, and every NaN becomes the component's one NaN so that
/// results do not depend on operand payloads.
inline std::uint32_t settle_float32(std::uint32_t result) {
    swflt::float_exception_flags = 0;
    return swflt::float32_is_nan(result) ? swflt::float32_make_nan() : result;
}

/// The binary64 twin of settle_float32.
inline std::uint64_t settle_float64(std::uint64_t result) {
    swflt::float_exception_flags = 0;
    return swflt::float64_is_nan(result) ? swflt::float64_make_nan() : result;
}

} // namespace

// ===========================================================================
// Formats
// ===========================================================================

QNumber IEEEFloat::format::bias() const {
    // Without exponent bits there is no exponent range to place a value in
    // (2^(e-1) - 1 is not even an integer), so everything that needs the
    // bias stops here with the library's error rather than ask GMP for
    // 2^(2^64 - 1).
    if (exponent_width == 0) throw_error(precision_limit_message);
    QNumber result;
    BVNumber::pow2(exponent_width - 1, &result);
    result -= 1L;
    return result;
}

QNumber IEEEFloat::format::max_exponent() const {
    QNumber result;
    BVNumber::pow2(exponent_width, &result);
    result -= 1L;
    return result;
}

QNumber IEEEFloat::format::max_mantissa() const {
    QNumber result;
    BVNumber::pow2(mantissa_width, &result);
    result -= 1L;
    return result;
}

// ===========================================================================
// Construction, copying and bit access
// ===========================================================================

namespace {
constexpr IEEEFloat::format binary32_format{8, 23};
constexpr IEEEFloat::format binary64_format{11, 52};

/// The heap blocks that hold the packed integers of generic values, kept per
/// thread once released: a program that makes and drops generic values in a
/// loop (every from_bits, copy and assignment makes one) then allocates none
/// after the first few. Trivially constructible and destructible like the
/// cache of QNumber's pairs, so it is usable at any point of a thread's life;
/// `PackedBlockDrain` frees it at thread exit and closes it.
struct PackedBlockCache {
    static constexpr int capacity = 16;

    void* blocks[capacity];
    int count;
    bool drain_registered;
    bool closed;

    static PackedBlockCache& local() noexcept {
        thread_local PackedBlockCache cache;
        return cache;
    }
};

struct PackedBlockDrain {
    PackedBlockDrain() = default;
    PackedBlockDrain(const PackedBlockDrain&) = delete;
    PackedBlockDrain& operator=(const PackedBlockDrain&) = delete;
    ~PackedBlockDrain() {
        PackedBlockCache& cache = PackedBlockCache::local();
        cache.closed = true;
        while (cache.count > 0)
            ::operator delete(cache.blocks[--cache.count]);
    }
};

/// A new heap QNumber holding a copy of `value`, or taking over its storage
/// when it is a temporary.
template <class Value>
QNumber* new_packed(Value&& value) {
    PackedBlockCache& cache = PackedBlockCache::local();
    if (cache.count == 0) return new QNumber(std::forward<Value>(value));
    void* block = cache.blocks[cache.count - 1];
    QNumber* packed =
        new (block) QNumber(std::forward<Value>(value)); // a copy may throw: take the block after
    --cache.count;
    return packed;
}

/// Destroys a heap QNumber made by new_packed and keeps its block.
void delete_packed(QNumber* packed) noexcept {
    packed->~QNumber();
    PackedBlockCache& cache = PackedBlockCache::local();
    if (cache.closed || cache.count == PackedBlockCache::capacity) {
        ::operator delete(packed);
        return;
    }
    if (!cache.drain_registered) {
        cache.drain_registered = true;
        thread_local PackedBlockDrain drain;
    }
    cache.blocks[cache.count++] = packed;
}
} // namespace

IEEEFloat::IEEEFloat(format f, rounding_mode mode) : IEEEFloat(f, get_best_repr(f), mode) {}

IEEEFloat::IEEEFloat(format f, Repr r, rounding_mode mode) : fmt(f) {
    set_rounding_mode(mode);
    set_repr(r);
    value.bits64 = 0;
    if (r != REPR_FLOAT32 && r != REPR_FLOAT64) value.packed = new_packed(QNumber());
}

IEEEFloat::IEEEFloat(const IEEEFloat& other)
    : fmt(other.fmt), mode_and_repr(other.mode_and_repr), value(other.value) {
    if (get_repr() >= REPR_GENERIC) value.packed = new_packed(*other.value.packed);
}

IEEEFloat::IEEEFloat(IEEEFloat&& other) noexcept
    : fmt(other.fmt), mode_and_repr(other.mode_and_repr), value(other.value) {
    other.fmt = format();
    other.mode_and_repr = 0;
    other.value.bits64 = 0;
}

IEEEFloat& IEEEFloat::operator=(const IEEEFloat& other) {
    if (this == &other) return *this;
    // Allocate before releasing, so a failed allocation leaves the target whole.
    QNumber* copy = other.get_repr() >= REPR_GENERIC ? new_packed(*other.value.packed) : nullptr;
    release();
    fmt = other.fmt;
    mode_and_repr = other.mode_and_repr;
    value = other.value;
    if (copy) value.packed = copy;
    return *this;
}

IEEEFloat& IEEEFloat::operator=(IEEEFloat&& other) noexcept {
    if (this == &other) return *this;
    release();
    fmt = other.fmt;
    mode_and_repr = other.mode_and_repr;
    value = other.value;
    other.fmt = format();
    other.mode_and_repr = 0;
    other.value.bits64 = 0;
    return *this;
}

IEEEFloat::~IEEEFloat() {
    release();
}

void IEEEFloat::release() noexcept {
    if (get_repr() >= REPR_GENERIC) {
        delete_packed(value.packed);
        value.packed = nullptr;
    }
}

IEEEFloat::Repr IEEEFloat::get_best_repr(format f) noexcept {
    if (f == binary32_format) return REPR_FLOAT32;
    if (f == binary64_format) return REPR_FLOAT64;
    return REPR_GENERIC;
}

IEEEFloat IEEEFloat::from_bits(const QNumber& bits, format f) {
    IEEEFloat result;
    result.fmt = f;
    const Repr target = get_best_repr(f);
    if (target == REPR_GENERIC) {
        result.value.packed = new_packed(bits);
        result.set_repr(REPR_GENERIC);
        if (scan_packed(bits, f.mantissa_width).nan(f)) do_make_nan(f, *result.value.packed);
        return result;
    }
    // binary32 and binary64 go straight to their word: only the low bits are
    // kept, and those decide the class.
    std::uint64_t word = low_64_bits(bits);
    if (scan_word(word & low_mask(63), f.mantissa_width).nan(f))
        word = library_nan_word(f.exponent_width, f.mantissa_width);
    if (target == REPR_FLOAT32)
        result.value.bits32 = static_cast<std::uint32_t>(word);
    else
        result.value.bits64 = word;
    result.set_repr(target);
    return result;
}

QNumber IEEEFloat::get_bits() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return QNumber(static_cast<long>(value.bits32));
    case REPR_FLOAT64:
        return integer_from_word(value.bits64);
    default:
        return *value.packed;
    }
}

bool IEEEFloat::get_sign() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return swflt::float32_sign(value.bits32) != 0;
    case REPR_FLOAT64:
        return swflt::float64_sign(value.bits64) != 0;
    default:
        return BVNumber::test_bit(*value.packed, fmt.exponent_width + fmt.mantissa_width);
    }
}

void IEEEFloat::set_sign(bool negative) {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = swflt::float32_set_sign(value.bits32, negative);
        break;
    case REPR_FLOAT64:
        value.bits64 = swflt::float64_set_sign(value.bits64, negative);
        break;
    default:
        BVNumber::set_bit(*value.packed, fmt.exponent_width + fmt.mantissa_width, negative);
    }
}

void IEEEFloat::self_neg() {
    if (is_nan()) return;
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = swflt::float32_negate(value.bits32);
        break;
    case REPR_FLOAT64:
        value.bits64 = swflt::float64_negate(value.bits64);
        break;
    default:
        set_sign(!get_sign());
    }
}

void IEEEFloat::self_specialize_repr(Repr target) {
    const Repr current = get_repr();
    if (target == current) return;
    if (target == REPR_FLOAT32 || target == REPR_FLOAT64) {
        const std::uint64_t word = current == REPR_FLOAT32   ? value.bits32
                                   : current == REPR_FLOAT64 ? value.bits64
                                                             : low_64_bits(*value.packed);
        release();
        value.bits64 = 0;
        if (target == REPR_FLOAT32)
            value.bits32 = static_cast<std::uint32_t>(word);
        else
            value.bits64 = word;
        set_repr(target);
        return;
    }
    if (current >= REPR_GENERIC) return;
    value.packed = new_packed(get_bits());
    set_repr(REPR_GENERIC);
}

// ===========================================================================
// Classification and special values
// ===========================================================================

bool IEEEFloat::is_inf() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return swflt::float32_is_inf(value.bits32) != 0;
    case REPR_FLOAT64:
        return swflt::float64_is_inf(value.bits64) != 0;
    default:
        return scan_packed(*value.packed, fmt.mantissa_width).inf(fmt);
    }
}

bool IEEEFloat::is_nan() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return swflt::float32_is_nan(value.bits32) != 0;
    case REPR_FLOAT64:
        return swflt::float64_is_nan(value.bits64) != 0;
    default:
        return scan_packed(*value.packed, fmt.mantissa_width).nan(fmt);
    }
}

bool IEEEFloat::is_zero() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return swflt::float32_is_zero(value.bits32) != 0;
    case REPR_FLOAT64:
        return swflt::float64_is_zero(value.bits64) != 0;
    default:
        return scan_packed(*value.packed, fmt.mantissa_width).zero(fmt);
    }
}

bool IEEEFloat::is_subnormal() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return swflt::float32_is_subnormal(value.bits32) != 0;
    case REPR_FLOAT64:
        return swflt::float64_is_subnormal(value.bits64) != 0;
    default:
        return exponent_field_zero(*value.packed, fmt) &&
               !scan_packed(*value.packed, fmt.mantissa_width).zero(fmt);
    }
}

bool IEEEFloat::is_normal() const {
    if (get_repr() >= REPR_GENERIC) {
        // One scan answers the first three questions.
        const QNumber& packed = *value.packed;
        const PackedScan scan = scan_packed(packed, fmt.mantissa_width);
        if (scan.exponent_all_ones(fmt) || scan.zero(fmt)) return false;
        return !exponent_field_zero(packed, fmt);
    }
    if (is_inf() || is_nan() || is_zero()) return false;
    return !is_subnormal();
}

void IEEEFloat::self_nan() {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = swflt::float32_make_nan();
        break;
    case REPR_FLOAT64:
        value.bits64 = swflt::float64_make_nan();
        break;
    default:
        do_make_nan(fmt, *value.packed);
    }
}

void IEEEFloat::self_inf(bool negative) {
    switch (get_repr()) {
    case REPR_FLOAT32: {
        const std::uint32_t inf = swflt::float32_make_inf();
        value.bits32 = negative ? swflt::float32_negate(inf) : inf;
        break;
    }
    case REPR_FLOAT64: {
        const std::uint64_t inf = swflt::float64_make_inf();
        value.bits64 = negative ? swflt::float64_negate(inf) : inf;
        break;
    }
    default:
        do_make_inf(fmt, negative, *value.packed);
    }
}

void IEEEFloat::self_zero(bool negative) {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = negative ? std::uint32_t{1} << 31 : 0;
        break;
    case REPR_FLOAT64:
        value.bits64 = negative ? std::uint64_t{1} << 63 : 0;
        break;
    default:
        do_make_zero(fmt, negative, *value.packed);
    }
}

IEEEFloat IEEEFloat::max_value(format f) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    // Without exponent bits zero is the only value, and the largest.
    if (e == 0) return from_bits(QNumber(0L), f);
    if (e + m <= 63) // the pattern 2^(e+m) - 1 - 2^m fits a word
        return from_bits(QNumber(static_cast<long>(low_mask(e + m) - (std::uint64_t{1} << m))), f);
    QNumber bits, hidden;
    BVNumber::pow2(e + m, &bits);
    bits -= 1L;
    BVNumber::pow2(m, &hidden);
    bits -= hidden;
    return from_bits(bits, f);
}

// ===========================================================================
// Arithmetic on machine words for small and medium formats
// ===========================================================================
//
// A generic value of a small format (binary16, bfloat16, the 8-bit formats,
// binary32 held generically) has a packed integer that fits one machine word,
// and one of a medium format (binary64 held generically, binary128, the
// extended formats up to 128 bits) fits two. The exact path would still
// unpack such integers into QNumbers and combine them one call at a time,
// with GMP allocating for every intermediate above a word. The routines of
// this section compute the same results on the packed words, with
// intermediates of 64 or 128 bits for one-word formats (as their mantissa
// width requires) and of 256 bits for two-word formats.
//
// They are the exact path in another notation, not an approximation of it.
// Each operation rounds either the very significand and exponent that the
// exact path builds, or a shorter significand whose extra low 1 bit stands
// for a non-zero rest (for quotients, roots and addends far apart). Such a
// significand keeps at least one bit below the rounding position, so it lies
// strictly inside the rounding interval of the exact value and rounds to the
// same result under every mode; it is exact exactly when the exact value is,
// so an invalid rounding mode fails in the same cases. The special operands
// follow the same tables, NaN operands keep their packed integers and exact
// zeros get the same signs. The differential tests run formats of every path
// against one reference.

namespace {

__extension__ typedef unsigned __int128 u128;

/// The largest exponent difference that addition aligns. The alignment is
/// exact: the significand with the larger exponent is shifted onto the
/// smaller one, giving an integer of about d + m + 1 bits, and in a format
/// with a very wide exponent field d can approach 2^e. Past this bound (2^26
/// bits, an 8 MiB integer) addition and subtraction throw "reached limit on
/// float precision" rather than allocate without limit. The largest
/// difference within a format is 2^e - 3, so every format with up to 26
/// exponent bits is far from it; a zero addend is never aligned at all.
constexpr unsigned long max_alignment_distance = 1UL << 26;

void check_alignment_distance(unsigned long distance) {
    if (distance > max_alignment_distance) throw_error(precision_limit_message);
}

// ---- A 256-bit unsigned integer, the intermediate of two-word formats -------

/// An unsigned integer of 256 bits: products, aligned sums, shifted dividends
/// and radicands of two-word formats. Only what those need is defined.
struct U256 {
    u128 hi = 0, lo = 0;

    U256() = default;
    U256(u128 v) : lo(v) {} // NOLINT: widening, like the built-in integers
    U256(u128 h, u128 l) : hi(h), lo(l) {}
    explicit operator u128() const { return lo; }
};

inline bool operator==(const U256& a, const U256& b) {
    return a.hi == b.hi && a.lo == b.lo;
}
inline bool operator!=(const U256& a, const U256& b) {
    return !(a == b);
}
inline bool operator<(const U256& a, const U256& b) {
    return a.hi != b.hi ? a.hi < b.hi : a.lo < b.lo;
}
inline bool operator>=(const U256& a, const U256& b) {
    return !(a < b);
}
inline U256 operator+(const U256& a, const U256& b) {
    const u128 lo = a.lo + b.lo;
    return {a.hi + b.hi + (lo < a.lo), lo};
}
inline U256 operator-(const U256& a, const U256& b) {
    return {a.hi - b.hi - (a.lo < b.lo), a.lo - b.lo};
}
inline U256 operator|(const U256& a, const U256& b) {
    return {a.hi | b.hi, a.lo | b.lo};
}
/// Shifts by 0 to 255 bits.
[[gnu::always_inline]] inline U256 operator<<(const U256& v, long n) {
    if (n == 0) return v;
    if (n >= 128) return {v.lo << (n - 128), 0};
    return {v.hi << n | v.lo >> (128 - n), v.lo << n};
}
[[gnu::always_inline]] inline U256 operator>>(const U256& v, long n) {
    if (n == 0) return v;
    if (n >= 128) return {0, v.hi >> (n - 128)};
    return {v.hi >> n, v.lo >> n | v.hi << (128 - n)};
}

// ---- Width-generic helpers ----------------------------------------------------

inline int bit_length(std::uint64_t v) {
    return v == 0 ? 0 : 64 - __builtin_clzll(v);
}
inline int bit_length(u128 v) {
    const auto high = static_cast<std::uint64_t>(v >> 64);
    return high != 0 ? 64 + bit_length(high) : bit_length(static_cast<std::uint64_t>(v));
}
inline int bit_length(const U256& v) {
    return v.hi != 0 ? 128 + bit_length(v.hi) : bit_length(v.lo);
}

/// The width of an intermediate type, in bits.
template <class W>
constexpr int bits_of = sizeof(W) * 8;

/// Bit n of v.
template <class W>
bool bit_at(const W& v, long n) {
    return (static_cast<std::uint64_t>(static_cast<u128>(v >> n)) & 1) != 0;
}

/// Whether any of the n lowest bits of v is set (0 <= n <= the width of W).
template <class W>
bool low_bits_set(const W& v, long n) {
    if (n == 0) return false;
    if (n >= bits_of<W>) return v != W{0};
    return (v << (bits_of<W> - n)) != W{0};
}

/// The exact product of two significands, in the path's intermediate type.
template <class Wide, class Bits>
inline Wide wide_product(Bits a, Bits b) {
    return Wide{a} * Wide{b};
}
template <>
inline U256 wide_product<U256, u128>(u128 a, u128 b) {
    const u128 mask = ~std::uint64_t{0};
    const u128 a0 = a & mask, a1 = a >> 64, b0 = b & mask, b1 = b >> 64;
    const u128 low = a0 * b0, mid1 = a0 * b1, mid2 = a1 * b0, high = a1 * b1;
    const u128 mid = (low >> 64) + (mid1 & mask) + (mid2 & mask);
    return {high + (mid1 >> 64) + (mid2 >> 64) + (mid >> 64), (mid << 64) | (low & mask)};
}

/// The limbs of a 256-bit number, lowest first, and how many are in use.
int to_limbs(const U256& v, mp_limb_t* limbs) {
    limbs[0] = static_cast<mp_limb_t>(v.lo);
    limbs[1] = static_cast<mp_limb_t>(v.lo >> 64);
    limbs[2] = static_cast<mp_limb_t>(v.hi);
    limbs[3] = static_cast<mp_limb_t>(v.hi >> 64);
    int used = 4;
    while (used > 0 && limbs[used - 1] == 0)
        --used;
    return used;
}

/// The 256-bit number of the `count` limbs given, lowest first.
U256 from_limbs(const mp_limb_t* limbs, int count) {
    mp_limb_t all[4] = {0, 0, 0, 0};
    for (int i = 0; i < count && i < 4; ++i)
        all[i] = limbs[i];
    return {u128{all[3]} << 64 | all[2], u128{all[1]} << 64 | all[0]};
}

/// floor(n / d), and whether the division leaves a remainder (d > 0).
template <class Wide>
inline Wide divide(Wide n, std::uint64_t d, bool& inexact) {
    inexact = n % d != 0;
    return n / d;
}
U256 divide(const U256& n, u128 d, bool& inexact) {
    mp_limb_t num[4], den[2] = {static_cast<mp_limb_t>(d), static_cast<mp_limb_t>(d >> 64)};
    const int nn = to_limbs(n, num), dn = den[1] != 0 ? 2 : 1;
    if (nn < dn) {
        inexact = n != U256{};
        return {};
    }
    mp_limb_t quotient[4], rest[2];
    mpn_tdiv_qr(quotient, rest, 0, num, nn, den, dn);
    inexact = rest[0] != 0 || (dn == 2 && rest[1] != 0);
    return from_limbs(quotient, nn - dn + 1);
}

/// floor(sqrt(n)) and whether it is inexact, for n < 2^126: a floating-point
/// estimate, corrected. Where long double has no more bits than double, one
/// Newton step first brings the estimate from 53 to about 106 correct bits,
/// so the correction stays a step or two.
u128 square_root(u128 n, bool& inexact) {
    auto root = n < (u128{1} << 53)
                    ? static_cast<std::uint64_t>(std::sqrt(static_cast<double>(n)))
                    : static_cast<std::uint64_t>(std::sqrt(static_cast<long double>(n)));
    if (std::numeric_limits<long double>::digits < 64 && root > 1)
        root = static_cast<std::uint64_t>((root + n / root) >> 1);
    while (u128{root} * root > n)
        --root;
    while (u128{root + 1} * (root + 1) <= n)
        ++root;
    inexact = u128{root} * root != n;
    return root;
}
std::uint64_t square_root(std::uint64_t n, bool& inexact) {
    return static_cast<std::uint64_t>(square_root(u128{n}, inexact));
}
U256 square_root(const U256& n, bool& inexact) {
    mp_limb_t limbs[4], root[2] = {0, 0}, rest[4];
    const int used = to_limbs(n, limbs);
    inexact = used != 0 && mpn_sqrtrem(root, rest, limbs, used) != 0;
    return from_limbs(root, 2);
}

// ---- Packed words -----------------------------------------------------------

/// Reads a packed integer as a word pattern. Fails (and the caller takes the
/// exact path) for integers too wide and for bits above the sign, which the
/// exact path would keep in NaN results and the words would not.
inline bool read_packed(const QNumber& packed, unsigned sign_bit, std::uint64_t& bits) {
    return as_word(packed, bits) && (bits >> sign_bit) <= 1;
}
inline bool read_packed(const QNumber& packed, unsigned sign_bit, u128& bits) {
    std::uint64_t low, high;
    if (!BVNumber::to_words(packed, &low, &high)) return false;
    bits = u128{high} << 64 | low;
    return (bits >> sign_bit) <= 1;
}

inline void write_packed(std::uint64_t bits, QNumber& out) {
    out = QNumber(static_cast<long>(bits));
}
inline void write_packed(u128 bits, QNumber& out) {
    BVNumber::assign_words(static_cast<std::uint64_t>(bits), static_cast<std::uint64_t>(bits >> 64),
                           &out);
}

/// The word paths, named by the width of their intermediates. With at most
/// 32 exponent bits no exponent sum, difference or biased exponent comes near
/// the limits of a signed word. One-word formats keep the sign below bit 63
/// (the small form of QNumber); their intermediates (at most 2m + 6 bits, for
/// a square root's radicand) fit 64 bits up to m = 29 and 128 bits, with room
/// for the root's correction, up to m = 60. Two-word formats are those of up
/// to 128 bits, with 256-bit intermediates.
enum class WordPath { none, wide64, wide128, wide256 };

WordPath word_path(format f) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    if (e < 2 || e > 32) return WordPath::none;
    if (m <= 29 && e + m + 1 <= 63) return WordPath::wide64;
    if (m <= 60 && e + m + 1 <= 63) return WordPath::wide128;
    if (e + m + 1 <= 128) return WordPath::wide256;
    return WordPath::none;
}

/// Whether the packed integers of a format are single words.
bool one_word_format(format f) {
    const WordPath path = word_path(f);
    return path == WordPath::wide64 || path == WordPath::wide128;
}

/// The constants of a format, for packed integers of type Bits.
template <class Bits>
struct WordFormat {
    unsigned m;        ///< mantissa width
    unsigned sign_bit; ///< e + m
    long bias;         ///< 2^(e-1) - 1
    long max_field;    ///< 2^e - 1, the exponent field of infinities and NaNs

    explicit WordFormat(format f)
        : m(static_cast<unsigned>(f.mantissa_width)),
          sign_bit(static_cast<unsigned>(f.exponent_width + f.mantissa_width)),
          bias((long{1} << (f.exponent_width - 1)) - 1),
          max_field((long{1} << f.exponent_width) - 1) {}

    Bits sign_mask() const { return Bits{1} << sign_bit; }
    Bits mantissa_mask() const { return (Bits{1} << m) - 1; }
    Bits signed_zero(bool negative) const { return negative ? sign_mask() : Bits{0}; }
    Bits inf(bool negative) const {
        return static_cast<Bits>(max_field) << m | signed_zero(negative);
    }
    /// The library NaN: sign 1, exponent field all ones, mantissa field 1.
    Bits nan() const { return inf(true) | 1; }
};

/// One operand: its packed bits, its class and, when finite, the exact
/// significand and exponent of (-1)^sign * sig * 2^(exp - m).
template <class Bits>
struct WordOperand {
    Bits bits;
    bool sign, nan, inf, zero;
    long exp;
    Bits sig;
};

template <class Bits>
[[gnu::always_inline]] inline WordOperand<Bits> unpack(const WordFormat<Bits>& wf, Bits bits) {
    WordOperand<Bits> o;
    o.bits = bits;
    o.sign = ((bits >> wf.sign_bit) & 1) != 0;
    const auto field = static_cast<long>((bits & (wf.sign_mask() - 1)) >> wf.m);
    const Bits mantissa = bits & wf.mantissa_mask();
    o.nan = field == wf.max_field && mantissa != 0;
    o.inf = field == wf.max_field && mantissa == 0;
    o.zero = field == 0 && mantissa == 0;
    o.exp = field == 0 ? 1 - wf.bias : field - wf.bias;
    o.sig = field == 0 ? mantissa : mantissa | Bits{1} << wf.m;
    return o;
}

/// Gives a subnormal significand m + 1 bits, lowering its exponent to match.
template <class Bits>
void normalise(const WordFormat<Bits>& wf, WordOperand<Bits>& o) {
    const int shift = static_cast<int>(wf.m) + 1 - bit_length(o.sig);
    if (shift > 0) {
        o.sig <<= shift;
        o.exp -= shift;
    }
}

/// Marks a truncated significand as inexact: one more low bit, set.
template <class Wide>
[[gnu::always_inline]] inline void append_sticky(Wide& sig, long& exp) {
    sig = sig << 1 | Wide{1};
    --exp;
}

/// The packed bits, sign bit excluded, of (-1)^negative * sig * 2^(exp - m)
/// rounded to the format under `mode`: the decisions of round_and_pack_float
/// (normal, subnormal or overflow; round and sticky bits; the carry into the
/// next binade), taken on words.
template <class Bits, class Wide>
[[gnu::always_inline]] inline Bits round_bits(const WordFormat<Bits>& wf, rounding_mode mode,
                                              bool negative, Wide sig, long exp) {
    if (sig == Wide{0}) return 0;
    const long delta = bit_length(sig) - static_cast<long>(wf.m + 1);
    long biased = exp + delta + wf.bias;
    bool overflow = biased >= wf.max_field;
    // A result below the normal range keeps the minimum exponent and loses
    // the bits below the smallest subnormal.
    const long shift = biased > 0 ? delta : 1 - wf.bias - exp;
    exp += shift;

    bool round_bit = false, sticky = false;
    if (shift < 0) {
        sig = sig << -shift;
    } else if (shift > bits_of<Wide>) {
        sticky = true;
        sig = Wide{0};
    } else if (shift > 0) {
        round_bit = bit_at(sig, shift - 1);
        sticky = low_bits_set(sig, shift - 1);
        sig = shift == bits_of<Wide> ? Wide{0} : sig >> shift;
    }

    if ((round_bit || sticky) && rounds_away(mode, negative, round_bit, sticky, bit_at(sig, 0))) {
        sig = sig + Wide{1};
        if (bit_at(sig, wf.m + 1)) { // rounded up to the next power of two
            if (++biased >= wf.max_field) {
                overflow = true;
            } else {
                ++exp;
                sig = sig >> 1;
            }
        }
    }

    if (overflow) {
        const Bits inf = wf.inf(false);
        return overflow_saturates(mode, negative) ? inf - 1 : inf;
    }
    const auto s = static_cast<Bits>(sig);
    if ((s >> wf.m) & 1) return static_cast<Bits>(exp + wf.bias) << wf.m | (s & wf.mantissa_mask());
    return s; // subnormal, or zero when everything was shifted out
}

/// Rounds (-1)^negative * sig * 2^(exp - m) into the packed integer `out`.
template <class Bits, class Wide>
[[gnu::always_inline]] inline void round_into(const WordFormat<Bits>& wf, rounding_mode mode,
                                              bool negative, Wide sig, long exp, QNumber& out) {
    write_packed(round_bits(wf, mode, negative, sig, exp) | wf.signed_zero(negative), out);
}

template <class Bits, class Wide>
void add_sub_words(const WordFormat<Bits>& wf, rounding_mode mode, bool subtract, Bits a_bits,
                   Bits b_bits, QNumber& out) {
    WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits);
    const bool b_sign = b.sign != subtract;

    if (a.nan) return write_packed(a.bits, out);
    if (b.nan) return write_packed(b.bits, out);
    if (a.inf && b.inf) return write_packed(a.sign == b_sign ? a.bits : wf.nan(), out);
    if (a.inf) return write_packed(a.bits, out);
    if (b.inf) return write_packed(wf.inf(b_sign), out);
    if (a.zero && b.zero)
        return write_packed(a.sign == b_sign ? a.bits : wf.signed_zero(mode == 3), out);

    // A zero addend needs no alignment.
    if (a.zero) a.exp = b.exp;
    if (b.zero) b.exp = a.exp;

    // `hi` is the addend with the larger exponent.
    const bool a_hi = a.exp >= b.exp;
    const WordOperand<Bits>& hi = a_hi ? a : b;
    const WordOperand<Bits>& lo = a_hi ? b : a;
    const bool hi_sign = a_hi ? a.sign : b_sign;
    const bool lo_sign = a_hi ? b_sign : a.sign;
    const auto distance = static_cast<unsigned long>(hi.exp - lo.exp);
    check_alignment_distance(distance);

    Wide sum;
    long exp;
    bool negative = hi_sign;
    if (distance <= wf.m + 3) {
        // Exact alignment, at most 2m + 4 bits.
        const Wide hi_sig = Wide{hi.sig} << static_cast<long>(distance);
        const Wide lo_sig{lo.sig};
        exp = lo.exp;
        if (hi_sign == lo_sign) {
            sum = hi_sig + lo_sig;
        } else if (hi_sig >= lo_sig) {
            sum = hi_sig - lo_sig;
        } else {
            sum = lo_sig - hi_sig;
            negative = lo_sign;
        }
        // An exact zero sum is +0, or -0 when rounding toward negative.
        if (sum == Wide{0}) return write_packed(wf.signed_zero(mode == 3), out);
    } else {
        // The smaller addend lies below a quarter of an ulp of `hi`, which is
        // normal since its exponent is above the minimum: in quarter ulps the
        // sum lies strictly between 4 hi.sig and 4 hi.sig + 1, or between
        // 4 hi.sig - 1 and 4 hi.sig.
        sum = Wide{hi.sig} << 2;
        exp = hi.exp - 2;
        if (hi_sign != lo_sign) sum = sum - Wide{1};
        append_sticky(sum, exp);
    }
    round_into(wf, mode, negative, sum, exp, out);
}

template <class Bits, class Wide>
void mul_words(const WordFormat<Bits>& wf, rounding_mode mode, Bits a_bits, Bits b_bits,
               QNumber& out) {
    const WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits);
    const bool negative = a.sign != b.sign;

    if (a.nan) return write_packed(a.bits, out);
    if (b.nan) return write_packed(b.bits, out);
    if (a.inf || b.inf) return write_packed(a.zero || b.zero ? wf.nan() : wf.inf(negative), out);
    round_into(wf, mode, negative, wide_product<Wide>(a.sig, b.sig),
               a.exp + b.exp - static_cast<long>(wf.m), out);
}

template <class Bits, class Wide>
void div_words(const WordFormat<Bits>& wf, rounding_mode mode, Bits a_bits, Bits b_bits,
               QNumber& out) {
    WordOperand<Bits> a = unpack(wf, a_bits), b = unpack(wf, b_bits);
    const bool negative = a.sign != b.sign;

    if (a.nan) return write_packed(a.bits, out);
    if (b.nan) return write_packed(b.bits, out);
    if (a.zero && b.zero) return write_packed(wf.nan(), out);
    if (b.zero) return write_packed(wf.inf(negative), out);
    if (a.inf && b.inf) return write_packed(wf.nan(), out);
    if (b.inf) return write_packed(wf.signed_zero(negative), out);
    if (a.inf) return write_packed(wf.inf(negative), out);
    if (a.zero) return write_packed(wf.signed_zero(negative), out);

    normalise(wf, a);
    normalise(wf, b);
    // The exact path divides a.sig * 2^(2m) by b.sig. From m = 2 on, m + 2
    // extra bits already put the round bit above the sticky bit, so the
    // shorter dividend rounds the same; below that the exact path's own
    // quotient is reproduced bit for bit.
    const unsigned extra = wf.m >= 2 ? wf.m + 2 : 2 * wf.m;
    long exp = a.exp - b.exp + static_cast<long>(wf.m) - static_cast<long>(extra);
    bool inexact;
    Wide quotient;
    if (sizeof(Bits) == 8 && wf.m + 1 + extra <= 64) {
        // Narrow formats divide in one machine word.
        const auto dividend = static_cast<std::uint64_t>(a.sig) << extra;
        const auto divisor = static_cast<std::uint64_t>(b.sig);
        quotient = Wide{dividend / divisor};
        inexact = dividend % divisor != 0;
    } else {
        quotient = divide(Wide{a.sig} << static_cast<long>(extra), b.sig, inexact);
    }
    if (inexact) append_sticky(quotient, exp);
    round_into(wf, mode, negative, quotient, exp, out);
}

template <class Bits, class Wide>
void sqrt_words(const WordFormat<Bits>& wf, rounding_mode mode, Bits bits, QNumber& out) {
    WordOperand<Bits> x = unpack(wf, bits);
    if (x.nan || x.zero) return;
    if (x.sign) return write_packed(wf.nan(), out);
    if (x.inf) return;

    normalise(wf, x);
    // An even exponent halves exactly; an odd one moves a factor 2 into the
    // significand (floor division, also below zero).
    const long half = x.exp >> 1;
    const Bits sig = x.sig << (x.exp & 1);
    // The root of sig * 2^(m+4) has m + 3 bits, two below the format's.
    bool inexact;
    Wide root = square_root(Wide{sig} << static_cast<long>(wf.m + 4), inexact);
    long exp = half - 2;
    if (inexact) append_sticky(root, exp);
    round_into(wf, mode, false, root, exp, out);
}

/// The packed pattern `bits` of `from` converted to `to`, both formats with a
/// word path: the generic conversion of set_format, on words. A significand
/// of up to 113 bits, widened to the target's precision or cut down to it,
/// always fits 128 bits.
template <class FromBits, class ToBits>
ToBits convert_bits(format from, format to, rounding_mode mode, FromBits bits) {
    const WordFormat<FromBits> wf_from(from);
    const WordFormat<ToBits> wf_to(to);
    const WordOperand<FromBits> x = unpack(wf_from, bits);
    if (x.nan) return wf_to.nan();
    if (x.inf) return wf_to.inf(x.sign);
    if (x.zero) return wf_to.signed_zero(x.sign);
    const long exp = x.exp - static_cast<long>(wf_from.m) + static_cast<long>(wf_to.m);
    return round_bits(wf_to, mode, x.sign, u128{x.sig}, exp) | wf_to.signed_zero(x.sign);
}

/// Replaces `packed`, a pattern of `from`, by its conversion to `to`, when
/// both formats have a word path and the pattern reads as words; false, with
/// nothing changed, otherwise.
template <class FromBits>
bool convert_from(format from, format to, rounding_mode mode, QNumber& packed) {
    FromBits bits;
    if (!read_packed(packed, static_cast<unsigned>(from.exponent_width + from.mantissa_width),
                     bits))
        return false;
    if (one_word_format(to)) {
        // A fresh number, so that a one-word result drops the big form a
        // two-word source needed and later operations run on the word.
        QNumber result(
            static_cast<long>(convert_bits<FromBits, std::uint64_t>(from, to, mode, bits)));
        std::swap(packed, result);
    } else {
        write_packed(convert_bits<FromBits, u128>(from, to, mode, bits), packed);
    }
    return true;
}

/// set_format's generic conversion on words, when both formats have a word
/// path; false, with nothing changed, otherwise.
bool try_convert_words(format from, format to, rounding_mode mode, QNumber& packed) {
    if (word_path(to) == WordPath::none) return false;
    switch (word_path(from)) {
    case WordPath::wide64:
    case WordPath::wide128:
        return convert_from<std::uint64_t>(from, to, mode, packed);
    case WordPath::wide256:
        return convert_from<u128>(from, to, mode, packed);
    default:
        return false;
    }
}

/// Which operation a word or exact computation performs.
enum class ArithOp { add, sub, mul, div, sqrt };

/// a := a op b (a := sqrt a) on the words of one path, when both packed
/// integers read as words; false, with nothing done, otherwise.
template <class Bits, class Wide>
bool word_op(ArithOp op, format f, rounding_mode mode, QNumber& a, const QNumber& b) {
    const WordFormat<Bits> wf(f);
    Bits a_bits, b_bits;
    if (!read_packed(a, wf.sign_bit, a_bits)) return false;
    if (op == ArithOp::sqrt) {
        sqrt_words<Bits, Wide>(wf, mode, a_bits, a);
        return true;
    }
    if (!read_packed(b, wf.sign_bit, b_bits)) return false;
    switch (op) {
    case ArithOp::add:
    case ArithOp::sub:
        add_sub_words<Bits, Wide>(wf, mode, op == ArithOp::sub, a_bits, b_bits, a);
        break;
    case ArithOp::mul:
        mul_words<Bits, Wide>(wf, mode, a_bits, b_bits, a);
        break;
    default:
        div_words<Bits, Wide>(wf, mode, a_bits, b_bits, a);
    }
    return true;
}

/// a := a op b on the words of the format's path, if it has one and the
/// operands read as words.
inline bool try_word_op(ArithOp op, format f, rounding_mode mode, QNumber& a, const QNumber& b) {
    switch (word_path(f)) {
    case WordPath::wide64:
        return word_op<std::uint64_t, std::uint64_t>(op, f, mode, a, b);
    case WordPath::wide128:
        return word_op<std::uint64_t, u128>(op, f, mode, a, b);
    case WordPath::wide256:
        return word_op<u128, U256>(op, f, mode, a, b);
    default:
        return false;
    }
}

} // namespace

// ===========================================================================
// Conversion from exact numbers and between formats
// ===========================================================================

namespace {

/// The format into which every positive integer of `bits` bits converts
/// exactly, with at least the precision and the exponent width of f: such an
/// integer is a normal value of it.
format exact_integer_format(unsigned long bits, format f) {
    const unsigned long m = std::max(bits, f.mantissa_width);
    const auto m_bits = static_cast<unsigned long>(64 - __builtin_clzll(m | 1));
    return {std::max(m_bits, f.exponent_width) + 1, m};
}

/// The quotient of the positive integers N (slot 2) and D (slot 3) at the
/// resolution 2^k: slot 1 := F = floor(N / (D * 2^k)) and slot 4 := the
/// remainder of the one integer division that gives F. For k > 0 the bits of
/// N below 2^k are dropped before dividing; `low_bits_dropped` tells whether
/// any of them was set. Returns whether N / D is not exactly F * 2^k. Slot 0
/// is working storage.
bool quotient_at(TempNumProvider& tmp, long k, bool& low_bits_dropped) {
    low_bits_dropped = false;
    if (k <= 0) {
        BVNumber::bit_left_shift(tmp[2], static_cast<unsigned long>(-k), &tmp[0]);
    } else {
        const auto drop = static_cast<unsigned long>(k);
        low_bits_dropped = BVNumber::scan_bit_1(tmp[2], 0) < drop;
        BVNumber::bit_right_shift(tmp[2], drop, &tmp[0]);
    }
    tmp[0].divmod(tmp[3], tmp[1], tmp[4]);
    return low_bits_dropped || !tmp[4].is_zero();
}

/// The significand F at resolution 2^k in the terms of the rounding core for
/// a format of mantissa width m: slot 0 := X and slot 1 := S with
/// S * 2^(X - m) = F * 2^k when exact, and S = 2F + 1 one bit lower (a
/// sticky 1 below F) when not.
void quotient_as_exact_result(TempNumProvider& tmp, long k, bool inexact, unsigned long m) {
    if (inexact) {
        BVNumber::bit_left_shift(tmp[1], 1, &tmp[1]);
        tmp[1] += 1L;
        --k;
    }
    tmp[0] = QNumber(k + static_cast<long>(m));
}

/// Whether a remainder (slot 4) of the division by D (slot 3), as a fraction
/// of D, may lie within 2^-j of 0 or of 1. A first rounding at a position j
/// bits below the quotient's last bit moves a quotient no farther than that,
/// so outside this band both roundings see the quotient truncated with a
/// sticky bit. Judged from bit lengths, so it errs toward yes.
bool remainder_near_an_end(TempNumProvider& tmp, unsigned long j, bool low_bits_dropped) {
    if (tmp[4].is_zero()) return low_bits_dropped;
    const unsigned long d = bit_length(tmp[3]);
    // rest * 2^j >= D when bitlen(rest) - 1 + j >= bitlen(D).
    if (bit_length(tmp[4]) + j <= d) return true;
    // Likewise for D - rest - 1, the distance to the next multiple.
    tmp[0] = tmp[3];
    tmp[0] -= tmp[4];
    tmp[0] -= 1L;
    return tmp[0].is_zero() || bit_length(tmp[0]) + j <= d;
}

} // namespace

IEEEFloat IEEEFloat::from_number(const QNumber& q, format f, rounding_mode mode) {
    if (q.is_integer()) {
        // The integer N is N * 2^(m - m): significand N, exponent m.
        IEEEFloat result(f, REPR_GENERIC, mode);
        TempNumProvider tmp(static_cast<long>(f.mantissa_width));
        tmp[1] = q;
        round_and_pack_float(tmp, f, mode, false, tmp[0], tmp[1], *result.value.packed);
        result.self_specialize_repr(get_best_repr(f));
        return result;
    }

    // A proper fraction N/D. N and D each convert exactly into a format wide
    // enough for them, and the quotient is correctly rounded in the wider of
    // the two formats and then rounded again into f. This double rounding is
    // part of the contract: from_number(8/3, (4, 3)) is 2.5, not the nearer
    // 2.75. Both roundings are computed from one integer division.
    const bool negative = q.is_negative();
    TempNumProvider tmp;
    tmp[2] = q.get_num();
    if (negative) tmp[2].self_neg();
    tmp[3] = q.get_den();
    const unsigned long n = bit_length(tmp[2]), d = bit_length(tmp[3]);
    const format num_fmt = exact_integer_format(n, f);
    const format den_fmt = exact_integer_format(d, f);
    const format wide = num_fmt.mantissa_width < den_fmt.mantissa_width ? den_fmt : num_fmt;
    const unsigned long m = f.mantissa_width, wide_m = wide.mantissa_width;
    // The quotient's leading bit has the weight 2^lead or 2^(lead + 1).
    const long lead = static_cast<long>(n) - static_cast<long>(d) - 1;
    bool low_bits_dropped;

    // When the first rounding lies far below the second, the quotient is
    // needed only to f's precision and a few bits more: unless it lies
    // within a unit of the first rounding of a multiple of its last bit, the
    // first rounding moves it no farther than a sticky bit below that last
    // bit would, and every decision of the second rounding falls on
    // multiples of that bit. A wide numerator or denominator (thousands of
    // bits for values far outside f's range) then costs a short division
    // instead of one as wide as they are.
    constexpr unsigned long min_gap = 10;
    if (wide_m >= m + min_gap && wide.exponent_width <= 62) {
        const long k = lead - static_cast<long>(m) - 1; // half f's unit or less
        const bool inexact = quotient_at(tmp, k, low_bits_dropped);
        const unsigned long f_bits = bit_length(tmp[1]);
        // The first rounding's unit, 2^(lead_exact - wide_m), is 2^-j of 2^k.
        const unsigned long j = wide_m + 1 - f_bits;
        const long wide_min_exponent = 2 - (long{1} << (wide.exponent_width - 1));
        const bool normal_in_wide = static_cast<long>(f_bits) - 1 + k >= wide_min_exponent;
        if (normal_in_wide && j >= 2 &&
            !(inexact && remainder_near_an_end(tmp, j, low_bits_dropped))) {
            IEEEFloat result(f, REPR_GENERIC, mode);
            quotient_as_exact_result(tmp, k, inexact, m);
            round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[1], *result.value.packed);
            result.self_specialize_repr(get_best_repr(f));
            return result;
        }
    }

    // Otherwise the first rounding is made explicitly, from the quotient to
    // half the unit of the wide format or less.
    const long k = lead - static_cast<long>(wide_m) - 1;
    const bool inexact = quotient_at(tmp, k, low_bits_dropped);
    IEEEFloat result(wide, REPR_GENERIC, mode);
    quotient_as_exact_result(tmp, k, inexact, wide_m);
    round_and_pack_float(tmp, wide, mode, negative, tmp[0], tmp[1], *result.value.packed);
    result.set_format(f);
    return result;
}

void IEEEFloat::set_format(format new_fmt) {
    if (new_fmt == fmt) return;
    const Repr repr = get_repr();
    if (repr == REPR_FLOAT32 && new_fmt == binary64_format) {
        value.bits64 = settle_float64(swflt::float32_to_float64(value.bits32));
        fmt = new_fmt;
        set_repr(REPR_FLOAT64);
        return;
    }
    if (repr == REPR_FLOAT64 && new_fmt == binary32_format) {
        const std::uint32_t word = settle_float32(
            swflt::float64_to_float32(value.bits64, swflt_rounding_code(get_rounding_mode())));
        value.bits64 = 0;
        value.bits32 = word;
        fmt = new_fmt;
        set_repr(REPR_FLOAT32);
        return;
    }
    if (repr != REPR_GENERIC) {
        // Converted on a generic copy, so that a rounding error leaves this
        // value in its word, as every failed operation leaves its target.
        IEEEFloat generic(*this);
        generic.self_specialize_repr(REPR_GENERIC);
        generic.set_format(new_fmt);
        *this = std::move(generic);
        return;
    }

    const format old_fmt = fmt;
    const rounding_mode mode = get_rounding_mode();
    QNumber& packed = *value.packed;
    if (!try_convert_words(old_fmt, new_fmt, mode, packed)) {
        TempNumProvider tmp;
        bool sign, inf, nan, zero;
        unpack_components(old_fmt, packed, sign, tmp[0], tmp[1], tmp[4]);
        get_flags(old_fmt, packed, inf, nan, zero);
        if (nan) {
            do_make_nan(new_fmt, packed);
        } else if (inf) {
            do_make_inf(new_fmt, sign, packed);
        } else {
            // M * 2^(E - m) is M * 2^((E - m + m') - m') in the new format.
            tmp[4] = old_fmt.bias();
            get_unbiased(old_fmt, tmp[4], tmp[0], tmp[1]);
            tmp[0] -= static_cast<long>(old_fmt.mantissa_width);
            tmp[0] += static_cast<long>(new_fmt.mantissa_width);
            // Zeros come out with the sign flag they are handed, so -0 stays -0.
            round_and_pack_float(tmp, new_fmt, mode, sign, tmp[0], tmp[1], packed);
        }
    }
    fmt = new_fmt;
    self_specialize_repr(get_best_repr(new_fmt));
}

// ===========================================================================
// Addition, subtraction, multiplication and division
// ===========================================================================

namespace {

/// Sign and class of one packed operand.
struct OperandClass {
    bool sign = false, inf = false, nan = false, zero = false;
};

/// Splits a packed operand into its biased exponent (slot `slot`) and its
/// mantissa (slot `slot` + 1), and classifies it.
OperandClass unpack_operand(TempNumProvider& tmp, format f, const QNumber& packed, int slot) {
    OperandClass c;
    unpack_components(f, packed, c.sign, tmp[slot], tmp[slot + 1], tmp[4]);
    get_flags(f, packed, c.inf, c.nan, c.zero);
    return c;
}

/// The difference of the exponents in slots `hi` and `lo`, which the
/// alignment must shift by.
unsigned long alignment_distance(TempNumProvider& tmp, int hi, int lo) {
    QNumber& difference = tmp[5];
    difference = tmp[hi];
    difference -= tmp[lo];
    long d;
    if (!BVNumber::to_long(difference, &d)) throw_error(precision_limit_message);
    check_alignment_distance(static_cast<unsigned long>(d));
    return static_cast<unsigned long>(d);
}

/// a := a + b (a - b when `subtract`) on packed integers of format f, rounded
/// under `mode`. The operands may be one object. On an error a is unchanged.
void add_sub_float(bool subtract, TempNumProvider& tmp, format f, rounding_mode mode, QNumber& a,
                   const QNumber& b) {
    const OperandClass ca = unpack_operand(tmp, f, a, 0);
    const OperandClass cb = unpack_operand(tmp, f, b, 2);
    const bool sa = ca.sign, sb = cb.sign != subtract;
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    const bool toward_negative = mode == IEEEFloat::ROUND_TOWARD_NEGATIVE;

    if (ca.nan) return;
    if (cb.nan) {
        a = b;
        return;
    }
    if (ca.inf && cb.inf) {
        if (sa != sb) do_make_nan(f, a);
        return;
    }
    if (ca.inf) return;
    if (cb.inf) {
        a = b;
        BVNumber::set_bit(a, sign_bit, sb);
        return;
    }
    if (ca.zero && cb.zero) {
        if (sa != sb) do_make_zero(f, toward_negative, a);
        return;
    }

    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    get_unbiased(f, tmp[4], tmp[2], tmp[3]);
    // A zero addend is 0 at any exponent; lending it the other's spares
    // shifting the other across the exponent range.
    if (ca.zero) tmp[0] = tmp[2];
    if (cb.zero) tmp[2] = tmp[0];

    // Exact alignment onto the smaller exponent, which the sum keeps.
    const int order = cmp(tmp[0], tmp[2]);
    if (order > 0) {
        BVNumber::bit_left_shift(tmp[1], alignment_distance(tmp, 0, 2), &tmp[1]);
        tmp[0] = tmp[2];
    } else if (order < 0) {
        BVNumber::bit_left_shift(tmp[3], alignment_distance(tmp, 2, 0), &tmp[3]);
    }

    if (sa) tmp[1].self_neg();
    if (sb) tmp[3].self_neg();
    tmp[1] += tmp[3];
    bool negative = sa;
    if (!tmp[1].is_zero()) {
        negative = tmp[1].is_negative();
        if (negative) tmp[1].self_neg();
    }
    round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[1], a);
    // Two values of one format sum to a multiple of the smallest subnormal,
    // so only an exact zero sum packs to zero: x - x is +0, or -0 when
    // rounding toward negative.
    if (BVNumber::scan_bit_1(a, 0) >= sign_bit) do_make_zero(f, toward_negative, a);
}

void mul_float(TempNumProvider& tmp, format f, rounding_mode mode, QNumber& a, const QNumber& b) {
    const OperandClass ca = unpack_operand(tmp, f, a, 0);
    const OperandClass cb = unpack_operand(tmp, f, b, 2);
    const bool negative = ca.sign != cb.sign;

    if (ca.nan) return;
    if (cb.nan) {
        a = b;
        return;
    }
    if (ca.inf || cb.inf) {
        if (ca.zero || cb.zero) return do_make_nan(f, a);
        if (!ca.inf) a = b;
        BVNumber::set_bit(a, f.exponent_width + f.mantissa_width, negative);
        return;
    }

    // Subnormal factors need no normalising: the product is exact anyway.
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    get_unbiased(f, tmp[4], tmp[2], tmp[3]);
    tmp[0] += tmp[2];
    tmp[0] -= static_cast<long>(f.mantissa_width);
    tmp[1] *= tmp[3];
    round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[1], a);
}

/// Gives the subnormal significand in slot `sig` m + 1 bits, lowering the
/// exponent in slot `exp` to match, so that quotients and roots start from
/// full-width significands.
void normalise_subnormal(TempNumProvider& tmp, format f, int exp, int sig) {
    const unsigned long z = BVNumber::count_leading_zeros(tmp[sig], f.mantissa_width) + 1;
    tmp[exp] -= static_cast<long>(z);
    BVNumber::bit_left_shift(tmp[sig], z, &tmp[sig]);
}

/// a := a / b on packed integers of format f, rounded under `mode`.
///
/// The quotient of the two (m + 1)-bit significands is taken to 2m or 2m + 1
/// bits, with one more low 1 bit when the division leaves a remainder; that
/// bit takes part in rounding only as sticky information. From m = 2 on the
/// round bit lies above it and the result is correctly rounded. With m = 0
/// every significand is 1 and every quotient exact. With m = 1 the quotient
/// 1.0 / 1.1 (binary), 2/3 of a binade, keeps just its two kept bits and the
/// appended bit, which then reads as a round bit with nothing below it: under
/// ROUND_NEAREST_EVEN a normal result of that quotient is rounded as a tie,
/// to the even significand 1.0, where 1.1 is nearer. The directed modes and
/// every other quotient are correctly rounded.
void div_float(TempNumProvider& tmp, format f, rounding_mode mode, QNumber& a, const QNumber& b) {
    const OperandClass ca = unpack_operand(tmp, f, a, 0);
    const OperandClass cb = unpack_operand(tmp, f, b, 2);
    const bool negative = ca.sign != cb.sign;
    const unsigned long m = f.mantissa_width;

    if (ca.nan) return;
    if (cb.nan) {
        a = b;
        return;
    }
    if (ca.zero && cb.zero) return do_make_nan(f, a);
    if (cb.zero) return do_make_inf(f, negative, a);
    if (ca.inf && cb.inf) return do_make_nan(f, a);
    if (cb.inf) return do_make_zero(f, negative, a);
    if (ca.inf) return do_make_inf(f, negative, a);
    if (ca.zero) {
        if (ca.sign != negative) BVNumber::set_bit(a, f.exponent_width + m, negative);
        return;
    }

    // The biased exponent fields still tell the subnormals apart.
    const bool a_subnormal = tmp[0].is_zero(), b_subnormal = tmp[2].is_zero();
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    get_unbiased(f, tmp[4], tmp[2], tmp[3]);
    if (a_subnormal) normalise_subnormal(tmp, f, 0, 1);
    if (b_subnormal) normalise_subnormal(tmp, f, 2, 3);

    tmp[0] -= tmp[2];
    tmp[0] -= static_cast<long>(m);
    BVNumber::bit_left_shift(tmp[1], m, &tmp[1]);
    BVNumber::bit_left_shift(tmp[1], m, &tmp[1]);
    tmp[1].divmod(tmp[3], tmp[4], tmp[2]);
    if (!tmp[2].is_zero()) {
        tmp[0] -= 1L;
        BVNumber::bit_left_shift(tmp[4], 1, &tmp[4]);
        tmp[4] += 1L;
    }
    round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[4], a);
}

/// a := a op b on packed integers of format f, exactly with QNumbers. Kept
/// out of line so that the word paths' caller stays small.
[[gnu::noinline]] void exact_op(ArithOp op, format f, rounding_mode mode, QNumber& a,
                                const QNumber& b) {
    TempNumProvider tmp;
    switch (op) {
    case ArithOp::add:
        return add_sub_float(false, tmp, f, mode, a, b);
    case ArithOp::sub:
        return add_sub_float(true, tmp, f, mode, a, b);
    case ArithOp::mul:
        return mul_float(tmp, f, mode, a, b);
    default:
        return div_float(tmp, f, mode, a, b);
    }
}

/// a := a op b on packed integers of format f: on machine words when the
/// format and both operands allow it, otherwise exactly.
void generic_op(ArithOp op, format f, rounding_mode mode, QNumber& a, const QNumber& b) {
    if (!try_word_op(op, f, mode, a, b)) exact_op(op, f, mode, a, b);
}

/// The soft-float code of a value's rounding mode.
inline int swflt_code(const IEEEFloat& x) {
    return swflt_rounding_code(x.get_rounding_mode());
}

} // namespace

IEEEFloat& IEEEFloat::operator+=(const IEEEFloat& other) {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 =
            settle_float32(swflt::float32_add(value.bits32, other.value.bits32, swflt_code(*this)));
        break;
    case REPR_FLOAT64:
        value.bits64 =
            settle_float64(swflt::float64_add(value.bits64, other.value.bits64, swflt_code(*this)));
        break;
    default:
        generic_op(ArithOp::add, fmt, get_rounding_mode(), *value.packed, *other.value.packed);
    }
    return *this;
}

IEEEFloat& IEEEFloat::operator-=(const IEEEFloat& other) {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 =
            settle_float32(swflt::float32_sub(value.bits32, other.value.bits32, swflt_code(*this)));
        break;
    case REPR_FLOAT64:
        value.bits64 =
            settle_float64(swflt::float64_sub(value.bits64, other.value.bits64, swflt_code(*this)));
        break;
    default:
        generic_op(ArithOp::sub, fmt, get_rounding_mode(), *value.packed, *other.value.packed);
    }
    return *this;
}

IEEEFloat& IEEEFloat::operator*=(const IEEEFloat& other) {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 =
            settle_float32(swflt::float32_mul(value.bits32, other.value.bits32, swflt_code(*this)));
        break;
    case REPR_FLOAT64:
        value.bits64 =
            settle_float64(swflt::float64_mul(value.bits64, other.value.bits64, swflt_code(*this)));
        break;
    default:
        generic_op(ArithOp::mul, fmt, get_rounding_mode(), *value.packed, *other.value.packed);
    }
    return *this;
}

IEEEFloat& IEEEFloat::operator/=(const IEEEFloat& other) {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 =
            settle_float32(swflt::float32_div(value.bits32, other.value.bits32, swflt_code(*this)));
        break;
    case REPR_FLOAT64:
        value.bits64 =
            settle_float64(swflt::float64_div(value.bits64, other.value.bits64, swflt_code(*this)));
        break;
    default:
        generic_op(ArithOp::div, fmt, get_rounding_mode(), *value.packed, *other.value.packed);
    }
    return *this;
}

// ===========================================================================
// Square root
// ===========================================================================

namespace {

/// x := the square root of the packed integer x of format f, rounded under
/// `mode`. NaNs and zeros stay as they are (so the root of -0 is -0), every
/// other negative value gives the library NaN.
void sqrt_float(TempNumProvider& tmp, format f, rounding_mode mode, QNumber& x) {
    bool sign, inf, nan, zero;
    unpack_components(f, x, sign, tmp[0], tmp[1], tmp[4]);
    get_flags(f, x, inf, nan, zero);
    if (nan || zero) return;
    if (sign) return do_make_nan(f, x);
    if (inf) return;

    const unsigned long m = f.mantissa_width;
    const bool subnormal = tmp[0].is_zero();
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    if (subnormal) normalise_subnormal(tmp, f, 0, 1);

    // Halve the exponent, rounding toward minus infinity; an odd exponent
    // leaves its factor 2 in the significand, so 2^m <= M < 2^(m+2).
    tmp[0].divmod(QNumber(2L), tmp[5], tmp[6]);
    tmp[0] = tmp[5];
    if (!tmp[6].is_zero()) BVNumber::bit_left_shift(tmp[1], 1, &tmp[1]);

    // The integer root of M * 2^(m+4) has m + 3 bits, two more than the
    // format keeps; a non-zero remainder becomes one more low 1 bit, which
    // rounds exactly as the irrational rest of the root would.
    BVNumber::bit_left_shift(tmp[1], m + 4, &tmp[1]);
    mpz_class radicand = tmp[1].to_mpz(), root, rest;
    mpz_sqrtrem(root.get_mpz_t(), rest.get_mpz_t(), radicand.get_mpz_t());
    tmp[1] = QNumber(root);
    tmp[0] -= 2L;
    if (rest != 0) {
        tmp[0] -= 1L;
        BVNumber::bit_left_shift(tmp[1], 1, &tmp[1]);
        tmp[1] += 1L;
    }
    round_and_pack_float(tmp, f, mode, false, tmp[0], tmp[1], x);
}

} // namespace

IEEEFloat& IEEEFloat::sqrt() {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = settle_float32(swflt::float32_sqrt(value.bits32, swflt_code(*this)));
        break;
    case REPR_FLOAT64:
        value.bits64 = settle_float64(swflt::float64_sqrt(value.bits64, swflt_code(*this)));
        break;
    default: {
        const rounding_mode mode = get_rounding_mode();
        QNumber& packed = *value.packed;
        if (!try_word_op(ArithOp::sqrt, fmt, mode, packed, packed)) {
            TempNumProvider tmp;
            sqrt_float(tmp, fmt, mode, packed);
        }
    }
    }
    return *this;
}

// The sections that follow add the comparisons, the conversions to exact
// numbers and integers, the neighbour steps and the text forms.

} // namespace tarn

namespace tarn {

// ===========================================================================
// Decoding finite values
// ===========================================================================
//
// The exact results, the rounding to integers and the text all start from
// the same split of a finite value into sign, integer significand M and the
// weight 2^k of its lowest bit (k = E - m). Patterns that fit a machine word,
// which covers binary32 and binary64 in every representation and every small
// generic format, are split with shifts; wider ones go through the packed
// codec on QNumbers.

namespace {

/// The class of a value as these sections need it.
enum class ValueClass { zero, finite, infinite, nan };

/// A value split for exact work: (-1)^negative * significand * 2^exponent.
/// For zeros only `negative` is meaningful.
struct FiniteParts {
    bool negative = false;
    /// The significand is `word` when true, `wide` otherwise.
    bool in_word = true;
    std::uint64_t word = 0;
    mpz_class wide;
    /// k = E - m, the weight of the lowest significand bit.
    long exponent = 0;
    /// The value is a power of two above the lowest binade, so its lower
    /// neighbour lies at half the spacing of its upper one.
    bool finer_below = false;
};

/// Splits a pattern of format (e, m) held in a word (e + m <= 63, e <= 62).
/// A format without exponent bits has no value but zero, as its text "0" says.
ValueClass decode_word(std::uint64_t bits, unsigned long e, unsigned long m, FiniteParts& out) {
    if (e == 0) return ValueClass::zero;
    const std::uint64_t mantissa = bits & low_mask(m);
    const std::uint64_t biased = (bits >> m) & low_mask(e);
    out.negative = (bits >> (e + m)) & 1;
    if (biased == low_mask(e)) return mantissa == 0 ? ValueClass::infinite : ValueClass::nan;
    if (biased == 0 && mantissa == 0) return ValueClass::zero;
    const long bias = static_cast<long>(low_mask(e - 1));
    const long unbiased = biased == 0 ? 1 - bias : static_cast<long>(biased) - bias;
    out.in_word = true;
    out.word = biased == 0 ? mantissa : mantissa | std::uint64_t{1} << m;
    out.exponent = unbiased - static_cast<long>(m);
    out.finer_below = mantissa == 0 && biased >= 2;
    return ValueClass::finite;
}

/// Splits a packed integer of any size with the packed codec. Throws the
/// precision limit when the weight of the lowest bit does not fit a word.
ValueClass decode_packed(format f, const QNumber& packed, FiniteParts& out) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    if (e == 0) return ValueClass::zero; // no bias, no value but zero
    std::uint64_t word;
    if (e <= 62 && e + m <= 63 && as_word(packed, word)) return decode_word(word, e, m, out);

    TempNumProvider tmp;
    QNumber& exponent = tmp[0];
    QNumber& significand = tmp[1];
    bool inf, nan, zero;
    unpack_components(f, packed, out.negative, exponent, significand, tmp[2]);
    get_flags(f, packed, inf, nan, zero);
    if (nan) return ValueClass::nan;
    if (inf) return ValueClass::infinite;
    if (zero) return ValueClass::zero;

    out.finer_below = significand.is_zero() && QNumber(1L) < exponent;
    get_unbiased(f, f.bias(), exponent, significand);
    exponent -= QNumber(static_cast<long>(m));
    long k;
    if (!BVNumber::to_long(exponent, &k) || k == LONG_MIN) throw_error(precision_limit_message);
    out.exponent = k;
    out.in_word = false;
    out.wide = significand.to_mpz();
    return ValueClass::finite;
}

/// Splits any value: words of the binary32 and binary64 representations are
/// read with their own layouts, whatever the format says, as the soft-float
/// component reads them.
template <class Held>
ValueClass decode_value(IEEEFloat::Repr repr, const Held& held, format f, FiniteParts& out) {
    switch (repr) {
    case IEEEFloat::REPR_FLOAT32:
        return decode_word(held.bits32, 8, 23, out);
    case IEEEFloat::REPR_FLOAT64:
        return decode_word(held.bits64, 11, 52, out);
    default:
        return decode_packed(f, *held.packed, out);
    }
}

/// An exact rational or decimal of a value of weight 2^k needs about |k|
/// bits, so exponent fields wide enough could ask for integers of gigabytes
/// from a single pattern. The same bound as for the alignment of addition
/// applies: past |k| = 2^26 (an 8 MiB integer) the operations that would
/// build such a number report the precision limit instead. Every value of a
/// format with up to 26 exponent bits (and fewer than 2^25 mantissa bits) is
/// within it.
void check_exact_size(long k) {
    const long limit = static_cast<long>(max_alignment_distance);
    if (k > limit || k < -limit) throw_error(precision_limit_message);
}

} // namespace

// ===========================================================================
// Comparison
// ===========================================================================
//
// binary32 and binary64 values are compared by the soft-float component.
// Generic values are compared on their packed integers: for one sign the
// pattern grows with the magnitude, so after the NaN test only the signs and
// the pair of zeros need a look before a single integer comparison.

namespace {

/// The order of two generic values neither of which is a NaN: -1, 0 or 1 as a
/// lies below, on or above b, with +0 and -0 equal.
int packed_order(format f, const QNumber& a, const QNumber& b) {
    const unsigned long sign_bit = f.exponent_width + f.mantissa_width;
    const bool a_negative = BVNumber::test_bit(a, sign_bit);
    const bool b_negative = BVNumber::test_bit(b, sign_bit);
    if (a_negative != b_negative) {
        const unsigned long m = f.mantissa_width;
        if (scan_packed(a, m).zero(f) && scan_packed(b, m).zero(f)) return 0;
        return a_negative ? -1 : 1;
    }
    const int order = cmp(a, b);
    return a_negative ? -order : order;
}

} // namespace

namespace {

/// One comparison of a and b, whose held values are `x` and `y`: on words the
/// soft-float component's predicate, after which its exception byte is
/// cleared; on packed integers the order of the two values, which `holds`
/// turns into the answer. A NaN operand makes every comparison false.
template <class Held, class Holds>
bool compare_held(const IEEEFloat& a, const IEEEFloat& b, const Held& x, const Held& y,
                  std::uint8_t (*on_float32)(std::uint32_t, std::uint32_t),
                  std::uint8_t (*on_float64)(std::uint64_t, std::uint64_t), Holds holds) {
    bool result;
    switch (a.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        result = on_float32(x.bits32, y.bits32) != 0;
        break;
    case IEEEFloat::REPR_FLOAT64:
        result = on_float64(x.bits64, y.bits64) != 0;
        break;
    default:
        if (a.is_nan() || b.is_nan()) return false;
        return holds(packed_order(a.get_format(), *x.packed, *y.packed));
    }
    swflt::float_exception_flags = 0;
    return result;
}

} // namespace

bool operator<(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, swflt::float32_lt, swflt::float64_lt,
                        [](int order) { return order < 0; });
}

bool operator<=(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, swflt::float32_le, swflt::float64_le,
                        [](int order) { return order <= 0; });
}

bool operator==(const IEEEFloat& a, const IEEEFloat& b) {
    return compare_held(a, b, a.value, b.value, swflt::float32_eq_signaling,
                        swflt::float64_eq_signaling, [](int order) { return order == 0; });
}

int ieee_cmp(const IEEEFloat& a, const IEEEFloat& b) {
    if (a.get_repr() >= IEEEFloat::REPR_GENERIC) {
        // One pass instead of up to three comparisons: the answers coincide.
        if (a.is_nan() || b.is_nan()) return -2;
        return packed_order(a.fmt, *a.value.packed, *b.value.packed);
    }
    if (a < b) return -1;
    if (b < a) return 1;
    if (a == b) return 0;
    return -2;
}

// ===========================================================================
// Conversion to exact numbers and integers; rounding to integral
// ===========================================================================

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
    if (parts.exponent >= 0 && x.get_repr() == IEEEFloat::get_best_repr(x.fmt)) return x;
    const rounding_mode mode = x.get_rounding_mode();
    IEEEFloat result = IEEEFloat::from_number(rounded_integer(parts, mode, 0), x.fmt, mode);
    if (result.is_zero()) result.set_sign(x.get_sign());
    return result;
}

// ===========================================================================
// Neighbouring values
// ===========================================================================
//
// For one sign, patterns read as unsigned integers run through zero, the
// subnormals, the normals, infinity and the NaNs in increasing order, so a
// step is an increment or decrement of the magnitude bits.

namespace {

constexpr std::uint32_t float32_sign_bit = std::uint32_t{1} << 31;
constexpr std::uint64_t float64_sign_bit = std::uint64_t{1} << 63;
constexpr std::uint32_t float32_max_finite = 0x7F7FFFFF;
constexpr std::uint64_t float64_max_finite = 0x7FEFFFFFFFFFFFFF;

/// Steps the magnitude of a word one place away from zero or toward it,
/// keeping its sign bit.
template <class Word>
Word step_magnitude(Word bits, Word sign_bit, bool away) {
    const Word sign = bits & sign_bit;
    const Word magnitude = bits & ~sign_bit;
    return sign | static_cast<Word>(away ? magnitude + 1 : magnitude - 1);
}

} // namespace

// Stepping inward from an infinity keeps the value's own rounding mode and
// representation, like every other step: an in-place operation should not
// change how the value rounds or how it is held.
void IEEEFloat::next_representable(bool up) {
    if (is_nan()) return;
    const bool negative = get_sign();
    const unsigned long sign_bit = fmt.exponent_width + fmt.mantissa_width;
    if (is_zero()) {
        switch (get_repr()) {
        case REPR_FLOAT32:
            value.bits32 = 1;
            break;
        case REPR_FLOAT64:
            value.bits64 = 1;
            break;
        default:
            *value.packed = QNumber(1L);
        }
        set_sign(!up);
        return;
    }
    if (is_inf()) {
        if (up != negative) return; // already the end in that direction
        switch (get_repr()) {
        case REPR_FLOAT32:
            value.bits32 = float32_max_finite;
            break;
        case REPR_FLOAT64:
            value.bits64 = float64_max_finite;
            break;
        default: {
            QNumber& packed = *value.packed;
            BVNumber::pow2(sign_bit, &packed);
            packed -= 1L;
            QNumber hidden;
            BVNumber::pow2(fmt.mantissa_width, &hidden);
            packed -= hidden;
        }
        }
        set_sign(negative);
        return;
    }
    const bool away = up != negative;
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = step_magnitude(value.bits32, float32_sign_bit, away);
        break;
    case REPR_FLOAT64:
        value.bits64 = step_magnitude(value.bits64, float64_sign_bit, away);
        break;
    default: {
        QNumber& packed = *value.packed;
        BVNumber::set_bit(packed, sign_bit, false);
        packed += away ? 1L : -1L;
        BVNumber::set_bit(packed, sign_bit, negative);
    }
    }
}

// The order has two ends: the positive NaN with every mantissa bit set at the
// top and the all-ones pattern at the bottom. Stepping past either leaves the
// value where it is; plain arithmetic would wrap to a zero in the word
// representations and grow a bit above the sign in the generic one, a
// pattern no other operation accepts.
void IEEEFloat::packed_next(bool up) {
    const bool negative = get_sign();
    if (is_zero() && up == negative) {
        // +0 down gives -0 and -0 up gives +0: the two zeros are two steps.
        self_zero(!negative);
        return;
    }
    const bool increment = up != negative;
    const unsigned long sign_bit = fmt.exponent_width + fmt.mantissa_width;
    switch (get_repr()) {
    case REPR_FLOAT32:
        if (increment && (value.bits32 & ~float32_sign_bit) == ~float32_sign_bit) return;
        value.bits32 = increment ? value.bits32 + 1 : value.bits32 - 1;
        break;
    case REPR_FLOAT64:
        if (increment && (value.bits64 & ~float64_sign_bit) == ~float64_sign_bit) return;
        value.bits64 = increment ? value.bits64 + 1 : value.bits64 - 1;
        break;
    default:
        if (increment && BVNumber::scan_bit_0(*value.packed, 0) >= sign_bit) return;
        *value.packed += increment ? 1L : -1L;
    }
}

// ===========================================================================
// Text
// ===========================================================================

namespace {

/// floor(n * log10(2)), or one less, for every 64-bit n; never more. The
/// 64-bit fixed-point constant lies below log10(2) by less than one unit, so
/// the product errs by less than |n| units of 2^-64, toward zero. Only a
/// negative n can thereby land just above an integer it should lie below,
/// and then the step down is taken.
long floor_log10_pow2(long n) {
    __extension__ using wide = __int128;
    constexpr std::uint64_t log10_2_q64 = 0x4D104D427DE7FBCCULL;
    const wide product = static_cast<wide>(n) * static_cast<wide>(log10_2_q64);
    long result = static_cast<long>(product >> 64);
    const std::uint64_t fraction = static_cast<std::uint64_t>(product);
    const std::uint64_t magnitude =
        n < 0 ? 0 - static_cast<std::uint64_t>(n) : static_cast<std::uint64_t>(n);
    if (n < 0 && fraction <= magnitude) --result;
    return result;
}

/// Scratch integers of the digit search, kept per thread so that printing in
/// a loop stops allocating once the limbs have grown to the largest size met.
struct DecimalScratch {
    mpz_t significand, num, den, unit, quot, rem, power, below, above, tail, scaled_den, probe;
    DecimalScratch() {
        mpz_inits(significand, num, den, unit, quot, rem, power, below, above, tail, scaled_den,
                  probe, nullptr);
    }
    ~DecimalScratch() {
        mpz_clears(significand, num, den, unit, quot, rem, power, below, above, tail, scaled_den,
                   probe, nullptr);
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
/// of ten implies holding one of every finer power, so the first weight that
/// fails ends the search. A single exact division at j0 serves every weight:
/// the low decimal digits of its quotient give the remainder at each one.
/// For binary64 this is a handful of operations on integers of at most
/// about 1100 bits, instead of a rational digit loop.
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
    mpz_fdiv_qr(s.quot, s.rem, s.num, s.den);

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
    long t = 0;
    mpz_set_ui(s.power, 1);
    mpz_set(s.scaled_den, s.den);
    for (;;) {
        mpz_mul_ui(s.power, s.power, 10);
        mpz_mul_ui(s.scaled_den, s.scaled_den, 10);
        mpz_tdiv_r(s.tail, s.quot, s.power);
        mpz_mul(s.tail, s.tail, s.den);
        mpz_add(s.tail, s.tail, s.rem);
        const bool next_lower_ok = inside_below(s.tail);
        mpz_sub(s.above, s.scaled_den, s.tail);
        const bool next_upper_ok = inside_above(s.above);
        if (!next_lower_ok && !next_upper_ok) break;
        ++t;
        lower_ok = next_lower_ok;
        upper_ok = next_upper_ok;
        mpz_swap(s.below, s.tail);
    }
    // `above` was overwritten by the failed probe; rebuild it for the choice.
    mpz_divexact_ui(s.scaled_den, s.scaled_den, 10);
    mpz_sub(s.above, s.scaled_den, s.below);
    if (t > 0) {
        mpz_divexact_ui(s.power, s.power, 10);
        mpz_fdiv_q(s.quot, s.quot, s.power);
    }
    const bool take_upper = upper_ok && (!lower_ok || mpz_cmp(s.above, s.below) < 0);
    if (take_upper) mpz_add_ui(s.quot, s.quot, 1);

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
        const QNumber& packed = *value.packed;
        append_grouped_bits(
            e, m, [&packed](unsigned long i) { return BVNumber::test_bit(packed, i); }, text);
    }
    }
    return text;
}

// ===========================================================================
// Conveniences: named formats
// ===========================================================================

namespace {

struct NamedFormat {
    std::string_view name;
    format fmt;
};

constexpr NamedFormat named_formats[] = {
    {"binary16", format::binary16()},   {"binary32", format::binary32()},
    {"binary64", format::binary64()},   {"binary128", format::binary128()},
    {"binary256", format::binary256()}, {"bfloat16", format::bfloat16()},
    {"e5m2", format::e5m2()},           {"e4m3", format::e4m3()},
};

// Not std::tolower: names are ASCII and the locale must not change the answer.
char ascii_lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

bool equal_ignoring_ascii_case(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
    return true;
}

} // namespace

std::optional<format> IEEEFloat::format::by_name(std::string_view name) noexcept {
    for (const NamedFormat& named : named_formats)
        if (equal_ignoring_ascii_case(named.name, name)) return named.fmt;
    return std::nullopt;
}

const std::vector<std::string_view>& IEEEFloat::format::known_names() {
    static const std::vector<std::string_view> names = [] {
        std::vector<std::string_view> all;
        for (const NamedFormat& named : named_formats)
            all.push_back(named.name);
        return all;
    }();
    return names;
}

std::string_view IEEEFloat::format::name() const noexcept {
    for (const NamedFormat& named : named_formats)
        if (named.fmt == *this) return named.name;
    return {};
}

// ===========================================================================
// Reading numerals
// ===========================================================================

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
    if (equal_ignoring_ascii_case(text, "nan")) {
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

/// The digits of `span` without its point, as GMP reads them.
void copy_digits(std::string_view span, std::string& out) {
    out.clear();
    for (const char c : span)
        if (c != '.') out += c;
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
void round_out_of_range(format f, rounding_mode mode, bool negative, Reach reach, QNumber& out) {
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
    round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[1], out);
}

/// Rounds C * 2^k, with C > 0 given by its digits in base 16, once into `out`.
void round_hex(format f, rounding_mode mode, bool negative, const std::string& digits, long k,
               QNumber& out) {
    mpz_class c;
    mpz_set_str(c.get_mpz_t(), digits.c_str(), 16);
    TempNumProvider tmp(k);
    tmp[0] += static_cast<long>(f.mantissa_width);
    tmp[1] = QNumber(c);
    round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[1], out);
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
void round_decimal(format f, rounding_mode mode, bool negative, const std::string& digits, long k,
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
    round_and_pack_float(tmp, f, mode, negative, tmp[0], tmp[1], out);
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
std::uint64_t round_to_word_pattern(format f, rounding_mode mode, bool negative,
                                    WordSignificand significand, long exponent) {
    // Rounding -v toward +infinity is rounding v toward -infinity, negated.
    // Rounding the magnitude keeps the pattern clear of the sign bit, where a
    // QNumber word would have to grow into GMP storage.
    rounding_mode magnitude_mode = mode;
    if (negative && mode == IEEEFloat::ROUND_TOWARD_POSITIVE)
        magnitude_mode = IEEEFloat::ROUND_TOWARD_NEGATIVE;
    else if (negative && mode == IEEEFloat::ROUND_TOWARD_NEGATIVE)
        magnitude_mode = IEEEFloat::ROUND_TOWARD_POSITIVE;
    QNumber packed;
    round_and_pack_word(f, magnitude_mode, false, static_cast<long>(significand.bits),
                        exponent + significand.shift + static_cast<long>(f.mantissa_width), packed);
    long magnitude = 0;
    BVNumber::to_long(packed, &magnitude);
    return static_cast<std::uint64_t>(magnitude) | std::uint64_t{negative}
                                                       << (f.exponent_width + f.mantissa_width);
}

/// C * 10^k, for |k| <= max_tabled_power, rounded into a word pattern.
std::uint64_t round_decimal_in_words(format f, rounding_mode mode, bool negative, std::uint64_t c,
                                     long k) {
    mpz_srcptr power = powers_of_five()[k < 0 ? -k : k];
    const mp_limb_t* five = mpz_limbs_read(power);
    const auto n = static_cast<mp_size_t>(mpz_size(power));
    if (k >= 0) {
        // C * 10^k = (C * 5^k) * 2^k.
        mp_limb_t product[max_power_limbs + 1];
        product[n] = mpn_mul_1(product, five, n, c);
        return round_to_word_pattern(f, mode, negative,
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
    return round_to_word_pattern(f, mode, negative, cut_to_word(quotient, quotient_limbs, inexact),
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
bool round_decimal_quickly(format f, rounding_mode mode, bool negative, std::uint64_t c_low,
                           std::uint64_t c_high, long k, std::uint64_t& pattern) {
    if (k > max_tabled_power || k < -max_tabled_power) return false;
    static const LeadingPowers leading;
    const LeadingPower& p = leading[k];
    auto cut_product = [](std::uint64_t c, std::uint64_t high, std::uint64_t low) {
        mp_limb_t product[3];
        multiply_64_by_128(c, high, low, product);
        return cut_to_word(product, product[2] != 0 ? 3 : product[1] != 0 ? 2 : 1, false);
    };
    auto round = [&](WordSignificand significand) {
        return round_to_word_pattern(f, mode, negative, significand, k + p.exponent);
    };
    const WordSignificand lower = cut_product(c_low, p.high, p.low);
    if (p.exact && c_low == c_high) {
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

/// The word path: the pattern of the numeral in a word_reading_format format,
/// or false when the exact path has to decide. `k` is the exponent of the
/// significant digits: the value is C * 10^k, or C * 2^k for hexadecimal.
bool read_in_words(format f, rounding_mode mode, bool negative, bool hex,
                   const SignificantDigits& digits, long k, std::uint64_t& pattern) {
    if (!word_reading_format(f) || static_cast<unsigned>(mode) > 3) return false;
    // Up to 16 hexadecimal digits are read exactly; longer numerals are
    // bracketed with 15, so that C + 1 still fits a word.
    const long exact_digits = hex ? 16 : 19;
    const long used = digits.count <= exact_digits ? digits.count : hex ? 15 : 19;
    const bool cut = used < digits.count;
    const long scale = k + (digits.count - used) * (hex ? 4 : 1);
    const std::uint64_t c = leading_digits(digits.span, used, hex);
    if (!hex) {
        if (round_decimal_quickly(f, mode, negative, c, cut ? c + 1 : c, scale, pattern))
            return true;
        if (scale > max_tabled_power || scale < -max_tabled_power) return false;
    }
    auto round = [&](std::uint64_t c) {
        if (!hex) return round_decimal_in_words(f, mode, negative, c, scale);
        const mp_limb_t limb = c;
        return round_to_word_pattern(f, mode, negative, cut_to_word(&limb, 1, false), scale);
    };
    pattern = round(c);
    return !cut || round(c + 1) == pattern;
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

    std::uint64_t pattern;
    if (reach == Reach::in_range && !numeral.exponent_saturated &&
        read_in_words(f, mode, numeral.negative, numeral.hex, significant, k, pattern)) {
        switch (result.get_repr()) {
        case REPR_FLOAT32:
            result.value.bits32 = static_cast<std::uint32_t>(pattern);
            break;
        case REPR_FLOAT64:
            result.value.bits64 = pattern;
            break;
        default:
            *result.value.packed = integer_from_word(pattern);
        }
        return result;
    }

    result.self_specialize_repr(REPR_GENERIC);
    QNumber& packed = *result.value.packed;
    if (reach != Reach::in_range) {
        round_out_of_range(f, mode, numeral.negative, reach, packed);
    } else if (numeral.exponent_saturated ||
               (!numeral.hex && (k > decimal_exponent_limit || k < -decimal_exponent_limit))) {
        throw_error(precision_limit_message);
    } else {
        thread_local std::string digits;
        copy_digits(significant.span, digits);
        if (numeral.hex)
            round_hex(f, mode, numeral.negative, digits, k, packed);
        else
            round_decimal(f, mode, numeral.negative, digits, k, packed);
    }
    result.self_specialize_repr(get_best_repr(f));
    return result;
}

// ===========================================================================
// Conveniences: stream output and hashing
// ===========================================================================

std::ostream& operator<<(std::ostream& os, const IEEEFloat& x) {
    if (x.is_nan()) return os << "nan";
    if (x.is_inf()) return os << (x.get_sign() ? "-inf" : "inf");
    return os << x.to_float_str();
}

std::size_t IEEEFloat::hash() const noexcept {
    const std::size_t widths =
        QNumber::hash_combine(QNumber::hash_combine(0, fmt.exponent_width), fmt.mantissa_width);
    // Zeros hash as +0 so that -0 and +0, equal under operator==, meet.
    if (is_zero()) return QNumber::hash_combine(widths, QNumber::hash_of_word(0));
    switch (get_repr()) {
    case REPR_FLOAT32:
        return QNumber::hash_combine(widths, QNumber::hash_of_word(value.bits32));
    case REPR_FLOAT64:
        return QNumber::hash_combine(widths, QNumber::hash_of_word(value.bits64));
    default:
        return QNumber::hash_combine(widths, value.packed->hash());
    }
}

// ===========================================================================
// Conveniences: hexadecimal text
// ===========================================================================
//
// The hexadecimal form is read straight off the bit pattern: the mantissa
// field gives the digits and the exponent field the exponent, so no
// arithmetic on the value is needed and formats of any width are written
// without a precision limit.

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
    if (is_nan()) return "nan";
    if (is_inf()) return get_sign() ? "-inf" : "inf";
    if (is_zero()) return get_sign() ? "-0x0p+0" : "0x0p+0";
    // Words are read with their own layouts, as every word operation does.
    if (get_repr() == REPR_FLOAT32) return word_hex_text(value.bits32, 8, 23);
    if (get_repr() == REPR_FLOAT64) return word_hex_text(value.bits64, 11, 52);
    const unsigned long e = fmt.exponent_width, m = fmt.mantissa_width;
    const QNumber& packed = *value.packed;
    std::uint64_t word;
    if (e + m <= 63 && as_word(packed, word)) return word_hex_text(word, e, m);
    return finite_hex_text(
        e, m, [&packed](unsigned long i) { return BVNumber::test_bit(packed, i); }, is_subnormal());
}

} // namespace tarn
