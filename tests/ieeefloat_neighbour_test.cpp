// Stepping to neighbouring values and patterns: whole small formats against the
// reference, and binary32/binary64 stepped in both representations.

#include "tests/testing.h"

#include <algorithm>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

class SmallFormatWalk : public testing::TestWithParam<Format> {};

// Every value stepped both ways, and the pattern order walked end to end and
// back, NaN payloads included, against the reference.
TEST_P(SmallFormatWalk, EveryStepMatchesTheReference) {
    const Format f = GetParam();
    const oracle::Format of = to_oracle(f);
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    for (unsigned long i = 0; i < count; ++i) {
        if (oracle::classify(of, mpz_class(i)) == oracle::Kind::NaN) continue;
        for (const bool up : {true, false}) {
            IEEEFloat x = make(f, mpz_class(i));
            x.next_representable(up);
            ASSERT_EQ(bits_of(x), oracle::next_representable(of, i, up))
                << describe(f, i) << (up ? " up" : " down");
        }
    }
    // NaN patterns cannot be built directly (from_bits makes them the library
    // NaN), so the walk starts at -infinity and goes down to the bottom end.
    IEEEFloat x = make(f, oracle::inf_pattern(of, true));
    for (const bool up : {false, true, false})
        for (unsigned long step = 0; step <= count; ++step) {
            const mpz_class before = bits_of(x);
            x.packed_next(up);
            ASSERT_EQ(bits_of(x), oracle::packed_next(of, before, up)) << describe(f, before);
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
