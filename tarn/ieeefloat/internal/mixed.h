// Private to the IEEEFloat units, not installed: operands of different formats or
// representations.
//
// Every operation on two or three values first asks same_kind, one test that is
// true for nearly every call; only when it fails do the routines of mixed.cpp
// run. They widen the operands exactly into one generic format W with more
// exponent range than any of them and at least two more mantissa bits than the
// result's format, compute there rounding to odd, and round W's result once
// into the first operand's format in the caller's direction. Rounding to odd at
// p + 2 bits or more and then to p bits gives the correctly rounded result and,
// with the first step's inexact or-ed in, the same flags.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/rounding.h"

namespace tarn::ieeefloat_detail {

/// What an operation on a value of format (0, 0), the default value's, throws.
inline constexpr char no_format_message[] = "value has no format";

/// Whether a and b share format and representation and have a format at all:
/// the condition for the operations' single-format paths.
inline bool same_kind(const IEEEFloat& a, const IEEEFloat& b) {
    const format f = a.get_format();
    return f == b.get_format() && a.get_repr() == b.get_repr() &&
           (f.exponent_width | f.mantissa_width) != 0;
}

/// result := a op b (op an ArithOp of the arithmetic unit: add, sub, mul or
/// div) rounded once into a's format in the direction of `r`, for operands not
/// of one kind; raises the flags. `result` may be a itself, and is left as it
/// was when the operation throws. The result has a's mode, and a's representation when that
/// is the natural one for a's format (REPR_GENERIC, or the word of binary32 and
/// binary64), get_best_repr of the format otherwise. Throws no_format_message
/// for a value of format (0, 0) and the precision limit for a format without
/// exponent bits.
void mixed_arithmetic(int op, const IEEEFloat& a, const IEEEFloat& b, RoundingContext& r,
                      IEEEFloat& result);

/// a * b + c as mixed_arithmetic computes its operations.
IEEEFloat mixed_fma(const IEEEFloat& a, const IEEEFloat& b, const IEEEFloat& c, RoundingContext& r);

/// Writes the exact patterns of a and b, neither a NaN, in a generic format
/// that holds both into x and y, and returns that format, so that comparing
/// them compares the two values. Throws no_format_message as above.
format widen_pair(const IEEEFloat& a, const IEEEFloat& b, QNumber& x, QNumber& y);

/// Throws no_format_message when a value has format (0, 0).
void check_has_format(const IEEEFloat& x);

/// The single-format arithmetic of generic values (arithmetic.cpp), and fma
/// (fma.cpp), on packed integers: a := a op b, x := x * y + z.
void packed_arithmetic(int op, format f, RoundingContext& r, QNumber& a, const QNumber& b);
void packed_fma(format f, RoundingContext& r, QNumber& x, const QNumber& y, const QNumber& z);

} // namespace tarn::ieeefloat_detail
