// Formats at the edge of what the library serves: no exponent bits, where
// only safety is promised (a pattern of the format or the precision-limit
// error, never a crash), and a single exponent bit, where the format holds
// zeros, subnormals, infinities and NaNs but no normal value and every
// operation still rounds exactly. The inputs that crashed before are kept.
#include "tests/testing.h"

#include <functional>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;

const char* const limit_message = "reached limit on float precision";

IEEEFloat pattern(long bits, Format f) {
    return IEEEFloat::from_bits(QNumber(bits), f);
}

using tarn_testing::error_of;

struct Operation {
    const char* name;
    std::function<void(IEEEFloat&)> apply;
};

const Operation operations[] = {
    {"add", [](IEEEFloat& x) { x += IEEEFloat(x); }},
    {"mul", [](IEEEFloat& x) { x *= IEEEFloat(x); }},
    {"div", [](IEEEFloat& x) { x /= IEEEFloat(x); }},
    {"sqrt", [](IEEEFloat& x) { x.sqrt(); }},
    {"round", [](IEEEFloat& x) { x = round(x); }},
    {"next_up", [](IEEEFloat& x) { x.next_representable(true); }},
    {"next_down", [](IEEEFloat& x) { x.next_representable(false); }},
    {"packed_next", [](IEEEFloat& x) { x.packed_next(true); }},
    {"to_binary16",
     [](IEEEFloat& x) {
         x.set_format({5, 10});
     }},
};

class NoExponentBits : public ::testing::TestWithParam<unsigned long> {};

// Every operation either gives a pattern of the format or the precision
// limit; before, multiplication asked GMP for 2^(2^64 - 1) and aborted,
// and max_value gave a negative pattern.
TEST_P(NoExponentBits, EveryOperationGivesAPatternOrTheLimit) {
    const Format f{0, GetParam()};
    const mpz_class sign = mpz_class(1) << f.mantissa_width, bound = 2 * sign;
    for (const mpz_class& bits : {mpz_class(0), mpz_class(1), sign, mpz_class(bound - 1)}) {
        for (const Operation& op : operations) {
            for (int mode = 0; mode < 4; ++mode) {
                IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), f);
                x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(mode));
                const std::string message = error_of([&] { op.apply(x); });
                if (message != "no error") {
                    EXPECT_EQ(message, limit_message) << op.name << " of " << bits.get_str();
                    EXPECT_EQ(x.get_bits().to_mpz(), bits) << op.name << " changed on a throw";
                    continue;
                }
                const mpz_class result = x.get_bits().to_mpz();
                const bool fits = x.get_format() != f || (result >= 0 && result < bound);
                EXPECT_TRUE(fits) << op.name << " of " << bits.get_str() << " gave "
                                  << result.get_str();
            }
        }
    }
}

TEST_P(NoExponentBits, HoldOnlyZeros) {
    const Format f{0, GetParam()};
    EXPECT_EQ(error_of([&] { f.bias(); }), limit_message);
    EXPECT_EQ(IEEEFloat::max_value(f).get_bits(), QNumber(0L));
    EXPECT_EQ(pattern(1, f).to_number(), QNumber(0L));
    EXPECT_EQ(pattern(1, f).to_integer(), QNumber(0L));
    EXPECT_EQ(pattern(1, f).to_float_str(), "0");
    EXPECT_EQ(IEEEFloat::from_number(0L, f, IEEEFloat::ROUND_NEAREST_EVEN).get_bits(), QNumber(0L));
    EXPECT_EQ(error_of([&] { IEEEFloat::from_number(1L, f, IEEEFloat::ROUND_NEAREST_EVEN); }),
              limit_message);
    IEEEFloat one = IEEEFloat::from_number(1L, {5, 10}, IEEEFloat::ROUND_NEAREST_EVEN);
    EXPECT_EQ(error_of([&] { one.set_format(f); }), limit_message);
    EXPECT_EQ(one.get_format(), Format(5, 10));
}

INSTANTIATE_TEST_SUITE_P(MantissaWidths, NoExponentBits,
                         ::testing::Values(0UL, 1UL, 3UL, 52UL, 200UL));

// (1, 2) holds 0, 0.5, 1 and 1.5 (all subnormal: the bias is 0), then the
// infinity and the NaNs of exponent field 1.
struct OneBitCase {
    const char* name;
    char op;   ///< '+', '-', '*' or '/'
    long a, b; ///< patterns: 1 = 0.5, 2 = 1, 3 = 1.5, 4 = +inf
    int mode;
    long want;
};

const OneBitCase one_bit_cases[] = {
    {"half_plus_half", '+', 1, 1, 0, 2},
    {"one_plus_one_overflows", '+', 2, 2, 0, 4},
    {"one_plus_one_toward_zero_saturates", '+', 2, 2, 1, 3},
    {"one_and_a_half_minus_one", '-', 3, 2, 0, 1},
    {"quarter_ties_to_zero", '*', 1, 1, 0, 0},
    {"quarter_toward_positive", '*', 1, 1, 2, 1},
    {"one_and_a_half_squared_overflows", '*', 3, 3, 0, 4},
    {"a_third_to_nearest", '/', 1, 3, 0, 1},
    {"a_third_toward_zero", '/', 1, 3, 1, 0},
};

class OneExponentBit : public ::testing::TestWithParam<OneBitCase> {};

TEST_P(OneExponentBit, RoundsExactly) {
    const OneBitCase& c = GetParam();
    const Format f{1, 2};
    IEEEFloat x = pattern(c.a, f);
    const IEEEFloat y = pattern(c.b, f);
    x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(c.mode));
    switch (c.op) {
    case '+':
        x += y;
        break;
    case '-':
        x -= y;
        break;
    case '*':
        x *= y;
        break;
    default:
        x /= y;
        break;
    }
    EXPECT_EQ(x.get_bits(), QNumber(c.want));
}

INSTANTIATE_TEST_SUITE_P(Cases, OneExponentBit, ::testing::ValuesIn(one_bit_cases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(OneExponentBitFormat, SquareRootsAndText) {
    const Format f{1, 2};
    const char* const texts[] = {"0", "0.5", "1", "1.5"};
    const long roots[] = {0, 1, 2, 2}; // sqrt(0.5) = 0.707 is nearer 0.5; sqrt(1.5) = 1.22
    for (long bits = 0; bits < 4; ++bits) {
        EXPECT_EQ(pattern(bits, f).to_float_str(), texts[bits]);
        IEEEFloat x = pattern(bits, f);
        x.sqrt();
        EXPECT_EQ(x.get_bits(), QNumber(roots[bits])) << texts[bits];
    }
    EXPECT_TRUE(pattern(4, f).is_inf());
    EXPECT_TRUE(pattern(5, f).is_nan());
    EXPECT_EQ(IEEEFloat::max_value(f).get_bits(), QNumber(3L));
}

} // namespace
