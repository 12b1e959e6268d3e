// Exact values, integers and integral rounding against the MPFR oracle:
// exhaustively over small formats, on random binary32/binary64 patterns in
// both representations, and on a format too wide for machine words.

#include "tests/testing.h"

#include <gmpxx.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

// The four modes and one number that is none of them: integer conversion
// truncates under it instead of failing.
constexpr int modes[] = {0, 1, 2, 3, 5};

/// Checks to_number, to_integer at each width and under each mode, and round,
/// of one pattern against the oracle.
void check_pattern(Format f, const mpz_class& bits, bool generic,
                   std::initializer_list<unsigned long> widths) {
    const oracle::Format of = to_oracle(f);
    SCOPED_TRACE(describe(f, bits) + (generic ? " generic" : ""));
    IEEEFloat x = make(f, bits, generic);
    const mpz_class held = bits_of(x); // NaNs are held as the library NaN
    const oracle::Kind kind = oracle::classify(of, held);
    if (kind == oracle::Kind::NaN)
        EXPECT_EQ(error_of([&] { x.to_number(); }), "can't convert NaN to a Number");
    else if (kind == oracle::Kind::Infinite)
        EXPECT_EQ(error_of([&] { x.to_number(); }), "can't convert infinity to a Number");
    else {
        EXPECT_EQ(x.to_number().to_mpq(), oracle::to_rational(of, held));
    }

    for (const int mode : modes) {
        x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(mode));
        SCOPED_TRACE(testing::Message() << "mode " << mode);
        for (const unsigned long width : widths)
            EXPECT_EQ(x.to_integer(width).to_mpz(), oracle::to_integer(of, held, mode, width))
                << "width " << width;
        if (mode > 3) continue;
        const IEEEFloat r = tarn::round(x);
        EXPECT_TRUE(oracle::same_result(of, bits_of(r), oracle::round_to_integral(of, held, mode)))
            << "round gave " << describe(f, bits_of(r));
        EXPECT_EQ(r.get_rounding_mode(), mode);
        EXPECT_TRUE(r.get_format() == f);
        if (kind == oracle::Kind::Subnormal || kind == oracle::Kind::Normal) {
            EXPECT_EQ(r.get_repr(), IEEEFloat::get_best_repr(f));
        }
    }
}

class ExhaustiveExact : public testing::TestWithParam<Format> {};

TEST_P(ExhaustiveExact, EveryPatternMatchesTheOracle) {
    const Format f = GetParam();
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    // Under the sanitizers the 16-bit formats are sampled, every seventh pattern.
    const unsigned long step = sanitized() && count > 4096 ? 7 : 1;
    for (unsigned long i = 0; i < count && !HasFailure(); i += step)
        check_pattern(f, mpz_class(i), false, {0, 1, 3});
}

// (2,3): the largest finite value 3.75 rounds to the integer 4, which
// overflows the format. (5,10) is binary16.
INSTANTIATE_TEST_SUITE_P(SmallFormats, ExhaustiveExact,
                         testing::Values(Format{2, 1}, Format{3, 2}, Format{2, 3}, Format{4, 3},
                                         Format{6, 4}, Format{5, 10}),
                         FormatName());

class RandomExact : public testing::TestWithParam<RandomCase> {};

TEST_P(RandomExact, RandomPatternsMatchTheOracle) {
    const RandomCase c = GetParam();
    oracle::OperandGenerator gen(to_oracle(c.f), 0xE7AC7 + c.f.mantissa_width + c.generic);
    SCOPED_TRACE(testing::Message() << "seed " << gen.seed());
    const int count = sampled(c.count);
    for (int i = 0; i < count && !HasFailure(); ++i)
        check_pattern(c.f, gen.operand(), c.generic, {0, 1, 8, 64, 100});
}

INSTANTIATE_TEST_SUITE_P(
    WideAndWordFormats, RandomExact,
    testing::Values(RandomCase{{8, 23}, false, 4000}, RandomCase{{8, 23}, true, 2000},
                    RandomCase{{11, 52}, false, 4000}, RandomCase{{11, 52}, true, 2000},
                    RandomCase{{15, 112}, true, 1000}, RandomCase{{13, 70}, true, 500}),
    RandomCaseName());

// An exponent field so wide that the weight of the lowest bit no longer fits
// a machine word: the finite values refuse, the special ones do not.
TEST(ExactResults, PrecisionLimitOfHugeExponentFields) {
    const Format f{65, 1};
    const mpz_class smallest_normal = mpz_class(1) << 1;
    const mpz_class largest = (mpz_class(1) << 66) - 3;
    for (const mpz_class& bits : {smallest_normal, largest}) {
        const IEEEFloat x = make(f, bits);
        EXPECT_EQ(error_of([&] { x.to_number(); }), "reached limit on float precision");
        EXPECT_EQ(error_of([&] { x.to_integer(0); }), "reached limit on float precision");
        EXPECT_EQ(error_of([&] { x.to_float_str(); }), "reached limit on float precision");
    }
    const IEEEFloat inf = make(f, ((mpz_class(1) << 65) - 1) << 1);
    EXPECT_EQ(inf.to_integer(7), QNumber(0L));
    EXPECT_EQ(inf.to_str().substr(0, 11), "[65:1]+Inf{");
}

} // namespace
