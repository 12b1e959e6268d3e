// Private to the IEEEFloat units, not installed: the held bits of a value for the free
// operations (the explicit-direction ones, fma, the integer conversions), which are
// IEEEFloat's friends through this one struct rather than one declaration each.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/decode.h"

namespace tarn::ieeefloat_detail {

struct Access {
    /// The held bits (internal/packed.h reads and writes a generic pattern).
    static Held& held(IEEEFloat& x) { return x.value; }
    static const Held& held(const IEEEFloat& x) { return x.value; }

    /// Throws "reached limit on float precision" for a format wider than
    /// IEEEFloat::max_width: called wherever a value of a format comes into being.
    static void check_widths(IEEEFloat::format f);

    /// x := x op y in the direction of `r`, raising its flags; `op` is an
    /// ArithOp of the arithmetic unit.
    static void arithmetic(int op, IEEEFloat& x, const IEEEFloat& y, RoundingContext& r);
    /// x := sqrt(x) in the direction of `r`, raising its flags.
    static void square_root(IEEEFloat& x, RoundingContext& r);
    /// Converts x to `f` in the direction of `r`, raising its flags.
    static void convert(IEEEFloat& x, IEEEFloat::format f, RoundingContext& r);
    /// `q` rounded to `f` in the direction of `r`, stored mode `mode`, raising its flags.
    static IEEEFloat from_number(const QNumber& q, IEEEFloat::format f, rounding_mode mode,
                                 RoundingContext& r);

    // Shared by the operations of IEEE 754's general set (remainder, minimum and
    // maximum, scale_b, the total order), defined with classify.

    /// The format of x's held bits: the word's own layout for binary32 and
    /// binary64 words, whatever x's format says, x's format otherwise.
    static IEEEFloat::format held_format(const IEEEFloat& x);
    /// Replaces x's held bits by `bits`, a packed integer of held_format(x),
    /// keeping x's representation and mode.
    static void store(IEEEFloat& x, const QNumber& bits);
    /// store for a held format whose patterns fit 64 bits.
    static void store(IEEEFloat& x, std::uint64_t bits);
    /// Whether the patterns of `f` fit 64 bits, with exponents far from the
    /// limits of a word: the formats of the word paths of the general
    /// operations, binary32 and binary64 among them.
    static bool word_pattern(IEEEFloat::format f);
    /// The rounding under x's stored mode; a mode outside 0 to 3 rounds a word
    /// to nearest even, as the soft-float component does.
    static RoundingContext context_of(const IEEEFloat& x);
    /// The NaN result of an operation of a and b, one of them a NaN, held like
    /// a: the first NaN as it stands in the generic representation (the
    /// library NaN when only b is one and has another format or
    /// representation), the soft-float NaN in a word.
    static IEEEFloat nan_result(const IEEEFloat& a, const IEEEFloat& b);
    /// Splits x exactly into its sign and (-1)^negative * significand *
    /// 2^(exponent - m), m being held_format(x)'s, with exponents of any size.
    static ValueClass split(const IEEEFloat& x, bool& negative, QNumber& exponent,
                            QNumber& significand);
};

} // namespace tarn::ieeefloat_detail
