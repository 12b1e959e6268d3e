// The expression reader and evaluator behind the fpcalc example: precedence,
// where numerals end, one rounding per numeral and per operation, and errors
// that point at the right place.

#include "expression.h"

#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <utility>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr IEEEFloat::format binary16{5, 10};

IEEEFloat eval(const std::string& text,
               IEEEFloat::rounding_mode mode = IEEEFloat::ROUND_NEAREST_EVEN) {
    return fpcalc::evaluate(*fpcalc::parse(text), binary16, mode);
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
        EXPECT_EQ(eval("-1/3", mode).get_bits(),
                  IEEEFloat::from_number(QNumber(-1, 3), binary16, mode).get_bits());
        EXPECT_EQ(eval("-0.1", mode).get_bits(),
                  IEEEFloat::from_string("-0.1", binary16, mode).get_bits());
    }
}

TEST(Fpcalc, ErrorsPointAtTheOffendingText) {
    // Nesting and long chains alike are bounded before any recursion over the
    // tree could exhaust the stack.
    const std::string nested = std::string(100000, '(') + "1" + std::string(100000, ')');
    std::string chain = "1";
    for (int i = 0; i < 5000; ++i)
        chain += "+1";
    const std::tuple<std::string, std::size_t, const char*> cases[] = {
        {"1 +", 3, "a number is missing"},   {"2 * (1 + 2", 4, "not closed"},
        {"sqrt 2", 5, "'(' expected"},       {"3 * -1e", 4, "invalid number: \"-1e\""},
        {nested, 1000, "nested too deeply"}, {chain, 4096, "expression too long"},
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

} // namespace
