// The error paths: each throwing operation, on operands no random sequence is
// likely to build, throws the library's exact message and leaves its operands
// as they were (an operation writes its target last), and throwing in a loop
// gives back every block it took. Then the robustness sequences on seeded
// bytes, and every operation on formats without exponent bits.
#include "tests/allocation_counter.h"
#include "tests/robustness.h"

#include <gtest/gtest.h>
#include <ostream>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;
using tarn_testing::describe;
using tarn_testing::RandomSource;

constexpr auto bad_mode = static_cast<IEEEFloat::rounding_mode>(9);
const Format half{5, 10}, single{8, 23}, quad{15, 112}, wide{32, 4}, huge{65, 1};

/// `q` rounded to nearest in `f`, held in `repr`, then rounding with the bad mode 9.
const IEEEFloat::Repr generic = IEEEFloat::REPR_GENERIC, word = IEEEFloat::REPR_FLOAT32;
IEEEFloat value(const QNumber& q, Format f, IEEEFloat::Repr repr = generic) {
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

const char *const bad = "bad rounding mode: 9", *const limit = "reached limit on float precision";
const IEEEFloat largest_wide = IEEEFloat::max_value(wide),
                smallest_wide = IEEEFloat::from_bits(QNumber(1), wide),
                huge_two = IEEEFloat::from_bits(QNumber(2), huge),
                nan = IEEEFloat::from_bits(QNumber(0x7e01), half),
                inf = IEEEFloat::from_bits(QNumber(0xfc00), half);

const ErrorCase error_cases[] = {
    {"add_alignment_limit", largest_wide, smallest_wide, OP(t += o), limit},
    {"sub_alignment_limit", largest_wide, smallest_wide, OP(t -= o), limit},
    {"to_number_limit", huge_two, {}, OP(t.to_number()), limit},
    {"to_integer_limit", huge_two, {}, OP(t.to_integer(8)), limit},
    {"to_float_str_limit", huge_two, {}, OP(t.to_float_str()), limit},
    {"to_number_nan", nan, {}, OP(t.to_number()), "can't convert NaN to a Number"},
    {"to_number_inf", inf, {}, OP(t.to_number()), "can't convert infinity to a Number"},
    {"to_float_str_nan", nan, {}, OP(t.to_float_str()), "can't convert NaN to float str"},
    {"to_float_str_inf", inf, {}, OP(t.to_float_str()), "can't convert Infinity to float str"},
    {"from_string_limit", {}, {}, OP(IEEEFloat::from_string("1e-20000000", wide, {})), limit},
    {"malformed",
     {},
     {},
     OP(IEEEFloat::from_string("1e", quad, bad_mode)),
     "invalid number: \"1e\""},
    {"from_string_underflow", {}, {}, OP(IEEEFloat::from_string("1e-999", half, bad_mode)), bad},
    {"from_number", {}, {}, OP(IEEEFloat::from_number(QNumber(1, 3), half, bad_mode)), bad},
    {"div_binary32_generic", value(1, single), value(3, single), OP(t /= o), bad},
    {"sqrt_binary128", value(2, quad), {}, OP(t.sqrt()), bad},
    {"set_format_generic", value(QNumber(1, 3), quad), {}, OP(t.set_format(half)), bad},
    {"set_format_word", value(QNumber(1, 3), single, word), {}, OP(t.set_format(half)), bad},
};

#undef OP

/// The message of the error `c` throws, or "" if none.
std::string run_once(const ErrorCase& c, IEEEFloat& target) {
    try {
        c.operation(target, c.operand);
    } catch (const IEEEFloat::error& e) {
        return e.what();
    }
    return "";
}

class ErrorPath : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(ErrorPath, ThrowsAndLeavesTheTargetAsItWas) {
    const ErrorCase& c = GetParam();
    IEEEFloat target = c.target;
    EXPECT_EQ(run_once(c, target), c.message);
    EXPECT_EQ(describe(target), describe(c.target));
}

TEST_P(ErrorPath, ThrowingInALoopGivesBackEveryBlock) {
    const ErrorCase& c = GetParam();
    IEEEFloat warm = c.target; // once outside the count, so per-thread scratch is in place
    run_once(c, warm);
    int thrown = 0;
    const long left = tarn_testing::blocks_left_by([&] {
        for (int i = 0; i < 50; ++i) {
            IEEEFloat target = c.target;
            thrown += !run_once(c, target).empty();
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

TEST(Robustness, SeededSequences) {
    for (std::uint64_t seed = 0; seed < 3000; ++seed) {
        RandomSource in(seed, 400);
        const std::string failure = tarn_testing::run_sequence(in, [](int, auto&, auto&) {});
        if (!failure.empty()) ADD_FAILURE() << "seed " << seed << ": " << failure;
    }
}

// Without exponent bits only safety is promised: every operation, in every
// mode, on the zeros and the ends of the pattern range, gives a pattern of the
// format or a library error that leaves the value alone.
TEST(Robustness, EveryOperationWithoutExponentBits) {
    for (unsigned long m : {0UL, 1UL, 3UL, 52UL, 200UL}) {
        const mpz_class sign = mpz_class(1) << m;
        for (const mpz_class& bits : {mpz_class(0), mpz_class(1), sign, mpz_class(2 * sign - 1)}) {
            for (int step = 0; step < 4 * int(std::size(tarn_testing::steps<RandomSource>));
                 ++step) {
                IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), {0, m});
                x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(step % 4));
                RandomSource in(step, 64);
                std::string outcome;
                EXPECT_EQ(tarn_testing::checked_step(in, step / 4, x, IEEEFloat(x), outcome), "");
            }
        }
    }
}

} // namespace
