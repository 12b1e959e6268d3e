// Differential tests of the soft-float component against the host FPU: every operation, both
// widths, every rounding direction and the unknown code -1, on operands built to sit on the hard
// cases (subnormals, the overflow edge, exact ties, cancellation, NaNs and infinities). Results
// must match bit for bit (any NaN for an arithmetic NaN), and so must the raised flags.
//
// TARN_LONG_TESTS=1 runs a hundred times more operands.

#include "swflt_oracle.h"
#include "tarn/swflt/swflt.h"
#include "tests/testing.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <tuple>

namespace {

namespace sw = tarn::swflt;
namespace hw = swflt_oracle;
using u64 = std::uint64_t;
using u32 = std::uint32_t;
using hw::Op;

constexpr oracle::Format binary32{8, 23}, binary64{11, 52};

bool is_nan(int width, u64 w) {
    return width == 32 ? sw::float32_is_nan(static_cast<std::uint32_t>(w)) : sw::float64_is_nan(w);
}

struct Case {
    char const* name;
    Op op;
    int width; // of the result
    u64 (*soft)(u64 a, u64 b, u64 c, int code);
};

void PrintTo(Case const& c, std::ostream* os) {
    *os << c.name << c.width;
}

/// Operands for case `c`, from the oracle's edge-biased generator `gen` of the width the
/// operation reads (binary64 for narrowing, binary32 for widening, else the result's): the hard
/// cases of each operation (ties, cancellation, subnormal and overflowing results, NaNs and
/// infinities), and for comparisons equal, opposite (both zeros among them) and adjacent pairs.
/// fma takes the product's hard cases from multiplication and adds an independent operand, a
/// zero, one or half a unit in the last place of the rounded product, or a value that cancels
/// the product to its rounding error or within a unit of it.
std::array<u64, 3> next_operands(Case const& c, oracle::OperandGenerator& gen,
                                 oracle::OperandGenerator& gen32) {
    if (c.op <= Op::div || c.op == Op::fma) {
        auto const op = c.op == Op::fma ? oracle::Operation::Mul : oracle::Operation(c.op);
        auto const [x, y] = gen.pair(op);
        u64 const a = x.get_ui(), b = y.get_ui(), sign = u64(1) << (c.width - 1);
        u64 const p =
            (c.width == 32 ? sw::float32_mul(u32(a), u32(b), 0) : sw::float64_mul(a, b, 0));
        int const m = c.width == 32 ? 23 : 52;
        u64 const exp = (p & ~sign) >> m, ulp = exp > u64(m + 1) ? (exp - m) << m : 1;
        u64 const addends[] = {
            gen.operand().get_ui(), 0, ulp, ulp - (u64(1) << m), p, p + 1, p - 1};
        u64 const addend = addends[gen.uniform(0, 6)] ^ (gen.uniform(0, 1) ? sign : 0);
        return {a, b, addend & (sign | (sign - 1))};
    }
    if (c.op == Op::sqrt) return {gen.sqrt_operand().get_ui(), 0, 0};
    u64 const a = gen.operand().get_ui();
    if (c.op != Op::convert) return {a, gen.related(a).get_ui(), 0};
    if (c.width == 64 || gen.uniform(0, 3) == 0) return {a, 0, 0};
    // binary64 words around the binary32 range whose 29 bits that narrowing drops are often an
    // exact tie or one unit off it.
    u64 const dropped = (u64(1) << 29) - 1, half = u64(1) << 28;
    u64 const low[] = {0, half, half + 1, half - 1, gen.engine()() & dropped};
    float narrow;
    auto const bits32 = static_cast<std::uint32_t>(gen32.operand().get_ui());
    std::memcpy(&narrow, &bits32, sizeof narrow);
    double const wide = narrow;
    u64 bits;
    std::memcpy(&bits, &wide, sizeof bits);
    return {(bits & ~dropped) | low[gen.uniform(0, 4)], 0, 0};
}

#define SOFT(call)                                                                                 \
    []([[maybe_unused]] u64 a, [[maybe_unused]] u64 b, [[maybe_unused]] u64 c,                     \
       [[maybe_unused]] int code) -> u64 {                                                         \
        [[maybe_unused]] auto const a32 = u32(a), b32 = u32(b), c32 = u32(c);                      \
        return call;                                                                               \
    }

// Each soft-float operation beside the host operation it must match.
Case const cases[] = {
    {"add", Op::add, 32, SOFT(sw::float32_add(a32, b32, code))},
    {"add", Op::add, 64, SOFT(sw::float64_add(a, b, code))},
    {"sub", Op::sub, 32, SOFT(sw::float32_sub(a32, b32, code))},
    {"sub", Op::sub, 64, SOFT(sw::float64_sub(a, b, code))},
    {"mul", Op::mul, 32, SOFT(sw::float32_mul(a32, b32, code))},
    {"mul", Op::mul, 64, SOFT(sw::float64_mul(a, b, code))},
    {"div", Op::div, 32, SOFT(sw::float32_div(a32, b32, code))},
    {"div", Op::div, 64, SOFT(sw::float64_div(a, b, code))},
    {"sqrt", Op::sqrt, 32, SOFT(sw::float32_sqrt(a32, code))},
    {"sqrt", Op::sqrt, 64, SOFT(sw::float64_sqrt(a, code))},
    {"fma", Op::fma, 32, SOFT(sw::float32_mul_add(a32, b32, c32, code))},
    {"fma", Op::fma, 64, SOFT(sw::float64_mul_add(a, b, c, code))},
    {"narrow", Op::convert, 32, SOFT(sw::float64_to_float32(a, code))},
    {"widen", Op::convert, 64, SOFT(sw::float32_to_float64(a32))},
    {"lt", Op::lt, 32, SOFT(sw::float32_lt(a32, b32))},
    {"lt", Op::lt, 64, SOFT(sw::float64_lt(a, b))},
    {"le", Op::le, 32, SOFT(sw::float32_le(a32, b32))},
    {"le", Op::le, 64, SOFT(sw::float64_le(a, b))},
    {"eq", Op::eq, 32, SOFT(sw::float32_eq_signaling(a32, b32))},
    {"eq", Op::eq, 64, SOFT(sw::float64_eq_signaling(a, b))},
};

#undef SOFT

// The library passes -1 for a rounding mode it does not know; it must round to nearest even.
// Operations that do not round must not depend on the code either.
class Differential : public ::testing::TestWithParam<std::tuple<Case, int>> {};

TEST_P(Differential, MatchesHostFpu) {
    auto const [c, code] = GetParam();
    u64 const seed = 0x5eed0000u + 16u * u64(c.op) + u64(c.width) + u64(code + 1);
    bool const rounds = c.op <= Op::convert || c.op == Op::fma;
    int const count = tarn_testing::scaled(rounds && code >= 0 ? 40000 : 5000, 100);
    oracle::OperandGenerator gen((c.op == Op::convert) == (c.width == 32) ? binary64 : binary32,
                                 seed),
        gen32(binary32, ~seed);
    hw::HostRounding host(code);
    int failures = 0;
    for (int i = 0; i < count && failures < 10; ++i) {
        auto const [a, b, addend] = next_operands(c, gen, gen32);
        hw::Outcome const want = hw::host(c.op, c.width, a, b, addend);
        sw::float_exception_flags = 0;
        u64 const got = c.soft(a, b, addend, code);
        std::uint8_t const flags = sw::float_exception_flags;
        // Arithmetic may give any NaN; a conversion keeps the payload's leading bits, as the host.
        bool const same = is_nan(c.width, want.bits) && c.op != Op::convert ? is_nan(c.width, got)
                                                                            : got == want.bits;
        if (same && flags == want.flags) continue;
        ++failures;
        ADD_FAILURE() << std::hex << "seed " << seed << " sample " << i << ": a=" << a << " b=" << b
                      << " c=" << addend << " got " << got << " flags " << int(flags) << ", host "
                      << want.bits << " flags " << int(want.flags);
    }
}

INSTANTIATE_TEST_SUITE_P(Swflt, Differential,
                         ::testing::Combine(::testing::ValuesIn(cases),
                                            ::testing::Values(0, 1, 2, 3, -1)),
                         [](auto const& info) {
                             Case const& c = std::get<0>(info.param);
                             int const code = std::get<1>(info.param);
                             return c.name + std::to_string(c.width) + "_code" +
                                    (code < 0 ? std::string("_other") : std::to_string(code));
                         });

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
