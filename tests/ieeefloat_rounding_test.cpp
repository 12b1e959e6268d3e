// The packed codec and the rounding core of IEEEFloat. They are file-local to
// the implementation, so this test compiles the implementation itself and is
// linked without the library's copy of it.

#include "allocation_counter.h"
#include "tarn/ieeefloat/ieeefloat.cpp"

#include <cstdlib>
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;
using Mode = IEEEFloat::rounding_mode;

constexpr Mode all_modes[] = {IEEEFloat::ROUND_NEAREST_EVEN, IEEEFloat::ROUND_TOWARD_ZERO,
                              IEEEFloat::ROUND_TOWARD_POSITIVE, IEEEFloat::ROUND_TOWARD_NEGATIVE};

/// The rounding core on an exact result, answering the packed integer.
mpz_class core(Format f, Mode mode, bool negative, const mpz_class& s, const mpz_class& x) {
    tarn::TempNumProvider tmp;
    QNumber significand(s), exponent(x), out;
    tarn::round_and_pack_float(tmp, f, mode, negative, exponent, significand, out);
    return out.to_mpz();
}

/// An independent reference: rounds |S| * 2^(X - m) by locating its binade
/// with a logarithm and dividing by the spacing of the format there, instead
/// of shifting out a round bit and a sticky bit.
mpz_class reference(Format f, Mode mode, bool negative, mpz_class s, const mpz_class& x) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    if (s < 0) {
        s = -s;
        negative = !negative;
    }
    const mpz_class sign_bit = negative ? mpz_class(1) << (e + m) : mpz_class(0);
    if (s == 0) return sign_bit;
    const mpz_class bias = (mpz_class(1) << (e - 1)) - 1;
    const mpz_class min_exponent = 1 - bias;
    const mpz_class k = x - m; // value = s * 2^k
    mpz_class binade = mpz_class(mpz_sizeinbase(s.get_mpz_t(), 2) - 1) + k;
    if (binade < min_exponent) binade = min_exponent;

    // units = value / 2^(binade - m), the value in units of the last place.
    const mpz_class scale = k - binade + m;
    mpz_class units;
    int against_half = -1; // the discarded fraction against one half
    bool inexact = false;
    if (scale >= 0) {
        units = s << scale.get_ui();
    } else {
        const unsigned long length = mpz_sizeinbase(s.get_mpz_t(), 2);
        if (scale < -mpz_class(length + 1)) {
            units = 0;
            inexact = true; // far below half a unit
        } else {
            const unsigned long drop = mpz_class(-scale).get_ui();
            mpz_class fraction;
            mpz_fdiv_q_2exp(units.get_mpz_t(), s.get_mpz_t(), drop);
            mpz_fdiv_r_2exp(fraction.get_mpz_t(), s.get_mpz_t(), drop);
            inexact = fraction != 0;
            against_half = cmp(fraction, mpz_class(1) << (drop - 1));
        }
    }
    bool up = false;
    if (inexact) switch (mode) {
        case IEEEFloat::ROUND_NEAREST_EVEN:
            up = against_half > 0 || (against_half == 0 && mpz_odd_p(units.get_mpz_t()));
            break;
        case IEEEFloat::ROUND_TOWARD_ZERO:
            break;
        case IEEEFloat::ROUND_TOWARD_POSITIVE:
            up = !negative;
            break;
        case IEEEFloat::ROUND_TOWARD_NEGATIVE:
            up = negative;
            break;
        }
    if (up) units += 1;
    if (units == mpz_class(1) << (m + 1)) {
        units >>= 1;
        binade += 1;
    }
    // The rounded value units * 2^(binade - m) overflows when it reaches
    // 2^(bias + 1). (A format with a one-bit exponent has only subnormals, so
    // the binade alone does not tell.)
    const mpz_class top_bit = mpz_class(mpz_sizeinbase(units.get_mpz_t(), 2) - 1) + binade - m;
    if (units != 0 && top_bit > bias) {
        const bool saturate = mode == IEEEFloat::ROUND_TOWARD_ZERO ||
                              (mode == IEEEFloat::ROUND_TOWARD_POSITIVE && negative) ||
                              (mode == IEEEFloat::ROUND_TOWARD_NEGATIVE && !negative);
        const mpz_class inf = ((mpz_class(1) << e) - 1) << m;
        return (saturate ? inf - 1 : inf) + sign_bit;
    }
    if ((units >> m) == 0) return units + sign_bit; // subnormal or zero
    return ((binade + bias) << m) + (units - (mpz_class(1) << m)) + sign_bit;
}

// ---- Worked examples ------------------------------------------------------------

/// Packed integers of the format (3, 2): bias 3, largest finite 14, smallest
/// normal 1/4, smallest subnormal 1/16.
namespace p32 {
constexpr long minus = 32, inf = 28, max = 27, eight = 24, ten = 25, twelve = 26, five = 21;
constexpr long quarter = 4, three_sixteenths = 3, eighth = 2, sixteenth = 1;
} // namespace p32

TEST(RoundingCore, WorkedExamplesInATinyFormat) {
    struct Case {
        long numerator;
        unsigned long log2_denominator;
        bool negative;
        Mode mode;
        long expected;
    };
    using namespace p32;
    const Mode ne = IEEEFloat::ROUND_NEAREST_EVEN, tz = IEEEFloat::ROUND_TOWARD_ZERO,
               tp = IEEEFloat::ROUND_TOWARD_POSITIVE, tn = IEEEFloat::ROUND_TOWARD_NEGATIVE;
    const Case cases[] = {
        // ties to even, in the normal and the subnormal range
        {9, 0, false, ne, eight},
        {11, 0, false, ne, twelve},
        {3, 5, false, ne, eighth},
        {1, 5, false, ne, 0},
        {1, 5, true, ne, minus},
        // directed modes
        {9, 0, false, tp, ten},
        {9, 0, false, tz, eight},
        {9, 0, false, tn, eight},
        {9, 0, true, tn, minus + ten},
        {9, 0, true, tz, minus + eight},
        {9, 0, true, tp, minus + eight},
        {1, 5, false, tp, sixteenth},
        {1, 5, true, tn, minus + sixteenth},
        {1, 5, true, tp, minus},
        // carry into the next binade and out of range
        {15, 0, false, ne, inf},
        {15, 0, false, tz, max},
        {15, 0, false, tn, max},
        {29, 1, false, ne, max},
        {29, 1, false, tp, inf},
        // exact but too large
        {16, 0, false, ne, inf},
        {16, 0, false, tp, inf},
        {16, 0, false, tz, max},
        {16, 0, false, tn, max},
        {16, 0, true, tp, minus + max},
        {16, 0, true, tn, minus + inf},
        // the largest subnormal rounding into the normal range
        {15, 6, false, ne, quarter},
        {15, 6, false, tz, three_sixteenths},
        {15, 6, false, tp, quarter},
    };
    for (const Case& c : cases) {
        const mpz_class x = 2 - static_cast<long>(c.log2_denominator);
        EXPECT_EQ(core({3, 2}, c.mode, c.negative, c.numerator, x), c.expected)
            << (c.negative ? "-" : "") << c.numerator << "/2^" << c.log2_denominator << " mode "
            << c.mode;
    }
}

TEST(RoundingCore, SignAndScaleOfTheExactResultDoNotMatter) {
    using namespace p32;
    for (Mode mode : all_modes) {
        for (long x : {-1000L, 0L, 1000L}) {
            EXPECT_EQ(core({3, 2}, mode, true, 0, x), minus);
            EXPECT_EQ(core({3, 2}, mode, false, 0, x), 0);
        }
        EXPECT_EQ(core({3, 2}, mode, false, -5, 2), minus + five);
        EXPECT_EQ(core({3, 2}, mode, true, -5, 2), five);
        EXPECT_EQ(core({3, 2}, mode, false, 20, 0), five);
        EXPECT_EQ(core({3, 2}, mode, false, mpz_class(5) << 40, -38), five);
        EXPECT_EQ(core({3, 2}, mode, false, mpz_class(5) << 100, -98), five);
    }
}

// ---- Errors -------------------------------------------------------------------------

std::vector<std::string> hook_messages;
void record_hook(tarn::Exception const& e) noexcept {
    hook_messages.emplace_back(e.what());
}

/// Runs the core expecting an error; checks the message and that out was not touched.
void expect_error(Format f, Mode mode, const mpz_class& s, const mpz_class& x,
                  const std::string& message) {
    tarn::TempNumProvider tmp;
    QNumber significand(s), exponent(x), out(12345L);
    try {
        tarn::round_and_pack_float(tmp, f, mode, false, exponent, significand, out);
        ADD_FAILURE() << "no error for S=" << s << " X=" << x << " mode " << mode;
    } catch (const IEEEFloat::error& e) {
        EXPECT_EQ(e.what(), message);
    }
    EXPECT_EQ(out, QNumber(12345L));
}

TEST(RoundingCore, InvalidModeFailsOnlyWhenRoundingIsNeeded) {
    const Mode four = static_cast<Mode>(4);
    EXPECT_EQ(core({3, 2}, four, false, 5, 2), p32::five);
    EXPECT_EQ(core({3, 2}, four, false, 16, 2), p32::inf);
    EXPECT_EQ(core({3, 2}, four, true, 16, 2), p32::minus + p32::inf);
    expect_error({3, 2}, four, 9, 2, "bad rounding mode: 4");
    expect_error({3, 2}, static_cast<Mode>(-1), 9, 2, "bad rounding mode: -1");
    expect_error({15, 112}, static_cast<Mode>(77), (mpz_class(1) << 200) + 1, 0,
                 "bad rounding mode: 77");
    expect_error({5, 10}, static_cast<Mode>(5), mpz_class(1) << 80, -200, "bad rounding mode: 5");

    // The message is built in two stages; the diagnostic hook sees both.
    hook_messages.clear();
    auto previous = tarn::Exception::set_assertion_handler(record_hook);
    expect_error({3, 2}, four, 9, 2, "bad rounding mode: 4");
    tarn::Exception::set_assertion_handler(previous);
    EXPECT_EQ(hook_messages,
              (std::vector<std::string>{"bad rounding mode: ", "bad rounding mode: 4"}));
}

TEST(RoundingCore, ExponentsFarBelowTheSubnormalsHitThePrecisionLimit) {
    // In (3, 2) the subnormal shift is -2 - X; it must fit a signed word.
    const mpz_class two63 = mpz_class(1) << 63;
    for (Mode mode : all_modes) {
        const long expected = mode == IEEEFloat::ROUND_TOWARD_POSITIVE ? p32::sixteenth : 0;
        EXPECT_EQ(core({3, 2}, mode, false, 3, -two63 - 1), expected); // shift 2^63 - 1
        expect_error({3, 2}, mode, 3, -two63 - 2, "reached limit on float precision");
    }
    expect_error({15, 112}, IEEEFloat::ROUND_NEAREST_EVEN, 1, -(mpz_class(1) << 70),
                 "reached limit on float precision");
}

// ---- Property: the core against the reference ---------------------------------------

struct Sample {
    bool negative;
    mpz_class s, x;
};

/// A random exact result aimed at an interesting part of the format: ties,
/// carries, the subnormal range, underflow to zero and overflow, with
/// significands both shorter and much longer than the format keeps.
Sample random_sample(Format f, std::mt19937_64& rng, gmp_randclass& bits) {
    const unsigned long m = f.mantissa_width, e = f.exponent_width;
    const unsigned long extra[] = {0, 1, 2, 3, 8, 40, 90};
    const unsigned long length = 1 + rng() % (m + 1 + extra[rng() % 7]);
    mpz_class s = bits.get_z_bits(length) | (mpz_class(1) << (length - 1));
    const unsigned long dropped = length > m + 1 ? length - m - 1 : 0;
    switch (rng() % 4) {
    case 0: // an exact tie at the normal precision
        if (dropped) s = ((s >> dropped) << dropped) | (mpz_class(1) << (dropped - 1));
        break;
    case 1: // all kept bits set, so rounding up carries into the next binade
        s |= ((mpz_class(1) << (m + 1)) - 1) << dropped;
        break;
    default:
        break;
    }
    // Aim the biased exponent of the unrounded value.
    const mpz_class bias = (mpz_class(1) << (e - 1)) - 1;
    const mpz_class max_exponent = 2 * bias + 1;
    mpz_class biased;
    const long spread = static_cast<long>(m) + 4;
    switch (rng() % 5) {
    case 0: // subnormal range and underflow
        biased = 1 - static_cast<long>(rng() % (spread + 3));
        break;
    case 1: // near overflow
        biased = max_exponent - 3 + static_cast<long>(rng() % 6);
        break;
    case 2: // anywhere in the normal range
        biased = max_exponent > 1 ? 1 + bits.get_z_range(max_exponent - 1) : mpz_class(1);
        break;
    case 3: // far below the subnormals
        biased = -static_cast<long>(rng() % 200) - spread;
        break;
    default: // far above the largest finite value
        biased = max_exponent + static_cast<long>(rng() % 200);
        break;
    }
    mpz_class x = biased - bias - (static_cast<long>(length) - static_cast<long>(m + 1));
    if (rng() % 4 == 0) s = -s;
    return {rng() % 2 == 0, s, x};
}

TEST(RoundingCore, AgreesWithExactRationalRoundingAcrossFormats) {
    const Format formats[] = {{2, 0},  {2, 1},  {3, 2},   {4, 3},   {5, 2},    {5, 10},   {8, 7},
                              {6, 9},  {8, 23}, {11, 52}, {10, 53}, {2, 61},   {1, 61},   {2, 62},
                              {62, 1}, {63, 0}, {3, 70},  {15, 64}, {15, 112}, {20, 200}, {70, 5}};
    const unsigned long seed = 0x5eed2026;
    const int samples = std::getenv("TARN_LONG_TESTS") ? 200000 : 6000;
    std::mt19937_64 rng(seed);
    gmp_randclass bits(gmp_randinit_default);
    bits.seed(seed);
    for (Format f : formats) {
        for (int k = 0; k < samples; ++k) {
            const Sample t = random_sample(f, rng, bits);
            for (Mode mode : all_modes) {
                const mpz_class expected = reference(f, mode, t.negative, t.s, t.x);
                ASSERT_EQ(core(f, mode, t.negative, t.s, t.x), expected)
                    << "seed " << seed << " format (" << f.exponent_width << "," << f.mantissa_width
                    << ") mode " << mode << (t.negative ? " negative" : "") << " S=" << t.s
                    << " X=" << t.x;
            }
        }
    }
}

// ---- The packed codec ------------------------------------------------------------------

TEST(PackedCodec, UnpacksAndPacksFields) {
    struct Case {
        Format f;
        mpz_class packed;
        bool sign;
        mpz_class exponent, mantissa;
    };
    const mpz_class wide_mantissa = (mpz_class(1) << 112) - 3;
    const Case cases[] = {
        {{5, 10}, 0xFC01, true, 31, 1},
        {{5, 10}, 0x3BFF, false, 14, 1023},
        {{11, 52}, mpz_class("fff0000000000001", 16), true, 2047, 1},
        {{15, 112}, (mpz_class(0xbffe) << 112) + wide_mantissa, true, 0x3ffe, wide_mantissa},
        {{3, 70}, (mpz_class(5) << 70) + 9, false, 5, 9},
    };
    for (const Case& c : cases) {
        bool sign = !c.sign;
        QNumber exponent, mantissa, scratch;
        tarn::unpack_components(c.f, QNumber(c.packed), sign, exponent, mantissa, scratch);
        EXPECT_EQ(sign, c.sign);
        EXPECT_EQ(exponent.to_mpz(), c.exponent);
        EXPECT_EQ(mantissa.to_mpz(), c.mantissa);
        EXPECT_EQ(scratch, c.f.max_mantissa());

        QNumber repacked;
        tarn::pack_float(c.f, c.sign, exponent, mantissa, repacked);
        EXPECT_EQ(repacked.to_mpz(), c.packed);
        tarn::pack_float(c.f, c.sign, exponent, mantissa,
                         mantissa); // output aliases the significand
        EXPECT_EQ(mantissa.to_mpz(), c.packed);
    }
}

TEST(PackedCodec, UnbiasingAndPackingWithTheHiddenBit) {
    struct Case {
        long biased, mantissa, exponent, significand;
    };
    const Format half{5, 10};
    for (const Case& c : {Case{0, 3, -14, 3}, Case{0, 0, -14, 0}, Case{1, 0, -14, 1024},
                          Case{30, 1023, 15, 2047}}) {
        QNumber exponent(c.biased), significand(c.mantissa);
        tarn::get_unbiased(half, half.bias(), exponent, significand);
        EXPECT_EQ(exponent, QNumber(c.exponent));
        EXPECT_EQ(significand, QNumber(c.significand));
    }
    // A significand that keeps its hidden bit carries into the exponent field.
    QNumber out;
    tarn::pack_float(half, false, QNumber(0L), QNumber(1024L), out);
    EXPECT_EQ(out, QNumber(0x0400L));
    tarn::pack_float(half, true, QNumber(30L), QNumber(1023L), out);
    EXPECT_EQ(out, QNumber(0xFBFFL));
}

TEST(PackedCodec, FlagsOfEveryClass) {
    struct Case {
        Format f;
        mpz_class packed;
        bool inf, nan, zero;
    };
    const mpz_class quad_inf = mpz_class(0x7fff) << 112;
    for (const Case& c :
         {Case{{5, 10}, 0x7C00, true, false, false}, Case{{5, 10}, 0xFC00, true, false, false},
          Case{{5, 10}, 0x7E00, false, true, false}, Case{{5, 10}, 0x8000, false, false, true},
          Case{{5, 10}, 0x0001, false, false, false}, Case{{5, 10}, 0x7BFF, false, false, false},
          Case{{15, 112}, quad_inf, true, false, false},
          Case{{15, 112}, quad_inf + 1, false, true, false},
          Case{{15, 112}, mpz_class(1) << 127, false, false, true},
          Case{{15, 112}, quad_inf - 1, false, false, false}}) {
        bool inf = !c.inf, nan = !c.nan, zero = !c.zero;
        tarn::get_flags(c.f, QNumber(c.packed), inf, nan, zero);
        EXPECT_EQ(inf, c.inf) << c.packed;
        EXPECT_EQ(nan, c.nan) << c.packed;
        EXPECT_EQ(zero, c.zero) << c.packed;
    }
}

// ---- Allocation ---------------------------------------------------------------------------

TEST(GenericPath, AllocatesNothingWhileNumbersFitTheSmallForm) {
    IEEEFloat half = IEEEFloat::from_bits(QNumber(0x3C00L), {5, 10});
    IEEEFloat tiny = IEEEFloat::from_bits(QNumber(0x13L), {3, 2});
    int answers = 0;
    const long allocations = tarn_testing::allocations_in([&] {
        for (IEEEFloat* x : {&half, &tiny}) {
            answers +=
                x->is_zero() + x->is_subnormal() + x->is_normal() + x->is_inf() + x->is_nan();
            x->self_neg();
            x->set_sign(false);
            answers += x->get_sign();
            x->self_nan();
            x->self_inf(true);
            x->self_zero(true);
            answers += x->get_bits() == QNumber(0L);
        }
        QNumber out, exponent, significand, scratch;
        bool sign = false, inf = false, nan = false, zero = false;
        for (Format f : {Format{3, 2}, Format{5, 10}, Format{8, 23}, Format{10, 52}}) {
            tarn::TempNumProvider tmp;
            for (Mode mode : all_modes)
                for (long s : {0L, 1L, -7L, 0x5555555L, 0x7fffffffffffffffL})
                    for (long x : {-3000L, -40L, 0L, 5L, 60L, 3000L}) {
                        exponent = QNumber(x);
                        significand = QNumber(s);
                        tarn::round_and_pack_float(tmp, f, mode, s == 0, exponent, significand,
                                                   out);
                        tarn::unpack_components(f, out, sign, exponent, significand, scratch);
                        tarn::get_flags(f, out, inf, nan, zero);
                        tarn::pack_float(f, sign, exponent, significand, out);
                        tarn::get_unbiased(f, f.bias(), exponent, significand);
                    }
        }
        // binary32 and binary64 values are built without a detour through the heap.
        answers += IEEEFloat::from_bits(QNumber(0x7FC00000L), {8, 23}).is_nan();
        answers += IEEEFloat::max_value({11, 52}).is_normal();
    });
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(answers, 0);
}

} // namespace
