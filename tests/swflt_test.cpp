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

struct Expected {
    u64 bits;
    std::uint8_t flags;
};

struct Case {
    char const* name;
    Layout operand;
    Layout result;
    Shape shape;
    bool rounds; // depends on the rounding code
    u64 (*soft)(u64, u64, int);
    Expected (*hard)(u64, u64);
};

template <class Result>
Expected expected(Result r) {
    return {r.bits, r.flags};
}
using W32 = std::uint32_t;
#define SOFT32(fn) [](u64 a, u64 b, int r) -> u64 { return sw::fn(W32(a), W32(b), r); }
#define SOFT64(fn) [](u64 a, u64 b, int r) -> u64 { return sw::fn(a, b, r); }
#define HARD32(fn) [](u64 a, u64 b) { return expected(hw::fn(W32(a), W32(b))); }
#define HARD64(fn) [](u64 a, u64 b) { return expected(hw::fn(a, b)); }

Case const cases[] = {
    {"add32", binary32, binary32, Shape::add, true, SOFT32(float32_add), HARD32(add32)},
    {"sub32", binary32, binary32, Shape::add, true, SOFT32(float32_sub), HARD32(sub32)},
    {"mul32", binary32, binary32, Shape::mul, true, SOFT32(float32_mul), HARD32(mul32)},
    {"div32", binary32, binary32, Shape::div, true, SOFT32(float32_div), HARD32(div32)},
    {"sqrt32", binary32, binary32, Shape::sqrt, true,
     [](u64 a, u64, int r) -> u64 { return sw::float32_sqrt(W32(a), r); }, HARD32(sqrt32)},
    {"add64", binary64, binary64, Shape::add, true, SOFT64(float64_add), HARD64(add64)},
    {"sub64", binary64, binary64, Shape::add, true, SOFT64(float64_sub), HARD64(sub64)},
    {"mul64", binary64, binary64, Shape::mul, true, SOFT64(float64_mul), HARD64(mul64)},
    {"div64", binary64, binary64, Shape::div, true, SOFT64(float64_div), HARD64(div64)},
    {"sqrt64", binary64, binary64, Shape::sqrt, true,
     [](u64 a, u64, int r) -> u64 { return sw::float64_sqrt(a, r); }, HARD64(sqrt64)},
    {"narrow", binary64, binary32, Shape::narrow, true,
     [](u64 a, u64, int r) -> u64 { return sw::float64_to_float32(a, r); },
     [](u64 a, u64) { return expected(hw::narrow(a)); }},
    {"widen", binary32, binary64, Shape::widen, false,
     [](u64 a, u64, int) -> u64 { return sw::float32_to_float64(W32(a)); },
     [](u64 a, u64) { return expected(hw::widen(W32(a))); }},
    {"lt32", binary32, binary32, Shape::compare, false,
     [](u64 a, u64 b, int) -> u64 { return sw::float32_lt(W32(a), W32(b)); }, HARD32(lt32)},
    {"le32", binary32, binary32, Shape::compare, false,
     [](u64 a, u64 b, int) -> u64 { return sw::float32_le(W32(a), W32(b)); }, HARD32(le32)},
    {"eq32", binary32, binary32, Shape::compare, false,
     [](u64 a, u64 b, int) -> u64 { return sw::float32_eq_signaling(W32(a), W32(b)); },
     HARD32(eq32)},
    {"lt64", binary64, binary64, Shape::compare, false,
     [](u64 a, u64 b, int) -> u64 { return sw::float64_lt(a, b); }, HARD64(lt64)},
    {"le64", binary64, binary64, Shape::compare, false,
     [](u64 a, u64 b, int) -> u64 { return sw::float64_le(a, b); }, HARD64(le64)},
    {"eq64", binary64, binary64, Shape::compare, false,
     [](u64 a, u64 b, int) -> u64 { return sw::float64_eq_signaling(a, b); }, HARD64(eq64)},
};

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
    return std::string(cases[run.case_index].name) + "_code" +
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
            if (cases[i].rounds || code == 0) all.push_back({i, code});
        }
    }
    return all;
}

class Differential : public ::testing::TestWithParam<Run> {};

TEST_P(Differential, MatchesHostFpu) {
    Case const& c = cases[GetParam().case_index];
    int const code = GetParam().code;
    u64 const seed =
        0x5eed0000u + 16u * static_cast<u64>(GetParam().case_index) + static_cast<u64>(code);
    long const count = (code < 0 ? 20000L : 300000L) * (long_run() ? 100 : 1);

    Operands operands(c.operand, c.shape, seed);
    hw::HostRounding host(code < 0 ? sw::round_nearest_even : code);
    int failures = 0;
    for (long i = 0; i < count && failures < 10; ++i) {
        u64 a, b;
        operands.next(a, b);
        Expected const want = c.hard(a, b);
        sw::float_exception_flags = 0;
        u64 const got = c.soft(a, b, code);
        std::uint8_t const flags = sw::float_exception_flags;
        bool const same_value =
            c.result.is_nan(want.bits) ? c.result.is_nan(got) : got == want.bits;
        if (same_value && flags == want.flags) continue;
        ++failures;
        ADD_FAILURE() << c.name << " code " << code << " seed " << hex(seed) << " sample " << i
                      << ": a=" << hex(a) << " b=" << hex(b) << " got " << hex(got) << " flags "
                      << int(flags) << ", host " << hex(want.bits) << " flags " << int(want.flags);
    }
}

INSTANTIATE_TEST_SUITE_P(Swflt, Differential, ::testing::ValuesIn(runs()),
                         [](::testing::TestParamInfo<Run> const& info) {
                             return run_name(info.param);
                         });

// The word-level queries against the host's classification and sign functions.
template <class Float, class Word>
void check_class_and_sign(Layout const& f, Word (*set_sign)(Word, std::uint8_t),
                          Word (*negate)(Word), std::uint8_t (*sign)(Word),
                          std::uint8_t (*is_inf)(Word), std::uint8_t (*is_nan)(Word),
                          std::uint8_t (*is_zero)(Word), std::uint8_t (*is_subnormal)(Word)) {
    Operands operands(f, Shape::compare, 0xc1a55);
    for (int i = 0; i < 20000; ++i) {
        u64 a64, b64;
        operands.next(a64, b64);
        auto const a = static_cast<Word>(a64);
        Float x;
        std::memcpy(&x, &a, sizeof x);
        int const kind = std::fpclassify(x);
        SCOPED_TRACE(hex(a64));
        EXPECT_EQ(is_inf(a) != 0, kind == FP_INFINITE);
        EXPECT_EQ(is_nan(a) != 0, kind == FP_NAN);
        EXPECT_EQ(is_zero(a) != 0, kind == FP_ZERO);
        EXPECT_EQ(is_subnormal(a) != 0, kind == FP_SUBNORMAL);
        EXPECT_EQ(sign(a) != 0, std::signbit(x));
        Float const negated = -x;
        Float const positive = std::copysign(x, Float(1));
        Float const negative = std::copysign(x, Float(-1));
        Word expect;
        std::memcpy(&expect, &negated, sizeof expect);
        EXPECT_EQ(negate(a), expect);
        std::memcpy(&expect, &positive, sizeof expect);
        EXPECT_EQ(set_sign(a, 0), expect);
        std::memcpy(&expect, &negative, sizeof expect);
        EXPECT_EQ(set_sign(a, 0x80), expect);
    }
}

TEST(Swflt, ClassAndSignMatchHost) {
    check_class_and_sign<float, std::uint32_t>(
        binary32, sw::float32_set_sign, sw::float32_negate, sw::float32_sign, sw::float32_is_inf,
        sw::float32_is_nan, sw::float32_is_zero, sw::float32_is_subnormal);
    check_class_and_sign<double, std::uint64_t>(
        binary64, sw::float64_set_sign, sw::float64_negate, sw::float64_sign, sw::float64_is_inf,
        sw::float64_is_nan, sw::float64_is_zero, sw::float64_is_subnormal);
}

// The library replaces every NaN result by make_nan and relies on it being a quiet NaN; an
// invalid operation on ordinary operands returns exactly that word.
TEST(Swflt, CanonicalNan) {
    EXPECT_EQ(sw::float32_make_nan(), 0x7FC00000u);
    EXPECT_EQ(sw::float64_make_nan(), 0x7FF8000000000000u);
    EXPECT_EQ(sw::float32_make_inf(), 0x7F800000u);
    EXPECT_EQ(sw::float64_make_inf(), 0x7FF0000000000000u);
    sw::float_exception_flags = 0;
    EXPECT_EQ(sw::float32_sub(0x7F800000u, 0x7F800000u, 0), sw::float32_make_nan());
    EXPECT_EQ(sw::float64_sqrt(0xBFF0000000000000u, 2), sw::float64_make_nan());
    EXPECT_EQ(sw::float_exception_flags, sw::flag_invalid);
}

// Flags are sticky: operations only ever add to them.
TEST(Swflt, FlagsAccumulate) {
    sw::float_exception_flags = 0;
    sw::float64_div(0x3FF0000000000000u, 0, 0);                   // 1 / 0
    sw::float32_add(0x3F800000u, 0x33800000u, 0);                 // 1 + 2^-24, inexact
    sw::float64_mul(0x3FF0000000000000u, 0x3FF0000000000000u, 0); // exact
    EXPECT_EQ(sw::float_exception_flags, sw::flag_divide_by_zero | sw::flag_inexact);
}

} // namespace
