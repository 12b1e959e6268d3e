// Values, bit patterns, signs and classes of IEEEFloat, through the public
// interface only.

#include "tests/testing.h"

#include <gmpxx.h>
#include <gtest/gtest.h>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;
using Repr = IEEEFloat::Repr;

using tarn_testing::bits_of;

mpz_class hex(char const* digits) {
    return mpz_class(digits, 16);
}

/// A value of `f` with the given bits, held in `repr` (a word format may be
/// asked for REPR_GENERIC, to run the generic path on it).
IEEEFloat make(const mpz_class& bits, Format f, Repr repr) {
    return tarn_testing::make(f, bits, repr == IEEEFloat::REPR_GENERIC);
}

mpz_class pattern(Format f, bool sign, const mpz_class& exponent, const mpz_class& mantissa) {
    return oracle::make_pattern(tarn_testing::to_oracle(f), sign, exponent, mantissa);
}

/// Zeros, the extreme subnormals and normals, and infinities, of both signs.
std::vector<mpz_class> non_nan_patterns(Format f) {
    const mpz_class ones_e = (mpz_class(1) << f.exponent_width) - 1;
    const mpz_class ones_m = (mpz_class(1) << f.mantissa_width) - 1;
    std::vector<mpz_class> out;
    for (bool sign : {false, true}) {
        for (const mpz_class& exponent : {mpz_class(0), mpz_class(1), mpz_class(ones_e - 1)})
            for (const mpz_class& mantissa : {mpz_class(0), mpz_class(1), ones_m})
                out.push_back(pattern(f, sign, exponent, mantissa));
        out.push_back(pattern(f, sign, ones_e, 0));
    }
    return out;
}

struct FormatCase {
    Format f;
    Repr repr;
};
const FormatCase format_cases[] = {
    {{3, 2}, IEEEFloat::REPR_GENERIC},   {{5, 10}, IEEEFloat::REPR_GENERIC},
    {{8, 23}, IEEEFloat::REPR_FLOAT32},  {{8, 23}, IEEEFloat::REPR_GENERIC},
    {{11, 52}, IEEEFloat::REPR_FLOAT64}, {{11, 52}, IEEEFloat::REPR_GENERIC},
    {{15, 112}, IEEEFloat::REPR_GENERIC}};

std::string name(const FormatCase& c) {
    return "(" + std::to_string(c.f.exponent_width) + "," + std::to_string(c.f.mantissa_width) +
           ") repr " + std::to_string(c.repr);
}

TEST(IEEEFloatFormat, WidthsGiveBiasFieldsAndRepresentation) {
    struct Case {
        Format f;
        Repr best;
        char const *bias, *max_exponent, *max_mantissa; // hexadecimal
    };
    const Repr generic = IEEEFloat::REPR_GENERIC;
    for (const Case& c : {Case{{5, 10}, generic, "f", "1f", "3ff"},
                          Case{{8, 23}, IEEEFloat::REPR_FLOAT32, "7f", "ff", "7fffff"},
                          Case{{11, 52}, IEEEFloat::REPR_FLOAT64, "3ff", "7ff", "fffffffffffff"},
                          Case{{8, 52}, generic, "7f", "ff", "fffffffffffff"},
                          Case{{11, 23}, generic, "3ff", "7ff", "7fffff"},
                          Case{{15, 112}, generic, "3fff", "7fff", "ffffffffffffffffffffffffffff"},
                          Case{{64, 1}, generic, "7fffffffffffffff", "ffffffffffffffff", "1"}}) {
        EXPECT_EQ(c.f.bias().to_mpz(), hex(c.bias));
        EXPECT_EQ(c.f.max_exponent().to_mpz(), hex(c.max_exponent));
        EXPECT_EQ(c.f.max_mantissa().to_mpz(), hex(c.max_mantissa));
        EXPECT_EQ(IEEEFloat::get_best_repr(c.f), c.best);
        IEEEFloat zero(c.f, IEEEFloat::ROUND_TOWARD_NEGATIVE);
        EXPECT_EQ(zero.get_repr(), c.best);
        EXPECT_TRUE(zero.get_format() == c.f && zero.is_zero() && !zero.get_sign());
        EXPECT_EQ(zero.get_rounding_mode(), IEEEFloat::ROUND_TOWARD_NEGATIVE);
    }
    const IEEEFloat fresh;
    EXPECT_TRUE(fresh.get_format() == Format(0, 0) && fresh.get_repr() == IEEEFloat::REPR_FLOAT32);
    EXPECT_TRUE(fresh.get_bits() == QNumber(0L) && !fresh.get_sign());
}

TEST(IEEEFloatCopy, CopiesAreDeepAndMovesLeaveAnAssignableValue) {
    for (const FormatCase& c : format_cases) {
        SCOPED_TRACE(name(c));
        const mpz_class bits = non_nan_patterns(c.f)[5];
        const IEEEFloat source = make(bits, c.f, c.repr);
        for (IEEEFloat target : {IEEEFloat({3, 2}, IEEEFloat::ROUND_TOWARD_ZERO),
                                 IEEEFloat({8, 23}, IEEEFloat::ROUND_TOWARD_ZERO)}) {
            target = source;
            EXPECT_TRUE(target.get_format() == c.f && target.get_repr() == c.repr);
            EXPECT_EQ(target.get_rounding_mode(), IEEEFloat::ROUND_NEAREST_EVEN);
            target.self_neg();
            EXPECT_NE(bits_of(target), bits);
            const IEEEFloat& alias = target;
            target = alias;
            EXPECT_NE(bits_of(target), bits);
        }
        IEEEFloat copy(source);
        copy.set_sign(!copy.get_sign());
        EXPECT_EQ(bits_of(source), bits);

        IEEEFloat moved(std::move(copy));
        EXPECT_NE(bits_of(moved), bits);
        EXPECT_TRUE(copy.get_format() == Format(0, 0) && copy.get_bits() == QNumber(0L)); // NOLINT
        copy = std::move(moved);
        moved = source;
        EXPECT_EQ(bits_of(moved), bits);
        EXPECT_NE(bits_of(copy), bits);
    }
    static_assert(std::is_nothrow_move_constructible_v<IEEEFloat> &&
                  std::is_nothrow_move_assignable_v<IEEEFloat>);
}

TEST(IEEEFloatBits, PatternsComeBackSignsFlipAndEveryNaNBecomesTheLibraryNaN) {
    for (const FormatCase& c : format_cases) {
        SCOPED_TRACE(name(c));
        for (const mpz_class& p : non_nan_patterns(c.f)) {
            const IEEEFloat x = make(p, c.f, c.repr);
            EXPECT_EQ(x.get_repr(), c.repr);
            EXPECT_EQ(bits_of(x), p) << std::hex << p;
            EXPECT_EQ(bits_of(make(bits_of(x), c.f, c.repr)), p);
            IEEEFloat negated = x; // the sign operations touch only the sign bit
            negated.self_neg();
            EXPECT_EQ(bits_of(negated) ^ p, mpz_class(1)
                                                << (c.f.exponent_width + c.f.mantissa_width));
            negated.set_sign(x.get_sign());
            EXPECT_EQ(bits_of(negated), p);
        }
        const mpz_class ones = (mpz_class(1) << c.f.exponent_width) - 1;
        const mpz_class top = mpz_class(1) << (c.f.mantissa_width - 1);
        for (bool sign : {false, true})
            for (const mpz_class& mantissa :
                 {mpz_class(1), top, mpz_class(top + 1), mpz_class(2 * top - 1)})
                EXPECT_EQ(bits_of(make(pattern(c.f, sign, ones, mantissa), c.f, c.repr)),
                          pattern(c.f, true, ones, 1));
    }
    EXPECT_EQ(bits_of(IEEEFloat::from_bits(QNumber(0x7FC00000L), {8, 23})), 0xFF800001);
    EXPECT_EQ(bits_of(IEEEFloat::from_bits(QNumber(hex("7ff8000000000000")), {11, 52})),
              hex("fff0000000000001"));
    // Nothing is masked, but a word keeps only its own bits.
    EXPECT_EQ(bits_of(IEEEFloat::from_bits(QNumber(hex("1233f800000")), {8, 23})), 0x3F800000);
    EXPECT_EQ(bits_of(IEEEFloat::from_bits(QNumber(hex("ab8000000000000000")), {11, 52})),
              hex("8000000000000000"));
}

using Kind = oracle::Kind;

Kind decode(Format f, const mpz_class& p) {
    return oracle::classify(tarn_testing::to_oracle(f), p);
}

/// Exactly the one class query of the pattern's class answers true.
void expect_class(const IEEEFloat& x, Format f, const mpz_class& p) {
    const bool answers[] = {x.is_zero(), x.is_subnormal(), x.is_normal(), x.is_inf(), x.is_nan()};
    for (int k = 0; k < 5; ++k)
        ASSERT_EQ(answers[k], k == static_cast<int>(decode(f, p)))
            << "pattern 0x" << p.get_str(16) << ", test " << k;
}

TEST(IEEEFloatClass, ExactlyTheDecodedClassHoldsForEveryPattern) {
    for (Format f : {Format{2, 1}, Format{3, 2}, Format{2, 5}, Format{4, 3}, Format{5, 2},
                     Format{8, 7}, Format{5, 10}}) {
        const long sign_bit = 1L << (f.exponent_width + f.mantissa_width);
        for (long p = 0; p < 2 * sign_bit; ++p) {
            const IEEEFloat x = IEEEFloat::from_bits(QNumber(p), f);
            expect_class(x, f, p);
            ASSERT_TRUE(decode(f, p) == Kind::NaN || x.get_sign() == (p >= sign_bit)) << p;
        }
    }
    // Patterns that need the big form answer the same way.
    for (Format f : {Format{15, 112}, Format{11, 64}, Format{3, 100}, Format{70, 3}}) {
        std::vector<mpz_class> patterns = non_nan_patterns(f);
        const mpz_class ones = (mpz_class(1) << f.exponent_width) - 1;
        patterns.push_back(pattern(f, false, ones, 1));
        patterns.push_back(pattern(f, true, ones, (mpz_class(1) << f.mantissa_width) - 1));
        for (const mpz_class& p : patterns)
            expect_class(IEEEFloat::from_bits(QNumber(p), f), f, p);
    }
}

// The word representations decode their own bits; the generic path must agree.
TEST(IEEEFloatClass, RandomPatternsInBothRepresentations) {
    for (Format f : {Format{8, 23}, Format{11, 52}}) {
        oracle::OperandGenerator gen(tarn_testing::to_oracle(f), 20261122);
        const mpz_class sign_bit = mpz_class(1) << (f.exponent_width + f.mantissa_width);
        for (int k = 0; k < 20000; ++k) {
            const mpz_class p = gen.operand();
            for (Repr repr : {IEEEFloat::get_best_repr(f), IEEEFloat::REPR_GENERIC}) {
                const IEEEFloat x = make(p, f, repr);
                expect_class(x, f, p);
                ASSERT_TRUE(decode(f, p) == Kind::NaN || x.get_sign() == (p >= sign_bit)) << p;
            }
        }
    }
}

TEST(IEEEFloatSpecial, SpecialValuesAndTheLargestFiniteValue) {
    struct Case {
        Format f;
        char const *nan, *minus_inf, *minus_zero, *max; // hexadecimal; nan "" when the word's own
    };
    for (const Case& c :
         {Case{{5, 10}, "fc01", "fc00", "8000", "7bff"}, Case{{3, 2}, "3d", "3c", "20", "1b"},
          Case{{15, 112},
               "ffff0000000000000000000000000001",
               "ffff0000000000000000000000000000",
               "80000000000000000000000000000000",
               "7ffeffffffffffffffffffffffffffff"},
          Case{{8, 23}, "", "ff800000", "80000000", "7f7fffff"},
          Case{{11, 52}, "", "fff0000000000000", "8000000000000000", "7fefffffffffffff"}}) {
        IEEEFloat x(c.f, IEEEFloat::ROUND_TOWARD_ZERO);
        x.self_nan();
        const mpz_class nan_bits = bits_of(x);
        x.self_neg();
        EXPECT_TRUE(x.is_nan() && bits_of(x) == nan_bits);
        EXPECT_TRUE(!*c.nan || nan_bits == hex(c.nan));
        x.self_inf(true);
        EXPECT_EQ(bits_of(x), hex(c.minus_inf));
        x.self_inf(false);
        EXPECT_TRUE(x.is_inf() && !x.get_sign());
        x.self_zero(true);
        EXPECT_EQ(bits_of(x), hex(c.minus_zero));
        x.self_zero(false);
        EXPECT_EQ(bits_of(x), 0);
        EXPECT_TRUE(x.get_rounding_mode() == IEEEFloat::ROUND_TOWARD_ZERO &&
                    x.get_repr() == IEEEFloat::get_best_repr(c.f));

        const IEEEFloat max = IEEEFloat::max_value(c.f);
        EXPECT_EQ(bits_of(max), hex(c.max));
        EXPECT_TRUE(max.is_normal() && max.get_repr() == IEEEFloat::get_best_repr(c.f));
    }
}

} // namespace
