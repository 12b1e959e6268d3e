// The differential table of tests/rows.h run two ways. Exhaustive: every pattern of
// tiny formats (one exponent bit included) through the one-operand rows, every pair
// of patterns of formats of at most 6 bits through the arithmetic and of at most 8
// bits through the comparisons, in every mode and one that is none. Random: seeded
// edge-biased operands of formats from 3 to 220 bits, binary32 and binary64 both in
// words and generically, in every mode and now and then a bad one; binary32 and
// binary64 words are held against the host FPU too.
//
// TARN_LONG_TESTS=1 runs about 40 times as many random cases.

#include "tests/swflt_oracle.h"
#include "tests/testing.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace tarn_testing;
using rows::Input;
using rows::Operands;
using rows::Row;
using rows::Setting;
using Format = IEEEFloat::format;

constexpr int bad_mode = 5;
constexpr auto generic = IEEEFloat::REPR_GENERIC;

/// Reports the first few mismatches of a run, each with what reproduces it.
struct Report {
    std::string context;
    long failures = 0;
    void operator()(const std::string& wrong, long index) {
        if (!wrong.empty() && ++failures <= 5)
            ADD_FAILURE() << context << " case " << index << ": " << wrong;
    }
};

/// One row on one format held in one representation, with its random cases per mode.
struct Case {
    Format f;
    IEEEFloat::Repr repr;
    int cases;
    const Row* row = nullptr;
};

std::string case_name(const Case& c) {
    const bool word_format = IEEEFloat::get_best_repr(c.f) != generic;
    return std::string(c.row->name) + "_" + format_name(c.f) +
           (c.repr != generic ? "_word"
            : word_format     ? "_generic"
                              : "");
}

void PrintTo(const Case& c, std::ostream* out) {
    *out << case_name(c);
}

const auto name_of = [](const testing::TestParamInfo<Case>& info) { return case_name(info.param); };

// Narrower, wider and word formats, and formats that no word path holds.
const Format destinations[] = {{3, 2},   {4, 3},    {5, 10},   {8, 7}, {8, 23},  {11, 52},
                               {15, 64}, {15, 112}, {15, 140}, {1, 2}, {40, 10}, {2, 0}};

/// The operands `r` reads, drawn from `gen`; the extras from its engine.
Operands draw(const Row& r, oracle::OperandGenerator& gen) {
    Operands in;
    if (r.input == Input::Pair) std::tie(in.a, in.b) = gen.pair(r.op);
    if (r.input == Input::Root) in.a = gen.sqrt_operand();
    if (r.input == Input::Single || r.input == Input::Compare) in.a = gen.operand();
    if (r.input == Input::Compare) in.b = gen.related(in.a);
    if (r.input == Input::Rational) in.q = gen.rational();
    if (r.input == Input::Numeral) in.text = gen.numeral();
    if (r.input == Input::Triple) std::tie(in.a, in.b, in.c) = gen.triple();
    if (r.input == Input::Integral) in.a = gen.integral_operand();
    if (r.input == Input::Integer) in.n = gen.integer(64, gen.uniform(0, 1) == 1);
    static const unsigned long widths[] = {0, 1, 8, 64, 100};
    in.to = destinations[gen.uniform(0, 11)];
    in.width = gen.uniform(0, 5) == 0 ? gen.uniform(1, 130) : widths[gen.uniform(0, 4)];
    in.flag = gen.uniform(0, 1) == 1;
    in.direction = static_cast<int>(gen.uniform(0, 5));
    return in;
}

// ---- Exhaustive -------------------------------------------------------------------

std::vector<Case> tiny_cases() {
    std::vector<Case> cases;
    for (const Row& r : rows::table)
        for (const Format f : {Format{1, 1}, Format{1, 2}, Format{1, 3}, Format{2, 0}, Format{2, 1},
                               Format{2, 3}, Format{3, 2}, Format{2, 4}, Format{2, 6}, Format{4, 3},
                               Format{5, 2}, Format{6, 4}, Format{8, 7}, Format{5, 10}}) {
            const bool single =
                r.input == Input::Single || r.input == Input::Root || r.input == Input::Integral;
            const unsigned long limit = r.input == Input::Triple ? 5
                                        : r.input == Input::Pair ? 6
                                        : single                 ? 16
                                                                 : 8;
            if (f.exponent_width + f.mantissa_width + 1 <= limit)
                cases.push_back({f, generic, 0, &r});
        }
    return cases;
}

class Exhaustive : public testing::TestWithParam<Case> {};

TEST_P(Exhaustive, Rows) {
    const Row& r = *GetParam().row;
    const Format f = GetParam().f;
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    const bool triples = r.input == Input::Triple;
    // Under the sanitizers the wider formats, and the first operand of
    // triples, are sampled: every seventh pattern.
    const unsigned long step = sanitized() && (count > 4096 || triples) ? 7 : 1;
    const bool pairs = r.input == Input::Pair || r.input == Input::Compare || triples;
    const bool drawn =
        r.input == Input::Rational || r.input == Input::Numeral || r.input == Input::Integer;
    oracle::OperandGenerator gen(to_oracle(f), count);
    Report report{case_name(GetParam()) + " seed " + std::to_string(count)};
    for (unsigned long i = 0; i < count; i += step)
        for (unsigned long j = 0; j < (pairs ? count : 1) * (triples ? count : 1); ++j) {
            // Rationals, numerals and integers come from the generator, as many as the patterns.
            Operands in = drawn ? draw(r, gen) : Operands{};
            in.a = i;
            in.b = j % count;
            in.c = j / count;
            in.to = destinations[i % 12];
            in.width = std::array{0UL, 1UL, 3UL, 8UL, 64UL}[i % 5];
            in.flag = (i + j) % 2 == 1;
            // Rows that do not round see each mode on every fifth pattern; rows
            // with an explicit direction see all six.
            const int modes[] = {0, 1, 2, 3, bad_mode};
            const unsigned long runs = r.directed ? 6 : r.rounds ? 5 : 1;
            for (unsigned long k = 0; k < runs; ++k) {
                in.direction = static_cast<int>(k);
                const int mode = modes[r.rounds ? k % 5 : (i + j) % 5];
                report(rows::run(r, {f, generic, mode}, in), long(i * count + j));
            }
        }
}

INSTANTIATE_TEST_SUITE_P(, Exhaustive, testing::ValuesIn(tiny_cases()), name_of);

// ---- Random -----------------------------------------------------------------------

/// The reference against the host FPU on binary32 and binary64 words, for the
/// operations and directions the host has, results and flags: a witness that
/// shares nothing with MPFR.
std::string against_host(const Row& r, const Setting& s, const Operands& in) {
    const bool fma = r.input == Input::Triple, integral = r.check == rows::integral;
    const int direction = r.directed ? in.direction : s.mode;
    if (!s.word() || direction < 0 || direction > 3 ||
        (r.input != Input::Pair && r.input != Input::Root && !fma && !integral))
        return "";
    using swflt_oracle::Op;
    const Op op = fma ? Op::fma : integral ? (in.flag ? Op::rint : Op::nearbyint) : Op(r.op);
    // The soft-float component numbers the directions nearest, down, up, toward zero.
    const swflt_oracle::HostRounding rounding(std::array{0, 3, 2, 1}[direction]);
    const swflt_oracle::Outcome host =
        swflt_oracle::host(op, int(s.ofmt().width()), oracle::to_word(in.a), oracle::to_word(in.b),
                           oracle::to_word(in.c));
    unsigned flags = 0;
    const mpz_class want =
        fma        ? oracle::fma(s.ofmt(), in.a, in.b, in.c, direction, &flags)
        : integral ? oracle::round_to_integral(s.ofmt(), in.a, direction, in.flag, &flags)
                   : oracle::apply(s.ofmt(), r.op, in.a, in.b, direction, &flags);
    const std::string wrong = rows::mismatch(s.ofmt(), want, mpz_class(host.bits)) +
                              rows::flag_mismatch(flags, host.flags);
    return wrong.empty() ? "" : "host FPU against the reference" + wrong;
}

/// The C library, which rounds correctly, as a second witness for to_str_digits on
/// binary32 and binary64 words.
std::string against_printf(const Row& r, const Setting& s, const Operands& in) {
    if (r.check != rows::digits_text || !s.word() ||
        oracle::classify(s.ofmt(), in.a) == oracle::Kind::NaN)
        return "";
    // The hexadecimal text is exact, and checked on its own by hex_read_back.
    const double value = std::strtod(make(s, in.a).to_hex_str().c_str(), nullptr);
    const char style = rows::digits_style(in);
    const int precision = static_cast<int>(in.width);
    char want[1024]; // binary64's largest value with 130 decimals needs 441
    std::snprintf(want, sizeof want, (std::string("%.*") + style).c_str(),
                  rows::printf_precision(style, precision), value);
    const std::string got = make(s, in.a).to_str_digits(precision, style);
    return got == want ? "" : "printf gives " + std::string(want) + ", to_str_digits " + got;
}

/// The general operations the host has: remainder, fmin and fmax (maximum_number and
/// minimum_number but for zeros of two signs and signaling NaNs, which the host turns
/// into NaNs), scalbn (an int scale, as wide as every binary64 result needs) and ilogb
/// (compared as the low 32 bits of its int).
std::string general_against_host(const Row& r, const Setting& s, const Operands& in) {
    if (!s.word() || !s.valid_mode()) return "";
    using swflt_oracle::Op;
    const swflt_oracle::HostRounding rounding(std::array{0, 3, 2, 1}[s.mode]);
    const oracle::Format f = s.ofmt();
    const std::uint64_t b = oracle::to_word(in.b);
    std::string wrong;
    unsigned flags = 0;
    const auto check = [&](Op op, std::uint64_t y, const mpz_class& want) {
        const auto host = swflt_oracle::host(op, int(f.width()), oracle::to_word(in.a), y);
        // The C library's zero remainders do not always take the sign of x.
        if (op != Op::remainder || oracle::classify(f, want) != oracle::Kind::Zero)
            wrong += rows::mismatch(f, want, host.bits) + rows::flag_mismatch(flags, host.flags);
    };
    if (r.check == rows::remainder)
        check(Op::remainder, b, oracle::remainder(f, in.a, f, in.b, s.mode, &flags));
    const bool zeros = (in.a | in.b) == oracle::pow2(f.e + f.m) || (in.a | in.b) == 0;
    if (r.check == rows::extremes && !zeros && !oracle::is_signaling(f, in.a) &&
        !oracle::is_signaling(f, in.b))
        for (const bool max : {false, true})
            check(max ? Op::fmax : Op::fmin, b,
                  oracle::extreme(f, in.a, f, in.b, max, true, s.mode, &flags));
    const long n = std::clamp(rows::scale_of(in), long{INT_MIN}, long{INT_MAX});
    if (r.check == rows::exponents) {
        check(Op::scalbn, std::uint64_t(n), oracle::scale_b(f, in.a, n, s.mode, &flags));
        const long log = std::clamp(oracle::log_b(f, in.a, &flags), long{INT_MIN}, long{INT_MAX});
        check(Op::ilogb, 0, static_cast<unsigned long>(static_cast<std::uint32_t>(log)));
    }
    return wrong.empty() ? "" : "host FPU against the reference" + wrong;
}

std::vector<Case> random_cases() {
    // Formats of up to 63 bits take the one-word path, those of up to 128 bits
    // (binary64 held generically among them) the two-word path, wider ones the
    // exact path.
    constexpr auto word32 = IEEEFloat::REPR_FLOAT32, word64 = IEEEFloat::REPR_FLOAT64;
    const Case targets[] = {{Format(3, 0), generic, 300},    {Format(4, 1), generic, 600},
                            {Format(3, 2), generic, 1500},   {Format(4, 3), generic, 1500},
                            {Format(5, 2), generic, 1500},   {Format(5, 10), generic, 1500},
                            {Format(8, 7), generic, 1500},   {Format(6, 9), generic, 1500},
                            {Format(8, 23), word32, 1500},   {Format(8, 23), generic, 1000},
                            {Format(11, 52), word64, 1500},  {Format(11, 52), generic, 800},
                            {Format(11, 60), generic, 600},  {Format(3, 60), generic, 300},
                            {Format(15, 64), generic, 600},  {Format(15, 112), generic, 600},
                            {Format(15, 140), generic, 300}, {Format(19, 200), generic, 200},
                            {Format(11, 1000), generic, 40}};
    std::vector<Case> cases;
    for (const Row& r : rows::table)
        for (Case t : targets) {
            t.row = &r;
            cases.push_back(t);
        }
    return cases;
}

class Random : public testing::TestWithParam<Case> {};

TEST_P(Random, Rows) {
    const Case& c = GetParam();
    const std::uint64_t seed =
        0x9e3779b97f4a7c15ULL * (c.f.exponent_width * 1000 + c.f.mantissa_width + 1) +
        static_cast<std::uint64_t>(c.row - rows::table) * 31 + c.repr;
    oracle::OperandGenerator gen(to_oracle(c.f), seed);
    Report report{case_name(c) + " seed " + std::to_string(seed)};
    for (int i = 0; i < sampled(4 * c.cases); ++i) {
        const Operands in = draw(*c.row, gen);
        // A bad mode in about one case in eight.
        const int mode = static_cast<int>(gen.uniform(0, 7) == 0 ? bad_mode + gen.uniform(0, 60)
                                                                 : gen.uniform(0, 3));
        const Setting s{c.f, c.repr, mode};
        report(rows::run(*c.row, s, in), i);
        report(against_host(*c.row, s, in), i);
        report(against_printf(*c.row, s, in), i);
        report(general_against_host(*c.row, s, in), i);
    }
}

INSTANTIATE_TEST_SUITE_P(, Random, testing::ValuesIn(random_cases()), name_of);

// ---- What from_bits cannot build ------------------------------------------------

// NaN patterns other than the library's own are reached only by stepping: the
// pattern order walked end to end and back, every NaN payload included.
TEST(PackedWalk, ThroughEveryNaNPayload) {
    for (const Format f : {Format{2, 1}, Format{3, 2}, Format{4, 3}, Format{2, 0}, Format{1, 2}}) {
        const oracle::Format of = to_oracle(f);
        const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
        IEEEFloat x = make(f, oracle::inf_pattern(of, true));
        for (const bool up : {false, true, false})
            for (unsigned long step = 0; step <= count; ++step) {
                const mpz_class before = bits_of(x);
                x.packed_next(up);
                ASSERT_EQ(bits_of(x), oracle::packed_next(of, before, up)) << describe(f, before);
            }
    }
}

} // namespace
