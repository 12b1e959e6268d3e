// The two text forms. The shortest numerals are checked by their defining
// properties, exhaustively over small formats and on random binary32,
// binary64 and wide patterns: the text reads back to the same value, no
// numeral with fewer digits lies strictly inside the rounding interval, and
// of the candidates of that length the nearer was taken (the lower on a tie).

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

mpz_class power_of_ten(long n) {
    mpz_class p;
    mpz_ui_pow_ui(p.get_mpz_t(), 10, static_cast<unsigned long>(n));
    return p;
}

/// 10^n as a rational, for any sign of n.
mpq_class scale(long n) {
    return n >= 0 ? mpq_class(power_of_ten(n)) : mpq_class(mpz_class(1), power_of_ten(-n));
}

/// 2^n as a rational, for any sign of n.
mpq_class two_to(long n) {
    mpq_class q = 1;
    if (n >= 0)
        mpq_mul_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<mp_bitcnt_t>(n));
    else
        mpq_div_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<mp_bitcnt_t>(-n));
    return q;
}

mpz_class floor_of(const mpq_class& q) {
    mpz_class r;
    mpz_fdiv_q(r.get_mpz_t(), q.get_num_mpz_t(), q.get_den_mpz_t());
    return r;
}

/// A positional numeral split into its magnitude C * 10^j.
struct Numeral {
    bool negative = false;
    mpz_class digits;  // C
    long exponent = 0; // j
};

/// Parses "[-](0|[1-9][0-9]*)[.[0-9]*[1-9]]", failing the test on anything else.
Numeral parse(const std::string& text) {
    Numeral n;
    std::size_t i = 0;
    if (i < text.size() && text[i] == '-') n.negative = true, ++i;
    const std::size_t point = text.find('.', i);
    const std::string whole = text.substr(i, point == std::string::npos ? point : point - i);
    const std::string fraction = point == std::string::npos ? "" : text.substr(point + 1);
    EXPECT_FALSE(whole.empty()) << text;
    EXPECT_TRUE(whole == "0" || whole[0] != '0') << "leading zero in " << text;
    EXPECT_EQ(whole.find_first_not_of("0123456789"), std::string::npos) << text;
    EXPECT_EQ(fraction.find_first_not_of("0123456789"), std::string::npos) << text;
    if (point != std::string::npos) {
        EXPECT_TRUE(!fraction.empty() && fraction.back() != '0') << "trailing zero in " << text;
    }
    std::string all = whole + fraction;
    n.exponent = -static_cast<long>(fraction.size());
    if (fraction.empty() && whole != "0")
        while (all.size() > 1 && all.back() == '0')
            all.pop_back(), ++n.exponent;
    n.digits = mpz_class(all, 10);
    return n;
}

/// Checks the text of one finite non-zero pattern by its properties.
void check_shortest(Format f, const mpz_class& bits, const std::string& text) {
    const oracle::Format of = to_oracle(f);
    SCOPED_TRACE(describe(f, bits) + " gave " + text);
    EXPECT_EQ(oracle::read_numeral(of, text, oracle::NEAREST_EVEN), bits) << "does not read back";

    const Numeral n = parse(text);
    const unsigned long m = f.mantissa_width;
    EXPECT_EQ(n.negative, mpz_tstbit(bits.get_mpz_t(), f.exponent_width + m) != 0);
    const mpz_class mantissa = bits & ((mpz_class(1) << m) - 1);
    const mpz_class biased = (bits >> m) & ((mpz_class(1) << f.exponent_width) - 1);
    const long bias = (1L << (f.exponent_width - 1)) - 1;
    const long k =
        (biased == 0 ? 1 - bias : static_cast<long>(biased.get_si()) - bias) - static_cast<long>(m);
    const mpq_class x = abs(oracle::to_rational(of, bits));
    const mpq_class ulp = two_to(k);
    const mpq_class low = x - (mantissa == 0 && biased >= 2 ? ulp / 4 : ulp / 2);
    const mpq_class high = x + ulp / 2;
    const mpq_class value = mpq_class(n.digits) * scale(n.exponent);
    EXPECT_TRUE(low < value && value < high) << "outside the rounding interval";

    const mpq_class coarser = scale(n.exponent + 1);
    EXPECT_GE(mpq_class(floor_of(low / coarser) + 1) * coarser, high)
        << "a numeral with fewer digits lies inside the interval";

    const mpq_class weight = scale(n.exponent);
    const mpq_class lower = mpq_class(floor_of(x / weight)) * weight;
    const mpq_class upper = lower + weight;
    const bool lower_inside = low < lower, upper_inside = upper < high;
    const mpq_class& chosen = lower_inside && upper_inside ? (upper - x < x - lower ? upper : lower)
                              : lower_inside               ? lower
                                                           : upper;
    EXPECT_EQ(value, chosen) << "not the nearer candidate (the lower on a tie)";
}

/// to_float_str of a pattern, checked by its properties when finite and
/// non-zero, and also against the oracle's own search when `compare`.
void check_pattern(Format f, const mpz_class& bits, bool generic, bool compare) {
    const oracle::Kind kind = oracle::classify(to_oracle(f), bits);
    if (kind != oracle::Kind::Subnormal && kind != oracle::Kind::Normal) return;
    const std::string text = make(f, bits, generic).to_float_str();
    check_shortest(f, bits, text);
    if (compare) {
        EXPECT_EQ(text, oracle::shortest_decimal(to_oracle(f), bits)) << describe(f, bits);
    }
}

class ExhaustiveText : public testing::TestWithParam<Format> {};

TEST_P(ExhaustiveText, EveryFinitePatternHasItsShortestNumeral) {
    const Format f = GetParam();
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    // The 16-bit formats are compared with the oracle's slower search on a
    // sample, and under the sanitizers only every seventh pattern is written.
    const bool wide = count > 4096;
    const unsigned long step = sanitized() && wide ? 7 : 1;
    for (unsigned long i = 0; i < count && !HasFailure(); i += step)
        check_pattern(f, mpz_class(i), false, !wide || i % 16 == 0);
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
        check_pattern(c.f, bits, c.generic, i % 16 == 1);
    }
}

INSTANTIATE_TEST_SUITE_P(WideAndWordFormats, RandomText,
                         testing::Values(RandomCase{{8, 23}, false, 200000},
                                         RandomCase{{11, 52}, false, 200000},
                                         RandomCase{{11, 52}, true, 20000},
                                         RandomCase{{15, 112}, true, 5000},
                                         RandomCase{{6, 300}, true, 3000}),
                         RandomCaseName());

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
