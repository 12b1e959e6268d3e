// The error paths: each throwing operation, on operands no random sequence is
// likely to build, throws the library's exact message and leaves its operands
// as they were (an operation writes its target last), and throwing in a loop
// gives back every block it took. Then every operation on formats without
// exponent bits. (The seeded robustness sequences run in threads_test.cpp.)
#include "tests/allocation_counter.h"
#include "tests/robustness.h"
#include "tests/testing.h"

#include <functional>
#include <gtest/gtest.h>
#include <ostream>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;
using tarn_testing::describe;

constexpr auto bad_mode = static_cast<IEEEFloat::rounding_mode>(9);
constexpr auto word = IEEEFloat::REPR_FLOAT32;
const Format half{5, 10}, single{8, 23}, quad{15, 112}, wide{32, 4}, huge{65, 1};

/// `q` rounded to nearest in `f`, held in `repr`, then rounding with the bad mode 9.
IEEEFloat value(const QNumber& q, Format f, IEEEFloat::Repr repr = IEEEFloat::REPR_GENERIC) {
    IEEEFloat x = IEEEFloat::from_number(q, f, IEEEFloat::ROUND_NEAREST_EVEN);
    x.self_specialize_repr(repr);
    x.set_rounding_mode(bad_mode);
    return x;
}

struct ErrorCase {
    const char* name;
    IEEEFloat target, operand;
    void (*operation)(IEEEFloat& t, const IEEEFloat& o);
    const char* message;
};

void PrintTo(const ErrorCase& c, std::ostream* out) {
    *out << c.name << " on " << describe(c.target);
}

#define OP(...)                                                                                    \
    []([[maybe_unused]] IEEEFloat& t, [[maybe_unused]] const IEEEFloat& o) { __VA_ARGS__; }

// The messages of NaN and infinity in to_number and to_float_str are the
// differential table's to_number and to_float_str rows.
const char *const bad = "bad rounding mode: 9", *const limit = "reached limit on float precision";
const IEEEFloat largest_wide = IEEEFloat::max_value(wide),
                smallest_wide = IEEEFloat::from_bits(QNumber(1), wide),
                huge_two = IEEEFloat::from_bits(QNumber(2), huge),
                zero_bits = IEEEFloat::from_bits(QNumber(0), {0, 3});
const char* const none = "value has no format";

const ErrorCase error_cases[] = {
    {"add_alignment_limit", largest_wide, smallest_wide, OP(t += o), limit},
    {"sub_alignment_limit", largest_wide, smallest_wide, OP(t -= o), limit},
    {"to_number_limit", huge_two, {}, OP(t.to_number()), limit},
    {"to_integer_limit", huge_two, {}, OP(t.to_integer(8)), limit},
    {"to_float_str_limit", huge_two, {}, OP(t.to_float_str()), limit},
    {"from_string_limit", {}, {}, OP(IEEEFloat::from_string("1e-20000000", wide, {})), limit},
    {"syntax", {}, {}, OP(IEEEFloat::from_string("1e", quad, bad_mode)), "invalid number: \"1e\""},
    {"from_string_underflow", {}, {}, OP(IEEEFloat::from_string("1e-999", half, bad_mode)), bad},
    {"from_number", {}, {}, OP(IEEEFloat::from_number(QNumber(1, 3), half, bad_mode)), bad},
    {"div_binary32_generic", value(1, single), value(3, single), OP(t /= o), bad},
    {"sqrt_binary128", value(2, quad), {}, OP(t.sqrt()), bad},
    {"set_format_generic", value(QNumber(1, 3), quad), {}, OP(t.set_format(half)), bad},
    {"set_format_word", value(QNumber(1, 3), single, word), {}, OP(t.set_format(half)), bad},
    {"mixed_div", value(1, half), value(3, single, word), OP(t /= o), bad},
    {"mixed_without_exponent_bits", value(1, half), zero_bits, OP(t -= o), limit},
    // Every two- and three-value operation on a value of format (0, 0).
    {"no_format_target", {}, value(1, half), OP(t += o), none},
    {"no_format_operand", value(1, half), {}, OP(t = t * o), none},
    {"no_format_directed", value(1, half), {}, OP(t = div(t, o, tarn::rounding::upward)), none},
    {"no_format_fma", value(1, half), {}, OP(t = fma(t, t, o)), none},
    {"no_format_compare", value(1, half), {}, OP((void)(t < o)), none},
    {"no_format_both", {}, {}, OP(ieee_cmp(t, o)), none},
};

#undef OP

class ErrorPath : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(ErrorPath, ThrowsAndLeavesTheTargetAsItWas) {
    const ErrorCase& c = GetParam();
    IEEEFloat target = c.target;
    EXPECT_EQ(tarn_testing::error_of([&] { c.operation(target, c.operand); }), c.message);
    EXPECT_EQ(describe(target), describe(c.target));
}

TEST_P(ErrorPath, ThrowingInALoopGivesBackEveryBlock) {
    const ErrorCase& c = GetParam();
    const auto run_once = [&c] {
        IEEEFloat target = c.target;
        return tarn_testing::error_of([&] { c.operation(target, c.operand); }) == c.message;
    };
    run_once(); // once outside the count, so per-thread scratch is in place
    int thrown = 0;
    EXPECT_EQ(tarn_testing::blocks_left_by([&] {
                  for (int i = 0; i < 50; ++i)
                      thrown += run_once();
              }),
              0);
    EXPECT_EQ(thrown, 50);
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

// Formats past max_width are refused wherever a value of them would be made,
// before anything is allocated (2^40 bits once aborted inside GMP); so is a
// representation number outside the three. At the bound itself values are served.
TEST(Limits, WideFormatsAndBadRepresentationsAreRefused) {
    constexpr unsigned long w = IEEEFloat::max_width;
    const IEEEFloat one = IEEEFloat::from_number(1, single, {});
    const auto up = tarn::rounding::upward;
    for (const Format f : {Format{11, 1UL << 40}, Format{1000, 1UL << 32}, Format{1UL << 40, 2},
                           Format{20, w - 19}, Format{~0UL, 2}}) {
        const std::function<void()> makers[] = {
            [&] { IEEEFloat(f, {}); },
            [&] { IEEEFloat::from_bits(1, f); },
            [&] { IEEEFloat::max_value(f); },
            [&] { IEEEFloat::from_number(QNumber(1, 3), f, {}); },
            [&] { IEEEFloat::from_rational(QNumber(1, 3), f, {}); },
            [&] { IEEEFloat::from_string("1.5", f, {}); },
            [&] { IEEEFloat::from_double(0.1, f, {}); },
            [&] { convert(one, f, up); },
            [&] { tarn::from_int64(1, f, up); },
            [&] { IEEEFloat(one).set_format(f); },
        };
        for (const auto& make : makers)
            EXPECT_EQ(tarn_testing::error_of(make), limit) << f.exponent_width;
    }
    EXPECT_EQ(tarn_testing::error_of([] { IEEEFloat(half, IEEEFloat::Repr(3), {}); }),
              "bad representation: 3");
    IEEEFloat x = one;
    EXPECT_EQ(tarn_testing::error_of([&] { x.self_specialize_repr(IEEEFloat::Repr(-1)); }),
              "bad representation: -1");
    EXPECT_EQ(describe(x), describe(one));
    EXPECT_EQ(IEEEFloat::from_string("1.5", {11, w - 11}, {}).to_hex_str(), "0x1.8p+0");
}

// Without exponent bits only safety is promised: every operation, in every
// mode, on the zeros and the ends of the pattern range, gives a pattern of the
// format or a library error that leaves the value alone.
TEST(Robustness, EveryOperationWithoutExponentBits) {
    using Source = tarn_testing::RandomSource;
    for (unsigned long m : {0UL, 1UL, 3UL, 52UL, 200UL}) {
        const mpz_class sign = mpz_class(1) << m;
        for (const mpz_class& bits : {mpz_class(0), mpz_class(1), sign, mpz_class(2 * sign - 1)})
            for (int step = 0; step < 4 * int(std::size(tarn_testing::steps<Source>)); ++step) {
                IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), {0, m});
                x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(step % 4));
                Source in(step, 64);
                std::string outcome;
                EXPECT_EQ(tarn_testing::checked_step(in, step / 4, x, IEEEFloat(x), outcome), "");
            }
    }
}

} // namespace
