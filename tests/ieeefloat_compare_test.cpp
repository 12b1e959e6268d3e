// Comparisons against the reference's order of the exact values, exhaustively over
// small formats, and agreement of the binary32/binary64 words with the generic path.

#include "tarn/swflt/swflt.h"
#include "tests/testing.h"

#include <gmpxx.h>
#include <gtest/gtest.h>
#include <vector>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

/// Checks all four comparisons of a and b against the expected order.
void expect_comparisons(const IEEEFloat& a, const IEEEFloat& b, int order) {
    EXPECT_EQ(a < b, order == -1);
    EXPECT_EQ(a <= b, order == -1 || order == 0);
    EXPECT_EQ(a == b, order == 0);
    EXPECT_EQ(tarn::ieee_cmp(a, b), order);
}

class ExhaustiveComparison : public testing::TestWithParam<Format> {};

// Every pair of patterns, each NaN payload and both zeros included (from_bits
// makes every NaN the library NaN, so both operands go through it).
TEST_P(ExhaustiveComparison, EveryPairFollowsTheExactValues) {
    const Format f = GetParam();
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    std::vector<IEEEFloat> values;
    for (unsigned long i = 0; i < count; ++i)
        values.push_back(make(f, mpz_class(i)));
    for (unsigned long i = 0; i < count; ++i) {
        // Under the sanitizers every third right operand, shifted with i.
        const unsigned long step = sanitized() ? 3 : 1;
        for (unsigned long j = i % step; j < count; j += step) {
            SCOPED_TRACE(describe(f, i) + " vs " + describe(f, j));
            expect_comparisons(values[i], values[j], oracle::compare(to_oracle(f), i, j));
            if (HasFailure()) return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(SmallFormats, ExhaustiveComparison,
                         testing::Values(Format{2, 1}, Format{3, 2}, Format{4, 3}, Format{5, 2},
                                         Format{2, 4}),
                         FormatName());

// The word paths go through the soft-float component; the generic path
// through the packed integers. Both must agree, the exact order must hold and
// the component's exception byte must be left clear.
TEST(Comparison, WordsAgreeWithTheGenericPath) {
    for (const Format f : {Format{8, 23}, Format{11, 52}}) {
        const oracle::Format of = to_oracle(f);
        oracle::OperandGenerator gen(of, 0xC0FFEE + f.mantissa_width);
        SCOPED_TRACE(testing::Message() << "seed " << gen.seed());
        const mpz_class sign = mpz_class(1) << (f.exponent_width + f.mantissa_width);
        for (int i = 0; i < 20000; ++i) {
            const mpz_class a = gen.operand();
            mpz_class b;
            switch (i % 4) {
            case 0:
                b = gen.operand();
                break;
            case 1:
                b = a; // equal patterns
                break;
            case 2:
                b = a ^ sign; // opposite signs, both zeros among them
                break;
            default:
                b = a + (i % 8 < 4 ? 1 : -1); // adjacent patterns
                if (b < 0 || b >= 2 * sign) b = a;
            }
            SCOPED_TRACE(oracle::describe(of, a) + " vs " + oracle::describe(of, b));
            const int order = oracle::compare(of, a, b);
            tarn::swflt::float_exception_flags = 0;
            expect_comparisons(make(f, a), make(f, b), order);
            EXPECT_EQ(tarn::swflt::float_exception_flags, 0);
            expect_comparisons(make(f, a, true), make(f, b, true), order);
            if (HasFailure()) return;
        }
    }
}

} // namespace
