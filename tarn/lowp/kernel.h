// Private to the lowp units, not installed: what a conversion into an
// encoding decides once per call, and the per-element kernels of the bulk
// conversions on the bits of float and double inputs.
//
// The scalar encode (scalar.cpp) rounds the exact value of any IEEEFloat and
// shares with the kernels only the Plan: the patterns and flags of special
// inputs and of overflow. The rounding itself is written twice, generically
// there and on machine words here, so that checking bulk against scalar
// compares two implementations.
#pragma once

#include "tarn/lowp/lowp.h"

#include <cstddef>
#include <cstdint>
#include <Random123/philox.h>

namespace tarn::lowp_detail {

/// The rounding of a call: one of the six directions, or stochastic.
enum class Method { nearest_even, toward_zero, upward, downward, nearest_away, to_odd, stochastic };

/// The grid of an encoding and the results of a call that do not depend on
/// rounding a finite value. Index [negative] picks the sign.
struct Plan {
    long emin = 0;                  ///< the exponent of the smallest normal binade
    long emax = 0;                  ///< the exponent of the largest finite value's binade
    unsigned m = 0;                 ///< mantissa width
    std::uint64_t base = 1;         ///< the biased exponent field of the smallest normal binade
    bool subnormals = true;         ///< false for exponent_only, whose lowest pattern is 2^emin
    std::uint64_t max_mag = 0;      ///< the largest finite magnitude's pattern
    std::uint64_t sign[2] = {0, 0}; ///< the sign bit for each sign (0 when unsigned)
    bool has_sign = true;
    std::uint64_t nan = 0;             ///< what a NaN input or an invalid value gives
    unsigned nan_flags = 0;            ///< raised for a quiet NaN input (invalid without NaN)
    std::uint64_t zero[2] = {0, 0};    ///< a zero result
    std::uint64_t zero_in[2] = {0, 0}; ///< a zero input
    unsigned zero_in_flags = 0;
    std::uint64_t inf_in[2] = {0, 0}; ///< an infinite input
    unsigned inf_in_flags = 0;
    std::uint64_t overflowed[2] = {0, 0}; ///< an overflowing result
    Method method = Method::nearest_even;
    encoding enc; ///< the encoding, for what the kernels hand to encode
    overflow over = overflow::saturate;

    /// The plan of `enc` (validated) under `method` and `o`.
    Plan(const encoding& enc, Method method, overflow o);
};

/// A pattern split: its class, sign and, for a finite non-zero value,
/// significand * 2^exponent.
struct Split {
    enum Kind { nan, infinite, zero, finite } kind = zero;
    bool negative = false;
    std::uint64_t significand = 0;
    long exponent = 0;
};
/// Splits pattern `bits` (bits above the encoding's width ignored).
Split split(const Plan& plan, std::uint64_t bits);

/// Whether an inexact result of the given sign rounds away from zero in one
/// of the six directions, given the round bit, the bits below it and whether
/// the truncated pattern is odd.
inline bool directed_away(Method d, bool negative, bool round_bit, bool sticky, bool odd) {
    switch (d) {
    case Method::nearest_even:
        return round_bit & (sticky | odd);
    case Method::upward:
        return !negative;
    case Method::downward:
        return negative;
    case Method::nearest_away:
        return round_bit;
    case Method::to_odd:
        return !odd;
    default:
        return false;
    }
}

/// Throws "invalid stochastic rounding: random_bits must be 1 to 64".
void check_stochastic(const stochastic& s);
/// The method of a direction; throws "bad rounding mode: N" for a number
/// outside the six directions.
Method method_of(rounding r);

/// The 64 random bits of element `counter` under `seed`: the first two words
/// of the Philox4x32-10 block, the second one high. Inline, so that the loops
/// of the kernels keep it in registers.
inline std::uint64_t random_bits(std::uint64_t seed, std::uint64_t counter) {
    using Philox = r123::Philox4x32;
    const Philox::ctr_type c = {
        {static_cast<std::uint32_t>(counter), static_cast<std::uint32_t>(counter >> 32), 0, 0}};
    const Philox::key_type k = {
        {static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32)}};
    const Philox::ctr_type r = Philox()(c, k);
    return std::uint64_t{r[1]} << 32 | r[0];
}

/// Converts in[0, n) into patterns, element i of the whole array being
/// `first + i` for the random bits of stochastic rounding; returns the OR of
/// the elements' flags. Out is std::uint8_t or std::uint16_t. Takes the
/// vector kernel where there is one for the call, else quantize_words.
template <class In, class Out>
unsigned quantize_span(const Plan& plan, const stochastic* s, const In* in, std::size_t n, Out* out,
                       std::uint64_t first);
/// The same, one element at a time on machine words: the portable kernel,
/// and what the vector kernel hands the vectors it does not take.
template <class In, class Out>
unsigned quantize_words(const Plan& plan, const stochastic* s, const In* in, std::size_t n,
                        Out* out, std::uint64_t first);
/// The vector kernel (simd.cpp), the instruction set chosen at run time, for
/// plans with subnormals, m > 0 and emin >= -126 that the word kernel serves
/// for float inputs.
unsigned quantize_vectors(const Plan& plan, const stochastic* s, const float* in, std::size_t n,
                          std::uint8_t* out, std::uint64_t first);
unsigned quantize_vectors(const Plan& plan, const stochastic* s, const float* in, std::size_t n,
                          std::uint16_t* out, std::uint64_t first);
unsigned quantize_vectors(const Plan& plan, const stochastic* s, const double* in, std::size_t n,
                          std::uint8_t* out, std::uint64_t first);
unsigned quantize_vectors(const Plan& plan, const stochastic* s, const double* in, std::size_t n,
                          std::uint16_t* out, std::uint64_t first);

} // namespace tarn::lowp_detail
