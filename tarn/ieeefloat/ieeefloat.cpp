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
// decode.h (finite values split for exact work), held.h (class and sign of
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

IEEEFloat::IEEEFloat(format f, rounding_mode mode) : IEEEFloat(f, get_best_repr(f), mode) {}

IEEEFloat::IEEEFloat(format f, Repr r, rounding_mode mode) : fmt(f) {
    Access::check_widths(f);
    check_repr(r);
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
    return best_repr(f);
}

IEEEFloat IEEEFloat::from_bits(const QNumber& bits, format f) {
    Access::check_widths(f);
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

void IEEEFloat::self_specialize_repr(Repr target) {
    const Repr current = get_repr();
    if (target == current) return;
    check_repr(target);
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
        return QNumber::hash_combine(widths, value.packed->hash());
    }
}

} // namespace tarn
