// Reading numerals. A hand table pins the syntax, the special values, the
// signs of zeros and the results decided from huge exponents; the rest is
// checked against independent readers: every value of small formats and
// random binary32/binary64 values read back from their shortest text, and
// MPFR on random long numerals, on exact midpoints between neighbours and on
// numerals around the overflow and underflow thresholds in every mode.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/oracle.h"
#include "tests/testing.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

// Short names keep the table of cases to one line each.
constexpr Mode RNE = all_modes[0], RZ = all_modes[1], RU = all_modes[2], RD = all_modes[3];

const Format b32{8, 23}, b64{11, 52}, b128{15, 112}, half{5, 10}, tiny{3, 2};

mpz_class read(const std::string& text, Format f, Mode mode) {
    return bits_of(IEEEFloat::from_string(text, f, mode));
}

/// Compares the library's reading of `text` with MPFR's.
void expect_as_oracle(const std::string& text, Format f, Mode mode) {
    const mpz_class want = oracle::read_numeral(to_oracle(f), text, mode);
    const mpz_class got = read(text, f, mode);
    EXPECT_TRUE(oracle::same_result(to_oracle(f), got, want))
        << '"' << text << "\" in " << format_name(f) << " mode " << mode << "\n  got  "
        << describe(f, got) << "\n  want " << describe(f, want);
}

struct Case {
    const char* text;
    Format f;
    Mode mode;
    const char* bits; // hexadecimal
};

const Case hand_cases[] = {
    // Decimal syntax.
    {"+5", b32, RNE, "40A00000"},
    {"5.", b32, RNE, "40A00000"},
    {"-12.5E-3", b32, RZ, "BC4CCCCC"},
    {"0.1", b32, RNE, "3DCCCCCD"},
    {"000100e-3", b32, RNE, "3DCCCCCD"},
    {"1E+2", b32, RNE, "42C80000"},
    {"-2", b128, RNE, "C0000000000000000000000000000000"},
    // Hexadecimal syntax; the binary exponent is optional.
    {"-0X1P+10", b32, RNE, "C4800000"},
    {"0x.8", b32, RNE, "3F000000"},
    {"0xAbC", b32, RNE, "452BC000"},
    {"0x1.8e3", b32, RNE, "3FC71800"}, // e is a digit here
    // Specials: any case, either sign; NaN has no sign of its own.
    {"inf", b32, RNE, "7F800000"},
    {"-Infinity", b32, RNE, "FF800000"},
    {"+INF", b64, RZ, "7FF0000000000000"},
    {"nan", b32, RNE, "7FC00000"},
    {"-NaN", b64, RNE, "7FF8000000000000"},
    {"nan", half, RNE, "FC01"},
    // Zeros keep the numeral's sign, also when the value underflows.
    {"0", b32, RNE, "0"},
    {"-0", b32, RNE, "80000000"},
    {"-0.000e99999999999999999999", b64, RU, "8000000000000000"},
    {"-0x0.0p-5", half, RNE, "8000"},
    {"-1e-999", b32, RNE, "80000000"},
    {"-1e-999", b32, RU, "80000000"},
    {"-1e-999", b32, RD, "80000001"},
    {"1e-99999999999999999999", b64, RNE, "0"},
    {"1e-99999999999999999999", b64, RU, "1"},
    {"1e-999999999999", tiny, RU, "1"},
    {"-0x1p-99999999999999999999", tiny, RD, "21"},
    // Overflow by mode from huge exponents.
    {"1e99999999999999999999", b64, RNE, "7FF0000000000000"},
    {"1e99999999999999999999", b64, RD, "7FEFFFFFFFFFFFFF"},
    {"0x1p99999999999999999999", half, RZ, "7BFF"},
};

TEST(FromString, HandPickedNumerals) {
    for (const Case& c : hand_cases) {
        const IEEEFloat x = IEEEFloat::from_string(c.text, c.f, c.mode);
        EXPECT_EQ(bits_of(x), mpz_class(c.bits, 16))
            << '"' << c.text << "\" in " << format_name(c.f) << " mode " << c.mode << ": "
            << describe(c.f, bits_of(x));
        EXPECT_EQ(x.get_repr(), IEEEFloat::get_best_repr(c.f)) << c.text;
        EXPECT_EQ(x.get_rounding_mode(), c.mode) << c.text;
    }
}

TEST(FromString, MalformedTextNamesItself) {
    const std::string malformed[] = {
        "",      "+",       "-",     ".",     "e5",    "1e",    "1e+",    "1.2.3",  " 1",
        "1 ",    "0x",      "0x.",   "0xp1",  "0x1p",  "1p3",   "0x1e+3", "--1",    "+-1",
        "1e5.5", "0x1p1.5", "1,5",   "1_000", "0b101", "infin", "inff",   "nan(1)", "in f",
        "Inf1",  "1e--2",   "0x1pA", "1.0f",  "\t1",   "1e2e3", "+.e1"};
    for (const std::string& text : malformed) {
        try {
            IEEEFloat::from_string(text, b64, RNE);
            ADD_FAILURE() << '"' << text << "\" was accepted";
        } catch (const IEEEFloat::error& e) {
            EXPECT_EQ(std::string(e.what()), "invalid number: \"" + text + "\"");
        }
    }
}

TEST(FromString, LimitsAndInvalidModes) {
    auto message = [](const std::string& text, Format f, int mode) {
        return error_of([&] { IEEEFloat::from_string(text, f, static_cast<Mode>(mode)); });
    };
    // An invalid mode fails only when the value has to be rounded.
    EXPECT_EQ(message("0.1", half, 4), "bad rounding mode: 4");
    EXPECT_EQ(message("1e999", half, 4), "bad rounding mode: 4");
    EXPECT_EQ(message("1e-999", half, 4), "bad rounding mode: 4");
    EXPECT_EQ(message("0.5", half, 4), "no error");
    EXPECT_EQ(message("-0", half, 4), "no error");
    // Values within reach of very wide formats whose exact form would be huge.
    EXPECT_EQ(message("1e-20000000", {40, 10}, RNE), "reached limit on float precision");
    EXPECT_EQ(message("0x1p99999999999999999999", {63, 10}, RNE),
              "reached limit on float precision");
    EXPECT_EQ(message("1e-2000000", {40, 10}, RNE), "no error");
}

/// Reads every finite value of a format back from its shortest text.
class FromStringRoundTrip : public ::testing::TestWithParam<Format> {};

TEST_P(FromStringRoundTrip, EveryFiniteValue) {
    const Format f = GetParam();
    const long patterns = 1L << (f.exponent_width + f.mantissa_width + 1);
    for (long bits = 0; bits < patterns; ++bits) {
        const IEEEFloat x = make(f, mpz_class(bits));
        if (x.is_nan() || x.is_inf()) continue;
        const std::string text = x.to_float_str();
        ASSERT_EQ(read(text, f, RNE), bits) << text << " in " << format_name(f);
    }
}

INSTANTIATE_TEST_SUITE_P(SmallFormats, FromStringRoundTrip,
                         ::testing::Values(Format{3, 2}, Format{4, 3}, Format{5, 2}, Format{5, 10}),
                         FormatName());

/// Random binary32 and binary64 patterns, uniform over their bits.
TEST(FromString, RandomWordsRoundTrip) {
    std::mt19937_64 rng(81);
    const int count = sampled(100000);
    for (int i = 0; i < count; ++i) {
        const bool wide = i % 2 == 1;
        const Format f = wide ? b64 : b32;
        std::uint64_t bits = rng();
        if (!wide) bits &= 0xFFFFFFFF;
        const IEEEFloat x = make(f, oracle::to_mpz(bits));
        if (x.is_nan() || x.is_inf()) continue;
        const std::string text = x.to_float_str();
        ASSERT_EQ(read(text, f, RNE), oracle::to_mpz(bits)) << text << " seed 81 case " << i;
    }
}

/// A random numeral: decimal or hexadecimal, of up to a few hundred digits,
/// with or without a point and an exponent, whose magnitude ranges a little
/// beyond the format's normal and subnormal range.
std::string random_numeral(std::mt19937_64& rng, Format f) {
    auto pick = [&rng](long lo, long hi) {
        return lo + static_cast<long>(rng() % static_cast<std::uint64_t>(hi - lo + 1));
    };
    const bool hex = pick(0, 3) == 0;
    const long roll = pick(0, 99);
    const long length = roll < 70 ? pick(1, 20) : roll < 95 ? pick(21, 60) : pick(61, 400);
    static const char digit_chars[] = "0123456789abcdef";
    std::string digits;
    for (long i = 0; i < length; ++i)
        digits += digit_chars[pick(i == 0 ? 1 : 0, hex ? 15 : 9)];
    const long point = pick(-1, length); // -1: no point
    // The binary magnitude aimed at, then the exponent that gets there.
    const long bias = (1L << (f.exponent_width - 1)) - 1;
    const long target2 = pick(-bias - static_cast<long>(f.mantissa_width) - 8, bias + 8);
    const long whole_digits = point < 0 ? length : point;
    std::string text = pick(0, 1) ? "-" : "";
    if (hex) text += "0x";
    text += point < 0 ? digits : digits.substr(0, point) + "." + digits.substr(point);
    const long exponent =
        hex ? target2 - 4 * whole_digits : target2 * 3 / 10 - whole_digits; // 2^10 ~ 10^3
    if (exponent != 0 || pick(0, 1)) {
        text += hex ? "p" : pick(0, 1) ? "e" : "E";
        if (exponent >= 0 && pick(0, 1)) text += "+";
        text += std::to_string(exponent);
    }
    return text;
}

const Format differential_formats[] = {{4, 3}, {5, 10}, {8, 23}, {11, 52}, {15, 112}, {6, 200}};

TEST(FromString, RandomNumeralsAgreeWithMpfr) {
    std::mt19937_64 rng(82);
    const int count = sampled(1500);
    for (const Format f : differential_formats)
        for (int i = 0; i < count; ++i) {
            const std::string text = random_numeral(rng, f);
            for (const Mode mode : all_modes)
                expect_as_oracle(text, f, mode);
        }
}

/// D / 10^t written positionally with t digits after the point (D >= 0).
std::string with_point(const mpz_class& d, unsigned long t) {
    std::string digits = d.get_str();
    if (digits.size() <= t) digits.insert(0, t + 1 - digits.size(), '0');
    digits.insert(digits.size() - t, ".");
    return digits;
}

/// A random integer in [0, n), n > 0.
mpz_class below(std::mt19937_64& rng, const mpz_class& n) {
    mpz_class r = 0;
    for (std::size_t bits = 0; bits < mpz_sizeinbase(n.get_mpz_t(), 2) + 64; bits += 64)
        r = (r << 64) + oracle::to_mpz(rng());
    return r % n;
}

/// The midpoint between a random finite value and its successor, written with
/// every digit, and the numerals one unit of the last digit either side: the
/// cases where a reader that does not carry the whole numeral goes wrong.
TEST(FromString, MidpointsAgreeWithMpfr) {
    std::mt19937_64 rng(83);
    const int count = sampled(400);
    for (const Format f : differential_formats) {
        const oracle::Format of = to_oracle(f);
        const mpz_class top = oracle::max_pattern(of, false);
        for (int i = 0; i < count; ++i) {
            mpz_class bits = below(rng, top);
            // Every eighth value is one of the smallest or largest.
            if (i % 8 == 0) bits = i % 16 == 0 ? mpz_class(i / 16) : top - i / 16;
            // (bits, bits + 1) in value terms: their mean, as num / 2^t.
            const mpq_class low = oracle::to_rational(of, bits);
            const mpq_class high = bits == top ? low + (low - oracle::to_rational(of, top - 1))
                                               : oracle::to_rational(of, bits + 1);
            const mpq_class mid = (low + high) / 2;
            const unsigned long t = mpz_scan1(mid.get_den_mpz_t(), 0);
            // mid = num / 2^t = num * 5^t / 10^t exactly.
            mpz_class scaled;
            mpz_ui_pow_ui(scaled.get_mpz_t(), 5, t);
            scaled *= mid.get_num();
            const std::string exact = with_point(scaled, t);
            const std::string below = with_point(scaled - 1, t);
            const std::string above = with_point(scaled + 1, t);
            for (const std::string& text : {exact, below, above, "-" + exact + "000e0"})
                for (const Mode mode : all_modes)
                    expect_as_oracle(text, f, mode);
        }
    }
}

/// Numerals on both sides of the thresholds where results are decided from
/// the exponent alone: "1eK", "9.99eK" and "0x1pK", "0x1.fffpK" for every K
/// in windows around overflow and around half the smallest subnormal.
TEST(FromString, ThresholdWindowsAgreeWithMpfr) {
    const Format formats[] = {{3, 2}, {5, 10}, {8, 23}, {11, 52}, {15, 112}, {20, 30}};
    for (const Format f : formats) {
        const long bias = (1L << (f.exponent_width - 1)) - 1;
        const long over2 = bias + 1, under2 = bias + static_cast<long>(f.mantissa_width) + 1;
        const long over10 = over2 * 30103 / 100000, under10 = under2 * 30103 / 100000;
        std::vector<std::string> texts;
        for (long k = -6; k <= 6; ++k) {
            for (const long centre : {over10, -under10})
                for (const char* lead : {"1e", "9.99e", "-1e", "-9.99e"})
                    texts.push_back(lead + std::to_string(centre + k));
            for (const long centre : {over2, -under2})
                for (const char* lead : {"0x1p", "0x1.fffp", "-0x1p", "-0x1.fffp"})
                    texts.push_back(lead + std::to_string(centre + k));
        }
        for (const std::string& text : texts)
            for (const Mode mode : all_modes)
                expect_as_oracle(text, f, mode);
    }
}

} // namespace
