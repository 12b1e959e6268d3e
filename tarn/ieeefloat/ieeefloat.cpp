// The value itself: construction, copying, bit access, classification,
// special values and hashing.
//
// The rest of IEEEFloat has one unit per group of operations:
//   format.cpp       format constants and the named formats
//   flags.cpp        the status flags of each thread
//   conversion.cpp   from_number, from_rational, set_format, convert
//   native.cpp       from_double, from_float, to_double, to_float
//   arithmetic.cpp   + - * / and add, sub, mul, div
//   mixed.cpp        operands of different formats or representations
//   fma.cpp          fused multiply-add
//   sqrt.cpp         square root
//   compare.cpp      < <= == != > >= and ieee_cmp
//   remainder.cpp    remainder
//   min_max.cpp      minimum, maximum, minimum_number, maximum_number
//   total_order.cpp  total_order, total_order_mag
//   scale.cpp        scale_b, log_b
//   classify.cpp     classify, is_signaling, abs, copysign
//   exact.cpp        to_number, to_integer
//   round_to_integral.cpp      round, round_to_integral
//   integer_conversion.cpp     to_int32 ... to_uint64, from_int64, from_uint64
//   neighbour.cpp    next_representable, packed_next
//   text.cpp         to_float_str, to_str
//   sci_text.cpp     to_sci_str, to_str_digits
//   stream.cpp       operator<< and operator>>
//   from_chars.cpp   reading a numeral at the start of text
//   hex_text.cpp     to_hex_str
//   from_string.cpp  reading numerals
//   rounding.cpp     the rounding core on QNumbers
//   errors.cpp       the library's errors
// What they share sits in internal/, never installed, bottom-up: bits.h
// (machine-word helpers), errors.h, codec.h (the packed integer split into
// sign, exponent and significand, classified and joined again), rounding.h
// (the rounding context: a direction and the flags raised; any exact result
// to the packed integer of its correctly rounded value), flag_state.h (the
// thread's flags),
// word_arith.h (the arithmetic of formats up to 128 bits on machine words),
// packed.h (the generic pattern however a value holds it), decode.h (finite
// values split for exact work), held.h (class and sign of
// the held bits, inline across units), swflt_glue.h (the binary32 and
// binary64 words' soft-float component), access.h (the free operations'
// reach into a value), ascii.h, and notation.h and numeral_scanner.h (what
// the text units share).
//
// Throughout, a finite value is (-1)^s * M * 2^(E - m): M the integer
// significand (with the hidden bit 2^m for a normal value) and E the unbiased
// exponent (1 - bias for a zero exponent field).

#include "tarn/ieeefloat/ieeefloat.h"

#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <cstdint>
#include <new>
#include <string>
#include <utility>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// Refuses a representation number outside the three, before it is stored:
/// every operation dispatches on it and would read a word as a pointer.
void check_repr(IEEEFloat::Repr r) {
    if (r == IEEEFloat::REPR_FLOAT32 || r == IEEEFloat::REPR_FLOAT64 ||
        r == IEEEFloat::REPR_GENERIC)
        return;
    Exception partial(std::string("bad representation: "), true);
    partial << static_cast<int>(r);
    throw IEEEFloat::error(std::string(partial.what()));
}

} // namespace

void Access::check_widths(IEEEFloat::format f) {
    // Written so that no sum of two widths can wrap.
    if (f.exponent_width > IEEEFloat::max_width ||
        f.mantissa_width > IEEEFloat::max_width - f.exponent_width)
        throw_error(precision_limit_message);
}

IEEEFloat::IEEEFloat(format f, rounding_mode mode) {
    make(f, get_best_repr(f), mode);
}

IEEEFloat::IEEEFloat(format f, Repr r, rounding_mode mode) {
    make(f, r, mode);
}

void IEEEFloat::make(const format& f, Repr r, rounding_mode mode) {
    Access::check_widths(f);
    check_repr(r);
    set_rounding_mode(mode);
    if (r == REPR_GENERIC) new (&value.packed) QNumber();
    set_repr(r);
    // Last, and from the caller's argument rather than a copy of it: the
    // format arrives in two registers, is stored as two words and read back
    // whole, and the later that load comes, the less it waits for the stores.
    fmt = f;
}

void Held::copy_big(const QNumber& q) {
    std::uint64_t word, high;
    if (!BVNumber::to_words(q, &word, &high) || high != 0) {
        new (&packed) QNumber(q);
    } else if (word >> 63) {
        bits64 = word;
        wide = true;
    } else {
        new (&packed) QNumber(static_cast<long>(word));
    }
}

IEEEFloat::Repr IEEEFloat::get_best_repr(format f) noexcept {
    return best_repr(f);
}

IEEEFloat IEEEFloat::from_bits(const QNumber& bits, format f) {
    Access::check_widths(f);
    IEEEFloat result;
    const Repr target = get_best_repr(f);
    if (target == REPR_GENERIC) {
        new (&result.value.packed) QNumber();
        result.set_repr(REPR_GENERIC);
        const unsigned long e = f.exponent_width, m = f.mantissa_width;
        std::uint64_t word, high;
        if (e + m <= 63 && BVNumber::to_words(bits, &word, &high) && high == 0) {
            // Bits above the sign are kept, as the exact path keeps them.
            const bool nan = scan_two_words(word, 0, m).nan(f);
            set_pattern(result.value, nan ? library_nan_word(e, m) : word);
        } else {
            set_pattern(result.value, bits);
            if (scan_packed(bits, m).nan(f)) {
                do_make_nan(f, number(result.value));
                settle(result.value);
            }
        }
    } else {
        // binary32 and binary64 go straight to their word: only the low bits
        // are kept, and those decide the class.
        std::uint64_t word = low_64_bits(bits);
        if (scan_word(word & low_mask(63), f.mantissa_width).nan(f))
            word = library_nan_word(f.exponent_width, f.mantissa_width);
        if (target == REPR_FLOAT32)
            result.value.bits32 = static_cast<std::uint32_t>(word);
        else
            result.value.bits64 = word;
        result.set_repr(target);
    }
    // Last and field by field: stored first, the format was copied from the
    // stack, where it had just been written as two words, as one 16-byte
    // load, which waits for both stores (a store-forwarding stall).
    result.fmt.exponent_width = f.exponent_width;
    result.fmt.mantissa_width = f.mantissa_width;
    return result;
}

QNumber IEEEFloat::get_bits() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return QNumber(static_cast<long>(value.bits32));
    case REPR_FLOAT64:
        return integer_from_word(value.bits64);
    default:
        return value.wide ? integer_from_word(value.bits64) : value.packed;
    }
}

bool IEEEFloat::get_sign() const {
    return held_sign(get_repr(), value, fmt);
}

void IEEEFloat::set_sign(bool negative) {
    set_held_sign(get_repr(), value, fmt, negative);
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

void IEEEFloat::change_repr(Repr target) {
    const Repr current = get_repr();
    check_repr(target);
    if (target == REPR_FLOAT32 || target == REPR_FLOAT64) {
        const std::uint64_t word = current == REPR_FLOAT32 ? value.bits32
                                   : current == REPR_FLOAT64 || value.wide
                                       ? value.bits64
                                       : low_64_bits(value.packed);
        if (value.holds_number()) value.packed.~QNumber();
        value.wide = false;
        value.bits64 = 0;
        if (target == REPR_FLOAT32)
            value.bits32 = static_cast<std::uint32_t>(word);
        else
            value.bits64 = word;
        set_repr(target);
        return;
    }
    if (current >= REPR_GENERIC) return;
    const std::uint64_t word = current == REPR_FLOAT32 ? value.bits32 : value.bits64;
    new (&value.packed) QNumber();
    set_repr(REPR_GENERIC);
    set_pattern(value, word);
}

// ===========================================================================
// Classification and special values
// ===========================================================================

bool IEEEFloat::is_inf() const {
    return held_is_inf(get_repr(), value, fmt);
}

bool IEEEFloat::is_nan() const {
    return held_is_nan(get_repr(), value, fmt);
}

bool IEEEFloat::is_zero() const {
    return held_is_zero(get_repr(), value, fmt);
}

bool IEEEFloat::is_subnormal() const {
    switch (get_repr()) {
    case REPR_FLOAT32:
        return swflt::float32_is_subnormal(value.bits32) != 0;
    case REPR_FLOAT64:
        return swflt::float64_is_subnormal(value.bits64) != 0;
    default:
        const bool field_zero =
            value.wide
                ? fmt.mantissa_width >= 64 ||
                      ((value.bits64 >> fmt.mantissa_width) & low_mask(fmt.exponent_width)) == 0
                : exponent_field_zero(value.packed, fmt);
        return field_zero && !scan_held(value, fmt.mantissa_width).zero(fmt);
    }
}

bool IEEEFloat::is_normal() const {
    if (get_repr() >= REPR_GENERIC) {
        // One scan answers the first three questions.
        const PackedScan scan = scan_held(value, fmt.mantissa_width);
        if (scan.exponent_all_ones(fmt) || scan.zero(fmt)) return false;
        if (value.wide) {
            const unsigned long m = fmt.mantissa_width;
            return m < 64 && ((value.bits64 >> m) & low_mask(fmt.exponent_width)) != 0;
        }
        return !exponent_field_zero(value.packed, fmt);
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
        if (fmt.exponent_width + fmt.mantissa_width <= 63) {
            set_pattern(value, library_nan_word(fmt.exponent_width, fmt.mantissa_width));
        } else {
            do_make_nan(fmt, number(value));
            settle(value);
        }
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
        if (fmt.exponent_width + fmt.mantissa_width <= 63) {
            const unsigned long e = fmt.exponent_width, m = fmt.mantissa_width;
            set_pattern(value, low_mask(e) << m | std::uint64_t{negative} << (e + m));
        } else {
            do_make_inf(fmt, negative, number(value));
            settle(value);
        }
    }
}

void IEEEFloat::self_zero(bool negative) {
    set_held_zero(get_repr(), value, fmt, negative);
}

IEEEFloat IEEEFloat::max_value(format f) {
    Access::check_widths(f);
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
        return QNumber::hash_combine(widths, value.wide ? QNumber::hash_of_word(value.bits64)
                                                        : value.packed.hash());
    }
}

} // namespace tarn
