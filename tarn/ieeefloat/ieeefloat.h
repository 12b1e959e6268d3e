// tarn::IEEEFloat, one value of an IEEE-754 binary floating-point format of
// any width.
//
// A format is a pair of widths (e, m): e exponent bits and m stored
// significand bits, the hidden bit not counted. binary32 is (8, 23), binary64
// is (11, 52), but every pair is accepted. A value is held in one of three
// representations:
//
//  - REPR_FLOAT32: a binary32 word, computed by the soft-float component;
//  - REPR_FLOAT64: a binary64 word, likewise;
//  - REPR_GENERIC: the bit pattern read as a non-negative integer (the
//    "packed integer": mantissa field in bits [0, m), biased exponent field in
//    bits [m, m+e), sign at bit e+m), held inside the value (a QNumber in
//    its small form below 2^63, the word itself up to 2^64, a QNumber on the
//    heap only beyond) and computed exactly with rationals or, for formats up
//    to 128 bits, on machine words, then rounded by the library's own
//    rounding core. For a format whose patterns fit 64 bits, construction,
//    copies, bit access, the arithmetic, fma, square roots, conversions
//    between such formats and comparisons never allocate.
//
// binary32 and binary64 values normally use the word representations; the
// generic one works for every format, those two included, which makes it
// the reference the word paths can be checked against.
//
// Every value carries its own rounding mode. An operation that rounds a value
// in place uses that value's mode; an operation on two values uses the mode
// of the first. The operands of a two- or three-value operation may differ in
// format and representation: the exact result is rounded once to the first
// operand's format (see the Arithmetic section), and comparisons compare the
// exact values, so 1.5 in binary16 equals 1.5 in binary128.
//
// Limits. A format is served when e + m is at most IEEEFloat::max_width
// (2^26): every operation on such a format gives its value or throws one of
// the library's errors, within seconds and a few hundred MiB at the bound. In
// (11, 2^26 - 11) a product takes about 0.5 s, a quotient 2 s, a square root
// 1 s, to_float_str 5 to 15 s; in (2^26 - 1, 1) to_hex_str of the largest
// value, whose exponent has 20 million digits, about 10 s; none needs more
// than 250 MiB. Wider formats are refused wherever a value of them would
// come into being (the constructors, from_bits, max_value, from_number,
// from_rational, from_double, from_float, from_string, set_format, convert,
// from_int64, from_uint64) with "reached limit on float precision", so no
// value of one ever exists. Within the bound, exact work whose size follows
// the exponent rather than the widths is bounded too: addition's alignment
// and to_number's integers at 2^26 bits (see +=, to_number).
//
// Formats are otherwise not validated, and no pair of widths makes an operation
// crash. A format with a single exponent bit has a bias of 0 and no normal
// values (its zeros, subnormals, infinities and NaNs are computed like any
// other format's); a mantissa width of 0 makes the library NaN pattern
// coincide with negative infinity. A format without exponent bits has no
// exponent range and is served for safety only: to_number, to_integer and
// the text read every pattern as zero, max_value is +0, and every operation
// that needs the exponent bias (bias() itself, multiplication, conversion of
// a non-zero value into the format, ...) throws "reached limit on float
// precision"; the other operations give some pattern of the format. The
// default value has format (0, 0) held in a binary32 word and is meant only
// to be assigned to: every arithmetic operation and comparison with a value
// of format (0, 0), as operand or target, throws "value has no format".
#pragma once

#include "tarn/exception/exception.h"
#include "tarn/ieeefloat/flags.h"
#include "tarn/numbers/qnumber.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

class IEEEFloat;

namespace ieeefloat_detail {
struct Access;

/// The held bits, with the rounding mode and the representation that say
/// which member of the union is live. Three words, so the whole object is
/// five (40 bytes on 64-bit targets). A generic pattern is held inline:
/// below 2^63 as a QNumber in its small form, in [2^63, 2^64) (a negative
/// binary64 held generically, or any 64-bit format's) as the word itself,
/// since the small form stops at 2^63, and beyond that as a QNumber in its
/// big form, the only holding that owns heap memory. Every operation that
/// stores a pattern below 2^64 puts it in one of the first two, so values of
/// formats up to 64 bits keep nothing on the heap.
class Held {
public:
    // The rounding mode is kept in the low 30 bits and the representation
    // in the top 2 bits of one word.
    static constexpr unsigned repr_shift = 30;
    static constexpr std::uint32_t mode_mask = (std::uint32_t{1} << repr_shift) - 1;
    /// IEEEFloat::REPR_GENERIC, which is not declared yet.
    static constexpr std::uint32_t generic_repr = 2;

    union {
        std::uint32_t bits32;   ///< REPR_FLOAT32
        std::uint64_t bits64;   ///< REPR_FLOAT64, and REPR_GENERIC when `wide`
        QNumber packed;         ///< REPR_GENERIC otherwise
        std::uint64_t words[2]; ///< both words, so that none is ever read unset
    };
    std::uint32_t mode_and_repr = 0; ///< REPR_FLOAT32, ROUND_NEAREST_EVEN
    /// A generic pattern held in bits64: one of [2^63, 2^64).
    bool wide = false;

    Held() noexcept : words{0, 0} {}
    Held(const Held& other) : mode_and_repr(other.mode_and_repr), wide(other.wide) {
        if (!other.holds_number())
            bits64 = other.bits64;
        else if (other.packed.is_small())
            new (&packed) QNumber(other.packed);
        else
            copy_big(other.packed);
    }
    /// Takes over other's holding; other becomes the default value.
    void take(Held& other) noexcept {
        mode_and_repr = other.mode_and_repr;
        wide = other.wide;
        if (other.holds_number()) {
            new (&packed) QNumber(std::move(other.packed));
            other.packed.~QNumber();
        } else {
            bits64 = other.bits64;
        }
        other.mode_and_repr = 0;
        other.wide = false;
        other.bits64 = 0;
    }
    Held& operator=(const Held&) = delete;
    ~Held() {
        if (holds_number()) packed.~QNumber();
    }
    /// Ends the holding and becomes the default value.
    void release() noexcept {
        if (holds_number()) packed.~QNumber();
        mode_and_repr = 0;
        wide = false;
        bits64 = 0;
    }

    /// Takes a copy of the bits and representation of `other`, keeping this
    /// holding's rounding mode.
    void assign_bits(const Held& other) {
        Held copy(other);
        const std::uint32_t mode = mode_and_repr & mode_mask;
        release();
        take(copy);
        mode_and_repr = (mode_and_repr & ~mode_mask) | mode;
    }

    /// Whether `packed` is the live member.
    bool holds_number() const noexcept {
        return (mode_and_repr >> repr_shift) == generic_repr && !wide;
    }

private:
    /// Constructs `packed` as a copy of the big number q, or holds q in
    /// bits64 or in the small form when it fits them.
    void copy_big(const QNumber& q);
};
} // namespace ieeefloat_detail

/// a < b with the IEEE-754 meaning: false when either is a NaN; -0 < +0 is false.
bool operator<(const IEEEFloat& a, const IEEEFloat& b);
/// a <= b with the IEEE-754 meaning: false when either is a NaN; +0 <= -0 holds.
bool operator<=(const IEEEFloat& a, const IEEEFloat& b);
/// a == b with the IEEE-754 meaning: a NaN equals nothing, +0 equals -0.
bool operator==(const IEEEFloat& a, const IEEEFloat& b);
/// !(a == b): true when either is a NaN.
bool operator!=(const IEEEFloat& a, const IEEEFloat& b);
/// b < a: false when either is a NaN.
bool operator>(const IEEEFloat& a, const IEEEFloat& b);
/// b <= a: false when either is a NaN.
bool operator>=(const IEEEFloat& a, const IEEEFloat& b);
/// Three-way IEEE-754 comparison: -1 when a < b, 1 when b < a, 0 when they are
/// equal (+0 and -0 included), -2 when they are unordered (a NaN is involved).
///
/// Every comparison compares the exact values, whatever the operands' formats
/// and representations: a binary32 word equals the same value held generically.
/// <, <=, > and >= raise invalid when either operand is a NaN; ==, != and
/// ieee_cmp only when one is a signaling NaN (first mantissa bit 0).
int ieee_cmp(const IEEEFloat& a, const IEEEFloat& b);
/// x rounded to an integral value of its own format under its own rounding
/// mode, as round_to_integral rounds (a mode number other than 0 to 3
/// truncates, as for to_integer), held in the format's usual representation.
/// Zeros, NaNs and infinities come back unchanged; a value that rounds to
/// zero keeps its sign. Only a signaling NaN raises a flag (invalid).
IEEEFloat round(const IEEEFloat& x);

/// One value of an IEEE-754 binary floating-point format chosen at run time.
class IEEEFloat {
public:
    /// The widths of a format: e exponent bits and m stored significand bits
    /// (the hidden bit is not counted).
    struct format {
        /// e, the number of bits of the exponent field.
        unsigned long exponent_width = 0;
        /// m, the number of stored significand bits.
        unsigned long mantissa_width = 0;

        /// The format (0, 0), which only a default-constructed value has.
        constexpr format() = default;
        /// The format (e, m); also constructible as {e, m}.
        constexpr format(unsigned long e, unsigned long m) : exponent_width(e), mantissa_width(m) {}

        /// The exponent bias 2^(e-1) - 1. Throws "reached limit on float
        /// precision" for e = 0, which has no bias.
        QNumber bias() const;
        /// 2^e - 1, the all-ones exponent field of infinities and NaNs.
        QNumber max_exponent() const;
        /// 2^m - 1, the all-ones mantissa field.
        QNumber max_mantissa() const;

        // Named formats. Every one of them is an IEEE-754 interchange-style
        // format: the all-ones exponent field holds the infinities and NaNs,
        // the zero field the subnormals, in the 8-bit formats too. Hardware
        // formats sold under the names e5m2 and e4m3 may differ: some e4m3
        // variants have no infinities and spend that binade on finite values
        // up to 448, where the IEEE-style e4m3 here stops at 240 and overflows
        // to infinity.

        /// (5, 10), IEEE-754 binary16 (half precision).
        static constexpr format binary16() { return {5, 10}; }
        /// (8, 7), bfloat16: binary32's range with an 8-bit significand.
        static constexpr format bfloat16() { return {8, 7}; }
        /// (8, 23), IEEE-754 binary32 (single precision).
        static constexpr format binary32() { return {8, 23}; }
        /// (11, 52), IEEE-754 binary64 (double precision).
        static constexpr format binary64() { return {11, 52}; }
        /// (15, 112), IEEE-754 binary128 (quadruple precision).
        static constexpr format binary128() { return {15, 112}; }
        /// (19, 236), IEEE-754 binary256 (octuple precision).
        static constexpr format binary256() { return {19, 236}; }
        /// (5, 2), the 8-bit e5m2 with IEEE semantics: bias 15, largest finite
        /// 57344, infinities and NaNs.
        static constexpr format e5m2() { return {5, 2}; }
        /// (4, 3), the 8-bit e4m3 with IEEE semantics: bias 7, largest finite
        /// 240, infinities and NaNs.
        static constexpr format e4m3() { return {4, 3}; }

        /// The named format called `name` ("binary16", "bfloat16", "binary32",
        /// "binary64", "binary128", "binary256", "e5m2", "e4m3"), compared
        /// without regard to ASCII case; nothing for any other text.
        static std::optional<format> by_name(std::string_view name) noexcept;
        /// The names by_name knows: the binaryN formats by width, then bfloat16,
        /// e5m2 and e4m3.
        static const std::vector<std::string_view>& known_names();
        /// The name of this format as by_name spells it, or an empty view when
        /// the widths are not those of a named format.
        std::string_view name() const noexcept;

        /// Formats are equal when both widths are.
        friend constexpr bool operator==(format a, format b) {
            return a.exponent_width == b.exponent_width && a.mantissa_width == b.mantissa_width;
        }
        /// The negation of ==.
        friend constexpr bool operator!=(format a, format b) { return !(a == b); }
    };

    /// The largest e + m of a format the library serves: wider formats throw
    /// "reached limit on float precision" wherever a value of them would be
    /// made. A pattern of 2^26 bits is 8 MiB, and the exact products and
    /// quotients of two of them stay within a few times that.
    static constexpr unsigned long max_width = 1UL << 26;

    /// How a value is held. The numbers are part of the interface: any other
    /// number given to a constructor or to self_specialize_repr throws
    /// "bad representation: N".
    enum Repr : int {
        REPR_FLOAT32 = 0, ///< a binary32 word
        REPR_FLOAT64 = 1, ///< a binary64 word
        REPR_GENERIC = 2, ///< the packed integer, inline up to 64 bits; valid for every format
    };

    /// Rounding directions. The numbers are part of the interface. The
    /// enumeration has a fixed underlying type so that any number a caller
    /// stores is a valid value; numbers other than 0 to 3 are reported as
    /// "bad rounding mode: N" by the first operation that has to round an
    /// inexact generic result.
    enum rounding_mode : int {
        ROUND_NEAREST_EVEN = 0,    ///< nearest; ties to the even last mantissa bit
        ROUND_TOWARD_ZERO = 1,     ///< the neighbour of smaller magnitude
        ROUND_TOWARD_POSITIVE = 2, ///< the neighbour toward +infinity
        ROUND_TOWARD_NEGATIVE = 3, ///< the neighbour toward -infinity
    };

    /// The only exception type the library throws. Its message is one of a
    /// fixed set of English texts; construction runs the diagnostic hook of
    /// tarn::Exception.
    class error : public Exception {
    public:
        /// An error carrying `msg`; the diagnostic hook runs once.
        explicit error(std::string const& msg) : Exception(msg, true) {}
        /// Releases the message.
        ~error() noexcept override = default;
    };

    // ---- Construction, copying and bit access -------------------------------

    /// Format (0, 0) in a binary32 word holding 0, ROUND_NEAREST_EVEN.
    /// Allocates nothing; meant to be assigned to.
    IEEEFloat() noexcept = default;
    /// +0 of `fmt` in the representation get_best_repr(fmt), rounding with `mode`.
    IEEEFloat(format fmt, rounding_mode mode);
    /// +0 of `fmt` held in `repr`, rounding with `mode`. The pairing is not
    /// checked: a word representation with another format computes on the
    /// word's own widths. A `repr` outside the three throws "bad
    /// representation: N"; a format wider than max_width, the precision limit.
    IEEEFloat(format fmt, Repr repr, rounding_mode mode);
    /// Deep copy; allocates only for a generic pattern of 2^64 or more.
    IEEEFloat(const IEEEFloat& other) = default;
    /// Takes over `other`'s storage without allocating; `other` is left as a
    /// default-constructed value (format (0, 0), binary32 word 0).
    IEEEFloat(IEEEFloat&& other) noexcept;
    /// Deep copy; the target takes the source's format, mode and representation.
    /// If the copy cannot be allocated the target is left unchanged.
    IEEEFloat& operator=(const IEEEFloat& other);
    /// Takes over `other`'s storage; `other` is left as a default-constructed value.
    IEEEFloat& operator=(IEEEFloat&& other) noexcept;
    /// Releases the generic storage, if it is on the heap.
    ~IEEEFloat() = default;

    /// REPR_FLOAT32 for (8, 23), REPR_FLOAT64 for (11, 52), REPR_GENERIC otherwise.
    static Repr get_best_repr(format fmt) noexcept;
    /// The value of `fmt` whose packed integer is `bits` (used as given: no
    /// range test, no masking), with ROUND_NEAREST_EVEN, in get_best_repr(fmt).
    /// Every NaN pattern becomes the library NaN: sign 1, exponent field all
    /// ones, mantissa field 1. Throws the precision limit for a format wider
    /// than max_width, as every function that makes a value does.
    static IEEEFloat from_bits(const QNumber& bits, format fmt);
    /// The packed integer of the value, in every representation; never negative.
    QNumber get_bits() const;

    /// True when the sign bit is set (also for -0 and NaNs).
    bool get_sign() const;
    /// Sets (`negative`) or clears the sign bit, whatever the class of the value.
    void set_sign(bool negative);
    /// Negates in place; a NaN is left as it is.
    void self_neg();
    /// Moves the value into `target`. A generic value goes to a binary32 or
    /// binary64 word by keeping the low 32 or 64 bits of its packed integer; a
    /// word goes to REPR_GENERIC as the packed integer of the same bits, so the
    /// generic algorithms can be run on binary32 and binary64 values. A
    /// `target` outside the three throws "bad representation: N" and leaves
    /// the value as it was.
    void self_specialize_repr(Repr target) {
        if (target != get_repr()) change_repr(target);
    }

    /// The value's format.
    format get_format() const noexcept { return fmt; }
    /// The value's rounding mode (the low 30 bits of the number stored).
    rounding_mode get_rounding_mode() const noexcept {
        return static_cast<rounding_mode>(value.mode_and_repr & Value::mode_mask);
    }
    /// Stores the low 30 bits of `mode` as the value's rounding mode.
    void set_rounding_mode(rounding_mode mode) noexcept {
        value.mode_and_repr = (value.mode_and_repr & ~Value::mode_mask) |
                              (static_cast<std::uint32_t>(mode) & Value::mode_mask);
    }
    /// How the value is held.
    Repr get_repr() const noexcept {
        return static_cast<Repr>(value.mode_and_repr >> Value::repr_shift);
    }

    // ---- Classification and special values ---------------------------------

    /// An infinity of either sign.
    bool is_inf() const;
    /// A NaN.
    bool is_nan() const;
    /// +0 or -0.
    bool is_zero() const;
    /// Biased exponent 0 and mantissa not 0.
    bool is_subnormal() const;
    /// None of the four classes above.
    bool is_normal() const;
    /// Becomes a NaN: the library NaN in the generic representation, the
    /// soft-float component's NaN in the word representations.
    void self_nan();
    /// Becomes +infinity, or -infinity when `negative`.
    void self_inf(bool negative);
    /// Becomes +0, or -0 when `negative`.
    void self_zero(bool negative);
    /// The largest finite positive value of `fmt`, with ROUND_NEAREST_EVEN, in
    /// get_best_repr(fmt); +0 for a format without exponent bits.
    static IEEEFloat max_value(format fmt);

    // ---- Conversion from exact numbers and between formats ----------------

    /// `q` rounded to `fmt` under `mode`, in get_best_repr(fmt). An integer is
    /// rounded once. A fraction N/D is rounded twice: N and D are converted
    /// exactly into formats wide enough for them, the quotient is rounded in the
    /// wider of the two (precision max(bitlen N, bitlen D, m) + 1) and that
    /// value is rounded again into `fmt`. So from_number(8/3, (4, 3)) is 2.5,
    /// not the nearer 2.75: 8/3 first becomes 2.625, a tie in (4, 3). When N
    /// and D have at most m bits and the result is normal, only the first
    /// rounding can be inexact. Throws "bad rounding mode: N" for a mode above
    /// 3 when a rounding is inexact; and the precision limit when N or D has
    /// so many bits that the first rounding's format would pass max_width.
    /// For the correctly rounded value, without that limit, use from_rational.
    static IEEEFloat from_number(const QNumber& q, format fmt, rounding_mode mode);
    /// `q` correctly rounded once to `fmt` under `mode`, in get_best_repr(fmt),
    /// raising inexact, underflow and overflow: from_rational(8/3, (4, 3)) is
    /// 2.75. The work is one division to m + 2 bits, so it stays near-linear
    /// in the size of q whatever the format. Throws "bad rounding mode: N" for
    /// a mode above 3 when the result is inexact.
    static IEEEFloat from_rational(const QNumber& q, format fmt, rounding_mode mode);
    /// `d` rounded to `fmt` under `mode`, in get_best_repr(fmt), raising the
    /// flags of convert; infinities and zeros keep their sign and subnormals
    /// of either side are exact inputs and correctly rounded outputs. To
    /// binary64 it is the identity on bits, NaN payloads included. A NaN
    /// into any other format becomes the NaN self_nan() makes there with the
    /// sign of `d` (payloads have no common meaning between formats), and a
    /// signaling one raises invalid.
    static IEEEFloat from_double(double d, format fmt, rounding_mode mode);
    /// As from_double, from a float; the identity on bits to binary32.
    static IEEEFloat from_float(float v, format fmt, rounding_mode mode);
    /// Converts the value in place to `new_fmt`, rounding under its own mode;
    /// the result is held in get_best_repr(new_fmt). NaNs become the library
    /// NaN of the new format (the soft-float NaN between binary32 and binary64
    /// words), infinities and zeros keep their sign. Converting to the value's
    /// own format changes nothing, representation included. A value that throws
    /// (a mode above 3 on an inexact result) keeps its format, bits and
    /// representation.
    void set_format(format new_fmt);

    // ---- Text input ---------------------------------------------------------

    /// The value a numeral denotes, rounded once to `fmt` under `mode`, held
    /// in get_best_repr(fmt) with rounding mode `mode`.
    ///
    /// Accepted text, with nothing before or after it (no blanks either):
    ///  - an optional "+" or "-", then
    ///  - a decimal numeral: digits with an optional point, at least one digit
    ///    ("12", "12.5", ".5", "5."), then optionally "e" or "E", an optional
    ///    sign and at least one digit ("-12.5e-3", "1E+400");
    ///  - or a hexadecimal numeral: "0x" or "0X", hexadecimal digits of either
    ///    case with an optional point, at least one digit, then optionally "p"
    ///    or "P", an optional sign and at least one decimal digit, the power of
    ///    two ("0x1.8p-3", "-0X1P+10"). The binary exponent may be left out, as
    ///    the C library's readers allow: "0x10" is 16;
    ///  - or "inf", "infinity" or "nan" in any mix of case.
    ///
    /// The result is the exact value of the numeral correctly rounded, however
    /// many digits it has: subnormal results are rounded at their own
    /// precision, and values beyond the largest finite one give infinity or
    /// the largest finite value as the mode says. A zero result, whether the
    /// numeral is zero or its value underflows to zero, has the numeral's
    /// sign ("-0", "-1e-999" give -0). Exponents of any length are read:
    /// when the digit count and the exponent put the value certainly beyond
    /// the format's range (above the overflow threshold, or below half the
    /// smallest subnormal) the result is decided from them without building
    /// the number, so "1e-99999999999" costs no more than "1e-999".
    ///
    /// Every NaN numeral gives the NaN that self_nan() makes in that
    /// representation: like the rest of the library, which folds every NaN
    /// into one pattern, it keeps neither a sign ("-nan") nor a payload.
    /// "nan(" letters, digits and underscores ")" is read, as the C
    /// library's readers read it, and its payload dropped.
    ///
    /// Malformed text throws IEEEFloat::error with the message
    /// `invalid number: "TEXT"`, TEXT being the whole argument as given. A
    /// decimal numeral whose value lies within reach of the format but whose
    /// exponent, after trailing zeros are set aside, exceeds 2^24 in magnitude
    /// (an exact power of ten of more than 4 MiB), or a numeral whose
    /// exponent exceeds 2^62 in magnitude, in a format so wide that it cannot
    /// be decided from the digits, throws "reached limit on float precision";
    /// every numeral of a format with up to 26 exponent bits and of fewer than
    /// about six million digits is read. Throws "bad rounding mode: N" for a
    /// mode above 3 when the result is inexact.
    ///
    /// The text is taken as a std::string_view so that numerals can be read
    /// straight out of a larger buffer without a copy.
    static IEEEFloat from_string(std::string_view text, format fmt, rounding_mode mode);
    /// The longest numeral at the start of `text`, read as from_string reads
    /// it, its length stored in `consumed`; what follows it is left alone, as
    /// the C library's strtod leaves it: "1.5x" reads 1.5, "1e" and "1e+"
    /// read 1, "0x" reads 0 and "infinit" reads infinity (each consumes
    /// only the numeral). Nothing is skipped before it, blanks included.
    /// When no numeral starts the text, throws `invalid number: "TEXT"` as
    /// from_string does, with the whole text, and leaves `consumed` alone;
    /// from_string's other errors pass through.
    static IEEEFloat from_chars(std::string_view text, format fmt, rounding_mode mode,
                                std::size_t& consumed);

    // ---- Arithmetic ---------------------------------------------------------
    //
    // The other operand may have any format and representation. Then its exact
    // value enters the operation and the result is rounded once to this value's
    // format, as a result of that format computed from operands of another
    // (IEEE-754's formatOf operations); the result keeps this value's
    // representation when it is the natural one for its format (REPR_GENERIC,
    // or the word of binary32 or binary64), else takes get_best_repr of the
    // format. A NaN result of such an operation is the NaN that self_nan()
    // makes in that representation, and a signaling NaN of either format raises
    // invalid; a quotient is correctly rounded for every mantissa width. A
    // binary32 or binary64 word result rounds under a mode above 3 to
    // nearest-even, as word operations do. An operand without exponent bits
    // throws "reached limit on float precision", one of format (0, 0) "value
    // has no format".
    //
    // In the generic representation a NaN operand is the result as it stands
    // (the first operand's if both are NaNs), sign and payload included; NaNs
    // made from non-NaN operands are the library NaN. An exact zero sum is +0,
    // or -0 under ROUND_TOWARD_NEGATIVE. binary32 and binary64 words give the
    // soft-float component's results, every NaN made its one NaN. A mode above
    // 3 throws "bad rounding mode: N" only when the result is inexact, and the
    // operand then keeps its value.

    /// this + other, rounded under this value's mode. Addition aligns the two
    /// significands exactly, so the exponent difference it accepts is bounded:
    /// above 2^26 (possible only in formats with more than 26 exponent bits,
    /// whose values span 2^e binades, or with an operand of another format
    /// with more than 25) it throws "reached limit on float
    /// precision" rather than build integers of gigabytes. Adding a zero never
    /// throws.
    IEEEFloat& operator+=(const IEEEFloat& other);
    /// this - other, rounded under this value's mode; bounded like +=.
    IEEEFloat& operator-=(const IEEEFloat& other);
    /// this * other, rounded under this value's mode.
    IEEEFloat& operator*=(const IEEEFloat& other);
    /// this / other, rounded under this value's mode. Correctly rounded for
    /// mantissa widths of 2 or more. With m = 0 every quotient is exact. With
    /// m = 1 the quotient of significands 1.0 / 1.1 (binary) is taken for a
    /// tie under ROUND_NEAREST_EVEN and gives 1.0 where 1.1 is nearer (when
    /// the result is normal); every other case is correctly rounded.
    IEEEFloat& operator/=(const IEEEFloat& other);
    /// Replaces the value by its square root, rounded under its own mode. The
    /// root of -0 is -0; that of any other negative value is a NaN.
    IEEEFloat& sqrt();

    // ---- Conversion to exact numbers and integers ---------------------------

    /// The exact value of a finite value, in lowest terms (a zero gives 0).
    /// Throws "can't convert NaN to a Number" and "can't convert infinity to a
    /// Number". A value whose lowest significand bit weighs 2^k with
    /// |k| > 2^26 would need an integer of more than 8 MiB and throws "reached
    /// limit on float precision" instead; every value of a format with up to
    /// 26 exponent bits is below that bound.
    QNumber to_number() const;
    /// The value rounded to binary64 under its own mode, raising the flags of
    /// convert (overflow to an infinity, underflow into binary64's
    /// subnormals, inexact). A NaN gives the quiet NaN of its sign, without
    /// its payload, raising invalid when signaling. Throws "bad rounding
    /// mode: N" for a mode above 3 when the result is inexact.
    double to_double() const;
    /// As to_double, rounded to binary32.
    float to_float() const;
    /// The value rounded to an integer under its own mode; 0 for zeros, NaNs
    /// and infinities, the last two raising invalid. A mode number other than
    /// 0 to 3 rounds toward zero and is not an error here. A non-zero `width`
    /// keeps the low `width` bits of the magnitude and puts the sign back
    /// (sign-and-magnitude, never a two's-complement wrap). Throws "reached
    /// limit on float precision" only when the weight of the lowest
    /// significand bit does not fit a signed 64-bit word, or when the integer
    /// itself would exceed to_number's bound.
    QNumber to_integer(unsigned long width = 0) const;

    // ---- Neighbours ---------------------------------------------------------

    /// Steps to the adjacent representable value toward +infinity (`up`) or
    /// -infinity. NaNs stay; zeros go to the smallest subnormals; an infinity
    /// steps inward to the largest finite value of its sign, keeping this
    /// value's rounding mode and representation like every other step, and
    /// stays when asked to step outward.
    void next_representable(bool up);
    /// Steps the bit pattern to the adjacent pattern of the same order (-0 and
    /// +0 are two distinct steps; infinities and NaNs are not special). The
    /// order runs from the all-ones pattern (the negative NaN with every
    /// mantissa bit set) up to the positive NaN with every mantissa bit set;
    /// at either end a step past it leaves the value where it is, rather than
    /// wrapping into a zero or growing a bit above the sign.
    void packed_next(bool up);

    // ---- Text ---------------------------------------------------------------

    /// The shortest positional decimal numeral that identifies the finite value
    /// within its format: the numeral with the fewest significant digits that
    /// lies strictly inside the value's rounding interval (the open interval
    /// between the midpoints to its neighbours); of the two candidates next to
    /// the value at that length, the nearer, and the lower on an exact tie.
    /// Read back and rounded to nearest-even in the same format, it gives the
    /// value again. Never an exponent; "-0" for negative zero, "0" for formats
    /// with no exponent bits. Throws "can't convert NaN to float str", "can't
    /// convert Infinity to float str", and the precision limit of to_number.
    std::string to_float_str() const;
    /// The digits of to_float_str in scientific form: one digit, a point
    /// and the others only when there are others, "e" and the signed
    /// decimal exponent in as few digits as it takes ("1.5e+300", "-2e-5",
    /// "0e+0", "-0e+0"). NaNs and infinities are written as to_hex_str writes
    /// them ("nan", "inf", "-inf"); to_float_str's other errors pass through.
    std::string to_sci_str() const;
    /// The exact value correctly rounded to nearest, ties to even, to a
    /// number of decimal digits, written as printf writes a double:
    ///  - 'e': `significant` significant digits, as %.*e with significant - 1
    ///    digits after the point ("1.50e+300"; a precision of 0 gives one);
    ///  - 'f': `significant` digits after the point, as %.*f ("0.333");
    ///  - 'g': as %.*g, `significant` significant digits (0 is taken as 1),
    ///    positional when the decimal exponent X of the 'e' form has
    ///    -4 <= X < significant and scientific otherwise, trailing zeros of
    ///    the fraction and a bare point dropped.
    /// The exponent has at least two digits. Zeros are written with their sign
    /// ("-0.000"), NaNs "nan" and infinities "inf" and "-inf". Rounding is
    /// done once on the exact value, never from a shorter text, so binary32
    /// and binary64 values give what a correctly rounding C library prints.
    /// Any precision is served, at near-linear cost (one exact scaling by a
    /// power of ten and one conversion to decimal). Throws "bad style for
    /// to_str_digits: give 'e', 'f' or 'g'" for any other style, "negative
    /// precision for to_str_digits", and the precision limit of to_number, which
    /// also bounds the power of ten to 10^(2^26).
    std::string to_str_digits(int significant, char style = 'g') const;
    /// "[e:m]", the value as to_float_str writes it (or NaN, +Inf, -Inf), then
    /// the bit pattern grouped as {sign_exponent_mantissa}.
    std::string to_str() const;
    /// The value in the hexadecimal form of C99's %a, exact for every format:
    /// "0x1.8p-3" for 0.1875. A normal value is "0x1." followed by its
    /// mantissa field as hex digits and "p" with the unbiased exponent in
    /// decimal, always signed ("0x1p+0" for 1). The field is read as a binary
    /// fraction: when m is not a multiple of 4 it is padded with zero bits on
    /// the right, so e4m3's 1.125 is "0x1.2p+0", as binary32 values widened to
    /// binary64 print. Trailing zero digits are dropped, and the point with
    /// them when none is left. A subnormal keeps the smallest normal exponent
    /// with a leading "0x0." ("0x0.0000000000001p-1022" for binary64's
    /// smallest), so its digits are its bit pattern, as the C library prints
    /// binary64 subnormals. Zeros are "0x0p+0" and "-0x0p+0", infinities
    /// "inf" and "-inf", every NaN "nan" (the library keeps no NaN sign). A
    /// "-" leads every negative value. Exponents of any size are written in
    /// full; nothing throws.
    std::string to_hex_str() const;

    // ---- Hashing ------------------------------------------------------------

    /// A hash of the format and the bit pattern: values with the same format
    /// and the same get_bits() hash equally, whichever representation holds
    /// them (a binary32 value held as a word and as a packed integer alike).
    /// The two zeros of a format hash alike too, so the hash suits both
    /// operator== (where +0 equals -0) and a bit-for-bit equality as the
    /// key comparison. A NaN equals nothing under operator==, itself
    /// included, so containers that must find NaNs need a bitwise comparison.
    std::size_t hash() const noexcept;

private:
    using Value = ieeefloat_detail::Held;

    /// The constructors' work: +0 of f held in r, rounding with `mode`.
    void make(const format& f, Repr r, rounding_mode mode);
    /// self_specialize_repr's work, when `target` differs from the representation.
    void change_repr(Repr target);

    void set_repr(Repr r) noexcept {
        value.mode_and_repr = (value.mode_and_repr & Value::mode_mask) |
                              (static_cast<std::uint32_t>(r) << Value::repr_shift);
    }

    friend bool operator<(const IEEEFloat& a, const IEEEFloat& b);
    friend bool operator<=(const IEEEFloat& a, const IEEEFloat& b);
    friend bool operator==(const IEEEFloat& a, const IEEEFloat& b);
    friend int ieee_cmp(const IEEEFloat& a, const IEEEFloat& b);
    friend IEEEFloat round(const IEEEFloat& x);
    friend struct ieeefloat_detail::Access;

    format fmt;
    Value value;
};

inline IEEEFloat::IEEEFloat(IEEEFloat&& other) noexcept : fmt(other.fmt) {
    value.take(other.value);
    other.fmt = format();
}

inline IEEEFloat& IEEEFloat::operator=(IEEEFloat&& other) noexcept {
    if (this == &other) return *this;
    value.release();
    value.take(other.value);
    fmt = other.fmt;
    other.fmt = format();
    return *this;
}

inline IEEEFloat& IEEEFloat::operator=(const IEEEFloat& other) {
    if (this == &other) return *this;
    Value copy(other.value); // before anything changes, so a failure leaves the target whole
    value.release();
    value.take(copy);
    fmt = other.fmt;
    return *this;
}

static_assert(IEEEFloat::REPR_GENERIC == ieeefloat_detail::Held::generic_repr);
static_assert(sizeof(void*) != 8 || sizeof(IEEEFloat) == 40, "five words on 64-bit targets");

// ---- Value operators ---------------------------------------------------------
//
// Each is the compound operator on a copy of the first operand, so the result
// has the first operand's format, representation and rounding mode; the second
// may have any format and representation, as for the compound ones.

/// a + b, rounded under a's rounding mode.
inline IEEEFloat operator+(IEEEFloat a, const IEEEFloat& b) {
    a += b;
    return a;
}
/// a - b, rounded under a's rounding mode.
inline IEEEFloat operator-(IEEEFloat a, const IEEEFloat& b) {
    a -= b;
    return a;
}
/// a * b, rounded under a's rounding mode.
inline IEEEFloat operator*(IEEEFloat a, const IEEEFloat& b) {
    a *= b;
    return a;
}
/// a / b, rounded under a's rounding mode.
inline IEEEFloat operator/(IEEEFloat a, const IEEEFloat& b) {
    a /= b;
    return a;
}
/// a with its sign flipped (exact, never rounds); a NaN comes back as it is,
/// as self_neg leaves it.
inline IEEEFloat operator-(IEEEFloat a) {
    a.self_neg();
    return a;
}

// ---- Operations in an explicit direction ------------------------------------
//
// Each rounds once in the direction given, whatever the operands' stored
// modes, and raises its flags (tarn/ieeefloat/flags.h). The result is a new
// value with the first operand's format, representation and stored rounding
// mode; the other operands may have any format and representation, as for
// the compound operators (the result's representation follows the same rule,
// and fma rounds into a's format). They round correctly in every format, mantissa width 1 included
// (the quotient of div has no exception of operator/='s kind), and binary32 and binary64 words give
// the same bits and flags as the same values held generically, NaN patterns aside.

/// a + b rounded in direction r.
IEEEFloat add(const IEEEFloat& a, const IEEEFloat& b, rounding r);
/// a - b rounded in direction r.
IEEEFloat sub(const IEEEFloat& a, const IEEEFloat& b, rounding r);
/// a * b rounded in direction r.
IEEEFloat mul(const IEEEFloat& a, const IEEEFloat& b, rounding r);
/// a / b rounded in direction r.
IEEEFloat div(const IEEEFloat& a, const IEEEFloat& b, rounding r);
/// The square root of a rounded in direction r; that of -0 is -0.
IEEEFloat sqrt(const IEEEFloat& a, rounding r);
/// x converted to `f` in direction r, held in get_best_repr(f), as set_format converts.
IEEEFloat convert(const IEEEFloat& x, IEEEFloat::format f, rounding r);

/// a * b + c rounded once, under a's rounding mode. An exact zero result is
/// +0 when the product and c have opposite signs (-0 under
/// ROUND_TOWARD_NEGATIVE), and their common sign otherwise. 0 x inf raises
/// invalid unless c is a quiet NaN, which is then the result without an
/// exception, as hardware fused multiply-adds give it. Any exponents are
/// accepted: a term far below the other enters the rounding as a sticky bit,
/// so the work stays within twice the format's precision.
IEEEFloat fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c);
/// a * b + c rounded once in direction r.
IEEEFloat fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c, rounding r);

/// x rounded to an integral value of its format in direction r (to_odd
/// picks the odd neighbour of an inexact value). Zeros, infinities and NaNs
/// come back as they are and a value that rounds to zero keeps its sign.
/// Only a signaling NaN raises a flag (invalid), unless `exact` is true:
/// then a changed value raises inexact too (IEEE's roundToIntegralExact).
/// In a format whose largest finite value is not an integer (m > bias, as
/// in (2, 3)), an integer beyond it is rounded back into the format in
/// direction r as from_number would round it: infinity, or the largest
/// finite value, without overflow.
IEEEFloat round_to_integral(const IEEEFloat& x, rounding r, bool exact = false);

/// x rounded to an integer in direction r. A NaN, an infinity or a rounded
/// value outside the type raises invalid and gives the type's most negative
/// value; `exact` raises inexact when rounding changed the value.
std::int32_t to_int32(const IEEEFloat& x, rounding r, bool exact = false);
/// As to_int32, for the 64-bit type.
std::int64_t to_int64(const IEEEFloat& x, rounding r, bool exact = false);
/// As to_int32 for the unsigned type, whose invalid result is all ones. A
/// negative value that rounds to 0 is not out of range.
std::uint32_t to_uint32(const IEEEFloat& x, rounding r, bool exact = false);
/// As to_uint32, for the 64-bit type.
std::uint64_t to_uint64(const IEEEFloat& x, rounding r, bool exact = false);

/// v rounded once to `f` in direction r, held in get_best_repr(f). Its
/// stored rounding mode is r when r is one of the first four directions,
/// ROUND_NEAREST_EVEN otherwise.
IEEEFloat from_int64(std::int64_t v, IEEEFloat::format f, rounding r);
/// As from_int64, for an unsigned integer.
IEEEFloat from_uint64(std::uint64_t v, IEEEFloat::format f, rounding r);

// ---- Remainder, extremes, signs, order and exponents ---------------------------
//
// The remaining operations of IEEE 754's general set. Those of two values
// accept operands of different formats and representations; their result
// takes the first operand's format, representation and stored rounding mode,
// like the arithmetic's. A NaN result follows the arithmetic's rule: in the
// generic representation the first NaN operand as it stands (the library NaN
// when that operand has another format), on binary32 and binary64 words the
// soft-float component's NaN. Flags are raised as for the arithmetic:
// invalid for a signaling NaN operand (first mantissa bit 0).

/// a - n * b, n being a / b rounded to the nearest integer, ties to the even
/// one. Exact when the formats agree; otherwise the exact remainder is rounded
/// once to a's format under a's mode. A zero result has a's sign; b zero or a
/// infinite raise invalid and give the NaN self_nan makes; a finite over an
/// infinite b gives a. Works for every exponent width without building
/// integers of the size of the exponent difference: the significand of a is
/// reduced modulo twice that of b by modular exponentiation of the power of
/// two.
IEEEFloat remainder(const IEEEFloat& a, const IEEEFloat& b);

/// The smaller of a and b, -0 counting below +0; a NaN when either is one.
IEEEFloat minimum(const IEEEFloat& a, const IEEEFloat& b);
/// The larger of a and b, +0 counting above -0; a NaN when either is one.
IEEEFloat maximum(const IEEEFloat& a, const IEEEFloat& b);
/// As minimum, but a number beats a NaN: the result is a NaN only when both
/// are. A signaling NaN operand raises invalid all the same.
IEEEFloat minimum_number(const IEEEFloat& a, const IEEEFloat& b);
/// As maximum, with minimum_number's treatment of NaNs.
IEEEFloat maximum_number(const IEEEFloat& a, const IEEEFloat& b);
// In these four the operands are compared by value (ieee_cmp); equal values
// give a. When b is the result and has another format or representation, it
// is converted to a's format under a's mode, with the flags of that rounding.

/// x with its sign bit cleared, NaNs included; raises nothing.
IEEEFloat abs(const IEEEFloat& x);
/// x with the sign bit of y, whatever y's class and format; raises nothing.
IEEEFloat copysign(const IEEEFloat& x, const IEEEFloat& y);

/// IEEE 754's total order: true when a does not come after b in -qNaN <
/// -sNaN < -inf < negative numbers < -0 < +0 < positive numbers < +inf <
/// +sNaN < +qNaN, NaN payloads ordered by magnitude (the larger payload
/// outward). Operands of one format are compared on their bit patterns, so
/// distinct patterns are never tied. Operands of different formats are
/// ordered by value, zeros by sign, and NaNs by sign and then by their
/// mantissa fields read as binary fractions (0.1xxx for a quiet NaN, which so
/// lies above every signaling one); equal values are tied, so both orders
/// hold. Raises nothing.
bool total_order(const IEEEFloat& a, const IEEEFloat& b);
/// total_order of |a| and |b|.
bool total_order_mag(const IEEEFloat& a, const IEEEFloat& b);

/// x * 2^n rounded once under x's mode, with overflow, underflow and inexact
/// as the rounding raises them. Every n is accepted, LONG_MIN and LONG_MAX
/// included: beyond the format's exponent span the result is decided as an
/// overflow or a total underflow without building the power. Zeros and
/// infinities come back as they are, NaNs as the arithmetic gives them.
IEEEFloat scale_b(const IEEEFloat& x, long n);
/// floor(log2 |x|), the exponent of a finite non-zero x as if it were normal
/// (subnormals normalised). Zeros and NaNs give LONG_MIN and infinities
/// LONG_MAX, all three raising invalid (the sentinels of the C library's
/// ilogb, widened to long). Throws "reached limit on float precision" when the
/// exponent does not fit a long or is one of the sentinels, which only formats
/// of more than 62 exponent bits reach.
long log_b(const IEEEFloat& x);

/// The ten classes of IEEE 754's class operation.
enum class fp_class {
    signaling_nan,
    quiet_nan,
    negative_infinity,
    negative_normal,
    negative_subnormal,
    negative_zero,
    positive_zero,
    positive_subnormal,
    positive_normal,
    positive_infinity,
};
/// The class of x, as is_nan, is_inf, is_zero and is_subnormal see it, NaNs
/// split by is_signaling. Raises nothing.
fp_class classify(const IEEEFloat& x);
/// Whether x is a NaN whose first mantissa bit is 0. The library NaN is one in
/// formats with two or more mantissa bits; with one mantissa bit every NaN is
/// quiet, and a format without mantissa bits has no NaN at all (its NaN
/// pattern is -infinity), so the answer there is always false. Raises nothing.
bool is_signaling(const IEEEFloat& x);

/// Writes the value in the stream's notation, as a double is written:
///  - std::scientific: to_str_digits(precision + 1, 'e');
///  - std::fixed: to_str_digits(precision, 'f');
///  - std::hexfloat: to_hex_str(), the precision ignored;
///  - std::defaultfloat with a precision other than 6: to_str_digits(precision,
///    'g'), so std::setprecision(3) gives three significant digits;
///  - std::defaultfloat with the precision 6 that streams start with, taken as
///    none asked for: the shortest digits that read back, positional as
///    to_float_str writes them when the decimal exponent of the first digit
///    lies in [-5, 21) and as to_sci_str writes them otherwise ("1e+21",
///    "1e-6"). For six significant digits use to_str_digits(6, 'g').
/// NaNs and infinities are "nan", "inf" and "-inf" in every notation. showpos
/// puts "+" before every text without "-"; uppercase writes every letter in
/// capitals ("1.5E+300", "0X1.8P+0", "INF") except under std::fixed, which
/// writes "inf" and "nan" in small letters as it does for double; width and fill pad the text on
/// the left, on the right under std::left, and under std::internal after a
/// sign, or else after a "0x". Errors of the text functions pass through.
std::ostream& operator<<(std::ostream& os, const IEEEFloat& x);
/// Reads one numeral into x, in x's own format, rounding mode and
/// representation: after the blanks that the stream skips (skipws), the
/// longest numeral from_chars would take. Characters read past it in the
/// hope of a longer numeral ("e+" in "1e+x") are given back to the stream
/// buffer, as far as it takes them back. Sets failbit and leaves x as it is
/// when no numeral is there, when x has the format (0, 0) of a
/// default-constructed value, or when from_string throws (the precision
/// limit, or a bad rounding mode on an inexact result); eofbit when the
/// input ended with the numeral.
std::istream& operator>>(std::istream& is, IEEEFloat& x);

} // namespace tarn

namespace std {
/// Hashes IEEEFloats by format and bit pattern (IEEEFloat::hash).
template <>
struct hash<tarn::IEEEFloat> {
    std::size_t operator()(const tarn::IEEEFloat& x) const noexcept { return x.hash(); }
};
} // namespace std
