// Values, bit patterns, signs and classes of IEEEFloat, through the public
// interface only.

#include "tarn/ieeefloat/ieeefloat.h"

#include <cstdint>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;

QNumber big(char const* hex) {
    return QNumber(mpz_class(hex, 16));
}
QNumber word(std::uint64_t bits) {
    return QNumber(mpz_class(std::to_string(bits), 10));
}

/// A value of `f` with the given bits, held in `repr` (a word format may be
/// asked for REPR_GENERIC to run the generic path on it).
IEEEFloat make(const QNumber& bits, Format f, IEEEFloat::Repr repr) {
    IEEEFloat x = IEEEFloat::from_bits(bits, f);
    x.self_specialize_repr(repr);
    return x;
}

// ---- Formats and construction ---------------------------------------------

TEST(IEEEFloatFormat, WidthsGiveBiasAndAllOnesFields) {
    struct Case {
        Format f;
        char const *bias, *max_exponent, *max_mantissa; // hexadecimal
    };
    for (const Case& c : {Case{{5, 10}, "f", "1f", "3ff"}, Case{{8, 23}, "7f", "ff", "7fffff"},
                          Case{{11, 52}, "3ff", "7ff", "fffffffffffff"},
                          Case{{15, 112}, "3fff", "7fff", "ffffffffffffffffffffffffffff"},
                          Case{{64, 1}, "7fffffffffffffff", "ffffffffffffffff", "1"}}) {
        SCOPED_TRACE(testing::Message()
                     << "(" << c.f.exponent_width << "," << c.f.mantissa_width << ")");
        EXPECT_EQ(c.f.bias(), big(c.bias));
        EXPECT_EQ(c.f.max_exponent(), big(c.max_exponent));
        EXPECT_EQ(c.f.max_mantissa(), big(c.max_mantissa));
    }
    EXPECT_TRUE((Format{5, 10} == Format(5, 10)));
    EXPECT_TRUE((Format{5, 10} != Format(10, 5)));
}

TEST(IEEEFloatConstruction, FormatsPickTheirRepresentationAndStartAtPlusZero) {
    struct Case {
        Format f;
        IEEEFloat::Repr best;
    };
    for (const Case& c :
         {Case{{8, 23}, IEEEFloat::REPR_FLOAT32}, Case{{11, 52}, IEEEFloat::REPR_FLOAT64},
          Case{{8, 52}, IEEEFloat::REPR_GENERIC}, Case{{11, 23}, IEEEFloat::REPR_GENERIC},
          Case{{5, 10}, IEEEFloat::REPR_GENERIC}, Case{{15, 112}, IEEEFloat::REPR_GENERIC}}) {
        EXPECT_EQ(IEEEFloat::get_best_repr(c.f), c.best);
        for (auto mode : {IEEEFloat::ROUND_NEAREST_EVEN, IEEEFloat::ROUND_TOWARD_NEGATIVE}) {
            IEEEFloat x(c.f, mode);
            EXPECT_EQ(x.get_repr(), c.best);
            EXPECT_EQ(x.get_format(), c.f);
            EXPECT_EQ(x.get_rounding_mode(), mode);
            EXPECT_TRUE(x.is_zero());
            EXPECT_FALSE(x.get_sign());
            EXPECT_EQ(x.get_bits(), QNumber(0L));
        }
    }
    IEEEFloat forced({5, 10}, IEEEFloat::REPR_FLOAT64, IEEEFloat::ROUND_TOWARD_ZERO);
    EXPECT_EQ(forced.get_repr(), IEEEFloat::REPR_FLOAT64);
    EXPECT_EQ(forced.get_bits(), QNumber(0L));

    IEEEFloat fresh;
    EXPECT_EQ(fresh.get_repr(), IEEEFloat::REPR_FLOAT32);
    EXPECT_EQ(fresh.get_format(), Format(0, 0));
    EXPECT_EQ(fresh.get_rounding_mode(), IEEEFloat::ROUND_NEAREST_EVEN);
    EXPECT_EQ(fresh.get_bits(), QNumber(0L));
    EXPECT_FALSE(fresh.get_sign());
}

TEST(IEEEFloatConstruction, RoundingModeKeepsItsLow30BitsBesideTheRepresentation) {
    IEEEFloat x({5, 10}, IEEEFloat::ROUND_TOWARD_POSITIVE);
    for (int mode : {3, 4, 5, (1 << 30) - 1}) {
        x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(mode));
        EXPECT_EQ(x.get_rounding_mode(), mode);
        EXPECT_EQ(x.get_repr(), IEEEFloat::REPR_GENERIC);
    }
    x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>((1 << 30) | 2));
    EXPECT_EQ(x.get_rounding_mode(), IEEEFloat::ROUND_TOWARD_POSITIVE);
    EXPECT_EQ(x.get_repr(), IEEEFloat::REPR_GENERIC);
    x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(-1));
    EXPECT_EQ(x.get_rounding_mode(), (1 << 30) - 1);
    EXPECT_EQ(x.get_repr(), IEEEFloat::REPR_GENERIC);
}

// ---- Copy, move and assignment across representations ---------------------

TEST(IEEEFloatCopy, CopiesAreIndependentInEveryRepresentation) {
    const std::pair<Format, QNumber> sources[] = {
        {{5, 10}, word(0x3C00)},
        {{8, 23}, word(0x3F800000)},
        {{11, 52}, word(0xBFF0000000000000)},
        {{15, 112}, big("3fff0000000000000000000000000001")}};
    for (const auto& [f, bits] : sources) {
        IEEEFloat source = IEEEFloat::from_bits(bits, f);
        IEEEFloat copy(source);
        copy.self_neg();
        EXPECT_EQ(source.get_bits(), bits);
        EXPECT_NE(copy.get_bits(), bits);

        IEEEFloat assigned({3, 2}, IEEEFloat::ROUND_TOWARD_ZERO); // generic target
        assigned = source;
        EXPECT_EQ(assigned.get_repr(), source.get_repr());
        EXPECT_EQ(assigned.get_format(), f);
        EXPECT_EQ(assigned.get_rounding_mode(), IEEEFloat::ROUND_NEAREST_EVEN);
        assigned.set_sign(!assigned.get_sign());
        EXPECT_EQ(source.get_bits(), bits);

        IEEEFloat word_target({8, 23}, IEEEFloat::ROUND_TOWARD_ZERO);
        word_target = source;
        EXPECT_EQ(word_target.get_bits(), bits);
        EXPECT_EQ(word_target.get_repr(), source.get_repr());

        IEEEFloat& alias = assigned;
        assigned = alias;
        EXPECT_EQ(assigned.get_format(), f);
        EXPECT_NE(assigned.get_bits(), bits);
    }
}

TEST(IEEEFloatCopy, MovesTakeTheStorageAndLeaveAnAssignableValue) {
    const QNumber bits = big("c0010000000000000000000000000000");
    IEEEFloat source = IEEEFloat::from_bits(bits, {15, 112});
    IEEEFloat moved(std::move(source));
    EXPECT_EQ(moved.get_bits(), bits);
    EXPECT_EQ(source.get_format(), Format(0, 0)); // NOLINT: moved-from state is documented
    EXPECT_EQ(source.get_bits(), QNumber(0L));

    source = IEEEFloat::from_bits(word(0x7BFF), {5, 10});
    EXPECT_EQ(source.get_bits(), word(0x7BFF));
    moved = std::move(source);
    EXPECT_EQ(moved.get_bits(), word(0x7BFF));
    EXPECT_EQ(moved.get_format(), Format(5, 10));
    source = moved;
    EXPECT_EQ(source.get_bits(), word(0x7BFF));
    static_assert(std::is_nothrow_move_constructible_v<IEEEFloat>);
    static_assert(std::is_nothrow_move_assignable_v<IEEEFloat>);
}

// ---- Bits in and out ----------------------------------------------------------

struct FormatCase {
    Format f;
    IEEEFloat::Repr repr;
    char const* name;
};

const FormatCase format_cases[] = {
    {{3, 2}, IEEEFloat::REPR_GENERIC, "(3,2)"},
    {{5, 10}, IEEEFloat::REPR_GENERIC, "(5,10)"},
    {{8, 23}, IEEEFloat::REPR_FLOAT32, "binary32 word"},
    {{8, 23}, IEEEFloat::REPR_GENERIC, "binary32 generic"},
    {{11, 52}, IEEEFloat::REPR_FLOAT64, "binary64 word"},
    {{11, 52}, IEEEFloat::REPR_GENERIC, "binary64 generic"},
    {{15, 112}, IEEEFloat::REPR_GENERIC, "(15,112)"},
};

/// Patterns assembled from fields: sign, biased exponent, mantissa.
mpz_class pattern(Format f, bool sign, const mpz_class& exponent, const mpz_class& mantissa) {
    mpz_class p = (exponent << f.mantissa_width) + mantissa;
    if (sign) p += mpz_class(1) << (f.exponent_width + f.mantissa_width);
    return p;
}

/// Every class of pattern, both signs, with the largest and smallest fields.
std::vector<mpz_class> non_nan_patterns(Format f) {
    const mpz_class all_ones_exponent = (mpz_class(1) << f.exponent_width) - 1;
    const mpz_class all_ones_mantissa = (mpz_class(1) << f.mantissa_width) - 1;
    std::vector<mpz_class> out;
    for (bool sign : {false, true})
        for (const mpz_class& exponent :
             {mpz_class(0), mpz_class(1), mpz_class(all_ones_exponent - 1)})
            for (const mpz_class& mantissa : {mpz_class(0), mpz_class(1), all_ones_mantissa})
                out.push_back(pattern(f, sign, exponent, mantissa));
    out.push_back(pattern(f, false, all_ones_exponent, 0));
    out.push_back(pattern(f, true, all_ones_exponent, 0));
    return out;
}

TEST(IEEEFloatBits, FromBitsThenGetBitsGivesThePatternBack) {
    for (const FormatCase& c : format_cases) {
        SCOPED_TRACE(c.name);
        for (const mpz_class& p : non_nan_patterns(c.f)) {
            IEEEFloat x = make(QNumber(p), c.f, c.repr);
            EXPECT_EQ(x.get_repr(), c.repr);
            EXPECT_EQ(x.get_rounding_mode(), IEEEFloat::ROUND_NEAREST_EVEN);
            EXPECT_EQ(x.get_bits().to_mpz(), p) << std::hex << p;
            IEEEFloat again = make(x.get_bits(), c.f, c.repr);
            EXPECT_EQ(again.get_bits().to_mpz(), p);
        }
    }
}

TEST(IEEEFloatBits, EveryNaNBecomesTheLibraryNaN) {
    for (const FormatCase& c : format_cases) {
        SCOPED_TRACE(c.name);
        const Format f = c.f;
        const mpz_class ones = (mpz_class(1) << f.exponent_width) - 1;
        const mpz_class top_mantissa = mpz_class(1) << (f.mantissa_width - 1);
        const mpz_class library_nan = pattern(f, true, ones, 1);
        for (bool sign : {false, true})
            for (const mpz_class& mantissa :
                 {mpz_class(1), top_mantissa, mpz_class(top_mantissa + 1),
                  mpz_class(2 * top_mantissa - 1)}) {
                IEEEFloat x = make(QNumber(pattern(f, sign, ones, mantissa)), f, c.repr);
                EXPECT_TRUE(x.is_nan());
                EXPECT_EQ(x.get_bits().to_mpz(), library_nan) << std::hex << mantissa;
            }
    }
    EXPECT_EQ(IEEEFloat::from_bits(word(0x7FC00000), {8, 23}).get_bits(), word(0xFF800001));
    EXPECT_EQ(IEEEFloat::from_bits(word(0x7FF8000000000000), {11, 52}).get_bits(),
              word(0xFFF0000000000001));
    EXPECT_EQ(IEEEFloat::from_bits(word(0x7E00), {5, 10}).get_bits(), word(0xFC01));
}

TEST(IEEEFloatBits, WordFormatsKeepOnlyTheLowBitsOfTheirPattern) {
    // No masking happens in from_bits; the word simply cannot hold more.
    IEEEFloat x = IEEEFloat::from_bits(big("1233f800000"), {8, 23});
    EXPECT_EQ(x.get_bits(), word(0x3F800000));
    IEEEFloat y = IEEEFloat::from_bits(big("ab8000000000000000"), {11, 52});
    EXPECT_EQ(y.get_bits(), word(0x8000000000000000));
    EXPECT_TRUE(y.get_sign());
    EXPECT_TRUE(y.is_zero());
}

// ---- Classes -------------------------------------------------------------------

enum class Class { zero, subnormal, normal, inf, nan };

/// The class of a pattern, decoded from its fields by plain arithmetic.
Class decode(Format f, const mpz_class& p) {
    const mpz_class exponent = (p >> f.mantissa_width) % (mpz_class(1) << f.exponent_width);
    const mpz_class mantissa = p % (mpz_class(1) << f.mantissa_width);
    if (exponent == 0) return mantissa == 0 ? Class::zero : Class::subnormal;
    if (exponent == (mpz_class(1) << f.exponent_width) - 1)
        return mantissa == 0 ? Class::inf : Class::nan;
    return Class::normal;
}

void expect_class(const IEEEFloat& x, Class expected, const mpz_class& p) {
    const bool answers[] = {x.is_zero(), x.is_subnormal(), x.is_normal(), x.is_inf(), x.is_nan()};
    for (int k = 0; k < 5; ++k)
        ASSERT_EQ(answers[k], k == static_cast<int>(expected))
            << "pattern 0x" << p.get_str(16) << " test " << k;
}

TEST(IEEEFloatClass, ExactlyOneClassHoldsForEveryPatternOfSmallFormats) {
    const Format formats[] = {{2, 1}, {3, 2}, {2, 5}, {4, 3}, {5, 2}, {6, 9}, {8, 7}, {5, 10}};
    for (Format f : formats) {
        const unsigned long patterns = 1UL << (f.exponent_width + f.mantissa_width + 1);
        IEEEFloat x(f, IEEEFloat::ROUND_NEAREST_EVEN);
        for (unsigned long p = 0; p < patterns; ++p) {
            const mpz_class bits(p);
            x = IEEEFloat::from_bits(QNumber(static_cast<long>(p)), f);
            expect_class(x, decode(f, bits), bits);
            if (decode(f, bits) != Class::nan) {
                ASSERT_EQ(x.get_sign(), ((p >> (f.exponent_width + f.mantissa_width)) & 1) != 0);
            }
        }
    }
}

TEST(IEEEFloatClass, BigFormPatternsClassifyLikeSmallOnes) {
    for (Format f : {Format{15, 112}, Format{11, 64}, Format{3, 100}, Format{70, 3}}) {
        SCOPED_TRACE(testing::Message() << f.exponent_width << "," << f.mantissa_width);
        std::vector<mpz_class> patterns = non_nan_patterns(f);
        const mpz_class ones = (mpz_class(1) << f.exponent_width) - 1;
        patterns.push_back(pattern(f, false, ones, 1));
        patterns.push_back(pattern(f, true, ones, (mpz_class(1) << f.mantissa_width) - 1));
        patterns.push_back(pattern(f, false, ones - 1, (mpz_class(1) << f.mantissa_width) - 1));
        for (const mpz_class& p : patterns) {
            IEEEFloat x = IEEEFloat::from_bits(QNumber(p), f);
            expect_class(x, decode(f, p), p);
        }
    }
    const QNumber inf = big("7fff0000000000000000000000000000");
    EXPECT_TRUE(IEEEFloat::from_bits(inf, {15, 112}).is_inf());
    EXPECT_TRUE(IEEEFloat::from_bits(inf + 1L, {15, 112}).is_nan());
}

TEST(IEEEFloatClass, WordAndGenericRepresentationsAgree) {
    std::mt19937_64 rng(20261122);
    for (Format f : {Format{8, 23}, Format{11, 52}}) {
        const unsigned long width = f.exponent_width + f.mantissa_width + 1;
        std::vector<mpz_class> patterns = non_nan_patterns(f);
        for (int k = 0; k < 20000; ++k) {
            std::uint64_t p = rng() & (width == 64 ? ~0ULL : (1ULL << width) - 1);
            if (k % 4 == 0)
                p &= ~(((1ULL << f.exponent_width) - 1) << f.mantissa_width); // subnormal or zero
            if (k % 4 == 1) p |= ((1ULL << f.exponent_width) - 1) << f.mantissa_width; // inf or NaN
            patterns.push_back(mpz_class(std::to_string(p)));
        }
        for (const mpz_class& p : patterns) {
            IEEEFloat in_word = make(QNumber(p), f, IEEEFloat::get_best_repr(f));
            IEEEFloat generic = make(QNumber(p), f, IEEEFloat::REPR_GENERIC);
            const bool same = in_word.get_bits() == generic.get_bits() &&
                              in_word.get_sign() == generic.get_sign() &&
                              in_word.is_zero() == generic.is_zero() &&
                              in_word.is_subnormal() == generic.is_subnormal() &&
                              in_word.is_normal() == generic.is_normal() &&
                              in_word.is_inf() == generic.is_inf() &&
                              in_word.is_nan() == generic.is_nan();
            ASSERT_TRUE(same) << "pattern 0x" << p.get_str(16);
            in_word.self_neg();
            generic.self_neg();
            ASSERT_EQ(in_word.get_bits(), generic.get_bits()) << "negated 0x" << p.get_str(16);
            in_word.set_sign(true);
            generic.set_sign(true);
            ASSERT_EQ(in_word.get_bits(), generic.get_bits()) << "set sign 0x" << p.get_str(16);
            generic.self_specialize_repr(IEEEFloat::get_best_repr(f));
            ASSERT_EQ(generic.get_repr(), in_word.get_repr());
            ASSERT_EQ(in_word.get_bits(), generic.get_bits());
        }
    }
}

// ---- Signs -----------------------------------------------------------------------

TEST(IEEEFloatSign, NegationFlipsEverythingButNaN) {
    for (const FormatCase& c : format_cases) {
        SCOPED_TRACE(c.name);
        for (const mpz_class& p : non_nan_patterns(c.f)) {
            IEEEFloat x = make(QNumber(p), c.f, c.repr);
            const bool sign = x.get_sign();
            x.self_neg();
            EXPECT_NE(x.get_sign(), sign);
            x.self_neg();
            EXPECT_EQ(x.get_bits().to_mpz(), p);
        }
        IEEEFloat nan = make(QNumber(0L), c.f, c.repr);
        nan.self_nan();
        const QNumber nan_bits = nan.get_bits();
        nan.self_neg();
        EXPECT_EQ(nan.get_bits(), nan_bits);
    }
}

TEST(IEEEFloatSign, SetSignTouchesOnlyTheSignBit) {
    const QNumber bits = big("3fff123456789abcdef0123456789abc");
    IEEEFloat x = IEEEFloat::from_bits(bits, {15, 112});
    x.set_sign(true);
    QNumber expected = bits;
    expected += QNumber(mpz_class(mpz_class(1) << 127));
    EXPECT_EQ(x.get_bits(), expected);
    EXPECT_TRUE(x.get_sign());
    x.set_sign(true);
    EXPECT_EQ(x.get_bits(), expected);
    x.set_sign(false);
    EXPECT_EQ(x.get_bits(), bits);

    IEEEFloat nan = IEEEFloat::from_bits(word(0x7C01), {5, 10});
    nan.set_sign(false);
    EXPECT_EQ(nan.get_bits(), word(0x7C01));
    EXPECT_TRUE(IEEEFloat::from_bits(word(0x80000000), {8, 23}).get_sign());
    EXPECT_EQ(IEEEFloat::from_bits(word(0x8000000000000000), {11, 52}).get_bits().to_mpz(),
              mpz_class(1) << 63);
}

// ---- Special values ------------------------------------------------------------------

TEST(IEEEFloatSpecial, GenericSpecialValuesHaveTheirPatterns) {
    struct Case {
        Format f;
        char const *nan, *minus_inf, *minus_zero, *max; // hexadecimal
    };
    for (const Case& c :
         {Case{{5, 10}, "fc01", "fc00", "8000", "7bff"}, Case{{3, 2}, "3d", "3c", "20", "1b"},
          Case{{15, 112},
               "ffff0000000000000000000000000001",
               "ffff0000000000000000000000000000",
               "80000000000000000000000000000000",
               "7ffeffffffffffffffffffffffffffff"}}) {
        IEEEFloat x(c.f, IEEEFloat::ROUND_TOWARD_ZERO);
        x.self_nan();
        EXPECT_EQ(x.get_bits(), big(c.nan));
        EXPECT_TRUE(x.is_nan() && x.get_sign());
        x.self_inf(true);
        EXPECT_EQ(x.get_bits(), big(c.minus_inf));
        x.self_inf(false);
        EXPECT_TRUE(x.is_inf() && !x.get_sign());
        x.self_zero(true);
        EXPECT_EQ(x.get_bits(), big(c.minus_zero));
        x.self_zero(false);
        EXPECT_EQ(x.get_bits(), QNumber(0L));
        EXPECT_EQ(x.get_rounding_mode(), IEEEFloat::ROUND_TOWARD_ZERO);
        EXPECT_EQ(x.get_repr(), IEEEFloat::REPR_GENERIC);

        IEEEFloat max = IEEEFloat::max_value(c.f);
        EXPECT_EQ(max.get_bits(), big(c.max));
        EXPECT_TRUE(max.is_normal());
        EXPECT_EQ(max.get_repr(), IEEEFloat::REPR_GENERIC);
    }
}

TEST(IEEEFloatSpecial, WordSpecialValues) {
    struct Case {
        Format f;
        std::uint64_t sign, max;
    };
    for (const Case& c : {Case{{8, 23}, 0x80000000, 0x7F7FFFFF},
                          Case{{11, 52}, 0x8000000000000000, 0x7FEFFFFFFFFFFFFF}}) {
        IEEEFloat x(c.f, IEEEFloat::ROUND_TOWARD_POSITIVE);
        x.self_zero(true);
        EXPECT_EQ(x.get_bits(), word(c.sign));
        x.self_zero(false);
        EXPECT_EQ(x.get_bits(), word(0));
        x.self_inf(true);
        EXPECT_TRUE(x.is_inf() && x.get_sign());
        x.self_inf(false);
        EXPECT_TRUE(x.is_inf() && !x.get_sign());
        x.self_nan();
        EXPECT_TRUE(x.is_nan());
        EXPECT_EQ(x.get_repr(), IEEEFloat::get_best_repr(c.f));
        EXPECT_EQ(x.get_rounding_mode(), IEEEFloat::ROUND_TOWARD_POSITIVE);

        IEEEFloat max = IEEEFloat::max_value(c.f);
        EXPECT_EQ(max.get_repr(), IEEEFloat::get_best_repr(c.f));
        EXPECT_EQ(max.get_bits(), word(c.max));
    }
}

TEST(IEEEFloatSpecial, NormalBoundaries) {
    for (const FormatCase& c : format_cases) {
        SCOPED_TRACE(c.name);
        const mpz_class smallest_normal = mpz_class(1) << c.f.mantissa_width;
        IEEEFloat x = make(QNumber(smallest_normal), c.f, c.repr);
        EXPECT_TRUE(x.is_normal());
        x = make(QNumber(mpz_class(smallest_normal - 1)), c.f, c.repr);
        EXPECT_TRUE(x.is_subnormal());
        EXPECT_FALSE(x.is_normal());
        x = IEEEFloat::max_value(c.f);
        x.self_specialize_repr(c.repr);
        EXPECT_TRUE(x.is_normal());
    }
}

// ---- Errors -----------------------------------------------------------------------------

TEST(IEEEFloatError, IsATarnExceptionCarryingItsMessage) {
    try {
        throw IEEEFloat::error("reached limit on float precision");
    } catch (const tarn::Exception& e) {
        EXPECT_STREQ(e.what(), "reached limit on float precision");
    }
    try {
        throw IEEEFloat::error("can't convert NaN to a Number");
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "can't convert NaN to a Number");
    }
}

} // namespace
