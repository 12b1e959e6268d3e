// A short tour of tarn: build values of a format chosen at run time, compare
// them, step to neighbouring values, print them, and read their exact values.
// `./build.sh demo` builds and runs it; the README shows the same program.

#include "tarn/ieeefloat/ieeefloat.h"

#include <iostream>

int main() {
    using tarn::IEEEFloat;
    using tarn::QNumber;

    // binary16: 5 exponent bits, 10 mantissa bits. Values come from their
    // bit patterns (or from exact rationals with IEEEFloat::from_number).
    const IEEEFloat::format half{5, 10};
    const IEEEFloat one = IEEEFloat::from_bits(QNumber(0x3C00L), half);
    const IEEEFloat tenth = IEEEFloat::from_bits(QNumber(0x2E66L), half); // nearest to 0.1
    IEEEFloat nan = one;
    nan.self_nan();

    // Compare with the IEEE meaning: NaN is unordered, +0 equals -0.
    std::cout << std::boolalpha;
    std::cout << "0.1 < 1:        " << (tenth < one) << "\n";
    std::cout << "NaN == NaN:     " << (nan == nan) << "\n";
    std::cout << "ieee_cmp(1, NaN) = " << tarn::ieee_cmp(one, nan) << "\n";

    // Step to the neighbours of 1 and print them: the shortest decimal that
    // identifies each value within the format, and the diagnostic form with
    // the widths and the grouped bit pattern.
    IEEEFloat above = one, below = one;
    above.next_representable(true);
    below.next_representable(false);
    std::cout << "after 1:        " << above.to_float_str() << "\n";
    std::cout << "before 1:       " << below.to_float_str() << "\n";
    std::cout << "0.1 in full:    " << tenth.to_str() << "\n";

    // The exact rational a value stands for, and its integer under the
    // value's own rounding mode.
    std::cout << "0.1 exactly:    " << tenth.to_number() << "\n";
    IEEEFloat x = IEEEFloat::from_bits(QNumber(0x4100L), half); // 2.5
    std::cout << "2.5 to integer: " << x.to_integer() << " (nearest, ties to even)\n";
    x.set_rounding_mode(IEEEFloat::ROUND_TOWARD_POSITIVE);
    std::cout << "2.5 to integer: " << x.to_integer() << " (toward +infinity)\n";

    // The same operations on binary64 run on a machine word.
    IEEEFloat d = IEEEFloat::from_bits(QNumber(0x3FF0000000000000L), {11, 52});
    d.next_representable(true);
    std::cout << "after 1.0 in binary64: " << d.to_float_str() << "\n";
    return 0;
}
