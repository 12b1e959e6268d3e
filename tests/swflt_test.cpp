// Differential tests of the soft-float component against the host FPU: every operation, both
// widths, every rounding direction, on random words and on operands built to sit on the hard
// cases (subnormals, the overflow edge, exact ties, cancellation, NaNs and infinities).
// Results must match bit for bit (any NaN for a NaN), and so must the raised flags.
//
// TARN_LONG_TESTS=1 runs a hundred times more operands.

#include "swflt_oracle.h"
#include "tarn/swflt/swflt.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <iterator>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

namespace sw = tarn::swflt;
namespace hw = swflt_oracle;
using u64 = std::uint64_t;

struct Layout {
    int width;
    int mantissa_bits;
    int exponent_max;
    int bias;
    u64 word_mask() const { return width == 64 ? ~u64(0) : (u64(1) << width) - 1; }
    u64 mantissa_mask() const { return (u64(1) << mantissa_bits) - 1; }
    u64 make(bool sign, int exp, u64 man) const {
        return (u64(sign) << (width - 1)) | (u64(exp) << mantissa_bits) | (man & mantissa_mask());
    }
    int exponent_of(u64 w) const { return static_cast<int>(w >> mantissa_bits) & exponent_max; }
    bool is_nan(u64 w) const {
        return exponent_of(w) == exponent_max && (w & mantissa_mask()) != 0;
    }
};
constexpr Layout binary32{32, 23, 255, 127};
constexpr Layout binary64{64, 52, 2047, 1023};

// What the generator aims at for one operation.
enum class Shape { add, mul, div, sqrt, narrow, widen, compare };

class Operands {
public:
    Operands(Layout const& f, Shape shape, u64 seed) : f_(f), shape_(shape), rng_(seed) {}

    void next(u64& a, u64& b) {
        if (shape_ == Shape::narrow) {
            a = narrow_operand();
            b = 0;
            return;
        }
        a = pick(6) ? any() : edge();
        switch (shape_) {
        case Shape::add:
            b = pick(3) ? half_ulp_of(a) : pick(2) ? near(a) : any();
            break;
        case Shape::mul:
        case Shape::div:
            if (pick(3)) a = short_significand();
            b = pick(3) ? short_significand() : pick(2) ? toward_edge(a) : any();
            break;
        case Shape::sqrt:
            if (pick(3)) a = square_of_short();
            if (pick(8)) a &= ~(u64(1) << (f_.width - 1));
            b = a;
            break;
        default:
            b = pick(4) ? a : pick(3) ? a ^ (u64(1) << (f_.width - 1)) : pick(2) ? near(a) : any();
        }
    }

private:
    bool pick(unsigned out_of_ten) { return rng_() % 10 < out_of_ten; }
    int between(int lo, int hi) { return lo + static_cast<int>(rng_() % u64(hi - lo + 1)); }
    bool coin() { return (rng_() & 1) != 0; }

    u64 any() {
        // Uniform words are mostly ordinary numbers; half the time the exponent is drawn
        // uniformly instead so that every binade gets its share.
        if (coin()) return rng_() & f_.word_mask();
        return f_.make(coin(), between(0, f_.exponent_max), rng_());
    }

    u64 mantissa_like() {
        u64 const quiet = u64(1) << (f_.mantissa_bits - 1);
        u64 const all = f_.mantissa_mask();
        u64 const choices[] = {0, 1, 2, all, all - 1, quiet, quiet | 1, quiet - 1, rng_(), rng_()};
        return choices[rng_() % 10];
    }

    u64 edge() {
        int const e = f_.exponent_max;
        int const choices[] = {0,           0,     1,     2,     f_.bias - 1, f_.bias,
                               f_.bias + 1, e - 2, e - 1, e - 1, e,           between(0, e)};
        return f_.make(coin(), choices[rng_() % 12], mantissa_like());
    }

    // A number within a few binades of a, so that sums cancel and round in every way.
    u64 near(u64 a) {
        int const reach = f_.mantissa_bits + 3;
        int const exp =
            std::min(std::max(f_.exponent_of(a) + between(-reach, reach), 0), f_.exponent_max - 1);
        u64 const man = coin() ? rng_() : (a + between(-3, 3));
        return f_.make(coin(), exp, man);
    }

    // Half a unit in the last place of a (or just around it): sums that are exact ties.
    u64 half_ulp_of(u64 a) {
        int const exp = f_.exponent_of(a) - f_.mantissa_bits - between(1, 2);
        if (exp < 0) return near(a);
        u64 const man = pick(6) ? 0 : between(0, 2);
        return f_.make(coin(), exp, man);
    }

    // Significands of about half the precision: their products are exact or exact ties.
    u64 short_significand() {
        int const kept = (f_.mantissa_bits + 1) / 2;
        u64 const man = (rng_() & ((u64(1) << kept) - 1)) << (f_.mantissa_bits - kept);
        return f_.make(coin(), between(1, f_.exponent_max - 1), man);
    }

    // An operand that puts a * b (or a / b) next to the overflow or the underflow threshold.
    u64 toward_edge(u64 a) {
        int const e = f_.exponent_max;
        int const targets[] = {
            e - 1, e - 2, e, 1, 0, -1, -f_.mantissa_bits / 2, -f_.mantissa_bits - 1};
        int const target = targets[rng_() % 8];
        int const exp_a = f_.exponent_of(a);
        int const exp = shape_ == Shape::mul ? target - exp_a + f_.bias : exp_a - target + f_.bias;
        if (exp < 1 || exp >= e) return any();
        return f_.make(coin(), exp, coin() ? rng_() : mantissa_like());
    }

    u64 square_of_short() {
        u64 const root = short_significand() & ~(u64(1) << (f_.width - 1));
        sw::float_exception_flags = 0;
        return f_.width == 32 ? sw::float32_mul(static_cast<std::uint32_t>(root),
                                                static_cast<std::uint32_t>(root), 0)
                              : sw::float64_mul(root, root, 0);
    }

    // binary64 operands for narrowing: around the binary32 range, with the 29 discarded bits
    // often an exact tie or one unit off.
    u64 narrow_operand() {
        if (pick(2)) return edge();
        int const exp32 = pick(3) ? between(-30, 0) : pick(3) ? between(252, 256) : between(1, 254);
        u64 const low_choices[] = {0, u64(1) << 28, (u64(1) << 28) + 1, (u64(1) << 28) - 1,
                                   rng_() & ((u64(1) << 29) - 1)};
        u64 const man = (rng_() & ~((u64(1) << 29) - 1)) | low_choices[rng_() % 5];
        return f_.make(coin(), exp32 - 127 + 1023, man);
    }

    Layout f_;
    Shape shape_;
    std::mt19937_64 rng_;
};

using hw::Op;

// The soft-float operation matching hw::host.
u64 soft(Op op, int width, u64 a, u64 b, int code) {
    auto const a32 = static_cast<std::uint32_t>(a);
    auto const b32 = static_cast<std::uint32_t>(b);
    bool const w32 = width == 32;
    switch (op) {
    case Op::add:
        return w32 ? sw::float32_add(a32, b32, code) : sw::float64_add(a, b, code);
    case Op::sub:
        return w32 ? sw::float32_sub(a32, b32, code) : sw::float64_sub(a, b, code);
    case Op::mul:
        return w32 ? sw::float32_mul(a32, b32, code) : sw::float64_mul(a, b, code);
    case Op::div:
        return w32 ? sw::float32_div(a32, b32, code) : sw::float64_div(a, b, code);
    case Op::sqrt:
        return w32 ? sw::float32_sqrt(a32, code) : sw::float64_sqrt(a, code);
    case Op::convert:
        return w32 ? sw::float64_to_float32(a, code) : sw::float32_to_float64(a32);
    case Op::lt:
        return w32 ? sw::float32_lt(a32, b32) : sw::float64_lt(a, b);
    case Op::le:
        return w32 ? sw::float32_le(a32, b32) : sw::float64_le(a, b);
    case Op::eq:
        return w32 ? sw::float32_eq_signaling(a32, b32) : sw::float64_eq_signaling(a, b);
    }
    return 0;
}

struct Case {
    char const* name;
    Op op;
    int width; // of the result
    Shape shape;
};

Case const cases[] = {
    {"add", Op::add, 32, Shape::add},           {"add", Op::add, 64, Shape::add},
    {"sub", Op::sub, 32, Shape::add},           {"sub", Op::sub, 64, Shape::add},
    {"mul", Op::mul, 32, Shape::mul},           {"mul", Op::mul, 64, Shape::mul},
    {"div", Op::div, 32, Shape::div},           {"div", Op::div, 64, Shape::div},
    {"sqrt", Op::sqrt, 32, Shape::sqrt},        {"sqrt", Op::sqrt, 64, Shape::sqrt},
    {"narrow", Op::convert, 32, Shape::narrow}, {"widen", Op::convert, 64, Shape::widen},
    {"lt", Op::lt, 32, Shape::compare},         {"lt", Op::lt, 64, Shape::compare},
    {"le", Op::le, 32, Shape::compare},         {"le", Op::le, 64, Shape::compare},
    {"eq", Op::eq, 32, Shape::compare},         {"eq", Op::eq, 64, Shape::compare},
};

bool rounds(Case const& c) {
    return c.op == Op::add || c.op == Op::sub || c.op == Op::mul || c.op == Op::div ||
           c.op == Op::sqrt || c.shape == Shape::narrow;
}

Layout const& operand_layout(Case const& c) {
    bool const wide = c.shape == Shape::narrow || (c.width == 64 && c.shape != Shape::widen);
    return wide ? binary64 : binary32;
}

bool long_run() {
    char const* v = std::getenv("TARN_LONG_TESTS");
    return v != nullptr && std::strcmp(v, "1") == 0;
}

std::string hex(u64 v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

// The library passes -1 for a rounding mode it does not know; it must round to nearest even.
int const codes[] = {0, 1, 2, 3, -1};

struct Run {
    int case_index;
    int code;
};

std::string run_name(Run const& run) {
    Case const& c = cases[run.case_index];
    return c.name + std::to_string(c.width) + "_code" +
           (run.code < 0 ? std::string("_other") : std::to_string(run.code));
}

void PrintTo(Run const& run, std::ostream* os) {
    *os << run_name(run);
}

// Every case under every rounding code it depends on; the others once.
std::vector<Run> runs() {
    std::vector<Run> all;
    for (int i = 0; i < int(std::size(cases)); ++i) {
        for (int code : codes) {
            if (rounds(cases[i]) || code == 0) all.push_back({i, code});
        }
    }
    return all;
}

class Differential : public ::testing::TestWithParam<Run> {};

TEST_P(Differential, MatchesHostFpu) {
    Case const& c = cases[GetParam().case_index];
    int const code = GetParam().code;
    Layout const& result = c.width == 32 ? binary32 : binary64;
    u64 const seed = 0x5eed0000u + 16u * u64(GetParam().case_index) + u64(code + 1);
    long const count = (code < 0 ? 20000L : 300000L) * (long_run() ? 100 : 1);

    Operands operands(operand_layout(c), c.shape, seed);
    hw::HostRounding host(code);
    int failures = 0;
    for (long i = 0; i < count && failures < 10; ++i) {
        u64 a, b;
        operands.next(a, b);
        hw::Outcome const want = hw::host(c.op, c.width, a, b);
        sw::float_exception_flags = 0;
        u64 const got = soft(c.op, c.width, a, b, code);
        std::uint8_t const flags = sw::float_exception_flags;
        bool const same = result.is_nan(want.bits) ? result.is_nan(got) : got == want.bits;
        if (same && flags == want.flags) continue;
        ++failures;
        ADD_FAILURE() << run_name(GetParam()) << " seed " << hex(seed) << " sample " << i
                      << ": a=" << hex(a) << " b=" << hex(b) << " got " << hex(got) << " flags "
                      << int(flags) << ", host " << hex(want.bits) << " flags " << int(want.flags);
    }
}

INSTANTIATE_TEST_SUITE_P(Swflt, Differential, ::testing::ValuesIn(runs()),
                         [](::testing::TestParamInfo<Run> const& info) {
                             return run_name(info.param);
                         });

// Class tests and the sign query against the host's classification.
template <class Float, class Word>
void check_classes(Layout const& f) {
    bool const w32 = f.width == 32;
    Operands operands(f, Shape::compare, 0xc1a55);
    for (int i = 0; i < 20000; ++i) {
        u64 a, unused;
        operands.next(a, unused);
        auto const a32 = static_cast<std::uint32_t>(a);
        auto const word = static_cast<Word>(a);
        Float x;
        std::memcpy(&x, &word, sizeof x);
        int const kind = std::fpclassify(x);
        SCOPED_TRACE(hex(a));
        EXPECT_EQ(w32 ? sw::float32_is_inf(a32) : sw::float64_is_inf(a), kind == FP_INFINITE);
        EXPECT_EQ(w32 ? sw::float32_is_nan(a32) : sw::float64_is_nan(a), kind == FP_NAN);
        EXPECT_EQ(w32 ? sw::float32_is_zero(a32) : sw::float64_is_zero(a), kind == FP_ZERO);
        EXPECT_EQ(w32 ? sw::float32_is_subnormal(a32) : sw::float64_is_subnormal(a),
                  kind == FP_SUBNORMAL);
        EXPECT_EQ(w32 ? sw::float32_sign(a32) : sw::float64_sign(a), std::signbit(x));
    }
}

TEST(Swflt, ClassesMatchHost) {
    check_classes<float, std::uint32_t>(binary32);
    check_classes<double, std::uint64_t>(binary64);
}

// The library replaces every NaN result by make_nan and relies on it being one quiet NaN;
// invalid operations on ordinary operands return exactly that word. Flags only accumulate.
TEST(Swflt, CanonicalNanAndStickyFlags) {
    EXPECT_EQ(sw::float32_make_nan(), 0x7FC00000u);
    EXPECT_EQ(sw::float64_make_nan(), 0x7FF8000000000000u);
    sw::float_exception_flags = 0;
    EXPECT_EQ(sw::float32_sub(0x7F800000u, 0x7F800000u, 0), sw::float32_make_nan());
    EXPECT_EQ(sw::float64_div(0x3FF0000000000000u, 0, 0), sw::float64_make_inf());
    EXPECT_EQ(sw::float64_sqrt(0xBFF0000000000000u, 2), sw::float64_make_nan());
    EXPECT_EQ(sw::float64_mul(0x3FF0000000000000u, 0x4000000000000000u, 0), 0x4000000000000000u);
    EXPECT_EQ(sw::float_exception_flags, sw::flag_invalid | sw::flag_divide_by_zero);
}

} // namespace
