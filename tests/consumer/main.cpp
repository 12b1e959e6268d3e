// Uses the installed headers and library the way a user's program would:
// rounds 1/3 into binary16 under two modes, adds in binary64 on the word path,
// and reads results back as exact rationals, one of them made with BVNumber. Exits non-zero on any
// mismatch, so a package that links but computes wrongly is caught too.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/numbers/bvnumber.h"

#include <iostream>
#include <sstream>
#include <string>

namespace {

int failures = 0;

void expect(const std::string& what, const std::string& got, const std::string& want) {
    if (got == want) return;
    std::cerr << what << ": got " << got << ", want " << want << "\n";
    ++failures;
}

std::string hex_bits(const tarn::IEEEFloat& x) {
    return x.get_bits().to_mpz().get_str(16);
}

} // namespace

int main() {
    using tarn::IEEEFloat;
    using tarn::QNumber;

    const IEEEFloat::format binary16{5, 10};
    const QNumber third(1, 3);
    expect("1/3 nearest in binary16",
           hex_bits(IEEEFloat::from_number(third, binary16, IEEEFloat::ROUND_NEAREST_EVEN)),
           "3555");
    expect("1/3 upward in binary16",
           hex_bits(IEEEFloat::from_number(third, binary16, IEEEFloat::ROUND_TOWARD_POSITIVE)),
           "3556");

    const IEEEFloat::format binary64{11, 52};
    IEEEFloat sum = IEEEFloat::from_number(QNumber(1, 10), binary64, IEEEFloat::ROUND_NEAREST_EVEN);
    sum += IEEEFloat::from_number(QNumber(2, 10), binary64, IEEEFloat::ROUND_NEAREST_EVEN);
    expect("0.1 + 0.2 in binary64", sum.to_float_str(), "0.30000000000000004");

    IEEEFloat root = IEEEFloat::from_number(QNumber(2L), {4, 3}, IEEEFloat::ROUND_NEAREST_EVEN);
    root.sqrt();
    std::ostringstream exact;
    exact << root.to_number();
    expect("sqrt(2) in (4,3), exactly", exact.str(), "11/8");

    QNumber two_to_100;
    tarn::BVNumber::pow2(100, &two_to_100);
    const IEEEFloat big =
        IEEEFloat::from_number(two_to_100, {15, 112}, IEEEFloat::ROUND_TOWARD_ZERO);
    expect("2^100 through binary128", big.to_number() == two_to_100 ? "exact" : "changed", "exact");

    if (failures != 0) return 1;
    std::cout << "tarn consumer: all checks passed\n";
    return 0;
}
