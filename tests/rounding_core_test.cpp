// The rounding core of IEEEFloat, reached through its internal header, against
// an independent rounding of exact rationals: the only reference for exponent
// fields of 63 bits and more and for significands far longer than the format.
// (Every differential run reaches the core through the operations too.)

#include "tarn/ieeefloat/internal/rounding.h"
#include "tests/testing.h"

#include <gmpxx.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace tarn_testing; // IEEEFloat, QNumber, Mode, all_modes
namespace detail = tarn::ieeefloat_detail;
using Format = IEEEFloat::format;
using tarn::rounding;
constexpr int ne = 0, tz = 1, tp = 2, tn = 3, odd = 5;

/// The rounding core on an exact result in direction `dir` (0 to 5, or a
/// stored mode number above 5): the packed integer in decimal and the flags
/// raised, or the message it throws, which must leave the output untouched.
std::string core(Format f, int dir, bool negative, const mpz_class& s, const mpz_class& x) {
    detail::TempNumProvider tmp;
    QNumber significand(s), exponent(x), out(12345L);
    detail::RoundingContext r = dir > 5 ? detail::RoundingContext::of_mode(static_cast<Mode>(dir))
                                        : detail::RoundingContext(static_cast<rounding>(dir));
    const std::string message = error_of(
        [&] { detail::round_and_pack_float(tmp, f, r, negative, exponent, significand, out); });
    if (message == "no error") return out.to_mpz().get_str() + " flags " + std::to_string(r.flags);
    return out == QNumber(12345L) ? message : message + ", and out changed";
}

/// |S| * 2^k rounded to an integer number of units of 2^(binade - m) in
/// direction `dir`, by counting units rather than shifting out a round bit
/// and a sticky bit; `inexact` tells whether anything was dropped.
mpz_class round_units(const mpz_class& s, const mpz_class& k, const mpz_class& binade,
                      unsigned long m, int dir, bool negative, bool& inexact) {
    // Far below half a unit only a sticky bit counts, so a few bits past s will do.
    const unsigned long length = mpz_sizeinbase(s.get_mpz_t(), 2);
    const mpz_class scale = k - binade + m;
    const unsigned long drop = scale >= 0 ? 0 : std::min<mpz_class>(-scale, length + 2).get_ui();
    const mpz_class shifted = scale >= 0 ? mpz_class(s << scale.get_ui()) : s;
    mpz_class units = shifted >> drop;
    const mpz_class fraction = shifted - (units << drop), half = (mpz_class(1) << drop) >> 1;
    const bool up[] = {fraction > half || (fraction == half && units % 2 != 0),
                       false,
                       !negative,
                       negative,
                       fraction >= half,
                       units % 2 == 0};
    inexact = fraction != 0;
    if (inexact && up[dir]) units += 1;
    return units;
}

/// An independent reference: rounds |S| * 2^(X - m) by locating its binade
/// with a logarithm and counting it in units of the format's spacing there.
/// Tininess is judged after rounding, the binade then left unbounded below.
std::string reference(Format f, int dir, bool negative, mpz_class s, const mpz_class& x) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    negative ^= s < 0;
    s = abs(s);
    const mpz_class sign_bit = mpz_class(negative ? 1 : 0) << (e + m);
    if (s == 0) return sign_bit.get_str() + " flags 0";
    const mpz_class bias = (mpz_class(1) << (e - 1)) - 1;
    const mpz_class k = x - m; // value = s * 2^k
    const mpz_class lead = mpz_sizeinbase(s.get_mpz_t(), 2) - 1 + k;
    const mpz_class binade = std::max<mpz_class>(lead, 1 - bias);
    bool inexact, unbounded_inexact;
    mpz_class units = round_units(s, k, binade, m, dir, negative, inexact);
    const mpz_class unbounded = round_units(s, k, lead, m, dir, negative, unbounded_inexact);
    const bool carried = (unbounded >> (m + 1)) != 0;
    const bool tiny = lead + 1 < 1 - bias || (lead < 1 - bias && !carried);
    unsigned flags = (inexact ? 1 : 0) | (inexact && tiny ? 2 : 0);

    // The rounded value overflows when it reaches 2^(bias + 1). (A format with
    // a one-bit exponent has only subnormals, so the binade alone does not tell.)
    mpz_class bits;
    if (units != 0 && mpz_class(mpz_sizeinbase(units.get_mpz_t(), 2) - 1) + binade - m > bias) {
        const bool saturate =
            dir == tz || dir == odd || (dir == tp && negative) || (dir == tn && !negative);
        bits = (((mpz_class(1) << e) - 1) << m) - (saturate ? 1 : 0);
        flags = 5;
    } else if ((units >> m) == 0) {
        bits = units; // subnormal or zero
    } else {
        // A carry to 2^(m + 1) units lands on the next binade's first pattern by itself.
        bits = ((binade + bias) << m) + units - (mpz_class(1) << m);
    }
    return mpz_class(bits + sign_bit).get_str() + " flags " + std::to_string(flags);
}

std::vector<std::string> hook_messages;

// The message is built in two stages, and the diagnostic hook sees both.
TEST(RoundingCore, HookSeesBothStagesOfTheInvalidModeMessage) {
    auto previous = tarn::Exception::set_assertion_handler(
        [](tarn::Exception const& e) noexcept { hook_messages.emplace_back(e.what()); });
    EXPECT_EQ(core({3, 2}, 6, false, 9, 2), "bad rounding mode: 6");
    tarn::Exception::set_assertion_handler(previous);
    EXPECT_EQ(hook_messages,
              (std::vector<std::string>{"bad rounding mode: ", "bad rounding mode: 6"}));
}

TEST(RoundingCore, ExponentsFarBelowTheSubnormalsHitThePrecisionLimit) {
    // In (3, 2) the subnormal shift is -2 - X, which must fit a signed word.
    const mpz_class two63 = mpz_class(1) << 63;
    for (int mode : {ne, tz, tp, tn}) {
        EXPECT_EQ(core({3, 2}, mode, false, 3, -two63 - 1), mode == tp ? "1 flags 3" : "0 flags 3");
        EXPECT_EQ(core({3, 2}, mode, false, 3, -two63 - 2), "reached limit on float precision");
    }
    EXPECT_EQ(core({15, 112}, ne, false, 1, -(mpz_class(1) << 70)),
              "reached limit on float precision");
}

/// A random exact result aimed at an interesting part of the format: ties,
/// carries, the subnormal range, underflow to zero and overflow, with
/// significands both shorter and much longer than the format keeps.
void random_result(Format f, std::mt19937_64& rng, gmp_randclass& random_bits, mpz_class& s,
                   mpz_class& x) {
    const unsigned long m = f.mantissa_width, extra[] = {0, 1, 2, 3, 8, 40, 90};
    const unsigned long length = 1 + rng() % (m + 1 + extra[rng() % 7]);
    s = random_bits.get_z_bits(length) | (mpz_class(1) << (length - 1));
    const unsigned long dropped = length > m + 1 ? length - m - 1 : 0;
    const unsigned shape = rng() % 4;
    if (shape == 0 && dropped) // an exact tie at the normal precision
        s = ((s >> dropped) << dropped) | (mpz_class(1) << (dropped - 1));
    if (shape == 1) // every kept bit set, so rounding up carries into the next binade
        s |= ((mpz_class(1) << (m + 1)) - 1) << dropped;
    if (rng() % 4 == 0) s = -s;
    if (rng() % 32 == 0) s = 0; // an exact zero keeps only its sign

    // Aim the biased exponent of the unrounded value.
    const mpz_class bias = (mpz_class(1) << (f.exponent_width - 1)) - 1, top = 2 * bias + 1;
    const long spread = static_cast<long>(m) + 4, offset = static_cast<long>(rng() % 200);
    const mpz_class targets[] = {1 - offset % (spread + 3), // subnormals and underflow
                                 top - 3 + offset % 6,      // near overflow
                                 -offset - spread,          // far below the subnormals
                                 top + offset,              // far above the largest finite value
                                 top > 1 ? 1 + random_bits.get_z_range(top - 1) : mpz_class(1)};
    x = targets[rng() % 5] - bias - (static_cast<long>(length) - static_cast<long>(m + 1));
}

/// A run's format as its widths, which gtest prints readably.
class RoundingCoreAgainstReference
    : public testing::TestWithParam<std::pair<unsigned long, unsigned long>> {};

TEST_P(RoundingCoreAgainstReference, OnRandomExactResults) {
    const Format f{GetParam().first, GetParam().second};
    const unsigned long seed = 0x5eed2026 + f.exponent_width * 1000 + f.mantissa_width;
    std::mt19937_64 rng(seed);
    gmp_randclass random_bits(gmp_randinit_default);
    random_bits.seed(seed);
    mpz_class s, x;
    for (long k = 0; k < scaled(6000, 100); ++k) {
        random_result(f, rng, random_bits, s, x);
        const bool negative = rng() % 2;
        for (int dir = 0; dir <= 5; ++dir)
            ASSERT_EQ(core(f, dir, negative, s, x), reference(f, dir, negative, s, x))
                << "seed " << seed << " direction " << dir << (negative ? " negative" : "")
                << " S=" << s << " X=" << x;
    }
}

// Word-sized formats take the register path, the rest the QNumber path;
// significands above 63 bits send word formats down the QNumber path too.
const std::pair<unsigned long, unsigned long> formats[] = {
    {2, 0},  {2, 1},  {3, 2},   {4, 3},   {5, 2},    {5, 10},   {8, 7},
    {6, 9},  {8, 23}, {11, 52}, {10, 53}, {2, 61},   {1, 61},   {2, 62},
    {62, 1}, {63, 0}, {3, 70},  {15, 64}, {15, 112}, {20, 200}, {70, 5}};
INSTANTIATE_TEST_SUITE_P(Formats, RoundingCoreAgainstReference, testing::ValuesIn(formats),
                         [](const auto& info) {
                             return format_name({info.param.first, info.param.second});
                         });

} // namespace
