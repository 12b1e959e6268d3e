// Uses the installed headers and library the way a user's program would, and
// exits non-zero on a wrong result, so a package that links but computes
// wrongly is caught too: 1/3 rounded upward into binary16 (the generic path),
// and 0.1 + 0.2 in binary64 (the word path) written back as text.

#include "tarn/ieeefloat/ieeefloat.h"

#include <iostream>

int main() {
    using tarn::IEEEFloat;
    const IEEEFloat third =
        IEEEFloat::from_number(tarn::QNumber(1, 3), {5, 10}, IEEEFloat::ROUND_TOWARD_POSITIVE);
    IEEEFloat sum = IEEEFloat::from_string("0.1", {11, 52}, IEEEFloat::ROUND_NEAREST_EVEN);
    sum += IEEEFloat::from_string("0.2", {11, 52}, IEEEFloat::ROUND_NEAREST_EVEN);
    if (third.get_bits().to_mpz() != 0x3556 || sum.to_float_str() != "0.30000000000000004") {
        std::cerr << "tarn consumer: wrong results\n";
        return 1;
    }
    std::cout << "tarn consumer: all checks passed\n";
    return 0;
}
