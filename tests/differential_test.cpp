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

#include <array>
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

/// Reports the first few mismatches of a run, each with what reproduces it.
class Report {
public:
    explicit Report(std::string context) : context_(std::move(context)) {}
    ~Report() { EXPECT_EQ(failures_, 0) << failures_ << " mismatches in " << cases_ << " cases"; }

    void operator()(const std::string& wrong, long index) {
        ++cases_;
        if (!wrong.empty() && ++failures_ <= 5)
            ADD_FAILURE() << context_ << " case " << index << ": " << wrong;
    }

private:
    std::string context_;
    long cases_ = 0, failures_ = 0;
};

// Narrower, wider and word formats, and formats that no word path holds.
const Format destinations[] = {{3, 2},   {4, 3},    {5, 10},   {8, 7}, {8, 23},  {11, 52},
                               {15, 64}, {15, 112}, {15, 140}, {1, 2}, {40, 10}, {2, 0}};

/// The operands `r` reads, drawn from `gen`; the extras from its engine.
Operands draw(const Row& r, oracle::OperandGenerator& gen) {
    Operands in;
    switch (r.input) {
    case Input::Pair:
        std::tie(in.a, in.b) = gen.pair(r.op);
        break;
    case Input::Root:
        in.a = gen.sqrt_operand();
        break;
    case Input::Compare:
        in.a = gen.operand();
        in.b = gen.related(in.a);
        break;
    case Input::Rational:
        in.q = gen.rational();
        break;
    case Input::Numeral:
        in.text = gen.numeral();
        break;
    case Input::Single:
        in.a = gen.operand();
        break;
    }
    static const unsigned long widths[] = {0, 1, 8, 64, 100};
    in.to = destinations[gen.uniform(0, 11)];
    in.width = static_cast<unsigned long>(gen.uniform(0, 5) == 0 ? gen.uniform(1, 130) : 0);
    if (in.width == 0) in.width = widths[gen.uniform(0, 4)];
    in.flag = gen.uniform(0, 1) == 1;
    return in;
}

std::string row_name(const Row& r, Format f) {
    return std::string(r.name) + "_" + format_name(f);
}

// ---- Exhaustive -------------------------------------------------------------------

struct Tiny {
    const Row* row;
    Format f;
};

void PrintTo(const Tiny& t, std::ostream* out) {
    *out << row_name(*t.row, t.f);
}

std::vector<Tiny> tiny_cases() {
    const Format unary[] = {{1, 1}, {1, 2}, {1, 3}, {2, 0}, {2, 1}, {2, 3}, {3, 2},
                            {2, 4}, {2, 6}, {4, 3}, {5, 2}, {6, 4}, {8, 7}, {5, 10}};
    std::vector<Tiny> cases;
    for (const Row& r : rows::table)
        for (const Format f : unary) {
            const unsigned long width = f.exponent_width + f.mantissa_width + 1;
            const unsigned long limit = r.input == Input::Pair                               ? 6
                                        : r.input == Input::Single || r.input == Input::Root ? 16
                                                                                             : 8;
            if (width <= limit) cases.push_back({&r, f});
        }
    return cases;
}

class Exhaustive : public testing::TestWithParam<Tiny> {};

TEST_P(Exhaustive, Rows) {
    const Row& r = *GetParam().row;
    const Format f = GetParam().f;
    const unsigned long count = 1UL << (f.exponent_width + f.mantissa_width + 1);
    // Under the sanitizers the wider formats are sampled, every seventh pattern.
    const unsigned long step = sanitized() && count > 4096 ? 7 : 1;
    const bool pairs = r.input == Input::Pair || r.input == Input::Compare;
    oracle::OperandGenerator gen(to_oracle(f), count);
    Report report(row_name(r, f) + " seed " + std::to_string(count));
    for (unsigned long i = 0; i < count; i += step)
        for (unsigned long j = 0; j < (pairs ? count : 1); ++j) {
            static const unsigned long widths[] = {0, 1, 3, 8, 64};
            // Rationals and numerals come from the generator, as many as the patterns.
            Operands in =
                r.input == Input::Rational || r.input == Input::Numeral ? draw(r, gen) : Operands{};
            in.a = i;
            in.b = j;
            in.to = destinations[i % 12];
            in.width = widths[i % 5];
            in.flag = (i + j) % 2 == 1;
            const int modes[] = {0, 1, 2, 3, bad_mode};
            for (int k = 0; k < 5; ++k) {
                // Rows that do not round see each mode on every fifth pattern.
                const int mode = r.rounds ? modes[k] : modes[(i + j) % 5];
                report(rows::run(r, {f, IEEEFloat::REPR_GENERIC, mode}, in), long(i * count + j));
                if (!r.rounds) break;
            }
        }
}

INSTANTIATE_TEST_SUITE_P(, Exhaustive, testing::ValuesIn(tiny_cases()),
                         [](const testing::TestParamInfo<Tiny>& info) {
                             return row_name(*info.param.row, info.param.f);
                         });

// ---- Random -----------------------------------------------------------------------

/// A format, the representation its values are held in, and the cases per row.
struct Target {
    Format f;
    IEEEFloat::Repr repr;
    int cases;
};

/// The reference against the host FPU on binary32 and binary64 words, for the
/// operations the host has: a witness that shares nothing with MPFR.
std::string against_host(const Row& r, const Setting& s, const Operands& in) {
    if (!s.word() || !s.valid_mode() || (r.input != Input::Pair && r.input != Input::Root))
        return "";
    std::uint64_t host;
    {
        // The soft-float component numbers the directions nearest, down, up, toward zero.
        swflt_oracle::HostRounding rounding(std::array{0, 3, 2, 1}[s.mode]);
        host = swflt_oracle::host(static_cast<swflt_oracle::Op>(r.op), int(s.ofmt().width()),
                                  oracle::to_word(in.a), oracle::to_word(in.b))
                   .bits;
    }
    const std::string wrong = rows::mismatch(
        s.ofmt(), oracle::apply(s.ofmt(), r.op, in.a, in.b, s.mode), oracle::to_mpz(host));
    return wrong.empty() ? "" : "host FPU against the reference" + wrong;
}

std::vector<std::pair<const Row*, Target>> random_cases() {
    constexpr auto generic = IEEEFloat::REPR_GENERIC;
    // Formats of up to 63 bits take the one-word path, those of up to 128 bits
    // (binary64 held generically among them) the two-word path, wider ones the
    // exact path.
    const Target targets[] = {
        {{3, 0}, generic, 300},
        {{4, 1}, generic, 600},
        {{3, 2}, generic, 1500},
        {{4, 3}, generic, 1500},
        {{5, 2}, generic, 1500},
        {{5, 10}, generic, 1500},
        {{8, 7}, generic, 1500},
        {{6, 9}, generic, 1500},
        {{8, 23}, IEEEFloat::REPR_FLOAT32, 1500},
        {{8, 23}, generic, 1000},
        {{11, 52}, IEEEFloat::REPR_FLOAT64, 1500},
        {{11, 52}, generic, 800},
        {{11, 60}, generic, 600},
        {{15, 64}, generic, 600},
        {{15, 112}, generic, 600},
        {{15, 140}, generic, 300},
        {{19, 200}, generic, 200},
    };
    std::vector<std::pair<const Row*, Target>> cases;
    for (const Row& r : rows::table)
        for (const Target& t : targets)
            cases.push_back({&r, t});
    return cases;
}

void PrintTo(const std::pair<const Row*, Target>& c, std::ostream* out) {
    *out << row_name(*c.first, c.second.f) << " repr " << c.second.repr << " x" << c.second.cases;
}

class Random : public testing::TestWithParam<std::pair<const Row*, Target>> {};

TEST_P(Random, Rows) {
    const Row& r = *GetParam().first;
    const Target& t = GetParam().second;
    const std::uint64_t seed =
        0x9e3779b97f4a7c15ULL * (t.f.exponent_width * 1000 + t.f.mantissa_width + 1) +
        static_cast<std::uint64_t>(&r - rows::table) * 31 + t.repr;
    oracle::OperandGenerator gen(to_oracle(t.f), seed);
    Report report(row_name(r, t.f) + " seed " + std::to_string(seed));
    const int count = sampled(4 * t.cases);
    for (int i = 0; i < count; ++i) {
        const Operands in = draw(r, gen);
        // A bad mode in about one case in eight.
        const int mode = static_cast<int>(gen.uniform(0, 7) == 0 ? bad_mode + gen.uniform(0, 60)
                                                                 : gen.uniform(0, 3));
        const Setting s{t.f, t.repr, mode};
        report(rows::run(r, s, in), i);
        report(against_host(r, s, in), i);
    }
}

INSTANTIATE_TEST_SUITE_P(, Random, testing::ValuesIn(random_cases()),
                         [](const testing::TestParamInfo<std::pair<const Row*, Target>>& info) {
                             const Target& t = info.param.second;
                             const bool word = t.repr != IEEEFloat::REPR_GENERIC;
                             const bool also_word =
                                 IEEEFloat::get_best_repr(t.f) != IEEEFloat::REPR_GENERIC;
                             return row_name(*info.param.first, t.f) + (word        ? "_word"
                                                                        : also_word ? "_generic"
                                                                                    : "");
                         });

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
