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
#include <vector>

#ifdef __clang__
#pragma STDC FENV_ACCESS ON
#endif

namespace {

using namespace oracle;

constexpr Format binary16{5, 10}, binary32{8, 23}, binary64{11, 52}, binary128{15, 112};

bool long_run() {
    const char* flag = std::getenv("TARN_LONG_TESTS");
    return flag != nullptr && std::string(flag) == "1";
}

int cases(int normal) {
    return long_run() ? normal * 20 : normal;
}

// ---------------------------------------------------------------------------
// The hardware as a witness for binary32 and binary64
// ---------------------------------------------------------------------------

// Sets the FPU's rounding direction for one scope.
class HardwareRounding {
public:
    explicit HardwareRounding(int mode) {
        static const int directions[] = {FE_TONEAREST, FE_TOWARDZERO, FE_UPWARD, FE_DOWNWARD};
        std::fesetround(directions[mode]);
    }
    ~HardwareRounding() { std::fesetround(FE_TONEAREST); }
};

template <class Float, class Bits>
Float from_bits(Bits bits) {
    Float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

template <class Bits, class Float>
Bits to_bits(Float f) {
    Bits bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

// One hardware operation on patterns. Operands and result are volatile so that the
// operation can be neither folded at compile time nor moved across the change of
// rounding direction: compilers do not treat fesetround as a barrier for arithmetic.
template <class Float, class Bits>
Word hardware(Operation op, Word a, Word b, int mode) {
    volatile Float x = from_bits<Float>(static_cast<Bits>(a));
    volatile Float y = from_bits<Float>(static_cast<Bits>(b));
    HardwareRounding rounding(mode);
    volatile Float r;
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
    return to_bits<Bits>(static_cast<Float>(r));
}

Word hardware_op(Format fmt, Operation op, Word a, Word b, int mode) {
    return fmt == binary32 ? hardware<float, std::uint32_t>(op, a, b, mode)
                           : hardware<double, std::uint64_t>(op, a, b, mode);
}

Word emulate(Emulator& emu, Operation op, Word a, Word b, int mode) {
    switch (op) {
    case Operation::Add:
        return emu.add(a, b, mode);
    case Operation::Sub:
        return emu.sub(a, b, mode);
    case Operation::Mul:
        return emu.mul(a, b, mode);
    case Operation::Div:
        return emu.div(a, b, mode);
    case Operation::Sqrt:
        break;
    }
    return emu.sqrt(a, mode);
}

const char* name(Operation op) {
    static const char* const names[] = {"add", "sub", "mul", "div", "sqrt"};
    return names[static_cast<int>(op)];
}

struct HardwareCase {
    Format fmt;
    Operation op;
};

class AgainstHardware : public ::testing::TestWithParam<HardwareCase> {};

TEST_P(AgainstHardware, EdgeAndRandomOperandsInEveryMode) {
    const auto [fmt, op] = GetParam();
    const std::uint64_t seed = 0x5eed0000 + fmt.m * 16 + static_cast<int>(op);
    OperandGenerator gen(fmt, seed);
    Emulator emu(fmt);
    int mismatches = 0;
    for (int i = 0; i < cases(25000) && mismatches < 5; ++i) {
        auto [a, b] = op == Operation::Sqrt ? std::pair<Word, Word>{gen.sqrt_operand_word(), 0}
                                            : gen.pair_word(op);
        for (int mode : all_modes) {
            Word want = hardware_op(fmt, op, a, b, mode);
            Word got = emulate(emu, op, a, b, mode);
            if (!same_result(fmt, got, want)) {
                ++mismatches;
                ADD_FAILURE() << name(op) << " mode " << mode << " seed " << seed << " case " << i
                              << "\n  a    " << describe(fmt, a) << "\n  b    " << describe(fmt, b)
                              << "\n  got  " << describe(fmt, got) << "\n  want "
                              << describe(fmt, want);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Oracle, AgainstHardware,
    ::testing::Values(
        HardwareCase{binary32, Operation::Add}, HardwareCase{binary32, Operation::Sub},
        HardwareCase{binary32, Operation::Mul}, HardwareCase{binary32, Operation::Div},
        HardwareCase{binary32, Operation::Sqrt}, HardwareCase{binary64, Operation::Add},
        HardwareCase{binary64, Operation::Sub}, HardwareCase{binary64, Operation::Mul},
        HardwareCase{binary64, Operation::Div}, HardwareCase{binary64, Operation::Sqrt}),
    [](const ::testing::TestParamInfo<HardwareCase>& info) {
        return std::string(info.param.fmt == binary32 ? "binary32_" : "binary64_") +
               name(info.param.op);
    });

TEST(OracleAgainstHardware, ConversionsBetweenBinary32AndBinary64) {
    OperandGenerator narrow_gen(binary32, 11), wide_gen(binary64, 12);
    Converter narrowing(binary64, binary32), widening(binary32, binary64);
    for (int i = 0; i < cases(20000); ++i) {
        Word narrow = narrow_gen.operand_word();
        // Binary32 values with random low bits appended: near, at or just off a tie.
        Word wide = widening.convert(narrow, 0) ^ (wide_gen.engine()() & 0x1FFFFFFF);
        if (i % 4 == 0) wide = wide_gen.operand_word();
        for (int mode : all_modes) {
            volatile double d = from_bits<double>(wide);
            volatile float rounded;
            {
                HardwareRounding rounding(mode);
                rounded = static_cast<float>(d);
            }
            Word want_narrow = to_bits<std::uint32_t>(static_cast<float>(rounded));
            ASSERT_TRUE(same_result(binary32, narrowing.convert(wide, mode), want_narrow))
                << "mode " << mode << " " << describe(binary64, wide);
            volatile float f = from_bits<float>(static_cast<std::uint32_t>(narrow));
            Word want_wide = to_bits<std::uint64_t>(static_cast<double>(f));
            ASSERT_TRUE(same_result(binary64, widening.convert(narrow, mode), want_wide))
                << "mode " << mode << " " << describe(binary32, narrow);
        }
    }
}

TEST(OracleAgainstHardware, IntegersRationalsAndIntegralValues) {
    OperandGenerator gen(binary64, 13);
    Emulator to32(binary32), to64(binary64);
    for (int i = 0; i < cases(20000); ++i) {
        std::int64_t n = static_cast<std::int64_t>(gen.engine()()) >> gen.uniform(0, 63);
        Word x = gen.operand_word();
        for (int mode : all_modes) {
            volatile std::int64_t vn = n;
            volatile double vx = from_bits<double>(x);
            volatile double wide, integral;
            volatile float narrow;
            {
                HardwareRounding rounding(mode);
                wide = static_cast<double>(vn);
                narrow = static_cast<float>(vn);
                integral = std::nearbyint(vx);
            }
            Word want64 = to_bits<std::uint64_t>(static_cast<double>(wide));
            Word want32 = to_bits<std::uint32_t>(static_cast<float>(narrow));
            Word want_integral = to_bits<std::uint64_t>(static_cast<double>(integral));
            mpq_class q{mpz_class(std::to_string(n))};
            ASSERT_EQ(to64.from_rational(q, mode), want64) << n << " mode " << mode;
            ASSERT_EQ(to32.from_rational(q, mode), want32) << n << " mode " << mode;
            ASSERT_TRUE(same_result(binary64, to_word(round_to_integral(binary64, to_mpz(x), mode)),
                                    want_integral))
                << describe(binary64, x) << " mode " << mode;
        }
    }
}

TEST(OracleAgainstHardware, DecimalReadBackAgreesWithStrtod) {
    OperandGenerator gen(binary64, 14);
    char text[400];
    for (int i = 0; i < cases(3000); ++i) {
        // Moderate magnitudes keep the positional numerals short.
        Word x = gen.operand_word() & 0x7FFFFFFFFFFFFFFF;
        double d = from_bits<double>(x);
        if (!std::isfinite(d) || d > 1e30 || (d != 0 && d < 1e-30)) continue;
        for (int digits : {3, 17, 25}) {
            std::snprintf(text, sizeof text, "%.*f", digits, d * (i % 2 ? -1 : 1));
            Word want = to_bits<std::uint64_t>(std::strtod(text, nullptr));
            ASSERT_EQ(to_word(read_decimal(binary64, text)), want) << text;
        }
    }
}

TEST(OracleAgainstHardware, ComparisonsAndNeighbours) {
    for (Format fmt : {binary32, binary64}) {
        OperandGenerator gen(fmt, 15);
        for (int i = 0; i < cases(20000); ++i) {
            Word a = gen.operand_word(), b = i % 3 == 0 ? a : gen.operand_word();
            if (i % 3 == 1) b = a ^ (gen.engine()() & 3); // neighbours and the other zero
            double x, y, up, down;
            if (fmt == binary32) {
                float fx = from_bits<float>(static_cast<std::uint32_t>(a));
                x = fx;
                y = from_bits<float>(static_cast<std::uint32_t>(b));
                up = std::nextafter(fx, INFINITY);
                down = std::nextafter(fx, -INFINITY);
            } else {
                x = from_bits<double>(a);
                y = from_bits<double>(b);
                up = std::nextafter(x, INFINITY);
                down = std::nextafter(x, -INFINITY);
            }
            int want = x < y ? -1 : x > y ? 1 : x == y ? 0 : -2;
            ASSERT_EQ(compare(fmt, to_mpz(a), to_mpz(b)), want)
                << describe(fmt, a) << " vs " << describe(fmt, b);
            if (std::isnan(x)) continue; // the hardware quietens NaNs; the reference keeps them
            Word want_up = fmt == binary32 ? to_bits<std::uint32_t>(static_cast<float>(up))
                                           : to_bits<std::uint64_t>(up);
            Word want_down = fmt == binary32 ? to_bits<std::uint32_t>(static_cast<float>(down))
                                             : to_bits<std::uint64_t>(down);
            ASSERT_EQ(next_representable(fmt, to_mpz(a), true), want_up) << describe(fmt, a);
            ASSERT_EQ(next_representable(fmt, to_mpz(a), false), want_down) << describe(fmt, a);
        }
    }
}

// ---------------------------------------------------------------------------
// Brute force over tiny formats
// ---------------------------------------------------------------------------

// Every non-negative finite value of a tiny format, in increasing order, and the
// rounding of an exact rational by searching them: independent of MPFR.
class BruteForce {
public:
    explicit BruteForce(Format fmt) : fmt_(fmt) {
        mpz_class largest = max_pattern(fmt, false);
        for (mpz_class p = 0; p <= largest; ++p)
            values_.push_back(to_rational(fmt, p));
        mpq_class beyond(1);
        mpq_mul_2exp(beyond.get_mpq_t(), beyond.get_mpq_t(), fmt.bias() + 1);
        beyond_ = beyond;
    }

    Format format() const { return fmt_; }
    std::size_t count() const { return values_.size(); }

    // r rounded under `mode`; an exact zero gets the sign `zero_negative`.
    mpz_class round(const mpq_class& r, int mode, bool zero_negative) const {
        bool negative = r < 0 || (r == 0 && zero_negative);
        mpq_class magnitude = abs(r);
        // lo: the largest value <= |r|; the virtual value 2^(bias+1) stands above the
        // largest finite one and means infinity.
        std::size_t lo = 0;
        for (std::size_t step = values_.size(); step > 0; step /= 2)
            while (lo + step < values_.size() && values_[lo + step] <= magnitude)
                lo += step;
        if (values_[lo] == magnitude) return with_sign(lo, negative);
        bool up;
        const mpq_class& low = values_[lo];
        const mpq_class& high = lo + 1 < values_.size() ? values_[lo + 1] : beyond_;
        if (magnitude >= beyond_)
            up = mode == NEAREST_EVEN || (mode == TOWARD_POSITIVE && !negative) ||
                 (mode == TOWARD_NEGATIVE && negative);
        else
            up = rounds_up(magnitude - low, high - magnitude, lo, mode, negative);
        return up ? with_sign(lo + 1, negative) : with_sign(lo, negative);
    }

    // The square root of a non-negative value, by comparing squares.
    mpz_class root(const mpq_class& v, int mode) const {
        std::size_t lo = 0;
        for (std::size_t step = values_.size(); step > 0; step /= 2)
            while (lo + step < values_.size() && values_[lo + step] * values_[lo + step] <= v)
                lo += step;
        if (values_[lo] * values_[lo] == v) return with_sign(lo, false);
        mpq_class mid = (values_[lo] + values_[lo + 1]) / 2;
        mpq_class mid_square = mid * mid;
        int above = mid_square < v ? 1 : mid_square == v ? 0 : -1;
        bool up = mode == TOWARD_POSITIVE ||
                  (mode == NEAREST_EVEN && (above > 0 || (above == 0 && odd(lo))));
        return with_sign(up ? lo + 1 : lo, false);
    }

private:
    // Ties go to the neighbour whose significand is even. With m = 0 every normal
    // significand is 1, so a tie between normals goes up.
    bool odd(std::size_t index) const {
        if (fmt_.m == 0) return index != 0;
        return index % 2 == 1;
    }

    bool rounds_up(const mpq_class& below, const mpq_class& above, std::size_t lo, int mode,
                   bool negative) const {
        switch (mode) {
        case NEAREST_EVEN:
            return above < below || (above == below && odd(lo));
        case TOWARD_POSITIVE:
            return !negative;
        case TOWARD_NEGATIVE:
            return negative;
        default:
            return false;
        }
    }

    mpz_class with_sign(std::size_t index, bool negative) const {
        mpz_class bits = index < values_.size() ? mpz_class(static_cast<unsigned long>(index))
                                                : inf_pattern(fmt_, false);
        if (negative) mpz_setbit(bits.get_mpz_t(), fmt_.e + fmt_.m);
        return bits;
    }

    Format fmt_;
    std::vector<mpq_class> values_;
    mpq_class beyond_;
};

bool is_finite(Format fmt, const mpz_class& bits) {
    Kind k = classify(fmt, bits);
    return k != Kind::NaN && k != Kind::Infinite;
}

bool sign_of(Format fmt, const mpz_class& bits) {
    return mpz_tstbit(bits.get_mpz_t(), fmt.e + fmt.m) != 0;
}

// The exact result of a binary operation on finite operands, and the sign an exact
// zero takes under IEEE-754.
bool exact_result(Operation op, const mpq_class& x, const mpq_class& y, bool sx, bool sy, int mode,
                  mpq_class& r, bool& zero_negative) {
    switch (op) {
    case Operation::Add:
    case Operation::Sub: {
        bool sy_eff = op == Operation::Sub ? !sy : sy;
        r = op == Operation::Add ? mpq_class(x + y) : mpq_class(x - y);
        zero_negative = (x == 0 && y == 0 && sx == sy_eff) ? sx : mode == TOWARD_NEGATIVE;
        return true;
    }
    case Operation::Mul:
        r = x * y;
        zero_negative = sx != sy;
        return true;
    case Operation::Div:
        if (y == 0) return false;
        r = x / y;
        zero_negative = sx != sy;
        return true;
    case Operation::Sqrt:
        break;
    }
    return false;
}

class AgainstBruteForce : public ::testing::TestWithParam<Format> {};

TEST_P(AgainstBruteForce, EveryPairOfFiniteOperands) {
    const Format fmt = GetParam();
    BruteForce brute(fmt);
    Emulator emu(fmt);
    mpz_class limit = mpz_class(1) << fmt.width();
    std::vector<mpz_class> finite;
    for (mpz_class p = 0; p < limit; ++p)
        if (is_finite(fmt, p)) finite.push_back(p);
    mpz_class got;
    for (const auto& a : finite)
        for (const auto& b : finite)
            for (Operation op : {Operation::Add, Operation::Sub, Operation::Mul, Operation::Div})
                for (int mode : all_modes) {
                    mpq_class r;
                    bool zero_negative;
                    if (!exact_result(op, to_rational(fmt, a), to_rational(fmt, b), sign_of(fmt, a),
                                      sign_of(fmt, b), mode, r, zero_negative))
                        continue;
                    mpz_class want = brute.round(r, mode, zero_negative);
                    switch (op) {
                    case Operation::Add:
                        emu.add(got, a, b, mode);
                        break;
                    case Operation::Sub:
                        emu.sub(got, a, b, mode);
                        break;
                    case Operation::Mul:
                        emu.mul(got, a, b, mode);
                        break;
                    default:
                        emu.div(got, a, b, mode);
                        break;
                    }
                    ASSERT_EQ(got, want)
                        << name(op) << " mode " << mode << "\n  a " << describe(fmt, a) << "\n  b "
                        << describe(fmt, b) << "\n  got  " << describe(fmt, got);
                }
    for (const auto& a : finite)
        for (int mode : all_modes) {
            if (sign_of(fmt, a)) continue;
            emu.sqrt(got, a, mode);
            ASSERT_EQ(got, brute.root(to_rational(fmt, a), mode))
                << "sqrt mode " << mode << " " << describe(fmt, a);
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
                    << describe(from, bits) << " to " << to_string(fmt) << " mode " << mode;
        }
    }
    for (int i = 0; i < 2000; ++i) {
        mpq_class q = gen.rational();
        for (int mode : all_modes)
            ASSERT_EQ(from_rational(q, fmt, mode), brute.round(q, mode, false))
                << q << " mode " << mode;
    }
}

std::vector<Format> tiny_formats() {
    std::vector<Format> formats = {{2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}, {2, 3}};
    if (long_run()) formats.insert(formats.end(), {{4, 3}, {5, 2}, {3, 5}});
    return formats;
}

INSTANTIATE_TEST_SUITE_P(Oracle, AgainstBruteForce, ::testing::ValuesIn(tiny_formats()),
                         [](const ::testing::TestParamInfo<Format>& info) {
                             return "e" + std::to_string(info.param.e) + "m" +
                                    std::to_string(info.param.m);
                         });

// ---------------------------------------------------------------------------
// Values worked by hand
// ---------------------------------------------------------------------------

// Parses "1/16", "-5/4", "+0", "-0", "inf", "-inf" or "nan" into a pattern of fmt.
mpz_class value_of(Format fmt, const std::string& text) {
    if (text == "nan") return nan_pattern(fmt);
    if (text == "inf" || text == "-inf") return inf_pattern(fmt, text[0] == '-');
    if (text == "-0" || text == "+0") return make_pattern(fmt, text[0] == '-', 0, 0);
    mpq_class q(text);
    q.canonicalize();
    mpz_class bits = from_rational(q, fmt, TOWARD_ZERO);
    if (to_rational(fmt, bits) != q)
        throw std::invalid_argument(text + " is not a value of " + to_string(fmt));
    return bits;
}

struct HandCase {
    char op;
    const char* a;
    const char* b;
    int mode;
    const char* want;
};

TEST(OracleByHand, ArithmeticInTheThreeTwoFormat) {
    // (3,2): largest finite 14, smallest normal 1/4, smallest subnormal 1/16.
    const Format fmt{3, 2};
    const HandCase table[] = {
        {'+', "1", "1/16", 0, "1"},       {'+', "1", "1/16", 2, "5/4"},
        {'+', "14", "1", 0, "inf"},       {'+', "14", "1", 1, "14"},
        {'+', "14", "1/2", 0, "14"},      {'+', "14", "1/2", 2, "inf"},
        {'-', "3", "3", 0, "+0"},         {'-', "3", "3", 3, "-0"},
        {'-', "+0", "+0", 0, "+0"},       {'-', "+0", "+0", 3, "-0"},
        {'+', "-0", "-0", 2, "-0"},       {'+', "-0", "+0", 0, "+0"},
        {'+', "-0", "+0", 3, "-0"},       {'-', "inf", "inf", 0, "nan"},
        {'+', "inf", "-inf", 0, "nan"},   {'-', "1", "inf", 0, "-inf"},
        {'-', "1/16", "1/8", 0, "-1/16"}, {'*', "+0", "inf", 0, "nan"},
        {'*', "-2", "inf", 0, "-inf"},    {'*', "-0", "5", 0, "-0"},
        {'*', "-0", "-5", 0, "+0"},       {'*', "14", "14", 0, "inf"},
        {'*', "14", "14", 1, "14"},       {'*', "1/4", "1/4", 0, "1/16"},
        {'*', "1/4", "3/8", 0, "1/8"},    {'*', "1/4", "3/8", 1, "1/16"},
        {'*', "5/4", "5/4", 0, "3/2"},    {'*', "5/4", "5/4", 2, "7/4"},
        {'/', "1", "+0", 0, "inf"},       {'/', "-1", "+0", 0, "-inf"},
        {'/', "1", "-0", 0, "-inf"},      {'/', "+0", "+0", 0, "nan"},
        {'/', "inf", "inf", 0, "nan"},    {'/', "inf", "+0", 0, "inf"},
        {'/', "1", "inf", 0, "+0"},       {'/', "-1", "inf", 0, "-0"},
        {'/', "inf", "-2", 0, "-inf"},    {'/', "+0", "-3", 0, "-0"},
        {'/', "1", "3", 0, "5/16"},       {'/', "1", "3", 2, "3/8"},
        {'/', "-1", "3", 0, "-5/16"},     {'/', "-1", "3", 3, "-3/8"},
        {'/', "1/16", "1/8", 0, "1/2"},   {'/', "14", "1/16", 0, "inf"},
        {'/', "14", "1/16", 1, "14"},     {'/', "1/16", "14", 0, "+0"},
        {'/', "1/16", "14", 2, "1/16"},   {'/', "1", "7/4", 0, "5/8"},
        {'/', "1", "7/4", 1, "1/2"},      {'s', "4", "", 0, "2"},
        {'s', "1/4", "", 0, "1/2"},       {'s', "1/16", "", 0, "1/4"},
        {'s', "14", "", 0, "7/2"},        {'s', "14", "", 2, "4"},
        {'s', "2", "", 0, "3/2"},         {'s', "2", "", 1, "5/4"},
        {'s', "2", "", 3, "5/4"},         {'s', "+0", "", 0, "+0"},
        {'s', "-0", "", 0, "-0"},         {'s', "inf", "", 0, "inf"},
        {'s', "-inf", "", 0, "nan"},      {'s', "-1", "", 0, "nan"},
    };
    for (const auto& c : table) {
        mpz_class a = value_of(fmt, c.a), got;
        mpz_class b = c.op == 's' ? mpz_class(0) : value_of(fmt, c.b);
        switch (c.op) {
        case '+':
            got = add(fmt, a, b, c.mode);
            break;
        case '-':
            got = sub(fmt, a, b, c.mode);
            break;
        case '*':
            got = mul(fmt, a, b, c.mode);
            break;
        case '/':
            got = div(fmt, a, b, c.mode);
            break;
        default:
            got = sqrt(fmt, a, c.mode);
            break;
        }
        EXPECT_TRUE(same_result(fmt, got, value_of(fmt, c.want)))
            << c.a << " " << c.op << " " << c.b << " mode " << c.mode << " gave "
            << describe(fmt, got) << ", want " << c.want;
    }
}

TEST(OracleByHand, RoundingEdgesOfTheThreeTwoFormat) {
    const Format fmt{3, 2};
    const struct {
        const char* value;
        int mode;
        const char* want;
    } table[] = {
        {"9", 0, "8"},      {"11", 0, "12"},   {"3/32", 0, "1/8"},  {"1/32", 0, "+0"},
        {"-1/32", 0, "-0"}, {"9", 2, "10"},    {"9", 1, "8"},       {"9", 3, "8"},
        {"-9", 3, "-10"},   {"-9", 1, "-8"},   {"-9", 2, "-8"},     {"1/32", 2, "1/16"},
        {"15", 0, "inf"},   {"15", 1, "14"},   {"15", 3, "14"},     {"29/2", 0, "14"},
        {"29/2", 2, "inf"}, {"16", 0, "inf"},  {"16", 2, "inf"},    {"16", 1, "14"},
        {"16", 3, "14"},    {"-16", 2, "-14"}, {"15/64", 0, "1/4"}, {"15/64", 1, "3/16"},
    };
    for (const auto& c : table) {
        mpq_class q(c.value);
        q.canonicalize();
        mpz_class got = from_rational(q, fmt, c.mode);
        // 1/32 and -1/32 round to zeros that keep the sign of the exact value.
        EXPECT_EQ(got, value_of(fmt, c.want)) << c.value << " mode " << c.mode;
    }
}

TEST(OracleByHand, DoubleRoundingOfTheNumberConversion) {
    const struct {
        const char* q;
        Format fmt;
        int mode;
        unsigned long model;  // what the library's conversion gives
        unsigned long single; // the correctly rounded value, where it differs
    } table[] = {
        {"8/3", {4, 3}, 0, 0x42, 0x43},
        {"16777221/7", binary32, 0, 0x4A124928, 0x4A124927},
        {"1/3", binary32, 0, 0x3EAAAAAB, 0x3EAAAAAB},
        {"1/3", binary32, 1, 0x3EAAAAAA, 0x3EAAAAAA},
        {"-1/3", binary32, 2, 0xBEAAAAAA, 0xBEAAAAAA},
        {"-1/3", binary32, 3, 0xBEAAAAAB, 0xBEAAAAAB},
        {"16777217", binary32, 0, 0x4B800000, 0x4B800000},
        {"16777219", binary32, 0, 0x4B800002, 0x4B800002},
        {"-5", binary32, 0, 0xC0A00000, 0xC0A00000},
        {"0", binary16, 3, 0, 0},
    };
    for (const auto& c : table) {
        mpq_class q(c.q);
        q.canonicalize();
        EXPECT_EQ(from_number_model(q, c.fmt, c.mode), c.model) << c.q;
        EXPECT_EQ(from_rational(q, c.fmt, c.mode), c.single) << c.q;
    }
    mpq_class huge(mpz_class(1) << 200), tiny(mpz_class(1), mpz_class(1) << 200);
    const unsigned long huge_results[] = {0x7F800000, 0x7F7FFFFF, 0x7F800000, 0x7F7FFFFF};
    const unsigned long negative_huge_results[] = {0xFF800000, 0xFF7FFFFF, 0xFF7FFFFF, 0xFF800000};
    const unsigned long tiny_results[] = {0, 0, 1, 0};
    for (int mode : all_modes) {
        EXPECT_EQ(from_number_model(huge, binary32, mode), huge_results[mode]);
        EXPECT_EQ(from_number_model(-huge, binary32, mode), negative_huge_results[mode]);
        EXPECT_EQ(from_number_model(tiny, binary32, mode), tiny_results[mode]);
    }
}

TEST(OracleByHand, ConversionsBetweenFormats) {
    const Format tiny{3, 2};
    const struct {
        Format from;
        unsigned long bits;
        Format to;
        int mode;
        unsigned long want;
    } table[] = {
        {binary64, 0x3FB999999999999A, binary32, 0, 0x3DCCCCCD},
        {binary64, 0x3FB999999999999A, binary32, 1, 0x3DCCCCCC},
        {binary32, 0x3F800000, binary64, 0, 0x3FF0000000000000},
        {binary32, 0x40400000, tiny, 0, 0b010010}, // 3.0
        {binary32, 0x41700000, tiny, 0, 0b011100}, // 15.0 overflows
        {binary32, 0x80000000, tiny, 0, 0b100000}, // -0 stays -0
        {binary32, 0xFF800000, tiny, 0, 0b111100}, // -inf
        {binary32, 0x7FC00000, tiny, 0, 0b111101}, // any NaN: the canonical one
        {tiny, 0b000001, binary32, 0, 0x3D800000}, // a subnormal becomes normal
        {binary16, 0x7E01, binary16, 0, 0x7E01},   // same format: untouched
    };
    for (const auto& c : table)
        EXPECT_EQ(convert(c.from, c.bits, c.to, c.mode), c.want)
            << describe(c.from, mpz_class(c.bits)) << " to " << to_string(c.to);
}

TEST(OracleByHand, IntegersAndIntegralValues) {
    const struct {
        const char* value;
        int mode;
        unsigned long width;
        long integer;
        const char* integral;
    } table[] = {
        {"5/2", 0, 0, 2, "2"},        {"7/2", 0, 0, 4, "4"},     {"-5/2", 0, 0, -2, "-2"},
        {"11/4", 0, 0, 3, "3"},       {"1/2", 0, 0, 0, "+0"},    {"-3/4", 0, 0, -1, "-1"},
        {"9/4", 2, 0, 3, "3"},        {"-11/4", 2, 0, -2, "-2"}, {"11/4", 3, 0, 2, "2"},
        {"-9/4", 3, 0, -3, "-3"},     {"-11/4", 1, 0, -2, "-2"}, {"11/4", 1, 0, 2, "2"},
        {"-1/4", 0, 0, 0, "-0"},      {"1/4", 0, 0, 0, "+0"},    {"-1/4", 3, 0, -1, "-1"},
        {"-1/4", 2, 0, 0, "-0"},      {"1/4", 2, 0, 1, "1"},     {"300", 0, 8, 44, "300"},
        {"-300", 0, 8, -44, "-300"},  {"256", 0, 8, 0, "256"},   {"255", 0, 8, 255, "255"},
        {"-255", 0, 8, -255, "-255"}, {"3", 0, 1, 1, "3"},       {"-3", 0, 1, -1, "-3"},
    };
    for (const auto& c : table) {
        mpz_class x = value_of(binary32, c.value);
        EXPECT_EQ(to_integer(binary32, x, c.mode, c.width), c.integer) << c.value;
        EXPECT_EQ(round_to_integral(binary32, x, c.mode), value_of(binary32, c.integral))
            << c.value << " mode " << c.mode;
    }
    // Zeros, infinities and NaNs give 0 and are their own integral values.
    for (const char* special : {"-0", "inf", "-inf", "nan"}) {
        mpz_class x = value_of(binary32, special);
        EXPECT_EQ(to_integer(binary32, x, 0, 8), 0);
        EXPECT_EQ(round_to_integral(binary32, x, 0), x);
    }
    // (2,3): the largest finite value 3.75 rounds to the integer 4, which overflows.
    const Format small{2, 3};
    mpz_class largest = max_pattern(small, false);
    EXPECT_EQ(to_integer(small, largest, 0, 0), 4);
    EXPECT_EQ(round_to_integral(small, largest, 0), inf_pattern(small, false));
    EXPECT_EQ(round_to_integral(small, largest, 1), 0b010100); // 3
}

TEST(OracleByHand, WideFormatsAndDecimals) {
    const mpz_class one("3fff0000000000000000000000000000", 16);
    EXPECT_EQ(add(binary128, one, one, 0), mpz_class("40000000000000000000000000000000", 16));
    EXPECT_EQ(from_rational(mpq_class(1, 3), binary128, 0),
              mpz_class("3ffd5555555555555555555555555555", 16));
    EXPECT_EQ(sqrt(binary128, add(binary128, one, one, 0), 0),
              mpz_class("3fff6a09e667f3bcc908b2fb1366ea95", 16));
    EXPECT_EQ(max_pattern(binary128, false), mpz_class("7ffeffffffffffffffffffffffffffff", 16));

    EXPECT_EQ(read_decimal(binary32, "0.1"), 0x3DCCCCCD);
    EXPECT_EQ(read_decimal(binary32, "-0"), 0x80000000);
    EXPECT_EQ(read_decimal(binary64, "623203260495222.7"),
              read_decimal(binary64, "623203260495222.75"));
    EXPECT_EQ(read_decimal(binary32, "340282350000000000000000000000000000000"), 0x7F7FFFFF);
    for (const char* bad : {"", "-", ".", "1e5", "1.2.3", "+1", "0x10", "1 "})
        EXPECT_THROW(read_decimal(binary32, bad), std::invalid_argument) << bad;
}

TEST(OracleByHand, ShortestDecimals) {
    const char* const tiny_table[] = {"0",    "0.06", "0.1", "0.2", "0.25", "0.3", "0.4",
                                      "0.44", "0.5",  "0.6", "0.7", "0.9",  "1",   "1.2",
                                      "1.5",  "1.7",  "2",   "2.5", "3",    "3.5", "4",
                                      "5",    "6",    "7",   "8",   "10",   "12",  "14"};
    const Format tiny{3, 2};
    for (unsigned long packed = 0; packed < 28; ++packed) {
        EXPECT_EQ(shortest_decimal(tiny, packed), tiny_table[packed]) << packed;
        EXPECT_EQ(shortest_decimal(tiny, packed | 32), std::string("-") + tiny_table[packed]);
    }
    const struct {
        Format fmt;
        unsigned long bits;
        std::string text;
    } table[] = {
        {binary32, 0x3F800000, "1"},
        {binary32, 0x80000000, "-0"},
        {binary32, 0x3DCCCCCD, "0.1"},
        {binary32, 0xC0200000, "-2.5"},
        {binary32, 0x3EAAAAAB, "0.33333334"},
        {binary32, 0x4B800000, "16777216"},
        {binary32, 0x7F7FFFFF, "340282350000000000000000000000000000000"},
        {binary32, 0x00800000, "0.000000000000000000000000000000000000011754944"},
        {binary32, 0x007FFFFF, "0.000000000000000000000000000000000000011754942"},
        {binary32, 0x00000001, "0." + std::string(44, '0') + "1"},
        {binary32, 0x0C000000, "0.000000000000000000000000000000098607613"},
        {binary64, 0x4301B66687B7ABB6, "623203260495222.7"},
        {binary64, 0x43C5757239BD3AA2, "3092535278770144300"},
        {binary64, 0x4000000000000001, "2.0000000000000004"},
        {binary64, 0x3FB999999999999A, "0.1"},
        {Format{2, 1}, 5, "3"},
    };
    for (const auto& c : table)
        EXPECT_EQ(shortest_decimal(c.fmt, c.bits), c.text) << describe(c.fmt, c.bits);
    EXPECT_THROW(shortest_decimal(binary32, 0x7F800000), std::domain_error);
    EXPECT_THROW(shortest_decimal(binary32, 0x7FC00000), std::domain_error);
}

TEST(OracleByHand, NeighboursWalkWholeFormats) {
    for (Format fmt : {Format{2, 0}, Format{3, 2}, Format{4, 3}}) {
        // packed_next climbs from the bottom pattern through every pattern once, in
        // increasing order of value wherever both neighbours are ordered.
        mpz_class bottom = (mpz_class(1) << fmt.width()) - 1, p = bottom;
        std::size_t visited = 1;
        for (mpz_class next; (next = packed_next(fmt, p, true)) != p; p = next, ++visited) {
            ASSERT_EQ(packed_next(fmt, next, false), p) << describe(fmt, next);
            int order = compare(fmt, p, next);
            bool zeros = classify(fmt, p) == Kind::Zero && classify(fmt, next) == Kind::Zero;
            ASSERT_TRUE(order == -2 || order == (zeros ? 0 : -1)) << describe(fmt, p);
            if (is_finite(fmt, p) && classify(fmt, p) != Kind::Zero) {
                ASSERT_EQ(next_representable(fmt, p, !sign_of(fmt, p)),
                          packed_next(fmt, p, !sign_of(fmt, p)))
                    << describe(fmt, p);
                ASSERT_EQ(next_representable(fmt, p, sign_of(fmt, p)),
                          packed_next(fmt, p, sign_of(fmt, p)))
                    << describe(fmt, p);
            }
        }
        EXPECT_EQ(visited, std::size_t(1) << fmt.width()) << fmt;
        EXPECT_EQ(packed_next(fmt, bottom, false), bottom);
        // Both zeros step to the smallest subnormal of the direction's sign.
        for (bool negative : {false, true}) {
            mpz_class zero = make_pattern(fmt, negative, 0, 0);
            EXPECT_EQ(next_representable(fmt, zero, true), min_pattern(fmt, false)) << fmt;
            EXPECT_EQ(next_representable(fmt, zero, false), min_pattern(fmt, true)) << fmt;
            EXPECT_EQ(next_representable(fmt, inf_pattern(fmt, negative), negative),
                      max_pattern(fmt, negative));
            EXPECT_EQ(next_representable(fmt, inf_pattern(fmt, negative), !negative),
                      inf_pattern(fmt, negative));
        }
        EXPECT_EQ(next_representable(fmt, min_pattern(fmt, true), true),
                  make_pattern(fmt, true, 0, 0));
    }
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
                         [](const ::testing::TestParamInfo<Format>& info) {
                             return "e" + std::to_string(info.param.e) + "m" +
                                    std::to_string(info.param.m);
                         });

// ---------------------------------------------------------------------------
// The two representations of patterns, and the generators' aim
// ---------------------------------------------------------------------------

class WordAndPackedPaths : public ::testing::TestWithParam<Format> {};

TEST_P(WordAndPackedPaths, AgreeOnEveryOperation) {
    const Format fmt = GetParam();
    OperandGenerator gen(fmt, 31);
    Emulator emu(fmt);
    const Format wider{fmt.e + 1, fmt.m + 40};
    Converter widen(fmt, wider), narrow(fmt, Format{4, 3});
    mpz_class packed;
    for (int i = 0; i < cases(1500); ++i) {
        for (Operation op :
             {Operation::Add, Operation::Sub, Operation::Mul, Operation::Div, Operation::Sqrt}) {
            auto [a, b] = gen.pair_word(op);
            for (int mode : all_modes) {
                Word word = emulate(emu, op, a, b, mode);
                switch (op) {
                case Operation::Add:
                    emu.add(packed, to_mpz(a), to_mpz(b), mode);
                    break;
                case Operation::Sub:
                    emu.sub(packed, to_mpz(a), to_mpz(b), mode);
                    break;
                case Operation::Mul:
                    emu.mul(packed, to_mpz(a), to_mpz(b), mode);
                    break;
                case Operation::Div:
                    emu.div(packed, to_mpz(a), to_mpz(b), mode);
                    break;
                case Operation::Sqrt:
                    emu.sqrt(packed, to_mpz(a), mode);
                    break;
                }
                ASSERT_EQ(to_mpz(word), packed) << name(op) << " " << describe(fmt, a);
                narrow.convert(packed, to_mpz(a), mode);
                ASSERT_EQ(to_mpz(narrow.convert(a, mode)), packed) << describe(fmt, a);
            }
            // Widening is exact, and so comes back unchanged.
            if (classify(fmt, a) != Kind::NaN) {
                widen.convert(packed, to_mpz(a), 0);
                ASSERT_EQ(convert(wider, packed, fmt, 0), a) << describe(fmt, a);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Oracle, WordAndPackedPaths,
                         ::testing::Values(Format{2, 61}, Format{4, 3}, binary16, Format{8, 7},
                                           binary32, binary64, Format{15, 48}, Format{30, 33}),
                         [](const ::testing::TestParamInfo<Format>& info) {
                             return "e" + std::to_string(info.param.e) + "m" +
                                    std::to_string(info.param.m);
                         });

mpz_class apply(Format fmt, Operation op, const mpz_class& a, const mpz_class& b, int mode) {
    switch (op) {
    case Operation::Add:
        return add(fmt, a, b, mode);
    case Operation::Sub:
        return sub(fmt, a, b, mode);
    case Operation::Mul:
        return mul(fmt, a, b, mode);
    case Operation::Div:
        return div(fmt, a, b, mode);
    case Operation::Sqrt:
        break;
    }
    return sqrt(fmt, a, mode);
}

// The generators exist to reach rare cases; these are the ones that random operands
// almost never produce.
TEST(OperandGenerators, ReachTheHardCases) {
    for (Format fmt : {binary16, binary64, binary128, Format{30, 200}}) {
        OperandGenerator gen(fmt, 41);
        int ties[4] = {}, exact_zero = 0, subnormal_products = 0, far_sums = 0;
        const int n = 4000;
        for (int i = 0; i < n; ++i) {
            Operation op = static_cast<Operation>(i % 4);
            auto [a, b] = gen.pair(op);
            if (!is_finite(fmt, a) || !is_finite(fmt, b) || classify(fmt, b) == Kind::Zero)
                continue;
            mpz_class down = apply(fmt, op, a, b, TOWARD_NEGATIVE);
            mpz_class up = apply(fmt, op, a, b, TOWARD_POSITIVE);
            bool zero = classify(fmt, down) == Kind::Zero && classify(fmt, up) == Kind::Zero;
            exact_zero += op == Operation::Sub && zero;
            if (!zero && down != up && is_finite(fmt, down) && is_finite(fmt, up) && fmt.e <= 15) {
                // A tie: the exact result is the midpoint of its two neighbours.
                mpq_class x = to_rational(fmt, a), y = to_rational(fmt, b);
                mpq_class exact = op == Operation::Add   ? mpq_class(x + y)
                                  : op == Operation::Sub ? mpq_class(x - y)
                                  : op == Operation::Mul ? mpq_class(x * y)
                                                         : mpq_class(x / y);
                ties[static_cast<int>(op)] +=
                    2 * exact == to_rational(fmt, down) + to_rational(fmt, up);
            }
            subnormal_products += op == Operation::Mul && classify(fmt, up) == Kind::Subnormal;
            far_sums += op == Operation::Add && apply(fmt, op, a, b, TOWARD_ZERO) == a;
        }
        if (fmt.e <= 15) {
            EXPECT_GT(ties[0], n / 4 / 40) << to_string(fmt);
            EXPECT_GT(ties[2], n / 4 / 40) << to_string(fmt);
            EXPECT_GT(ties[3], 0) << to_string(fmt);
        }
        EXPECT_GT(exact_zero, n / 4 / 100) << to_string(fmt);
        EXPECT_GT(subnormal_products, n / 4 / 40) << to_string(fmt);
        EXPECT_GT(far_sums, n / 4 / 40) << to_string(fmt);
    }
}

TEST(OperandGenerators, ReachRationalsThatRoundTwiceDifferently) {
    for (Format fmt : {Format{4, 3}, binary16, binary32, binary64}) {
        OperandGenerator gen(fmt, 43);
        int differ = 0;
        for (int i = 0; i < 2000; ++i) {
            mpq_class q = gen.rational();
            differ +=
                from_number_model(q, fmt, NEAREST_EVEN) != from_rational(q, fmt, NEAREST_EVEN);
        }
        EXPECT_GT(differ, 10) << fmt;
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
