// Behaviour of the arithmetic and conversions that the differential tests
// cannot see: NaN payloads (the reference compares NaNs by class only), an
// invalid rounding mode on exact results, the alignment bound and the division of
// one-bit mantissas.

#include "tests/testing.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Mode = IEEEFloat::rounding_mode;
using Format = IEEEFloat::format;
using tarn_testing::bits_of;
using tarn_testing::error_of;

constexpr Mode nearest = IEEEFloat::ROUND_NEAREST_EVEN;
constexpr auto bad_mode = static_cast<Mode>(4);

IEEEFloat value(long num, long den, Format f, Mode mode = nearest) {
    return IEEEFloat::from_number(QNumber(num, den), f, mode);
}

// In the generic representation a NaN operand is the result as it is, with
// its own sign and payload: a positive NaN stays positive whichever side it
// is on, and subtraction does not flip it.
TEST(NanOperands, KeepTheirPatternInEitherPosition) {
    using Op = void (*)(IEEEFloat&, const IEEEFloat&);
    const Op ops[] = {[](IEEEFloat& a, const IEEEFloat& b) { a += b; },
                      [](IEEEFloat& a, const IEEEFloat& b) { a -= b; },
                      [](IEEEFloat& a, const IEEEFloat& b) { a *= b; },
                      [](IEEEFloat& a, const IEEEFloat& b) { a /= b; },
                      [](IEEEFloat& a, const IEEEFloat&) { a.sqrt(); }};
    for (const Format f : {Format{5, 10}, Format{15, 112}}) {
        IEEEFloat nan(f, nearest);
        nan.self_nan();
        nan.set_sign(false);
        const IEEEFloat two = value(2, 1, f);
        for (int k = 0; k < 5; ++k) {
            IEEEFloat left = nan, right = two;
            ops[k](left, two);
            ops[k](right, nan);
            EXPECT_EQ(bits_of(left), bits_of(nan)) << "operation " << k;
            if (k == 4) continue; // the square root reads one operand only
            EXPECT_EQ(bits_of(right), bits_of(nan)) << "operation " << k;
        }
    }
}

// An invalid rounding mode is reported only when a result must be rounded,
// and the operand is then left as it was. Checked on the word-sized formats
// and on the exact path.
class InvalidRoundingMode : public ::testing::TestWithParam<Format> {};

TEST_P(InvalidRoundingMode, FailsOnlyWhenInexact) {
    const Format f = GetParam();
    const IEEEFloat one = value(1, 1, f), three = value(3, 1, f), largest = IEEEFloat::max_value(f);

    IEEEFloat x = value(1, 1, f, bad_mode);
    x += one;
    x *= three;
    x /= three;
    EXPECT_EQ(bits_of(x), bits_of(value(2, 1, f)));

    const mpz_class before = bits_of(x);
    EXPECT_EQ(error_of([&] { x /= three; }), "bad rounding mode: 4");
    EXPECT_EQ(error_of([&] { x.sqrt(); }), "bad rounding mode: 4");
    EXPECT_EQ(bits_of(x), before);

    // An exact overflow needs no rounding: it is infinity.
    IEEEFloat big = largest;
    big.set_rounding_mode(bad_mode);
    big += largest;
    EXPECT_TRUE(big.is_inf() && !big.get_sign());

    IEEEFloat y = one;
    y.set_format({f.exponent_width, f.mantissa_width + 3});
    y.set_rounding_mode(bad_mode);
    y.set_format(f);
    EXPECT_EQ(bits_of(y), bits_of(one));
}

INSTANTIATE_TEST_SUITE_P(Formats, InvalidRoundingMode,
                         ::testing::Values(Format{5, 10}, Format{8, 7}, Format{15, 112},
                                           Format{11, 60}),
                         tarn_testing::FormatName());

// Addition aligns significands exactly, so the exponent difference it accepts
// is bounded (2^26); past it the operation throws and leaves its operand alone.
// A zero addend is never aligned, and products are not bounded.
TEST(AlignmentBound, OnlyWideExponentFieldsReachIt) {
    for (const Format f : {Format{26, 4}, Format{26, 61}, Format{27, 4}, Format{40, 4}}) {
        const bool beyond = f.exponent_width > 26;
        const IEEEFloat smallest = IEEEFloat::from_bits(QNumber(1L), f);
        IEEEFloat large = IEEEFloat::max_value(f);
        const mpz_class before = bits_of(large);
        EXPECT_EQ(error_of([&] { large -= smallest; }),
                  beyond ? "reached limit on float precision" : "no error")
            << f.exponent_width;
        EXPECT_EQ(bits_of(large), before);
        large.set_rounding_mode(IEEEFloat::ROUND_TOWARD_ZERO);
        if (!beyond) {
            large -= smallest;
            EXPECT_EQ(bits_of(large), before - 1);
        }
        const mpz_class kept = bits_of(large);
        large += IEEEFloat(f, nearest);
        EXPECT_EQ(bits_of(large), kept);
        large *= smallest;
        EXPECT_FALSE(large.is_zero());
    }
}

// With one mantissa bit the quotient 1.0 / 1.1 (binary) carries no bit below
// its round bit but the inexact marker, so nearest-even takes it for a tie.
TEST(DivisionWithOneMantissaBit, RoundsTwoThirdsAsATie) {
    for (const Format f : {Format{3, 1}, Format{40, 1}}) {
        IEEEFloat q = value(1, 1, f);
        q /= value(3, 2, f);
        EXPECT_EQ(bits_of(q), bits_of(value(1, 2, f))) << f.exponent_width;
        q = value(1, 1, f, IEEEFloat::ROUND_TOWARD_POSITIVE);
        q /= value(3, 2, f);
        EXPECT_EQ(bits_of(q), bits_of(value(3, 4, f)));
        q = value(3, 1, f);
        q /= value(2, 1, f);
        EXPECT_EQ(bits_of(q), bits_of(value(3, 2, f)));
    }
}

} // namespace
