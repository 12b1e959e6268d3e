// Known answers for text: the reader's syntax, its errors and the results it
// decides from the exponent alone, and the exact text of the diagnostic form,
// the stream output and the hexadecimal form, with the decimal choices random
// patterns rarely reach. (Every format's hexadecimal text also reads back to its
// value in the differential table's hex_read_back row.)

#include "tests/testing.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>
#include <string>
#include <tuple>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

constexpr Mode RNE = IEEEFloat::ROUND_NEAREST_EVEN, RZ = IEEEFloat::ROUND_TOWARD_ZERO,
               RU = IEEEFloat::ROUND_TOWARD_POSITIVE, RD = IEEEFloat::ROUND_TOWARD_NEGATIVE,
               bad = static_cast<Mode>(4);
const Format b32{8, 23}, b64{11, 52}, b128{15, 112}, half{5, 10}, tiny{3, 2};

// Random numerals never bring a leading '+', leading zeros, mixed-case hex,
// 'e' as a hex digit, the specials or exponents of twenty digits.
TEST(Text, ReadsNumerals) {
    // format, mode, numeral, held pattern in hex or the error message
    const std::tuple<Format, Mode, const char*, const char*> rows[] = {
        {b32, RNE, "+5", "40a00000"},
        {b32, RNE, "5.", "40a00000"},
        {b32, RZ, "-12.5E-3", "bc4ccccc"},
        {b32, RNE, "000100e-3", "3dcccccd"},
        {b32, RNE, "1E+2", "42c80000"},
        {b128, RNE, "-2", "c0000000000000000000000000000000"},
        {b32, RNE, "-0X1P+10", "c4800000"},
        {b32, RNE, "0x.8", "3f000000"},
        {b32, RNE, "0xAbC", "452bc000"},
        {b32, RNE, "0x1.8e3", "3fc71800"},
        {b32, RNE, "inf", "7f800000"},
        {b32, RNE, "-Infinity", "ff800000"},
        {b64, RZ, "+INF", "7ff0000000000000"},
        {b32, RNE, "nan", "7fc00000"},
        {b64, RNE, "-NaN", "7ff8000000000000"},
        {b64, RNE, "-nan(Q_1)", "7ff8000000000000"},
        {half, RNE, "NAN()", "fc01"},
        {half, RNE, "nan", "fc01"},
        {b32, RNE, "-0", "80000000"},
        {b64, RU, "-0.000e99999999999999999999", "8000000000000000"},
        {half, RNE, "-0x0.0p-5", "8000"},
        {b32, RD, "-1e-999", "80000001"},
        {b64, RNE, "1e-99999999999999999999", "0"},
        {b64, RU, "1e-99999999999999999999", "1"},
        {tiny, RU, "1e-999999999999", "1"},
        {tiny, RD, "-0x1p-99999999999999999999", "21"},
        {b64, RNE, "1e99999999999999999999", "7ff0000000000000"},
        {b64, RD, "1e99999999999999999999", "7fefffffffffffff"},
        {half, RZ, "0x1p99999999999999999999", "7bff"},
        {half, bad, "1e999", "bad rounding mode: 4"},
        {{40, 10}, RNE, "1e-2000000", "1fffe6a7dbb04"},
        {{40, 10}, RNE, "1e-20000000", "reached limit on float precision"},
        {{63, 10}, RNE, "0x1p99999999999999999999", "reached limit on float precision"},
    };
    for (const auto& [f, mode, text, want] : rows) {
        std::string got;
        const std::string error = error_of([&, f = f, mode = mode, text = text] {
            const IEEEFloat x = IEEEFloat::from_string(text, f, mode);
            const bool kept =
                x.get_repr() == IEEEFloat::get_best_repr(f) && x.get_rounding_mode() == mode;
            got = bits_of(x).get_str(16) + (kept ? "" : " (mode or representation lost)");
        });
        EXPECT_EQ(error == "no error" ? got : error, want)
            << '"' << text << "\" in " << format_name(f) << " mode " << mode;
    }
    for (const std::string text :
         {"",     "+",     "-",       "1_000", ".",     "e5",    "1e",   "1e+",    "1.2.3",
          " 1",   "1 ",    "0x",      "0x.",   "0xp1",  "0x1p",  "1p3",  "0x1e+3", "--1",
          "+-1",  "1e5.5", "0x1p1.5", "1,5",   "0b101", "infin", "inff", "nan(1",  "in f",
          "Inf1", "1e--2", "0x1pA",   "1.0f",  "\t1",   "1e2e3", "+.e1", "nan(.)", "nan)"})
        EXPECT_EQ(error_of([&] { IEEEFloat::from_string(text, b64, RNE); }),
                  "invalid number: \"" + text + "\"");
}

std::string written(const IEEEFloat& x, char form) {
    if (form == 's') return x.to_str();
    if (form == 'f') return x.to_float_str();
    if (form == 'x') return x.to_hex_str();
    if (form == 'S') return x.to_sci_str();
    std::ostringstream out;
    out << x;
    return out.str();
}

// The diagnostic form ('s'), the stream ('o'), decimal choices random patterns
// rarely reach ('f') and hexadecimal digits ('x'), each held in the word or
// generically where a format has both.
TEST(Text, WritesExactText) {
    // format, pattern in hex, form, text
    const std::tuple<Format, const char*, char, std::string> rows[] = {
        {b32, "3dcccccd", 's', "[8:23]0.1{0_01111011_10011001100110011001101}"},
        {b32, "80000000", 's', "[8:23]-0{1_00000000_00000000000000000000000}"},
        {b32, "ff800000", 's', "[8:23]-Inf{1_11111111_00000000000000000000000}"},
        {b32, "7fc00000", 's', "[8:23]NaN{1_11111111_00000000000000000000001}"},
        {tiny, "38", 's', "[3:2]-8{1_110_00}"},
        {{2, 0}, "1", 's', "[2:0]1{0_01}"},
        {{0, 70}, "0", 's', "[0:70]+0{0}"},
        {{65, 1}, "3fffffffffffffffe", 's', "[65:1]+Inf{0_" + std::string(65, '1') + "_0}"},
        {b32, "7fc00000", 'o', "nan"},
        {{65, 1}, "3fffffffffffffffe", 'o', "inf"},
        {half, "fc00", 'o', "-inf"},
        {half, "7c00", 'o', "inf"},
        {b32, "c0200000", 'o', "-2.5"},
        // The shortest digits are positional for decimal exponents in [-5, 21).
        {b64, "444b1ae4d6e2ef50", 'o', "1e+21"},
        {b64, "3eb0c6f7a0b5ed8d", 'o', "1e-6"},
        {b64, "3ee4f8b588e368f1", 'o', "0.00001"},
        {b128, "7ffeffffffffffffffffffffffffffff", 'o',
         "1.189731495357231765085759326628007e+4932"},
        {b64, "8000000000000000", 'S', "-0e+0"},
        {half, "7c00", 'S', "inf"},
        // Halfway between the two shortest candidates: the lower is kept.
        {b64, "4301b66687b7abb6", 'f', "623203260495222.7"},
        // The 16-digit candidate is the interval's lower end, which is refused.
        {b64, "43c5757239bd3aa2", 'f', "3092535278770144300"},
        // 1e23 itself lies outside the interval of its nearest binary64 value.
        {b64, "c4b52d02c7e14af6", 'f', "-99999999999999990000000"},
        {b64, "1", 'f', "0." + std::string(323, '0') + "5"},
        {half, "3555", 'x', "0x1.554p-2"},
        {half, "0200", 'x', "0x0.8p-14"},
        {{4, 3}, "81", 'x', "-0x0.2p-6"},
        {{4, 3}, "78", 'x', "inf"},
        {{5, 0}, "11", 'x', "0x1p+2"},
        {{1, 2}, "1", 'x', "0x0.4p+1"}, // no bias: the subnormal exponent is 1
        {b128, "00000000000000000000000000000001", 'x', "0x0.0000000000000000000000000001p-16382"},
        {{70, 3}, "3fffffffffffffffff7", 'x', "-0x1.ep+590295810358705651711"},
    };
    for (const auto& [f, bits, form, text] : rows)
        for (const bool generic : {false, true})
            EXPECT_EQ(written(make(f, mpz_class(bits, 16), generic), form), text)
                << bits << " in " << format_name(f) << (generic ? " generic" : "");
    const IEEEFloat empty;
    EXPECT_EQ(written(empty, 's') + written(empty, 'f') + written(empty, 'x'), "[0:0]+0{0}00x0p+0");
    // Other NaN patterns are written as held: from_bits would make them the
    // library NaN, so one is reached by stepping the pattern.
    IEEEFloat positive_nan = make(b32, 0x7F800000);
    positive_nan.packed_next(true);
    EXPECT_EQ(positive_nan.to_str(), "[8:23]NaN{0_11111111_00000000000000000000001}");
    EXPECT_EQ(
        error_of([&] { empty.to_str_digits(2, 'a'); }) + error_of([&] { empty.to_str_digits(-1); }),
        "bad style for to_str_digits: give 'e', 'f' or 'g'negative precision for to_str_digits");
    std::ostringstream out;
    out << std::setw(6) << std::setfill('.') << make(half, 0xBC00) << '|' << std::left
        << std::setw(5) << make(half, 0x7C00);
    EXPECT_EQ(out.str(), "....-1|inf..");
}

// Under every setting a precision is given in, binary64 values are written as
// doubles are.
TEST(Text, StreamsWriteAsDoublesDo) {
    using S = std::ostream;
    void (*const settings[])(S&) = {
        [](S& o) { o << std::setprecision(0) << std::left << std::setw(9) << std::setfill('.'); },
        [](S& o) { o << std::setprecision(17) << std::showpos; },
        [](S& o) { o << std::scientific << std::setprecision(0); },
        [](S& o) { o << std::scientific << std::uppercase << std::setw(14) << std::internal; },
        [](S& o) { o << std::fixed << std::showpos << std::setprecision(2); },
        [](S& o) { o << std::fixed << std::setprecision(-1) << std::uppercase; },
        [](S& o) { o << std::hexfloat << std::uppercase << std::showpos; },
        [](S& o) { o << std::hexfloat << std::setw(12) << std::internal << std::setfill('_'); },
    };
    for (const double v :
         {1.5e300, -2.5e-5, 0.1, -0.0, 123456.0, 9.5, 5e-324, -HUGE_VAL, double(NAN)})
        for (const auto& set : settings) {
            std::ostringstream got, want;
            set(got);
            set(want);
            std::uint64_t bits;
            std::memcpy(&bits, &v, sizeof bits);
            got << make(b64, mpz_class(static_cast<unsigned long>(bits)));
            want << v;
            EXPECT_EQ(got.str(), want.str()) << v;
        }
}

TEST(Text, ReadsPrefixesAndStreams) {
    // text, length of the numeral at its start (0: none, an error)
    const std::pair<std::string, std::size_t> prefixes[] = {
        {"1e", 1},         {"0x", 1},    {"1.5x", 3},  {"infinit", 3},
        {"-nan(a_1)x", 9}, {"nan(1", 3}, {"0x1p+", 3}, {"5.e", 2},
        {"+.e1", 0},       {" 1", 0},    {"", 0}};
    for (const auto& [text, length] : prefixes) {
        std::size_t consumed = 0;
        EXPECT_EQ(error_of([&, text = text] { IEEEFloat::from_chars(text, b64, RNE, consumed); }),
                  length ? "no error" : "invalid number: \"" + text + '"');
        EXPECT_EQ(consumed, length) << text;
    }
    // Read in each value's format, mode and representation; "e+" is given back.
    std::istringstream in(" 0x1.8p1\n0.1 -2e+x"), one("1"), last("1e5");
    IEEEFloat a(half, RNE), b(b32, RZ), c = make(b64, 7, true), empty;
    EXPECT_TRUE(in >> a >> b >> c && c.get_repr() == IEEEFloat::REPR_GENERIC && in.peek() == 'e');
    EXPECT_EQ(bits_of(a).get_str(16) + bits_of(b).get_str(16), "42003dcccccc");
    EXPECT_TRUE(!(in >> c) && bits_of(c) == 0xC000000000000000 && !(one >> empty));
    EXPECT_TRUE(last >> a && last.eof());
}

// With an ulp of 1/8, N + 1/4 lies midway between the one-decimal numerals N.2
// and N.3, both inside its rounding interval while no integer is: a tie that
// keeps the lower numeral. Significands this wide are searched on GMP
// integers, which random patterns almost never bring to such a tie.
TEST(Text, TiesInWideSignificandsKeepTheLowerNumeral) {
    for (const Format f : {Format{11, 59}, Format{15, 64}, Format{15, 112}, Format{15, 140}}) {
        const mpz_class low = mpz_class(1) << (f.mantissa_width - 3);
        for (const mpz_class& n : {low, mpz_class(2 * low - 1), mpz_class(low + 1234567890123)})
            for (const int quarters : {1, 3}) {
                const QNumber value{mpz_class(4 * n + quarters), mpz_class(4)};
                EXPECT_EQ(IEEEFloat::from_number(value, f, RNE).to_float_str(),
                          n.get_str() + (quarters == 1 ? ".2" : ".7"));
            }
    }
}

} // namespace
