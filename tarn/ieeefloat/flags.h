// IEEE-754 status flags and the six rounding directions of the explicit-direction operations.
//
// Every IEEEFloat operation raises the exceptions of IEEE 754-2019's default handling into
// sticky flags of the calling thread, which the caller reads with ieee_flags() and lowers with
// clear_ieee_flags(). A raised flag stays raised until cleared; operations never lower one.
//
//  - invalid: an operand is a signaling NaN (a NaN whose first mantissa bit is 0, as hardware
//    reads it; in formats with m >= 2 the library's own NaN pattern is one), inf - inf,
//    0 x inf, 0 / 0, inf / inf, the square root of a value below zero, fma's 0 x inf, integer
//    conversion of a NaN, an infinity or a value out of the integer type's range, < and <=
//    with any NaN, == and the quiet comparisons only with a signaling NaN;
//  - divide-by-zero: a finite non-zero value divided by zero;
//  - overflow: the result rounded as if the exponent range were unbounded lies beyond the
//    largest finite value; inexact is raised with it;
//  - underflow: the result is tiny, detected after rounding (rounded to the format's precision
//    with an unbounded exponent range it lies strictly between -2^emin and 2^emin), and inexact;
//  - inexact: the delivered result differs from the exact one.
//
// A format of one exponent bit has no normal range: its finite results are all tiny, and one
// that rounding carries onto infinity is its overflow. Converting a value to its own format
// changes nothing and raises nothing, a signaling NaN included.
//
// The bits are those of the soft-float component, so its flags pass through unchanged. The
// component's own flag byte is left at 0 after every IEEEFloat operation.
#pragma once

namespace tarn {

/// The delivered result differs from the exact one.
constexpr unsigned FLAG_INEXACT = 0x01;
/// The result is tiny after rounding and inexact.
constexpr unsigned FLAG_UNDERFLOW = 0x02;
/// The rounded result lies beyond the largest finite value.
constexpr unsigned FLAG_OVERFLOW = 0x04;
/// A finite non-zero value was divided by zero.
constexpr unsigned FLAG_DIVBYZERO = 0x08;
/// The operation had no meaningful result, read a signaling NaN or ordered a NaN.
constexpr unsigned FLAG_INVALID = 0x10;

/// The sticky flags raised on this thread by IEEEFloat operations since they were last cleared.
unsigned ieee_flags() noexcept;
/// Lowers the flags in `mask` (all five by default) on this thread.
void clear_ieee_flags(unsigned mask = 0x1F) noexcept;
/// Raises the flags in `mask` on this thread, as an operation would.
void raise_ieee_flags(unsigned mask) noexcept;

/// Rounding directions of the explicit-direction operations (add, fma, convert, to_int32, ...).
/// The first four mean what IEEEFloat's rounding_mode 0 to 3 mean. Any other number is read as
/// a stored rounding mode outside 0 to 3 is: an operation whose result is inexact throws "bad
/// rounding mode: N", except on binary32 and binary64 words, which round it to nearest even.
enum class rounding : int {
    nearest_even = 0, ///< nearest; ties to the even last mantissa bit
    toward_zero = 1,  ///< the neighbour of smaller magnitude
    upward = 2,       ///< the neighbour toward +infinity
    downward = 3,     ///< the neighbour toward -infinity
    nearest_away = 4, ///< nearest; ties away from zero
    /// Truncates toward zero and sets the last mantissa bit when the result is inexact; an
    /// overflow gives the largest finite value of its sign. Rounding a wider result to odd and
    /// then to the target in any direction rounds correctly, which makes it the direction of
    /// intermediate results that are to be rounded again.
    to_odd = 5,
};

} // namespace tarn
