// Stepping to neighbouring values and patterns: whole small formats walked
// end to end against the order of the exact values, and binary32/binary64
// stepped in both representations.

#include "tests/testing.h"

#include <algorithm>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

/// A pattern's position on the extended real line, for sorting.
mpq_class position(Format f, const mpz_class& bits) {
    const oracle::Format of = to_oracle(f);
    if (oracle::classify(of, bits) != oracle::Kind::Infinite) return oracle::to_rational(of, bits);
    // Beyond every finite value.
    const mpq_class far = 2 * oracle::to_rational(of, oracle::max_pattern(of, false));
    return mpz_tstbit(bits.get_mpz_t(), f.exponent_width + f.mantissa_width) ? mpq_class(-far)
                                                                             : far;
}

/// Every value of the format once, ascending, with the zero of sign `negative_zero`.
std::vector<mpz_class> ascending_values(Format f, bool negative_zero) {
    const oracle::Format of = to_oracle(f);
    const unsigned long sign = 1UL << (f.exponent_width + f.mantissa_width);
    std::vector<std::pair<mpq_class, unsigned long>> placed;
    for (unsigned long i = 0; i < 2 * sign; ++i) {
        const bool zero = (i & (sign - 1)) == 0;
        if (oracle::classify(of, mpz_class(i)) == oracle::Kind::NaN) continue;
        if (zero && (i != 0) != negative_zero) continue;
        placed.emplace_back(position(f, mpz_class(i)), i);
    }
    std::sort(placed.begin(), placed.end());
    std::vector<mpz_class> values;
    for (const auto& entry : placed)
        values.push_back(mpz_class(entry.second));
    return values;
}

class SmallFormatWalk : public testing::TestWithParam<Format> {};

// From -infinity up to +infinity and back down, one value per step: stepping
// up passes through -0 only, stepping down through +0 only.
TEST_P(SmallFormatWalk, NextRepresentableVisitsEveryValueOnce) {
    const Format f = GetParam();
    for (const bool up : {true, false}) {
        std::vector<mpz_class> expected = ascending_values(f, up);
        if (!up) std::reverse(expected.begin(), expected.end());
        IEEEFloat x = make(f, expected.front());
        for (std::size_t i = 1; i < expected.size(); ++i) {
            x.next_representable(up);
            ASSERT_EQ(bits_of(x), expected[i]) << "step " << i << (up ? " up from " : " down from ")
                                               << describe(f, expected[i - 1]);
        }
        x.next_representable(up); // the infinity at the end stays
        EXPECT_EQ(bits_of(x), expected.back());
    }
}

// Every pattern, NaN payloads included, from the bottom of the pattern order
// to its top: the negative patterns downward, then the positive ones upward.
TEST_P(SmallFormatWalk, PackedNextWalksThePatternOrder) {
    const Format f = GetParam();
    const unsigned long sign = 1UL << (f.exponent_width + f.mantissa_width);
    std::vector<unsigned long> order;
    for (unsigned long i = 2 * sign; i-- > sign;)
        order.push_back(i);
    for (unsigned long i = 0; i < sign; ++i)
        order.push_back(i);

    // NaN patterns cannot be built directly (from_bits makes them the library
    // NaN), so reach the bottom by walking down from -infinity.
    const mpz_class negative_inf = (mpz_class(1) << (f.exponent_width + f.mantissa_width + 1)) -
                                   (mpz_class(1) << f.mantissa_width);
    IEEEFloat x = make(f, negative_inf);
    while (bits_of(x) != mpz_class(order.front())) {
        const mpz_class before = bits_of(x);
        x.packed_next(false);
        ASSERT_EQ(bits_of(x), before + 1);
    }
    x.packed_next(false); // the bottom end stays
    ASSERT_EQ(bits_of(x), mpz_class(order.front()));
    for (std::size_t i = 1; i < order.size(); ++i) {
        x.packed_next(true);
        ASSERT_EQ(bits_of(x), mpz_class(order[i])) << "step " << i;
    }
    x.packed_next(true); // the top end stays
    EXPECT_EQ(bits_of(x), mpz_class(order.back()));
    for (std::size_t i = order.size() - 1; i-- > 0;) {
        x.packed_next(false);
        ASSERT_EQ(bits_of(x), mpz_class(order[i])) << "step back " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(SmallFormats, SmallFormatWalk,
                         testing::Values(Format{2, 1}, Format{3, 2}, Format{4, 3}, Format{5, 10},
                                         Format{8, 7}, Format{2, 0}),
                         FormatName());

/// Both steps of x in one representation, as four patterns.
std::vector<mpz_class> steps_of(const IEEEFloat& x) {
    std::vector<mpz_class> out;
    for (const bool up : {true, false}) {
        IEEEFloat a = x, b = x;
        a.next_representable(up);
        b.packed_next(up);
        out.push_back(bits_of(a));
        out.push_back(bits_of(b));
    }
    return out;
}

// binary32 and binary64 words step exactly as the generic path does, both
// operations agree on finite non-zero values, a step is undone by the
// opposite step, and NaNs stay.
TEST(Neighbours, WordsAgreeWithTheGenericPath) {
    for (const Format f : {Format{8, 23}, Format{11, 52}}) {
        const oracle::Format of = to_oracle(f);
        oracle::OperandGenerator gen(of, 0x5EED + f.exponent_width);
        SCOPED_TRACE(testing::Message() << "seed " << gen.seed());
        const int count = sampled(50000);
        for (int i = 0; i < count && !HasFailure(); ++i) {
            const mpz_class bits = gen.operand();
            SCOPED_TRACE(oracle::describe(of, bits));
            const IEEEFloat word = make(f, bits);
            const std::vector<mpz_class> steps = steps_of(word);
            EXPECT_EQ(steps, steps_of(make(f, bits, true)));
            const oracle::Kind kind = oracle::classify(of, bits);
            if (kind == oracle::Kind::NaN) { // NaNs stay
                EXPECT_EQ(steps[0], bits_of(word));
                EXPECT_EQ(steps[2], bits_of(word));
            } else {
                EXPECT_EQ(steps[0], oracle::next_representable(of, bits, true));
                EXPECT_EQ(steps[2], oracle::next_representable(of, bits, false));
            }
            if (kind == oracle::Kind::Subnormal || kind == oracle::Kind::Normal) {
                EXPECT_EQ(steps[0], steps[1]);
                EXPECT_EQ(steps[2], steps[3]);
                for (const bool up : {true, false}) {
                    IEEEFloat x = word;
                    x.next_representable(up);
                    EXPECT_EQ(tarn::ieee_cmp(word, x), up ? -1 : 1);
                    x.next_representable(!up);
                    if (!x.is_zero()) {
                        EXPECT_EQ(bits_of(x), bits);
                    }
                }
            }
        }
    }
}

// Stepping inward from an infinity keeps the value's rounding mode and
// representation, as every other step does.
TEST(Neighbours, InwardFromInfinityKeepsModeAndRepresentation) {
    for (const bool generic : {false, true}) {
        IEEEFloat x = make({8, 23}, mpz_class(0x7F800000), generic);
        x.set_rounding_mode(IEEEFloat::ROUND_TOWARD_ZERO);
        x.next_representable(false);
        EXPECT_EQ(bits_of(x), mpz_class(0x7F7FFFFF));
        EXPECT_EQ(x.get_rounding_mode(), IEEEFloat::ROUND_TOWARD_ZERO);
        EXPECT_EQ(x.get_repr(), generic ? IEEEFloat::REPR_GENERIC : IEEEFloat::REPR_FLOAT32);
    }
}

// The ends of the pattern order in the word representation: the top stays
// rather than wrapping into -0, the bottom rather than wrapping into +0.
TEST(Neighbours, PackedEndsStayInWords) {
    IEEEFloat top = make({8, 23}, mpz_class(0x7F800000));
    IEEEFloat bottom = make({8, 23}, mpz_class(0xFF800000));
    for (int i = 0; i < 0x7FFFFF; ++i) {
        top.packed_next(true);
        bottom.packed_next(false);
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(bits_of(top), mpz_class(0x7FFFFFFF));
        EXPECT_EQ(bits_of(bottom), mpz_class(0xFFFFFFFFu));
        top.packed_next(true);
        bottom.packed_next(false);
    }
}

} // namespace
