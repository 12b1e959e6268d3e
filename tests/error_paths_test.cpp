// The error paths of every operation that can throw: each leaves its operands
// as they were (an operation that writes its target writes it last, so a throw
// keeps the previous value, format, mode and representation), and throwing and
// catching in a loop gives back every block of memory it took.
#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/allocation_counter.h"

#include <functional>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;

constexpr auto bad_mode = static_cast<IEEEFloat::rounding_mode>(9);

/// `q` in `f`, held in `repr`, rounding with `mode` from then on.
IEEEFloat value(const QNumber& q, Format f, IEEEFloat::Repr repr,
                IEEEFloat::rounding_mode mode = bad_mode) {
    IEEEFloat x = IEEEFloat::from_number(q, f, IEEEFloat::ROUND_NEAREST_EVEN);
    x.self_specialize_repr(repr);
    x.set_rounding_mode(mode);
    return x;
}

IEEEFloat generic(const QNumber& q, Format f, IEEEFloat::rounding_mode mode = bad_mode) {
    return value(q, f, IEEEFloat::REPR_GENERIC, mode);
}

IEEEFloat pattern(const mpz_class& bits, Format f) {
    return IEEEFloat::from_bits(QNumber(bits), f);
}

/// Everything a failed operation must not have touched.
using State = std::tuple<std::string, unsigned long, unsigned long, int, int>;

State state_of(const IEEEFloat& x) {
    const Format f = x.get_format();
    return {x.get_bits().to_mpz().get_str(16), f.exponent_width, f.mantissa_width,
            static_cast<int>(x.get_rounding_mode()), static_cast<int>(x.get_repr())};
}

struct ErrorCase {
    const char* name;
    std::function<IEEEFloat()> target;
    std::function<IEEEFloat()> operand;
    std::function<void(IEEEFloat&, const IEEEFloat&)> operation;
    const char* message;
};

const Format half{5, 10}, quad{15, 112}, single{8, 23}, wide_exponent{32, 4}, huge_exponent{65, 1};
const char* const bad_mode_message = "bad rounding mode: 9";
const char* const limit_message = "reached limit on float precision";

IEEEFloat one_half() {
    return generic(1, half);
}
IEEEFloat tiny_half() {
    return generic(QNumber(1, 1 << 20), half);
}
IEEEFloat three_half() {
    return generic(3, half);
}
IEEEFloat none() {
    return IEEEFloat();
}
IEEEFloat largest_wide() {
    return IEEEFloat::max_value(wide_exponent);
}
IEEEFloat smallest_wide() {
    return pattern(1, wide_exponent);
}
IEEEFloat huge_value() {
    return pattern(mpz_class(1) << 1, huge_exponent);
}
IEEEFloat nan_half() {
    IEEEFloat x = one_half();
    x.self_nan();
    return x;
}
IEEEFloat inf_half() {
    IEEEFloat x = one_half();
    x.self_inf(true);
    return x;
}

const ErrorCase error_cases[] = {
    {"add_bad_mode", one_half, tiny_half, [](IEEEFloat& t, const IEEEFloat& o) { t += o; },
     bad_mode_message},
    {"sub_bad_mode", one_half, tiny_half, [](IEEEFloat& t, const IEEEFloat& o) { t -= o; },
     bad_mode_message},
    {"mul_bad_mode", [] { return generic(QNumber(1023, 1024), half); },
     [] { return generic(QNumber(1023, 1024), half); },
     [](IEEEFloat& t, const IEEEFloat& o) { t *= o; }, bad_mode_message},
    {"div_bad_mode", one_half, three_half, [](IEEEFloat& t, const IEEEFloat& o) { t /= o; },
     bad_mode_message},
    {"sqrt_bad_mode", [] { return generic(2, quad); }, none,
     [](IEEEFloat& t, const IEEEFloat&) { t.sqrt(); }, bad_mode_message},
    {"div_bad_mode_binary32_generic", [] { return generic(1, single); },
     [] { return generic(3, single); }, [](IEEEFloat& t, const IEEEFloat& o) { t /= o; },
     bad_mode_message},
    {"set_format_bad_mode", [] { return generic(QNumber(1, 3), quad); }, none,
     [](IEEEFloat& t, const IEEEFloat&) { t.set_format(half); }, bad_mode_message},
    {"set_format_bad_mode_from_binary32_word",
     [] { return value(QNumber(1, 3), single, IEEEFloat::REPR_FLOAT32); }, none,
     [](IEEEFloat& t, const IEEEFloat&) { t.set_format(half); }, bad_mode_message},
    {"from_number_bad_mode", none, none,
     [](IEEEFloat&, const IEEEFloat&) { IEEEFloat::from_number(QNumber(1, 3), half, bad_mode); },
     bad_mode_message},
    {"from_string_malformed", none, none,
     [](IEEEFloat&, const IEEEFloat&) { IEEEFloat::from_string("1.2.3", quad, bad_mode); },
     "invalid number: \"1.2.3\""},
    {"from_string_bad_mode", none, none,
     [](IEEEFloat&, const IEEEFloat&) { IEEEFloat::from_string("0.1", quad, bad_mode); },
     bad_mode_message},
    {"from_string_underflow_bad_mode", none, none,
     [](IEEEFloat&, const IEEEFloat&) { IEEEFloat::from_string("1e-999", half, bad_mode); },
     bad_mode_message},
    {"from_string_limit", none, none,
     [](IEEEFloat&, const IEEEFloat&) {
         IEEEFloat::from_string("1e-20000000", wide_exponent, IEEEFloat::ROUND_NEAREST_EVEN);
     },
     limit_message},
    {"add_alignment_limit", largest_wide, smallest_wide,
     [](IEEEFloat& t, const IEEEFloat& o) { t += o; }, limit_message},
    {"sub_alignment_limit", largest_wide, smallest_wide,
     [](IEEEFloat& t, const IEEEFloat& o) { t -= o; }, limit_message},
    {"to_number_nan", nan_half, none, [](IEEEFloat& t, const IEEEFloat&) { t.to_number(); },
     "can't convert NaN to a Number"},
    {"to_number_inf", inf_half, none, [](IEEEFloat& t, const IEEEFloat&) { t.to_number(); },
     "can't convert infinity to a Number"},
    {"to_number_limit", huge_value, none, [](IEEEFloat& t, const IEEEFloat&) { t.to_number(); },
     limit_message},
    {"to_integer_limit", huge_value, none, [](IEEEFloat& t, const IEEEFloat&) { t.to_integer(8); },
     limit_message},
    {"to_float_str_nan", nan_half, none, [](IEEEFloat& t, const IEEEFloat&) { t.to_float_str(); },
     "can't convert NaN to float str"},
    {"to_float_str_inf", inf_half, none, [](IEEEFloat& t, const IEEEFloat&) { t.to_float_str(); },
     "can't convert Infinity to float str"},
    {"to_float_str_limit", huge_value, none,
     [](IEEEFloat& t, const IEEEFloat&) { t.to_float_str(); }, limit_message},
};

class ErrorPath : public ::testing::TestWithParam<ErrorCase> {};

/// The message of the error `c` throws on fresh operands, or "" if none.
std::string run_once(const ErrorCase& c, IEEEFloat& target, const IEEEFloat& operand) {
    try {
        c.operation(target, operand);
    } catch (const IEEEFloat::error& e) {
        return e.what();
    }
    return "";
}

TEST_P(ErrorPath, ThrowsAndLeavesTheOperandsAsTheyWere) {
    const ErrorCase& c = GetParam();
    IEEEFloat target = c.target();
    const IEEEFloat operand = c.operand();
    const State target_before = state_of(target), operand_before = state_of(operand);

    EXPECT_EQ(run_once(c, target, operand), c.message);
    EXPECT_EQ(state_of(target), target_before);
    EXPECT_EQ(state_of(operand), operand_before);
}

TEST_P(ErrorPath, ThrowingInALoopGivesBackEveryBlock) {
    const ErrorCase& c = GetParam();
    // Once outside the count, so that per-thread scratch storage is in place.
    {
        IEEEFloat target = c.target();
        run_once(c, target, c.operand());
    }
    int thrown = 0;
    const long left = tarn_testing::blocks_left_by([&] {
        for (int i = 0; i < 50; ++i) {
            IEEEFloat target = c.target();
            thrown += !run_once(c, target, c.operand()).empty();
        }
    });
    EXPECT_EQ(thrown, 50);
    EXPECT_EQ(left, 0);
}

INSTANTIATE_TEST_SUITE_P(EveryThrowingOperation, ErrorPath, ::testing::ValuesIn(error_cases),
                         [](const auto& info) { return std::string(info.param.name); });

// The counter itself must see a leak, or the test above proves nothing.
TEST(ErrorPath, TheCounterSeesALeak) {
    static void* kept = nullptr;
    EXPECT_EQ(tarn_testing::blocks_left_by([] { kept = ::operator new(16); }), 1);
    ::operator delete(kept);
    mpz_class* leaked = nullptr;
    EXPECT_GT(tarn_testing::blocks_left_by([&] { leaked = new mpz_class(mpz_class(1) << 4096); }),
              0);
    delete leaked;
}

} // namespace
