// Low-precision encodings: the 4-, 6-, 8- and 16-bit number formats of
// machine-learning kernels, those IEEE 754 describes and those it does not (no
// infinities, a single NaN, no negative zero, other biases, exponent-only
// scales), rounded into exactly from an IEEEFloat of any format, and in bulk
// from float and double arrays.
//
// An encoding is a pattern of `has_sign + exponent_width + mantissa_width`
// bits: the mantissa field in the low bits, the biased exponent field above it,
// the sign bit, when there is one, on top. A biased exponent b > 0 gives the
// normal value 1.f x 2^(b - bias), b = 0 the subnormal 0.f x 2^(1 - bias);
// what the top of the range holds is `encoding::top`.
//
// Rounding works on the encoding's grid extended upward without an exponent
// limit: a rounded result beyond the largest finite value is an overflow,
// which `overflow` then maps onto a pattern. Every conversion raises the status
// flags of tarn/ieeefloat/flags.h:
//  - inexact when the pattern's value differs from the input;
//  - overflow (with inexact) when the rounded result lies beyond the largest
//    finite value;
//  - underflow when the result is inexact and tiny: rounded to the encoding's
//    precision with an unbounded exponent range it lies below the smallest
//    normal magnitude (for exponent_only, which has no subnormals: the input
//    lies below its smallest value);
//  - invalid for a signaling NaN input, a NaN input into an encoding without
//    NaN, an infinity into an encoding without infinities, and a value the
//    encoding has no sign or no zero for (see encode).
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tarn {

/// A binary encoding of a low-precision number format.
struct encoding {
    /// What the top of the range holds.
    enum class specials {
        /// Infinities and NaNs as IEEE 754: the all-ones exponent field
        /// (float8_e5m2, float16, bfloat16, float32). Needs a mantissa bit.
        ieee,
        /// No infinities; the NaNs are the patterns whose exponent and mantissa
        /// fields are all ones, the rest of the top binade is finite
        /// (float8_e4m3fn, largest 448).
        finite_nan_all_ones,
        /// No infinities and no negative zero: the single NaN is the sign bit
        /// followed by zeros (float8_e4m3fnuz). Needs a sign bit.
        finite_nan_negative_zero,
        /// Every pattern is a finite number (float6_e3m2fn, float4_e2m1fn).
        finite,
        /// An unsigned power-of-two scale (float8_e8m0fnu): no sign, no zero,
        /// no mantissa; pattern p is 2^(p - bias), the all-ones pattern is NaN.
        /// Needs mantissa_width 0 and no sign bit.
        exponent_only,
    };

    unsigned long exponent_width = 0;
    unsigned long mantissa_width = 0;
    long bias = 0;
    bool has_sign = true;
    specials top = specials::ieee;

    /// The encoding (e, m) with the usual bias 2^(e-1) - 1 and a sign bit.
    static encoding make(unsigned long e, unsigned long m, specials top = specials::ieee);

    /// The named encodings, under the names NumPy's machine-learning dtypes
    /// use: float8_e5m2, float8_e4m3fn, float8_e4m3fnuz (bias 8),
    /// float8_e5m2fnuz (bias 16), float8_e4m3b11fnuz (bias 11),
    /// float8_e8m0fnu, float6_e3m2fn, float6_e2m3fn, float4_e2m1fn, bfloat16,
    /// float16 and float32; nothing for any other text.
    static std::optional<encoding> by_name(std::string_view name);
    /// The names by_name knows, in the order above.
    static const std::vector<std::string_view>& known_names();

    /// Throws IEEEFloat::error when the encoding cannot be used, with one of
    /// the messages "invalid encoding: no exponent bits", "invalid encoding:
    /// wider than 64 bits", "invalid encoding: bias out of range" (beyond
    /// +-2^40), "invalid encoding: ieee needs a mantissa bit", "invalid
    /// encoding: finite_nan_negative_zero needs a sign bit", "invalid encoding:
    /// exponent_only needs mantissa width 0 and no sign" and "invalid encoding:
    /// only exponent_only has mantissa width 0". Every function that takes an
    /// encoding calls it first.
    void validate() const;

    /// The number of bits of a pattern.
    unsigned long width() const { return (has_sign ? 1 : 0) + exponent_width + mantissa_width; }
    /// The largest finite value's pattern (positive).
    std::uint64_t max_pattern() const;
    /// Whether the encoding has infinities, NaNs, a negative zero.
    bool has_inf() const { return top == specials::ieee; }
    bool has_nan() const { return top != specials::finite; }
    bool has_negative_zero() const {
        return has_sign && top != specials::finite_nan_negative_zero &&
               top != specials::exponent_only;
    }
    /// The NaN a NaN input becomes: the quiet NaN with the sign clear (ieee:
    /// exponent all ones, first mantissa bit set), the all-ones magnitude
    /// (finite_nan_all_ones), the sign bit alone (finite_nan_negative_zero),
    /// all ones (exponent_only). Finite encodings have none and give 0.
    std::uint64_t nan_pattern() const;

    friend bool operator==(const encoding& a, const encoding& b) {
        return a.exponent_width == b.exponent_width && a.mantissa_width == b.mantissa_width &&
               a.bias == b.bias && a.has_sign == b.has_sign && a.top == b.top;
    }
};

/// What becomes of a result beyond the largest finite value.
enum class overflow {
    /// The largest finite value of the result's sign (a NaN stays a NaN).
    saturate,
    /// Where IEEE 754 would deliver an infinity (the nearest directions and
    /// stochastic rounding always, upward for positive and downward for
    /// negative results): the infinity if the encoding has one, else its NaN,
    /// else (finite encodings) the largest finite value; the largest finite
    /// value in the other directions.
    non_finite,
};

/// Stochastic rounding: a result rounds away from its truncation with the
/// probability of the discarded fraction of a unit in the last place, read to
/// `random_bits` bits (1 to 64; exact when fewer bits are discarded). Element
/// i of a bulk call (and a scalar call, as element 0) draws its random bits
/// from Philox4x32-10 keyed by `seed`, counter offset + i: the first 64 bits of
/// the block, of which the top `random_bits` are compared with the discarded
/// fraction. So a result depends only on (seed, offset + i, input), whatever
/// the thread count, chunking or order. The discarded fraction f (read to
/// random_bits bits) rounds away when the random number is below it.
/// Overflow is handled as for the nearest directions; underflow is raised for
/// an inexact result whose input lies below the smallest normal magnitude.
struct stochastic {
    std::uint64_t seed;
    std::uint64_t offset = 0;
    unsigned random_bits = 32;
};

/// x, of any format and representation, rounded once in direction r into
/// `enc`, as a pattern in the low enc.width() bits. Special inputs:
///  - a NaN gives enc.nan_pattern() (the encoding's NaN, or 0 in a finite
///    encoding, with invalid raised there: a NaN carries no magnitude, and a
///    zero adds nothing to the sums and products it flows into); a
///    signaling NaN raises invalid everywhere;
///  - an infinity gives the infinity of its sign under non_finite, else the
///    largest finite value of its sign; in an encoding without infinities it
///    becomes the NaN under non_finite (the largest finite value in finite
///    encodings, and under saturate) and raises invalid;
///  - a zero keeps its sign where the encoding has a negative zero; -0, and
///    a negative value that rounds to zero, are the zero pattern elsewhere;
///  - an encoding without sign bit gives its NaN (0 if it has none) for a
///    negative value that does not round to zero, raising invalid;
///  - exponent_only has no zero: zeros and negative values give its NaN
///    and raise invalid, and a positive value below its smallest value
///    2^-bias gives that value in every direction (inexact, underflow).
/// Under nearest_even a tie goes to the even pattern: for exponent_only, whose
/// patterns are exponents, to the even exponent; to_odd likewise makes the
/// pattern odd. A direction outside the six throws "bad rounding mode: N".
std::uint64_t encode(const IEEEFloat& x, const encoding& enc, rounding r, overflow o);
/// x rounded stochastically into `enc` with the random bits of element 0 of
/// `s` (counter s.offset), otherwise as the directed encode.
std::uint64_t encode(const IEEEFloat& x, const encoding& enc, const stochastic& s, overflow o);

/// The format decode delivers: mantissa width max(m, 1) (so that
/// exponent_only keeps a NaN apart from infinity) and the fewest exponent bits
/// whose IEEE range holds every value of `enc` exactly. The encodings that
/// are IEEE formats decode to themselves ((5, 10) for float16, (8, 23) for
/// float32); float8_e4m3fn and the fnuz encodings to (5, 3) or (6, 2),
/// float8_e8m0fnu to (8, 1).
IEEEFloat::format decode_format(const encoding& enc);
/// The value of pattern `bits` (bits above enc.width() ignored), exactly, in
/// decode_format(enc) and its usual representation: NaN patterns give a NaN,
/// the infinities and zeros keep their sign. Raises no flag.
IEEEFloat decode(std::uint64_t bits, const encoding& enc);

// ---- Arrays ------------------------------------------------------------------
//
// The bulk conversions give, element by element, exactly the patterns and flags
// of the scalar encode on the same input; the flags of a call are the OR of
// its elements' flags, raised on the calling thread. `threads` (0 is taken as
// 1) splits the array into that many contiguous parts on std::threads; the
// results never depend on it. An encoding wider than the output elements
// throws "invalid encoding: wider than the output elements". Built with
// Highway, the conversions run on the widest vectors the CPU has, chosen when
// first called; arrays with NaNs or infinities take a slower path around them.

void quantize(const float* in, std::size_t n, std::uint8_t* out, const encoding& enc, rounding r,
              overflow o, unsigned threads = 1);
void quantize(const float* in, std::size_t n, std::uint8_t* out, const encoding& enc,
              const stochastic& s, overflow o, unsigned threads = 1);
void quantize(const double* in, std::size_t n, std::uint8_t* out, const encoding& enc, rounding r,
              overflow o, unsigned threads = 1);
void quantize(const double* in, std::size_t n, std::uint8_t* out, const encoding& enc,
              const stochastic& s, overflow o, unsigned threads = 1);
void quantize(const float* in, std::size_t n, std::uint16_t* out, const encoding& enc, rounding r,
              overflow o, unsigned threads = 1);
void quantize(const float* in, std::size_t n, std::uint16_t* out, const encoding& enc,
              const stochastic& s, overflow o, unsigned threads = 1);
void quantize(const double* in, std::size_t n, std::uint16_t* out, const encoding& enc, rounding r,
              overflow o, unsigned threads = 1);
void quantize(const double* in, std::size_t n, std::uint16_t* out, const encoding& enc,
              const stochastic& s, overflow o, unsigned threads = 1);

/// The values of n patterns (bits above enc.width() ignored) as floats or
/// doubles: exact for every named encoding (float32 only into float and
/// double). A value of another encoding that the destination cannot hold is
/// rounded to nearest-even, as converting the decoded value would round it
/// (beyond the range: an infinity). NaN patterns give a quiet NaN. Raises no
/// flag. Throws "invalid encoding: wider than the input elements" for an
/// encoding wider than the patterns' type.
void dequantize(const std::uint8_t* in, std::size_t n, float* out, const encoding& enc);
void dequantize(const std::uint8_t* in, std::size_t n, double* out, const encoding& enc);
void dequantize(const std::uint16_t* in, std::size_t n, float* out, const encoding& enc);
void dequantize(const std::uint16_t* in, std::size_t n, double* out, const encoding& enc);

/// The number of bytes n elements of `width` bits fill when packed.
constexpr std::size_t packed_size(std::size_t n, unsigned width) {
    return (n * width + 7) / 8;
}
/// Packs the low `width` bits (1 to 8) of n elements densely, least
/// significant bit first: element i occupies bits [i*width, (i+1)*width) of
/// the little-endian bit string `out` (so with width 4 element 0 is the low
/// nibble of byte 0; with width 6 four elements fill three bytes). Writes
/// packed_size(n, width) bytes; unused bits of the last byte are 0.
void pack_bits(const std::uint8_t* in, std::size_t n, unsigned width, std::uint8_t* out);
/// The inverse of pack_bits: n elements of `width` bits into bytes. Both
/// throw "invalid element width for packing" for a width outside 1 to 8.
void unpack_bits(const std::uint8_t* in, std::size_t n, unsigned width, std::uint8_t* out);

// ---- Block scaling (MX) ------------------------------------------------------
//
// Microscaling blocks: `block` consecutive values share one power-of-two scale,
// stored as a float8_e8m0fnu pattern (2^(p - 127), 255 NaN), and each value is
// kept as an element pattern of `element`, one per byte (pack_bits densifies
// the 4- and 6-bit ones). The MX element encodings are float8_e4m3fn,
// float8_e5m2, float6_e3m2fn, float6_e2m3fn and float4_e2m1fn; any encoding of
// at most 8 bits is taken.
//
// The scale of a block is the largest power of two not above its largest
// magnitude, divided by the element encoding's largest power of two (the
// binade of its largest finite value: 2^8 for e4m3fn, 2^15 for e5m2, 2^4 for
// e3m2fn, 2^2 for e2m3fn and e2m1fn), so that the largest value lands in the
// element's top binade. It is clamped to the scales e8m0 holds, 2^-127 to
// 2^127: a block too small for the lowest scale loses its low bits to the
// elements' rounding, and (only from doubles) one too large for the highest
// saturates. Each element is x / scale rounded to nearest-even and saturating,
// exactly as encode(x / scale, element, nearest_even, saturate) with the
// quotient taken exactly, so the largest values of a block may saturate.
//
// Special blocks:
//  - an all-zero block (either sign) gets the smallest scale, pattern 0, and
//    zero elements that keep their sign where the encoding has a negative zero;
//  - a block that holds a NaN or an infinity has no scale that represents it:
//    its scale is the NaN pattern 255, its elements are 0, and invalid is
//    raised. Its other values are lost; dequantizing gives NaN for the whole
//    block.
//
// n need not be a multiple of block: the last block is then short, and scales
// receives (n + block - 1) / block patterns. The flags raised are the OR of the
// elements' encode flags and invalid for the NaN-scaled blocks. `threads` (0 is
// taken as 1) splits the blocks into contiguous parts; the results never depend
// on it. Throws "invalid block size" for a block of 0 and "invalid encoding:
// wider than the output elements" for an element encoding wider than 8 bits.
void mx_quantize(const float* in, std::size_t n, std::size_t block, const encoding& element,
                 std::uint8_t* elements, std::uint8_t* scales, unsigned threads = 1);
void mx_quantize(const double* in, std::size_t n, std::size_t block, const encoding& element,
                 std::uint8_t* elements, std::uint8_t* scales, unsigned threads = 1);

/// The values of n elements in blocks of `block` (the last one may be short):
/// element value x scale, NaN for every element of a block whose scale is 255,
/// and for NaN elements. Into double the product is exact for every encoding
/// whose values double holds (all named ones); into float it is that product
/// rounded once to nearest-even, which for the MX elements is exact but beyond
/// float's range, where it is an infinity. Raises no flag.
/// Throws as mx_quantize, with "invalid encoding: wider than the input
/// elements" for a wide element encoding.
void mx_dequantize(const std::uint8_t* elements, const std::uint8_t* scales, std::size_t n,
                   std::size_t block, const encoding& element, float* out);
void mx_dequantize(const std::uint8_t* elements, const std::uint8_t* scales, std::size_t n,
                   std::size_t block, const encoding& element, double* out);

} // namespace tarn
