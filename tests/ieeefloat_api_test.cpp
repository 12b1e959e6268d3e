// The conveniences around IEEEFloat: named formats, value operators, stream
// output, hashing and hexadecimal text.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/testing.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <iomanip>
#include <random>
#include <sstream>
#include <unordered_set>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using format = IEEEFloat::format;
using mode = IEEEFloat::rounding_mode;

/// The value of `fmt` with packed integer `bits`, held in `repr`.
IEEEFloat held_as(format fmt, const QNumber& bits, IEEEFloat::Repr repr,
                  mode rounding = IEEEFloat::ROUND_NEAREST_EVEN) {
    IEEEFloat x = IEEEFloat::from_bits(bits, fmt);
    x.self_specialize_repr(repr);
    x.set_rounding_mode(rounding);
    return x;
}

/// The same value held in the representation the library picks and
/// generically (for a word format, not the same): the conveniences must not care.
std::vector<IEEEFloat> every_holding(format fmt, const QNumber& bits) {
    return {IEEEFloat::from_bits(bits, fmt), held_as(fmt, bits, IEEEFloat::REPR_GENERIC)};
}

std::string streamed(const IEEEFloat& x) {
    std::ostringstream out;
    out << x;
    return out.str();
}

static_assert(format::binary64() == format(11, 52), "named formats are usable at compile time");

/// (2^p - 1) * 2^shift, the largest finite value of a format of precision p.
QNumber all_ones_times_pow2(unsigned long p, unsigned long shift) {
    return QNumber(mpz_class(((mpz_class(1) << p) - 1) << shift));
}

struct NamedCase {
    const char* name;
    format fmt;
    format (*factory)();
    QNumber largest; // the largest finite value: checks the IEEE semantics claimed
};

const NamedCase named_cases[] = {
    {"binary16", {5, 10}, format::binary16, QNumber(65504L)},
    {"bfloat16", {8, 7}, format::bfloat16, all_ones_times_pow2(8, 120)},
    {"binary32", {8, 23}, format::binary32, all_ones_times_pow2(24, 104)},
    {"binary64", {11, 52}, format::binary64, all_ones_times_pow2(53, 971)},
    {"binary128", {15, 112}, format::binary128, all_ones_times_pow2(113, 16383 - 112)},
    {"binary256", {19, 236}, format::binary256, all_ones_times_pow2(237, 262143 - 236)},
    {"e5m2", {5, 2}, format::e5m2, QNumber(57344L)},
    {"e4m3", {4, 3}, format::e4m3, QNumber(240L)},
};

TEST(NamedFormats, FactoriesNamesAndLookupAgree) {
    ASSERT_EQ(format::known_names().size(), std::size(named_cases));
    for (const NamedCase& c : named_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.factory(), c.fmt);
        EXPECT_EQ(c.fmt.name(), c.name);
        EXPECT_EQ(format::by_name(c.name), c.fmt);
        EXPECT_EQ(IEEEFloat::max_value(c.fmt).to_number(), c.largest);
        EXPECT_NE(std::find(format::known_names().begin(), format::known_names().end(), c.name),
                  format::known_names().end());
    }
}

TEST(NamedFormats, LookupIgnoresCaseOnlyAndRejectsEverythingElse) {
    EXPECT_EQ(format::by_name("BFloat16"), format::bfloat16());
    EXPECT_EQ(format::by_name("E4M3"), format::e4m3());
    for (const char* unknown : {"", "binary", "binary8", " binary16", "binary16 ", "e4m3fn",
                                "binary1281", "float", "11,52"})
        EXPECT_EQ(format::by_name(unknown), std::nullopt) << '"' << unknown << '"';
    EXPECT_TRUE(format(8, 52).name().empty());
    EXPECT_TRUE(format().name().empty());
}

// ---- Value operators -------------------------------------------------------

TEST(ValueOperators, AgreeWithCompoundOnesAndTakeTheFirstOperandsMode) {
    // 1 and the smallest positive value: every inexact case rounds differently
    // under different modes, so using the second operand's mode shows.
    struct Case {
        format fmt;
        IEEEFloat::Repr repr;
    };
    const Case cases[] = {{{8, 23}, IEEEFloat::REPR_FLOAT32},
                          {{8, 23}, IEEEFloat::REPR_GENERIC},
                          {{11, 52}, IEEEFloat::REPR_FLOAT64},
                          {{5, 10}, IEEEFloat::REPR_GENERIC},
                          {{15, 112}, IEEEFloat::REPR_GENERIC}};
    for (const Case& c : cases)
        for (int first = 0; first < 4; ++first)
            for (int second = 0; second < 4; ++second) {
                SCOPED_TRACE(::testing::Message()
                             << "format (" << c.fmt.exponent_width << ", " << c.fmt.mantissa_width
                             << ") repr " << c.repr << " modes " << first << "/" << second);
                const IEEEFloat one = IEEEFloat::from_number(QNumber(1L), c.fmt, mode(first));
                IEEEFloat a = held_as(c.fmt, one.get_bits(), c.repr, mode(first));
                const IEEEFloat b = held_as(c.fmt, QNumber(1L), c.repr, mode(second));
                using Compound = IEEEFloat& (IEEEFloat::*)(const IEEEFloat&);
                using Value = IEEEFloat (*)(IEEEFloat, const IEEEFloat&);
                const std::pair<Compound, Value> ops[] = {
                    {&IEEEFloat::operator+=, tarn::operator+ },
                     {&IEEEFloat::operator-=, tarn::operator- },
                      {&IEEEFloat::operator*=, tarn::operator* },
                       {&IEEEFloat::operator/=, tarn::operator/ } };
                for (const auto& [compound, value] : ops) {
                    IEEEFloat want = a;
                    (want.*compound)(b);
                    const IEEEFloat got = value(a, b);
                    EXPECT_EQ(got.get_bits(), want.get_bits());
                    EXPECT_EQ(got.get_rounding_mode(), mode(first));
                    EXPECT_EQ(got.get_repr(), c.repr);
                    EXPECT_EQ(got.get_format(), c.fmt);
                }
                EXPECT_EQ(a.get_bits(), one.get_bits()) << "an operand changed";
            }
}

TEST(ValueOperators, UnaryMinusFlipsTheSignOfAllButNaNs) {
    const format half = format::binary16();
    for (long bits : {0x0000L, 0x8000L, 0x3C00L, 0xBC00L, 0x0001L, 0x7C00L, 0xFC00L})
        for (const IEEEFloat& x : every_holding(half, QNumber(bits))) {
            const IEEEFloat negated = -x;
            EXPECT_EQ(negated.get_bits(), QNumber(bits ^ 0x8000L)) << bits;
            EXPECT_EQ(x.get_bits(), QNumber(bits)) << "the operand changed";
        }
    IEEEFloat nan(format::binary64(), IEEEFloat::ROUND_NEAREST_EVEN);
    nan.self_nan();
    EXPECT_EQ((-nan).get_bits(), nan.get_bits());
}

// ---- Stream output -----------------------------------------------------------

TEST(StreamOutput, WritesTheDecimalTextAndNamesTheSpecials) {
    struct Case {
        format fmt;
        long bits;
        const char* text;
    };
    const Case cases[] = {
        {format::binary32(), 0x80000000L, "-0"},
        {format::binary32(), 0xC0200000L, "-2.5"},
        {format::binary32(), 0xFF800000L, "-inf"},
        {format::binary32(), 0x7FC00000L, "nan"},
        {format::binary16(), 0x7BFFL, "65500"},
        {format::binary16(), 0xFC00L, "-inf"},
        {format::e4m3(), 0x77L, "240"},
        {format::e4m3(), 0x01L, "0.002"},
        {format::bfloat16(), 0x7FC0L, "nan"},
        {format::binary64(), 0x4000000000000001L, "2.0000000000000004"},
    };
    for (const Case& c : cases)
        for (const IEEEFloat& x : every_holding(c.fmt, QNumber(c.bits)))
            EXPECT_EQ(streamed(x), c.text) << std::hex << c.bits;
    EXPECT_EQ(streamed(IEEEFloat()), "0");
}

TEST(StreamOutput, HonoursWidthAndFillForTheWholeText) {
    std::ostringstream out;
    out << std::setw(6) << std::setfill('.')
        << IEEEFloat::from_bits(QNumber(0xBC00L), format::binary16()) << '|' << std::left
        << std::setw(5) << IEEEFloat::from_bits(QNumber(0x7C00L), format::binary16());
    EXPECT_EQ(out.str(), "....-1|inf..");
}

// ---- Hashing -----------------------------------------------------------------

TEST(Hashing, QNumberHashesByValueWhateverTheForm) {
    const QNumber values[] = {QNumber(0L),
                              QNumber(1L),
                              QNumber(-1L),
                              QNumber(7L, 3L),
                              QNumber(-7L, 3L),
                              QNumber(LONG_MAX),
                              QNumber(-LONG_MAX),
                              QNumber(1L, LONG_MAX),
                              QNumber(LONG_MIN),
                              QNumber(mpz_class(1) << 200, mpz_class(3)),
                              QNumber(mpz_class(mpz_class(-1) << 64))};
    const std::hash<QNumber> hash;
    for (const QNumber& q : values) {
        EXPECT_EQ(hash(tarn_testing::forced_big(q)), hash(q)) << q;
        if (!q.is_negative() && q.is_integer() && q.is_small()) {
            const auto word = static_cast<std::uint64_t>(q.to_mpz().get_si());
            EXPECT_EQ(QNumber::hash_of_word(word), hash(q)) << q;
        }
    }
    EXPECT_EQ(QNumber::hash_of_word(~std::uint64_t{0}),
              hash(QNumber(mpz_class((mpz_class(1) << 64) - 1))));
    // The sign and the split between numerator and denominator both count.
    EXPECT_NE(hash(QNumber(3L)), hash(QNumber(-3L)));
    EXPECT_NE(hash(QNumber(2L, 3L)), hash(QNumber(3L, 2L)));
}

TEST(Hashing, IEEEFloatHashesFormatAndBitsWhateverTheRepresentation) {
    const std::hash<IEEEFloat> hash;
    const std::pair<format, QNumber> patterns[] = {
        {format::binary32(), QNumber(0x3F800000L)},
        {format::binary32(), QNumber(0xBF800000L)},
        {format::binary32(), QNumber(0x7FC00000L)},
        {format::binary64(), QNumber(0x3FF0000000000000L)},
        {format::binary64(), QNumber(mpz_class("0xBFF0000000000000"))},
        {format::binary64(), QNumber(mpz_class("0xFFF0000000000000"))},
    };
    for (const auto& [fmt, bits] : patterns) {
        const std::vector<IEEEFloat> holdings = every_holding(fmt, bits);
        ASSERT_EQ(holdings.size(), 2u);
        EXPECT_EQ(holdings[0].get_bits(), holdings[1].get_bits());
        EXPECT_EQ(hash(holdings[0]), hash(holdings[1])) << bits;
    }
    // Same bits, other format: a different key.
    EXPECT_NE(hash(IEEEFloat::from_bits(QNumber(0x3C00L), format::binary16())),
              hash(IEEEFloat::from_bits(QNumber(0x3C00L), format(6, 9))));
}

TEST(Hashing, ZerosMeetUnderIEEEEqualityAndPatternsSpread) {
    const format half = format::binary16();
    std::unordered_set<IEEEFloat> values;
    std::unordered_set<std::size_t> hashes;
    for (long bits = 0; bits < 0x10000; ++bits) {
        const IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), half);
        if (!x.is_nan()) values.insert(x);
        hashes.insert(std::hash<IEEEFloat>()(x));
    }
    // -0 and +0 are one key under operator==; NaNs all become the library NaN.
    const std::size_t distinct_non_nan = 0x10000 - 2 * 0x3FF - 1;
    EXPECT_EQ(values.size(), distinct_non_nan);
    EXPECT_EQ(hashes.size(), distinct_non_nan + 1);
    EXPECT_EQ(values.count(IEEEFloat::from_bits(QNumber(0x8000L), half)), 1u);
}

// ---- Hexadecimal text ------------------------------------------------------

TEST(HexText, WritesExactDigitsForEveryKindOfFormat) {
    struct Case {
        format fmt;
        const char* bits; // hexadecimal pattern
        const char* text;
    };
    const Case cases[] = {
        // binary64 and binary32 are held against the C library below.
        {format::binary16(), "3555", "0x1.554p-2"},
        {format::binary16(), "0200", "0x0.8p-14"},
        {format::e4m3(), "3c", "0x1.8p+0"},
        {format::e4m3(), "39", "0x1.2p+0"},
        {format::e4m3(), "81", "-0x0.2p-6"},
        {format::e4m3(), "78", "inf"},
        {format::bfloat16(), "3f81", "0x1.02p+0"},
        {{5, 0}, "11", "0x1p+2"},
        {{1, 2}, "1", "0x0.4p+1"}, // no bias: the subnormal exponent is 1
        {format::binary128(), "3fff0000000000000000000000000001",
         "0x1.0000000000000000000000000001p+0"},
        {format::binary128(), "00000000000000000000000000000001",
         "0x0.0000000000000000000000000001p-16382"},
        {format::binary256(), "7ffff00000000000000000000000000000000000000000000000000000000000",
         "inf"},
        {format::binary256(), "3ffff80000000000000000000000000000000000000000000000000000000000",
         "0x1.8p+0"},
        // Exponent fields wider than a word: the exponent is still written in full.
        {{70, 3}, "1fffffffffffffffff7", "0x1.ep+590295810358705651711"},
        {{70, 3}, "1", "0x0.2p-590295810358705651710"},
    };
    for (const Case& c : cases)
        for (const IEEEFloat& x : every_holding(c.fmt, QNumber(mpz_class(c.bits, 16))))
            EXPECT_EQ(x.to_hex_str(), c.text) << c.bits << " held as " << x.get_repr();
    EXPECT_EQ(IEEEFloat().to_hex_str(), "0x0p+0");
}

/// What the C library's %a prints for `d`.
std::string printf_hex(double d) {
    char text[64];
    std::snprintf(text, sizeof text, "%a", d);
    return text;
}

TEST(HexText, MatchesTheCLibraryOnBinary64AndWidenedBinary32) {
    std::mt19937_64 engine(0x4E5);
    SCOPED_TRACE("seed 0x4E5");
    const int count = tarn_testing::scaled(100000);
    for (int i = 0; i < count && !HasFailure(); ++i) {
        // Half uniform patterns, half with the exponent field near its ends,
        // where the subnormals and the largest values are.
        std::uint64_t bits = engine();
        if (i % 2) bits ^= (i % 4 == 1 ? bits : ~bits) & (std::uint64_t{0x7fe} << 52);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isnan(d)) continue;
        for (const IEEEFloat& x :
             every_holding(format::binary64(), QNumber(mpz_class(std::to_string(bits)))))
            ASSERT_EQ(x.to_hex_str(), printf_hex(d)) << std::hex << bits;

        // Widened, a binary32 subnormal becomes a normal binary64 value, so
        // for those only the value read back from the text can be compared.
        const auto bits32 = static_cast<std::uint32_t>(i % 2 ? bits >> 32 & 0x807fffff : bits);
        float f;
        std::memcpy(&f, &bits32, sizeof f);
        if (std::isnan(f)) continue;
        const std::string text =
            IEEEFloat::from_bits(QNumber(static_cast<long>(bits32)), format::binary32())
                .to_hex_str();
        if (std::fpclassify(f) == FP_SUBNORMAL)
            ASSERT_EQ(std::strtod(text.c_str(), nullptr), static_cast<double>(f)) << text;
        else
            ASSERT_EQ(text, printf_hex(f)) << std::hex << bits32;
    }
}

TEST(HexText, ReadsBackAsTheSameValueInSmallFormats) {
    for (format fmt : {format{2, 1}, format{3, 2}, format{4, 3}, format{5, 2}, format{2, 6},
                       format{6, 5}, format{5, 10}, format{8, 7}}) {
        const long patterns = 1L << (fmt.exponent_width + fmt.mantissa_width + 1);
        for (long bits = 0; bits < patterns; ++bits) {
            const IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), fmt);
            if (x.is_nan()) continue;
            const std::string text = x.to_hex_str();
            const IEEEFloat back = IEEEFloat::from_string(text, fmt, IEEEFloat::ROUND_TOWARD_ZERO);
            ASSERT_EQ(back.get_bits(), x.get_bits())
                << text << " in (" << fmt.exponent_width << ", " << fmt.mantissa_width << ")";
        }
    }
}

} // namespace
