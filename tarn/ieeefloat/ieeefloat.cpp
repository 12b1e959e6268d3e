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

#include <climits>
#include <cstdint>
#include <gmp.h>
#include <string>

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
    std::uint64_t word;
    if (as_word(q, word)) return word;
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
/// big form, which only set_bit can give a word of that size.
QNumber integer_from_word(std::uint64_t word) {
    constexpr std::uint64_t top = std::uint64_t{1} << 63;
    QNumber q(static_cast<long>(word & ~top));
    if (word & top) BVNumber::set_bit(q, 63, true);
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
//
// The routines marked maybe_unused here and in the rounding core serve the
// arithmetic and conversions, which are written in later sections.

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

inline PackedScan scan_packed(const QNumber& packed, unsigned long m) {
    std::uint64_t word;
    if (as_word(packed, word)) return scan_word(word, m);
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
[[maybe_unused]] void get_flags(format f, const QNumber& packed, bool& inf, bool& nan, bool& zero) {
    const PackedScan scan = scan_packed(packed, f.mantissa_width);
    inf = scan.inf(f);
    nan = scan.nan(f);
    zero = scan.zero(f);
}

/// Splits a packed integer into its sign, biased exponent field and mantissa
/// field. `scratch` is working storage and ends holding 2^m - 1.
[[maybe_unused]] void unpack_components(format f, const QNumber& packed, bool& sign,
                                        QNumber& exponent, QNumber& mantissa, QNumber& scratch) {
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
[[maybe_unused]] void get_unbiased(format f, const QNumber& bias, QNumber& exponent,
                                   QNumber& significand) {
    const bool subnormal_or_zero = exponent.is_zero();
    exponent -= bias;
    if (subnormal_or_zero)
        exponent += 1L;
    else
        BVNumber::set_bit(significand, f.mantissa_width, true);
}

/// out := exponent * 2^m + significand, with the sign bit set when `sign`.
/// Nothing is masked, so a significand that still holds its hidden bit
/// carries one into the exponent field: callers may pass either E + bias with
/// the bare mantissa or E + bias - 1 with the full significand.
void pack_float(format f, bool sign, const QNumber& exponent, const QNumber& significand,
                QNumber& out) {
    if (&out == &significand) {
        QNumber sum;
        BVNumber::bit_left_shift(exponent, f.mantissa_width, &sum);
        sum += significand;
        out = sum;
    } else {
        BVNumber::bit_left_shift(exponent, f.mantissa_width, &out);
        out += significand;
    }
    if (sign) BVNumber::set_bit(out, f.exponent_width + f.mantissa_width, true);
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

/// The rounding core on machine words, for word_rounding_format formats and
/// exponents within word_exponent_limit. The same steps as the general path
/// below, with every number in a register.
void round_and_pack_word(format f, rounding_mode mode, bool negative, long significand,
                         long exponent, QNumber& out) {
    const unsigned long m = f.mantissa_width;
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
    const long length = 64 - __builtin_clzll(s);
    const long delta = length - static_cast<long>(m + 1);

    long biased = exponent + delta + bias;
    bool overflow = biased >= max_exponent;
    // A subnormal result keeps the minimum exponent and loses more bits.
    const long shift = biased > 0 ? delta : 1 - bias - exponent;
    exponent += shift;

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

    if ((round_bit || sticky) && rounds_away(mode, negative, round_bit, sticky, s & 1)) {
        ++s;
        if (s >> (m + 1)) { // rounded up to the next power of two
            if (++biased >= max_exponent) {
                overflow = true;
            } else {
                ++exponent;
                s >>= 1;
            }
        }
    }

    std::uint64_t bits;
    if (overflow) {
        bits = static_cast<std::uint64_t>(max_exponent) << m;
        if (overflow_saturates(mode, negative)) --bits;
    } else if ((s >> m) & 1) {
        bits = static_cast<std::uint64_t>(exponent + bias) << m | (s & low_mask(m));
    } else {
        bits = s; // subnormal, or zero when everything was shifted out
    }
    store_packed(f, negative, bits, out);
}

/// The rounding core on QNumbers, for every format and every size of result.
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
    const QNumber bias = f.bias();
    const long delta = static_cast<long>(bit_length(significand)) - static_cast<long>(m + 1);

    QNumber& biased = tmp[5];
    QNumber& scratch = tmp[6];
    biased = exponent;
    biased += delta;
    biased += bias;
    scratch = f.max_exponent();
    bool overflow = !(biased < scratch);

    long shift = delta;
    if (!(QNumber(0L) < biased)) {
        // Subnormal: bring the exponent to the minimum 1 - bias.
        scratch = QNumber(1L);
        scratch -= bias;
        scratch -= exponent;
        if (!BVNumber::to_long(scratch, &shift)) throw_error(precision_limit_message);
    }
    exponent += shift;

    bool round_bit = false, sticky = false;
    if (shift < 0) {
        BVNumber::bit_left_shift(significand, static_cast<unsigned long>(-shift), &significand);
    } else if (shift > 0) {
        const unsigned long round_index = static_cast<unsigned long>(shift - 1);
        round_bit = BVNumber::test_bit(significand, round_index);
        sticky = BVNumber::scan_bit_1(significand, 0) < round_index;
        BVNumber::bit_right_shift(significand, static_cast<unsigned long>(shift), &significand);
    }

    if ((round_bit || sticky) &&
        rounds_away(mode, negative, round_bit, sticky, BVNumber::test_bit(significand, 0))) {
        significand += 1L;
        if (BVNumber::test_bit(significand, m + 1)) {
            biased += 1L;
            if (!(biased < f.max_exponent())) {
                overflow = true;
            } else {
                exponent += 1L;
                BVNumber::bit_right_shift(significand, 1, &significand);
            }
        }
    }

    if (overflow) {
        do_make_inf(f, false, out);
        if (overflow_saturates(mode, negative)) out -= 1L;
        if (negative) BVNumber::set_bit(out, f.exponent_width + m, true);
    } else if (BVNumber::test_bit(significand, m)) {
        BVNumber::set_bit(significand, m, false);
        exponent += bias;
        pack_float(f, negative, exponent, significand, out);
    } else {
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
[[maybe_unused]] void round_and_pack_float(TempNumProvider& tmp, format f, rounding_mode mode,
                                           bool negative, QNumber& exponent, QNumber& significand,
                                           QNumber& out) {
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
[[maybe_unused]] inline int swflt_rounding_code(rounding_mode mode) {
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
[[maybe_unused]] inline std::uint32_t settle_float32(std::uint32_t result) {
    swflt::float_exception_flags = 0;
    return swflt::float32_is_nan(result) ? swflt::float32_make_nan() : result;
}

/// The binary64 twin of settle_float32.
[[maybe_unused]] inline std::uint64_t settle_float64(std::uint64_t result) {
    swflt::float_exception_flags = 0;
    return swflt::float64_is_nan(result) ? swflt::float64_make_nan() : result;
}

} // namespace

// ===========================================================================
// Formats
// ===========================================================================

QNumber IEEEFloat::format::bias() const {
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
} // namespace

IEEEFloat::IEEEFloat(format f, rounding_mode mode) : IEEEFloat(f, get_best_repr(f), mode) {}

IEEEFloat::IEEEFloat(format f, Repr r, rounding_mode mode) : fmt(f) {
    set_rounding_mode(mode);
    set_repr(r);
    value.bits64 = 0;
    if (r != REPR_FLOAT32 && r != REPR_FLOAT64) value.packed = new QNumber(0L);
}

IEEEFloat::IEEEFloat(const IEEEFloat& other)
    : fmt(other.fmt), mode_and_repr(other.mode_and_repr), value(other.value) {
    if (get_repr() >= REPR_GENERIC) value.packed = new QNumber(*other.value.packed);
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
    QNumber* copy = other.get_repr() >= REPR_GENERIC ? new QNumber(*other.value.packed) : nullptr;
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
        delete value.packed;
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
        result.value.packed = new QNumber(bits);
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
    value.packed = new QNumber(get_bits());
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
    if (e + m <= 63) // the pattern 2^(e+m) - 1 - 2^m fits a word
        return from_bits(QNumber(static_cast<long>(low_mask(e + m) - (std::uint64_t{1} << m))), f);
    QNumber bits, hidden;
    BVNumber::pow2(e + m, &bits);
    bits -= 1L;
    BVNumber::pow2(m, &hidden);
    bits -= hidden;
    return from_bits(bits, f);
}

// The sections that follow add the conversions from exact numbers and between
// formats, the arithmetic and square root, the comparisons, the conversions
// to exact numbers and integers, the neighbour steps and the text forms.

} // namespace tarn
