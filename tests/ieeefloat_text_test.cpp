// The two text forms. The shortest numerals are held against the reference's own
// search over digit counts on exact rationals, exhaustively over small formats and
// on random binary32, binary64 and wide patterns, and each must read back (by
// MPFR) as the value it was written from.

#include "tests/testing.h"

#include <cstdint>
#include <cstring>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

IEEEFloat binary64(double v) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return make({11, 52}, mpz_class(std::to_string(bits)));
}

/// to_float_str of a finite non-zero pattern against the reference.
void check_pattern(Format f, const mpz_class& bits, bool generic) {
    const oracle::Format of = to_oracle(f);
    const oracle::Kind kind = oracle::classify(of, bits);
    if (kind != oracle::Kind::Subnormal && kind != oracle::Kind::Normal) return;
    const std::string text = make(f, bits, generic).to_float_str();
    EXPECT_EQ(text, oracle::shortest_decimal(of, bits)) << describe(f, bits);
    EXPECT_EQ(oracle::read_numeral(of, text, oracle::NEAREST_EVEN), bits) << text << " reads back";
}

class ExhaustiveText : public testing::TestWithParam<Format> {};

TEST_P(ExhaustiveText, EveryFinitePatternHasItsShortestNumeral) {
    const Format f = GetParam();
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    // Under the sanitizers the 16-bit formats are sampled, every seventh pattern.
    const unsigned long step = sanitized() && count > 4096 ? 7 : 1;
    for (unsigned long i = 0; i < count && !HasFailure(); i += step)
        check_pattern(f, mpz_class(i), false);
}

INSTANTIATE_TEST_SUITE_P(SmallFormats, ExhaustiveText,
                         testing::Values(Format{2, 1}, Format{3, 2}, Format{4, 3}, Format{5, 2},
                                         Format{2, 6}, Format{5, 10}, Format{8, 7}),
                         FormatName());

class RandomText : public testing::TestWithParam<RandomCase> {};

// Uniform patterns cover every binade; the oracle's edge-biased operands add
// the boundaries, powers of two and values near 1.
TEST_P(RandomText, RandomPatternsHaveTheirShortestNumerals) {
    const RandomCase c = GetParam();
    oracle::OperandGenerator gen(to_oracle(c.f), 0x7E47 + c.f.mantissa_width + c.generic);
    SCOPED_TRACE(testing::Message() << "seed " << gen.seed());
    const unsigned long width = c.f.exponent_width + c.f.mantissa_width + 1;
    const int count = sampled(c.count);
    for (int i = 0; i < count && !HasFailure(); ++i) {
        mpz_class bits = gen.operand();
        if (i % 2 == 0) {
            bits = 0;
            for (unsigned long w = 0; w < width; w += 32)
                bits = (bits << 32) + static_cast<unsigned long>(gen.engine()() & 0xFFFFFFFF);
            bits &= (mpz_class(1) << width) - 1;
        }
        check_pattern(c.f, bits, c.generic);
    }
}

INSTANTIATE_TEST_SUITE_P(WideAndWordFormats, RandomText,
                         testing::Values(RandomCase{{8, 23}, false, 50000},
                                         RandomCase{{11, 52}, false, 50000},
                                         RandomCase{{11, 52}, true, 20000},
                                         RandomCase{{15, 112}, true, 5000},
                                         RandomCase{{6, 300}, true, 3000}),
                         RandomCaseName());

// With an ulp of 1/8, N + 1/4 lies midway between the one-decimal numerals N.2
// and N.3, both inside its rounding interval while no integer is: a tie that
// keeps the lower numeral. Significands this wide are searched on GMP
// integers, which random patterns almost never bring to such a tie.
TEST(Text, WideSignificandTiesKeepTheLowerNumeral) {
    for (const Format f : {Format{11, 59}, Format{15, 64}, Format{15, 112}, Format{15, 140}}) {
        const unsigned long m = f.mantissa_width;
        const mpz_class low = pow2z(m - 3);
        for (const mpz_class& n : {low, mpz_class(2 * low - 1), mpz_class(low + 1234567890123)}) {
            for (const int quarters : {1, 3}) {
                const mpq_class value(4 * n + quarters, 4);
                const mpz_class bits =
                    oracle::from_rational(value, to_oracle(f), oracle::NEAREST_EVEN);
                check_pattern(f, bits, true);
                const std::string text = make(f, bits, true).to_float_str();
                EXPECT_EQ(text.back(), quarters == 1 ? '2' : '7') << text;
            }
        }
    }
}

// The diagnostic form, the choices random patterns rarely reach, and formats
// with no values but zero.
TEST(Text, DiagnosticFormLandmarksAndEmptyFormats) {
    const std::pair<std::uint32_t, std::string> diagnostics[] = {
        {0x3DCCCCCD, "[8:23]0.1{0_01111011_10011001100110011001101}"},
        {0x80000000, "[8:23]-0{1_00000000_00000000000000000000000}"},
        {0xFF800000, "[8:23]-Inf{1_11111111_00000000000000000000000}"},
        {0x7FC00000, "[8:23]NaN{1_11111111_00000000000000000000001}"},
    };
    for (const auto& [bits, text] : diagnostics) {
        for (const bool generic : {false, true})
            EXPECT_EQ(make({8, 23}, bits, generic).to_str(), text) << std::hex << bits;
    }
    // Other NaN patterns are printed as they are held (from_bits would make them
    // the library NaN, so one is reached by stepping the pattern).
    IEEEFloat positive_nan = make({8, 23}, 0x7F800000);
    positive_nan.packed_next(true);
    EXPECT_EQ(positive_nan.to_str(), "[8:23]NaN{0_11111111_00000000000000000000001}");
    EXPECT_EQ(make({3, 2}, 56).to_str(), "[3:2]-8{1_110_00}");
    EXPECT_EQ(make({2, 0}, 1).to_str(), "[2:0]1{0_01}");

    // Exactly halfway between the two shortest candidates: the lower is kept.
    EXPECT_EQ(binary64(623203260495222.75).to_float_str(), "623203260495222.7");
    // The 16-digit candidate equals the interval's lower end and is refused.
    EXPECT_EQ(binary64(3092535278770144256.0).to_float_str(), "3092535278770144300");
    // 1e23 itself lies outside the interval of its nearest binary64 value.
    EXPECT_EQ(binary64(-1e23).to_float_str(), "-99999999999999990000000");
    EXPECT_EQ(binary64(4.9406564584124654e-324).to_float_str(), "0." + std::string(323, '0') + "5");

    const IEEEFloat empty;
    EXPECT_EQ(empty.to_str(), "[0:0]+0{0}");
    EXPECT_EQ(empty.to_float_str(), "0");
    const IEEEFloat no_exponent({0, 70}, IEEEFloat::ROUND_NEAREST_EVEN);
    EXPECT_EQ(no_exponent.to_str(), "[0:70]+0{0}");
    EXPECT_EQ(no_exponent.to_number(), QNumber(0L)); // the only value such a format has
    EXPECT_EQ(no_exponent.to_integer(3), QNumber(0L));
}

} // namespace
