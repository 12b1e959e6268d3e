// The expression reader and evaluator behind the fpcalc example: precedence,
// where numerals end, one rounding per numeral and per operation, and errors
// that point at the right place.

#include "encodings.h"
#include "expression.h"

#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <utility>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr IEEEFloat::format binary16{5, 10};

IEEEFloat eval(const std::string& text, tarn::rounding r = tarn::rounding::nearest_even) {
    return fpcalc::evaluate(*fpcalc::parse(text), binary16, r).number;
}

// Every intermediate result is exact in binary16, so these check the shape of
// the tree alone. In "0x1e-3" e is a hexadecimal digit and - the operator; in
// "0x1p-3+1" p takes the sign and + is the operator.
TEST(Fpcalc, GroupsAsArithmeticDoesAndReadsSpecials) {
    const std::pair<const char*, QNumber> cases[] = {
        {"1 + 2 * 3", 7},  {"8 / 2 / 2", 2},
        {"1 - 2 - 3", -4}, {"2 * -(1 - 3)", 4},
        {"0x1e-3", 27},    {"0x1p-3+1", QNumber(9, 8)},
        {"1e1-1", 9},      {"\t SQRT (9) /\n4 ", QNumber(3, 4)},
    };
    for (const auto& [text, value] : cases)
        EXPECT_EQ(eval(text).to_number(), value) << text;
    EXPECT_TRUE(eval("-Infinity").is_inf() && eval("-Infinity").get_sign());
    EXPECT_TRUE(eval("NaN * 0").is_nan());
}

// 1/3 is rounded once per operation, as the exact 1/3 is. The minus belongs to
// the numeral, which is rounded with its sign: upward, -0.1 is the value just
// above -0.1, not the negation of 0.1 rounded up.
TEST(Fpcalc, RoundsEachNumeralAndOperationOnceInTheMode) {
    for (int m = 0; m < 4; ++m) {
        const auto mode = static_cast<IEEEFloat::rounding_mode>(m);
        const auto r = static_cast<tarn::rounding>(m);
        EXPECT_EQ(eval("-1/3", r).get_bits(),
                  IEEEFloat::from_number(QNumber(-1, 3), binary16, mode).get_bits());
        EXPECT_EQ(eval("-0.1", r).get_bits(),
                  IEEEFloat::from_string("-0.1", binary16, mode).get_bits());
    }
}

// fma rounds once (unfused, 0.1 * 10 - 1 is 0); a numeral is rounded to odd
// or with ties away as written; an integer conversion's invalid result comes
// back into the format rounded in the direction, to_odd keeping it finite.
TEST(Fpcalc, FunctionsDirectionsAndFlags) {
    using tarn::rounding;
    const std::tuple<const char*, rounding, QNumber, unsigned> cases[] = {
        {"fma(0.1, 10, -1)", rounding::nearest_even, QNumber(-1, 4096), tarn::FLAG_INEXACT},
        {"-2049", rounding::to_odd, -2050, tarn::FLAG_INEXACT},
        {"2049", rounding::nearest_away, 2050, tarn::FLAG_INEXACT},
        {"1e9", rounding::to_odd, 65504, tarn::FLAG_OVERFLOW | tarn::FLAG_INEXACT},
        {"INT32(-2.5) * 2", rounding::nearest_away, -6, tarn::FLAG_INEXACT},
        {"rint(2.5) + uint64(0.5)", rounding::to_odd, 4, tarn::FLAG_INEXACT},
        {"1e-7", rounding::nearest_even, QNumber(1, 1 << 23),
         tarn::FLAG_UNDERFLOW | tarn::FLAG_INEXACT},
        {"1 / (1 / 0)", rounding::nearest_even, 0, tarn::FLAG_DIVBYZERO},
        {"int32(nan)", rounding::to_odd, -65504,
         tarn::FLAG_INVALID | tarn::FLAG_OVERFLOW | tarn::FLAG_INEXACT},
        {"remainder(10, 3) + log_b(0x1p-20)", rounding::nearest_even, -19, 0},
        {"scale_b(3, -26)", rounding::to_odd, QNumber(1, 1 << 24),
         tarn::FLAG_UNDERFLOW | tarn::FLAG_INEXACT},
        {"maximum_number(nan, -2) * copysign(#0x3c00, -0)", rounding::upward, 2,
         tarn::FLAG_INVALID},
    };
    for (const auto& [text, r, value, flags] : cases) {
        tarn::clear_ieee_flags();
        EXPECT_EQ(eval(text, r).to_number(), value) << text;
        EXPECT_EQ(tarn::ieee_flags(), flags) << text;
    }
}

// Digits given or not, in each notation (binary16's 1/3 is 0.333251953125).
TEST(Fpcalc, WritesResultsInEachNotation) {
    using N = fpcalc::Notation;
    const std::tuple<N, int, const char*> cases[] = {
        {N::shortest, -1, "0.3333"}, {N::sci, -1, "3.333e-1"}, {N::sci, 3, "3.33e-01"},
        {N::fixed, -1, "0.333252"},  {N::general, 2, "0.33"},  {N::hex, 9, "0x1.554p-2"}};
    for (const auto& [notation, digits, want] : cases)
        EXPECT_EQ(fpcalc::written(eval("1/3"), notation, digits), want);
}

TEST(Fpcalc, ErrorsPointAtTheOffendingText) {
    // Nesting and long chains alike are bounded before any recursion over the
    // tree could exhaust the stack.
    const std::string nested = std::string(100000, '(') + "1" + std::string(100000, ')');
    std::string chain = "1";
    for (int i = 0; i < 5000; ++i)
        chain += "+1";
    const std::tuple<std::string, std::size_t, const char*> cases[] = {
        {"1 +", 3, "a number is missing"},
        {"2 * (1 + 2", 4, "not closed"},
        {"sqrt 2", 5, "'(' expected"},
        {"3 * -1e", 4, "invalid number: \"-1e\""},
        {"fma(1, 2)", 8, "fma takes 3"},
        {nested, 1000, "nested too deeply"},
        {chain, 4096, "expression too long"},
        {"scale_b(1, 0.5)", 11, "integral power"},
        {"#0x1ffff", 0, "wider than the format"},
    };
    for (const auto& [text, column, message] : cases) {
        try {
            eval(text);
            ADD_FAILURE() << text.substr(0, 40) << " accepted";
        } catch (const fpcalc::InputError& e) {
            EXPECT_EQ(e.column(), column) << text.substr(0, 40);
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
    }
}

// The encode and decode commands: named and custom encodings, a numeral rounded
// once (0.1 to float16 is 0x2e66 whichever way it is read), both overflow modes.
TEST(Fpcalc, EncodesAndDecodesLowPrecision) {
    const auto nearest = tarn::rounding::nearest_even;
    const auto saturate = tarn::overflow::saturate;
    const auto e4m3fn = fpcalc::parse_encoding("float8_e4m3fn");
    EXPECT_EQ(fpcalc::encode_text(e4m3fn, "1.3", nearest, saturate),
              "0x3a 0b00111010 = 1.25  flags: inexact");
    EXPECT_EQ(fpcalc::encode_text(e4m3fn, "-1e9", nearest, tarn::overflow::non_finite),
              "0x7f 0b01111111 = nan  flags: overflow inexact");
    EXPECT_EQ(fpcalc::decode_text(e4m3fn, "0b01111110"), "0x7e 0b01111110 = 448");
    EXPECT_EQ(fpcalc::encode_text(fpcalc::parse_encoding("float16"), "0.1", nearest, saturate)
                  .substr(0, 6),
              "0x2e66");
    const auto fnuz = fpcalc::parse_encoding("e4m3:bias=8:fnuz");
    EXPECT_TRUE(fnuz == *tarn::encoding::by_name("float8_e4m3fnuz"));
    EXPECT_EQ(fpcalc::decode_text(fnuz, "0x80"), "0x80 0b10000000 = nan");
    EXPECT_EQ(fpcalc::decode_text(fpcalc::parse_encoding("e2m1:finite:unsigned"), "7"),
              "0x7 0b111 = 6");
    for (const char* bad : {"e4", "e0m3", "e4m3:fnuz:unsigned", "e4m3:bias=x"})
        EXPECT_THROW(fpcalc::parse_encoding(bad), fpcalc::EncodingError) << bad;
    EXPECT_THROW(fpcalc::decode_text(e4m3fn, "0x100"), fpcalc::EncodingError);
}

} // namespace
