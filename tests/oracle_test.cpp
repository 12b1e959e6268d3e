// Checks of the MPFR reference itself, so that a mismatch found by the differential
// tests can be blamed on the library with confidence. Three independent witnesses:
// the hardware's binary32/binary64 arithmetic under each rounding mode, a brute-force
// rounding of exact rationals over every value of tiny formats, and values worked out
// by hand.
#include "tests/oracle/operands.h"

#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#ifdef __clang__
#pragma STDC FENV_ACCESS ON
#endif

namespace {

using namespace oracle;

constexpr Format binary16{5, 10}, binary32{8, 23}, binary64{11, 52}, binary128{15, 112};
constexpr Operation all_operations[] = {Operation::Add, Operation::Sub, Operation::Mul,
                                        Operation::Div, Operation::Sqrt};

int cases(int normal) {
    const char* flag = std::getenv("TARN_LONG_TESTS");
    return flag != nullptr && std::string(flag) == "1" ? normal * 20 : normal;
}

std::string format_name(const ::testing::TestParamInfo<Format>& info) {
    return "e" + std::to_string(info.param.e) + "m" + std::to_string(info.param.m);
}

bool is_finite(Format fmt, const mpz_class& bits) {
    Kind k = classify(fmt, bits);
    return k != Kind::NaN && k != Kind::Infinite;
}

bool sign_of(Format fmt, const mpz_class& bits) {
    return mpz_tstbit(bits.get_mpz_t(), fmt.e + fmt.m) != 0;
}

// ---------------------------------------------------------------------------
// The hardware as a witness for binary32 and binary64
// ---------------------------------------------------------------------------

// Sets the FPU's rounding direction for one scope. Every value computed inside goes
// through volatile variables: compilers neither fold such operations nor move them
// across fesetround, which they do not otherwise treat as a barrier.
class HardwareRounding {
public:
    explicit HardwareRounding(int mode) {
        static const int directions[] = {FE_TONEAREST, FE_TOWARDZERO, FE_UPWARD, FE_DOWNWARD};
        std::fesetround(directions[mode]);
    }
    ~HardwareRounding() { std::fesetround(FE_TONEAREST); }
};

template <class To, class From>
To bit_cast(From from) {
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

template <class Float, class Bits>
Word hardware(Operation op, Word a, Word b, int mode) {
    volatile Float x = bit_cast<Float>(static_cast<Bits>(a));
    volatile Float y = bit_cast<Float>(static_cast<Bits>(b));
    volatile Float r;
    HardwareRounding rounding(mode);
    switch (op) {
    case Operation::Add:
        r = x + y;
        break;
    case Operation::Sub:
        r = x - y;
        break;
    case Operation::Mul:
        r = x * y;
        break;
    case Operation::Div:
        r = x / y;
        break;
    case Operation::Sqrt:
        r = std::sqrt(x);
        break;
    }
    return bit_cast<Bits>(static_cast<Float>(r));
}

class AgainstHardware : public ::testing::TestWithParam<std::tuple<Format, Operation>> {};

TEST_P(AgainstHardware, EdgeAndRandomOperandsInEveryMode) {
    const auto [fmt, op] = GetParam();
    const std::uint64_t seed = 0x5eed0000 + fmt.m * 16 + static_cast<int>(op);
    OperandGenerator gen(fmt, seed);
    Emulator emu(fmt);
    for (int i = 0; i < cases(25000); ++i) {
        auto [a, b] = op == Operation::Sqrt ? std::pair<Word, Word>{gen.sqrt_operand_word(), 0}
                                            : gen.pair_word(op);
        for (int mode : all_modes) {
            Word want = fmt == binary32 ? hardware<float, std::uint32_t>(op, a, b, mode)
                                        : hardware<double, std::uint64_t>(op, a, b, mode);
            Word got = emu.apply(op, a, b, mode);
            ASSERT_TRUE(same_result(fmt, got, want))
                << to_string(op) << " mode " << mode << " seed " << seed << " case " << i
                << "\n  a    " << describe(fmt, a) << "\n  b    " << describe(fmt, b) << "\n  got  "
                << describe(fmt, got) << "\n  want " << describe(fmt, want);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Oracle, AgainstHardware,
    ::testing::Combine(::testing::Values(binary32, binary64), ::testing::ValuesIn(all_operations)),
    [](const auto& info) {
        return format_name({std::get<0>(info.param), 0}) + "_" + to_string(std::get<1>(info.param));
    });

TEST(OracleAgainstHardware, ConversionsIntegersAndIntegralValues) {
    OperandGenerator gen(binary32, 11), gen64(binary64, 12);
    Converter narrowing(binary64, binary32), widening(binary32, binary64);
    Emulator to32(binary32), to64(binary64);
    for (int i = 0; i < cases(20000); ++i) {
        Word narrow = gen.operand_word();
        // Binary32 values with random low bits appended: at, near or just off a tie.
        Word wide = widening.convert(narrow, 0) ^ (gen.engine()() & 0x1FFFFFFF);
        if (i % 4 == 0) wide = gen64.operand_word();
        std::int64_t n = static_cast<std::int64_t>(gen.engine()() >> gen.uniform(0, 63));
        for (int mode : all_modes) {
            volatile double vwide = bit_cast<double>(wide), to_double, integral;
            volatile float vnarrow = bit_cast<float>(static_cast<std::uint32_t>(narrow)), to_float,
                           n_float;
            volatile std::int64_t vn = n;
            {
                HardwareRounding rounding(mode);
                to_float = static_cast<float>(vwide);
                to_double = static_cast<double>(vn);
                n_float = static_cast<float>(vn);
                integral = std::nearbyint(vwide);
            }
            std::string context = describe(binary64, wide) + " mode " + std::to_string(mode);
            ASSERT_TRUE(same_result(binary32, narrowing.convert(wide, mode),
                                    bit_cast<std::uint32_t>(static_cast<float>(to_float))))
                << context;
            ASSERT_TRUE(same_result(binary64, widening.convert(narrow, mode),
                                    bit_cast<std::uint64_t>(static_cast<double>(vnarrow))))
                << describe(binary32, narrow);
            ASSERT_TRUE(same_result(binary64, to_word(round_to_integral(binary64, wide, mode)),
                                    bit_cast<std::uint64_t>(static_cast<double>(integral))))
                << context;
            mpq_class q{mpz_class(std::to_string(n))};
            ASSERT_EQ(to64.from_rational(q, mode), bit_cast<std::uint64_t>(double(to_double))) << n;
            ASSERT_EQ(to32.from_rational(q, mode), bit_cast<std::uint32_t>(float(n_float))) << n;
        }
    }
}

TEST(OracleAgainstHardware, ComparisonsNeighboursAndDecimalReadBack) {
    OperandGenerator gen(binary64, 15);
    char text[400];
    for (int i = 0; i < cases(20000); ++i) {
        Word a = gen.operand_word(), b = i % 3 == 0 ? a : gen.operand_word();
        if (i % 3 == 1) b = a ^ (gen.engine()() & 3); // neighbours and the other zero
        double x = bit_cast<double>(a), y = bit_cast<double>(b);
        int want = x < y ? -1 : x > y ? 1 : x == y ? 0 : -2;
        ASSERT_EQ(compare(binary64, a, b), want) << describe(binary64, a) << describe(binary64, b);
        if (std::isnan(x)) continue; // the hardware quietens NaNs; the reference keeps them
        for (bool up : {false, true})
            ASSERT_EQ(next_representable(binary64, a, up),
                      bit_cast<std::uint64_t>(std::nextafter(x, up ? INFINITY : -INFINITY)))
                << describe(binary64, a);
        // Positional numerals of moderate values, correctly rounded by strtod.
        if (std::isinf(x) || std::fabs(x) > 1e30 || (x != 0 && std::fabs(x) < 1e-30)) continue;
        std::snprintf(text, sizeof text, "%.*f", i % 30, x);
        ASSERT_EQ(to_word(read_decimal(binary64, text)),
                  bit_cast<std::uint64_t>(std::strtod(text, nullptr)))
            << text;
    }
}

// ---------------------------------------------------------------------------
// Brute force over tiny formats
// ---------------------------------------------------------------------------

// Every non-negative finite value of a tiny format in increasing order, and rounding
// by searching them: shares nothing with MPFR.
class BruteForce {
public:
    explicit BruteForce(Format fmt) : fmt_(fmt), beyond_(mpz_class(1) << (fmt.bias() + 1)) {
        for (mpz_class p = 0; p <= max_pattern(fmt, false); ++p)
            values_.push_back(to_rational(fmt, p));
    }

    // r rounded under `mode`; an exact zero gets the sign `zero_negative`.
    mpz_class round(const mpq_class& r, int mode, bool zero_negative) const {
        bool negative = r < 0 || (r == 0 && zero_negative);
        mpq_class magnitude = abs(r);
        std::size_t lo = last_not_above([&](const mpq_class& v) { return v <= magnitude; });
        if (values_[lo] == magnitude) return pattern(lo, negative);
        // Past the largest finite value stands 2^(bias+1), which means infinity.
        const mpq_class& high = lo + 1 < values_.size() ? values_[lo + 1] : beyond_;
        bool beyond = magnitude >= beyond_;
        int nearer = beyond ? 1 : cmp(magnitude - values_[lo], high - magnitude);
        bool up = mode == NEAREST_EVEN      ? nearer > 0 || (nearer == 0 && odd(lo))
                  : mode == TOWARD_POSITIVE ? !negative
                  : mode == TOWARD_NEGATIVE ? negative
                                            : false;
        return pattern(up ? lo + 1 : lo, negative);
    }

    // The square root of a non-negative value, by comparing squares.
    mpz_class root(const mpq_class& v, int mode) const {
        std::size_t lo = last_not_above([&](const mpq_class& r) { return r * r <= v; });
        if (values_[lo] * values_[lo] == v) return pattern(lo, false);
        mpq_class mid = (values_[lo] + values_[lo + 1]) / 2;
        int above = cmp(v, mid * mid);
        bool up = mode == TOWARD_POSITIVE ||
                  (mode == NEAREST_EVEN && (above > 0 || (above == 0 && odd(lo))));
        return pattern(up ? lo + 1 : lo, false);
    }

private:
    template <class Below>
    std::size_t last_not_above(Below below) const {
        std::size_t lo = 0;
        for (std::size_t step = values_.size(); step > 0; step /= 2)
            while (lo + step < values_.size() && below(values_[lo + step]))
                lo += step;
        return lo;
    }

    // Ties go to the even significand. With m = 0 every normal significand is 1, so a
    // tie between normals goes up.
    bool odd(std::size_t index) const { return fmt_.m == 0 ? index != 0 : index % 2 == 1; }

    mpz_class pattern(std::size_t index, bool negative) const {
        mpz_class bits = index < values_.size() ? mpz_class(static_cast<unsigned long>(index))
                                                : inf_pattern(fmt_, false);
        if (negative) mpz_setbit(bits.get_mpz_t(), fmt_.e + fmt_.m);
        return bits;
    }

    Format fmt_;
    mpq_class beyond_;
    std::vector<mpq_class> values_;
};

class AgainstBruteForce : public ::testing::TestWithParam<Format> {};

TEST_P(AgainstBruteForce, EveryPairOfFiniteOperands) {
    const Format fmt = GetParam();
    BruteForce brute(fmt);
    std::vector<mpz_class> finite;
    for (mpz_class p = 0; p < mpz_class(1) << fmt.width(); ++p)
        if (is_finite(fmt, p)) finite.push_back(p);
    for (const auto& a : finite) {
        const mpq_class x = to_rational(fmt, a);
        for (int mode : all_modes) {
            if (!sign_of(fmt, a)) {
                ASSERT_EQ(sqrt(fmt, a, mode), brute.root(x, mode)) << describe(fmt, a);
            }
            for (const auto& b : finite) {
                const mpq_class y = to_rational(fmt, b);
                bool sa = sign_of(fmt, a), sb = sign_of(fmt, b);
                // Exact zeros: a sum keeps the operands' common sign, else is -0 only
                // toward -infinity; products and quotients take the sign of the signs.
                bool sum_sign = (x == 0 && y == 0 && sa == sb) ? sa : mode == TOWARD_NEGATIVE;
                bool dif_sign = (x == 0 && y == 0 && sa != sb) ? sa : mode == TOWARD_NEGATIVE;
                const struct {
                    Operation op;
                    mpq_class exact;
                    bool zero_negative;
                } expected[] = {{Operation::Add, x + y, sum_sign},
                                {Operation::Sub, x - y, dif_sign},
                                {Operation::Mul, x * y, sa != sb},
                                {Operation::Div, y == 0 ? mpq_class(0) : x / y, sa != sb}};
                for (const auto& e : expected) {
                    if (e.op == Operation::Div && y == 0) continue;
                    ASSERT_EQ(apply(fmt, e.op, a, b, mode),
                              brute.round(e.exact, mode, e.zero_negative))
                        << to_string(e.op) << " mode " << mode << "\n  a " << describe(fmt, a)
                        << "\n  b " << describe(fmt, b);
                }
            }
        }
    }
}

TEST_P(AgainstBruteForce, ConversionsAndRationals) {
    const Format fmt = GetParam();
    BruteForce brute(fmt);
    OperandGenerator gen(fmt, 21);
    for (Format from : {Format{2, 0}, Format{3, 2}, Format{4, 3}, Format{5, 6}, binary16}) {
        OperandGenerator source(from, 22);
        for (int i = 0; i < 300; ++i) {
            mpz_class bits = source.operand();
            if (!is_finite(from, bits) || from == fmt) continue;
            for (int mode : all_modes)
                ASSERT_EQ(convert(from, bits, fmt, mode),
                          brute.round(to_rational(from, bits), mode, sign_of(from, bits)))
                    << describe(from, bits) << " to " << fmt << " mode " << mode;
        }
    }
    for (int i = 0; i < 2000; ++i) {
        mpq_class q = gen.rational();
        for (int mode : all_modes)
            ASSERT_EQ(from_rational(q, fmt, mode), brute.round(q, mode, false)) << q;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Oracle, AgainstBruteForce,
    ::testing::ValuesIn(
        cases(1) > 1
            ? std::vector<Format>{{2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}, {2, 3}, {4, 3}, {5, 2}}
            : std::vector<Format>{{2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}, {2, 3}}),
    format_name);

// ---------------------------------------------------------------------------
// Values worked by hand
// ---------------------------------------------------------------------------

// "1/16", "-5/4", "+0", "-0", "inf", "-inf" or "nan" as a pattern of fmt.
mpz_class value_of(Format fmt, const std::string& text) {
    if (text == "nan") return nan_pattern(fmt);
    if (text == "inf" || text == "-inf") return inf_pattern(fmt, text[0] == '-');
    if (text == "-0" || text == "+0") return make_pattern(fmt, text[0] == '-', 0, 0);
    mpq_class q(text);
    q.canonicalize();
    return from_rational(q, fmt, TOWARD_ZERO);
}

TEST(OracleByHand, SpecialValuesAndSignedZeros) {
    const Format fmt{3, 2}; // largest finite 14, smallest subnormal 1/16
    const struct {
        Operation op;
        const char *a, *b;
        int mode;
        const char* want;
    } table[] = {
        {Operation::Sub, "3", "3", 0, "+0"},       {Operation::Sub, "3", "3", 3, "-0"},
        {Operation::Sub, "+0", "+0", 3, "-0"},     {Operation::Add, "-0", "-0", 2, "-0"},
        {Operation::Add, "-0", "+0", 0, "+0"},     {Operation::Sub, "inf", "inf", 0, "nan"},
        {Operation::Add, "inf", "-inf", 0, "nan"}, {Operation::Sub, "1", "inf", 0, "-inf"},
        {Operation::Mul, "+0", "inf", 0, "nan"},   {Operation::Mul, "-2", "inf", 0, "-inf"},
        {Operation::Mul, "-0", "-5", 0, "+0"},     {Operation::Mul, "14", "14", 1, "14"},
        {Operation::Div, "-1", "+0", 0, "-inf"},   {Operation::Div, "1", "-0", 0, "-inf"},
        {Operation::Div, "+0", "+0", 0, "nan"},    {Operation::Div, "inf", "inf", 0, "nan"},
        {Operation::Div, "inf", "+0", 0, "inf"},   {Operation::Div, "-1", "inf", 0, "-0"},
        {Operation::Div, "+0", "-3", 0, "-0"},     {Operation::Div, "1/16", "14", 2, "1/16"},
        {Operation::Sqrt, "-0", "", 0, "-0"},      {Operation::Sqrt, "inf", "", 0, "inf"},
        {Operation::Sqrt, "-inf", "", 0, "nan"},   {Operation::Sqrt, "-1", "", 0, "nan"},
        {Operation::Add, "nan", "1", 0, "nan"},    {Operation::Mul, "1", "nan", 0, "nan"},
    };
    for (const auto& c : table) {
        mpz_class b = c.op == Operation::Sqrt ? mpz_class(0) : value_of(fmt, c.b);
        mpz_class got = apply(fmt, c.op, value_of(fmt, c.a), b, c.mode);
        EXPECT_TRUE(same_result(fmt, got, value_of(fmt, c.want)))
            << c.a << " " << to_string(c.op) << " " << c.b << " mode " << c.mode << " gave "
            << describe(fmt, got);
    }
}

TEST(OracleByHand, ConversionsOfNumbersAndFormats) {
    const struct {
        const char* q;
        Format fmt;
        int mode;
        unsigned long model;  // rounded twice when not an integer, as the library does
        unsigned long single; // rounded once
    } numbers[] = {
        {"8/3", {4, 3}, 0, 0x42, 0x43},
        {"16777221/7", binary32, 0, 0x4A124928, 0x4A124927},
        {"-1/3", binary32, 2, 0xBEAAAAAA, 0xBEAAAAAA},
        {"16777219", binary32, 0, 0x4B800002, 0x4B800002},
        {"0", binary16, 3, 0, 0},
    };
    for (const auto& c : numbers) {
        mpq_class q(c.q);
        EXPECT_EQ(from_number_model(q, c.fmt, c.mode), c.model) << c.q;
        EXPECT_EQ(from_rational(q, c.fmt, c.mode), c.single) << c.q;
    }
    const Format tiny{3, 2};
    EXPECT_EQ(convert(binary32, 0x80000000, tiny, 0), 0b100000); // -0 stays -0
    EXPECT_EQ(convert(binary32, 0x7FC00000, tiny, 0), 0b111101); // the canonical NaN
    EXPECT_EQ(convert(tiny, 0b000001, binary32, 0), 0x3D800000); // subnormal to normal
    EXPECT_EQ(convert(binary16, 0x7E01, binary16, 0), 0x7E01);   // same format: untouched
    EXPECT_EQ(read_decimal(binary32, "-0"), 0x80000000);
    for (const char* bad : {"", "-", ".", "1e5", "1.2.3", "+1", "0x10", "1 "})
        EXPECT_THROW(read_decimal(binary32, bad), std::invalid_argument) << bad;
}

TEST(OracleByHand, IntegersWithWidths) {
    const struct {
        const char* value;
        int mode;
        unsigned long width;
        long integer;
    } table[] = {{"5/2", 0, 0, 2},     {"-5/2", 0, 0, -2}, {"-11/4", 2, 0, -2}, {"-9/4", 3, 0, -3},
                 {"9/4", 7, 0, 2},     {"300", 0, 8, 44},  {"-300", 0, 8, -44}, {"256", 0, 8, 0},
                 {"-255", 0, 8, -255}, {"-3", 0, 1, -1},   {"inf", 0, 8, 0},    {"nan", 0, 0, 0}};
    for (const auto& c : table)
        EXPECT_EQ(to_integer(binary32, value_of(binary32, c.value), c.mode, c.width), c.integer)
            << c.value << " mode " << c.mode << " width " << c.width;
    EXPECT_EQ(round_to_integral(binary32, value_of(binary32, "-1/4"), 2), 0x80000000);
    // (2,3): the largest finite value 3.75 rounds to 4, which overflows.
    const Format small{2, 3};
    EXPECT_EQ(round_to_integral(small, max_pattern(small, false), 0), inf_pattern(small, false));
}

TEST(OracleByHand, WideFormatsAndShortestDecimals) {
    const mpz_class one("3fff0000000000000000000000000000", 16);
    const mpz_class two = add(binary128, one, one, 0);
    EXPECT_EQ(two, mpz_class("40000000000000000000000000000000", 16));
    EXPECT_EQ(sqrt(binary128, two, 0), mpz_class("3fff6a09e667f3bcc908b2fb1366ea95", 16));
    EXPECT_EQ(from_rational(mpq_class(1, 3), binary128, 0),
              mpz_class("3ffd5555555555555555555555555555", 16));

    const char* const tiny_texts[] = {"0",    "0.06", "0.1", "0.2", "0.25", "0.3", "0.4",
                                      "0.44", "0.5",  "0.6", "0.7", "0.9",  "1",   "1.2",
                                      "1.5",  "1.7",  "2",   "2.5", "3",    "3.5", "4",
                                      "5",    "6",    "7",   "8",   "10",   "12",  "14"};
    for (unsigned long packed = 0; packed < 28; ++packed) {
        EXPECT_EQ(shortest_decimal({3, 2}, packed), tiny_texts[packed]) << packed;
        EXPECT_EQ(shortest_decimal({3, 2}, packed | 32), std::string("-") + tiny_texts[packed]);
    }
    const struct {
        Format fmt;
        unsigned long bits;
        std::string text;
    } table[] = {
        {binary32, 0x3DCCCCCD, "0.1"},
        {binary32, 0x3EAAAAAB, "0.33333334"},
        {binary32, 0x7F7FFFFF, "340282350000000000000000000000000000000"},
        {binary32, 0x00800000, "0.000000000000000000000000000000000000011754944"},
        {binary32, 0x007FFFFF, "0.000000000000000000000000000000000000011754942"},
        {binary32, 0x00000001, "0." + std::string(44, '0') + "1"},
        {binary32, 0x0C000000, "0.000000000000000000000000000000098607613"},
        {binary64, 0x4301B66687B7ABB6, "623203260495222.7"},   // a tie: the lower one
        {binary64, 0x43C5757239BD3AA2, "3092535278770144300"}, // ...4000 is an end
        {binary64, 0x4000000000000001, "2.0000000000000004"},
        {Format{2, 1}, 5, "3"},
    };
    for (const auto& c : table)
        EXPECT_EQ(shortest_decimal(c.fmt, c.bits), c.text) << describe(c.fmt, c.bits);
    EXPECT_THROW(shortest_decimal(binary32, 0x7FC00000), std::domain_error);
}

class DecimalRoundTrip : public ::testing::TestWithParam<Format> {};

TEST_P(DecimalRoundTrip, ShortestDecimalsReadBackToTheSameValue) {
    const Format fmt = GetParam();
    OperandGenerator gen(fmt, 51);
    for (int i = 0; i < cases(400); ++i) {
        mpz_class x = gen.operand();
        if (!is_finite(fmt, x)) continue;
        std::string text = shortest_decimal(fmt, x);
        ASSERT_EQ(read_decimal(fmt, text), x) << text << " from " << describe(fmt, x);
    }
}

INSTANTIATE_TEST_SUITE_P(Oracle, DecimalRoundTrip,
                         ::testing::Values(Format{2, 1}, Format{4, 3}, binary16, Format{8, 7},
                                           binary32, binary64, Format{6, 60}),
                         format_name);

TEST(OracleByHand, NeighboursWalkWholeFormats) {
    for (Format fmt : {Format{2, 0}, Format{3, 2}, Format{4, 3}}) {
        // packed_next climbs from the bottom pattern through every pattern once, in
        // increasing order of value wherever both neighbours are ordered, and agrees
        // with next_representable on finite non-zero values.
        mpz_class bottom = (mpz_class(1) << fmt.width()) - 1, p = bottom;
        std::size_t visited = 1;
        for (mpz_class next; (next = packed_next(fmt, p, true)) != p; p = next, ++visited) {
            ASSERT_EQ(packed_next(fmt, next, false), p) << describe(fmt, next);
            bool zeros = classify(fmt, p) == Kind::Zero && classify(fmt, next) == Kind::Zero;
            int order = compare(fmt, p, next);
            ASSERT_TRUE(order == -2 || order == (zeros ? 0 : -1)) << describe(fmt, p);
            if (is_finite(fmt, p) && classify(fmt, p) != Kind::Zero) {
                for (bool up : {false, true})
                    ASSERT_EQ(next_representable(fmt, p, up), packed_next(fmt, p, up))
                        << describe(fmt, p);
            }
        }
        EXPECT_EQ(visited, std::size_t(1) << fmt.width()) << fmt;
        EXPECT_EQ(packed_next(fmt, bottom, false), bottom);
        for (bool negative : {false, true}) {
            mpz_class zero = make_pattern(fmt, negative, 0, 0);
            EXPECT_EQ(next_representable(fmt, zero, true), min_pattern(fmt, false)) << fmt;
            EXPECT_EQ(next_representable(fmt, zero, false), min_pattern(fmt, true)) << fmt;
            EXPECT_EQ(next_representable(fmt, inf_pattern(fmt, negative), negative),
                      max_pattern(fmt, negative));
        }
    }
}

// ---------------------------------------------------------------------------
// The two representations of patterns, and the generators' aim
// ---------------------------------------------------------------------------

class WordAndPackedPaths : public ::testing::TestWithParam<Format> {};

TEST_P(WordAndPackedPaths, AgreeOnEveryOperation) {
    const Format fmt = GetParam(), wider{fmt.e + 1, fmt.m + 40};
    OperandGenerator gen(fmt, 31);
    Emulator emu(fmt);
    Converter widen(fmt, wider), narrow(fmt, Format{4, 3});
    mpz_class packed;
    for (int i = 0; i < cases(1500); ++i)
        for (Operation op : all_operations) {
            auto [a, b] = gen.pair_word(op);
            for (int mode : all_modes) {
                emu.apply(op, packed, to_mpz(a), to_mpz(b), mode);
                ASSERT_EQ(to_mpz(emu.apply(op, a, b, mode)), packed)
                    << to_string(op) << " " << describe(fmt, a) << " " << describe(fmt, b);
                narrow.convert(packed, to_mpz(a), mode);
                ASSERT_EQ(to_mpz(narrow.convert(a, mode)), packed) << describe(fmt, a);
            }
            // Widening is exact, and so comes back unchanged.
            if (classify(fmt, a) == Kind::NaN) continue;
            widen.convert(packed, to_mpz(a), 0);
            ASSERT_EQ(convert(wider, packed, fmt, 0), a) << describe(fmt, a);
        }
}

INSTANTIATE_TEST_SUITE_P(Oracle, WordAndPackedPaths,
                         ::testing::Values(Format{2, 61}, Format{4, 3}, binary16, Format{8, 7},
                                           binary32, binary64, Format{15, 48}, Format{30, 33}),
                         format_name);

// The generators exist to reach cases that random operands almost never produce.
TEST(OperandGenerators, ReachTheHardCases) {
    for (Format fmt : {binary16, binary64, binary128}) {
        OperandGenerator gen(fmt, 41);
        int ties[4] = {}, exact_zeros = 0, subnormal_products = 0, absorbed = 0, twice = 0;
        const int n = 4000;
        for (int i = 0; i < n; ++i) {
            Operation op = static_cast<Operation>(i % 4);
            auto [a, b] = gen.pair(op);
            mpq_class q = gen.rational();
            twice += from_number_model(q, fmt, 0) != from_rational(q, fmt, 0);
            if (!is_finite(fmt, a) || !is_finite(fmt, b) || classify(fmt, b) == Kind::Zero)
                continue;
            mpz_class down = apply(fmt, op, a, b, TOWARD_NEGATIVE);
            mpz_class up = apply(fmt, op, a, b, TOWARD_POSITIVE);
            subnormal_products += op == Operation::Mul && classify(fmt, up) == Kind::Subnormal;
            absorbed += op == Operation::Add && apply(fmt, op, a, b, TOWARD_ZERO) == a;
            if (classify(fmt, down) == Kind::Zero && classify(fmt, up) == Kind::Zero) {
                exact_zeros += op == Operation::Sub;
            } else if (down != up && is_finite(fmt, down) && is_finite(fmt, up)) {
                // A tie: the exact result is the midpoint of its two neighbours.
                mpq_class exact = to_rational(fmt, a), y = to_rational(fmt, b);
                exact = op == Operation::Add   ? mpq_class(exact + y)
                        : op == Operation::Sub ? mpq_class(exact - y)
                        : op == Operation::Mul ? mpq_class(exact * y)
                                               : mpq_class(exact / y);
                ties[static_cast<int>(op)] +=
                    2 * exact == to_rational(fmt, down) + to_rational(fmt, up);
            }
        }
        for (int count : {ties[0], ties[2], exact_zeros, subnormal_products, absorbed, twice})
            EXPECT_GT(count, n / 400) << fmt;
        EXPECT_GT(ties[3], 0) << fmt << ": no quotient landed on a subnormal tie";
    }
}

TEST(OperandGenerators, AreReproducibleFromTheirSeed) {
    OperandGenerator first(binary128, 7), second(binary128, 7);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(first.operand(), second.operand());
        ASSERT_EQ(first.pair(Operation::Div), second.pair(Operation::Div));
        ASSERT_EQ(first.rational(), second.rational());
    }
}

} // namespace
