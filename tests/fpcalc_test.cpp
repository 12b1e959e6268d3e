// The expression reader and evaluator behind the fpcalc example: precedence,
// where numerals end, one rounding per numeral and per operation, and errors
// that point at the right place.

#include "expression.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr IEEEFloat::format binary16{5, 10};

IEEEFloat eval(const std::string& text, IEEEFloat::format fmt = binary16,
               IEEEFloat::rounding_mode mode = IEEEFloat::ROUND_NEAREST_EVEN) {
    return fpcalc::evaluate(*fpcalc::parse(text), fmt, mode);
}

QNumber rational(long n, long d = 1) {
    return QNumber(n, d);
}

struct ExactCase {
    const char* text;
    QNumber value;
};

// Every intermediate result is exact in binary16, so these check the shape
// of the tree alone.
TEST(FpcalcParse, GroupsAsArithmeticDoes) {
    const ExactCase cases[] = {
        {"1 + 2 * 3", rational(7)},
        {"(1 + 2) * 3", rational(9)},
        {"8 / 2 / 2", rational(2)},
        {"1 - 2 - 3", rational(-4)},
        {"2 * -3", rational(-6)},
        {"-(1 - 3)", rational(2)},
        {"- -2", rational(2)},
        {"+2", rational(2)},
        {"sqrt(9) * sqrt(4)", rational(6)},
        {"SQRT (16)", rational(4)},
        {"1e-3 * 0 + 1E+1", rational(10)},
        {"0x1e-3", rational(27)},     // hexadecimal digit e, then minus 3
        {"0x1p-3+1", rational(9, 8)}, // p takes the sign, + is the operator
        {"1e1-1", rational(9)},
        {"\t 3 /\n4 ", rational(3, 4)},
    };
    for (const ExactCase& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(eval(c.text).to_number(), c.value);
    }
}

TEST(FpcalcParse, ReadsTheSpecialNumerals) {
    EXPECT_TRUE(eval("inf").is_inf());
    EXPECT_TRUE(eval("-Infinity").get_sign());
    EXPECT_TRUE(eval("NaN * 0").is_nan());
    EXPECT_TRUE(eval("1/0").is_inf());
}

// 1/3 is rounded once per operation: the same as converting the exact 1/3,
// whose numerator and denominator are exact in the format.
TEST(FpcalcEvaluate, RoundsEachOperationOnceInTheMode) {
    for (int m = 0; m < 4; ++m) {
        const auto mode = static_cast<IEEEFloat::rounding_mode>(m);
        SCOPED_TRACE(m);
        for (IEEEFloat::format fmt :
             {binary16, IEEEFloat::format{11, 52}, IEEEFloat::format{4, 3}}) {
            EXPECT_EQ(eval("1/3", fmt, mode).get_bits(),
                      IEEEFloat::from_number(rational(1, 3), fmt, mode).get_bits());
            EXPECT_EQ(eval("-1/3", fmt, mode).get_bits(),
                      IEEEFloat::from_number(rational(-1, 3), fmt, mode).get_bits());
        }
    }
}

// The minus belongs to the numeral, which is rounded with its sign: upward,
// -0.1 is the value just above -0.1, not the negation of 0.1 rounded up.
TEST(FpcalcEvaluate, ANegativeNumeralIsRoundedWithItsSign) {
    const auto up = IEEEFloat::ROUND_TOWARD_POSITIVE;
    const IEEEFloat folded = eval("-0.1", binary16, up);
    EXPECT_EQ(folded.get_bits(), IEEEFloat::from_string("-0.1", binary16, up).get_bits());
    EXPECT_NE(folded.get_bits(), eval("-(0.1)", binary16, up).get_bits());
}

TEST(FpcalcEvaluate, ReportsEachRoundedStep) {
    std::string steps;
    fpcalc::evaluate(
        *fpcalc::parse("-(1/3 + sqrt(2))"), binary16, IEEEFloat::ROUND_NEAREST_EVEN,
        [&](const fpcalc::Node& node, const IEEEFloat&) { steps += fpcalc::describe(node) + ";"; });
    EXPECT_EQ(steps, "(1 / 3);sqrt(2);((1 / 3) + sqrt(2));");
}

struct ErrorCase {
    const char* text;
    std::size_t column;
    const char* message;
};

void expect_error(const std::string& text, std::size_t column, const char* message) {
    SCOPED_TRACE(text.substr(0, 40));
    try {
        eval(text);
        ADD_FAILURE() << "accepted";
    } catch (const fpcalc::InputError& e) {
        EXPECT_EQ(e.column(), column);
        EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
}

TEST(FpcalcErrors, PointAtTheOffendingText) {
    const ErrorCase cases[] = {
        {"", 0, "empty expression"},
        {"   ", 3, "empty expression"},
        {"1 +", 3, "a number is missing"},
        {"1 2", 2, "unexpected '2'"},
        {"(1 + 2", 0, "not closed"},
        {"2 * (1 + 2", 4, "not closed"},
        {"(1))", 3, "unexpected ')'"},
        {"sqrt 2", 5, "'(' expected"},
        {"1 + pi", 4, "unknown name 'pi'"},
        {"* 2", 0, "unexpected '*'"},
        {"1 + 1.2.3", 4, "invalid number: \"1.2.3\""},
        {"1 - 0x", 4, "invalid number: \"0x\""},
        {"3 * -1e", 4, "invalid number: \"-1e\""},
    };
    // Nesting and long chains alike are bounded before any recursion over the
    // tree could exhaust the stack.
    const std::string nested = std::string(100000, '(') + "1" + std::string(100000, ')');
    std::string chain = "1";
    for (int i = 0; i < 5000; ++i)
        chain += "+1";
    for (const ErrorCase& c : cases) {
        expect_error(c.text, c.column, c.message);
    }
    expect_error(nested, 1000, "nested too deeply");
    expect_error(chain, 4096, "expression too long");
}

} // namespace
