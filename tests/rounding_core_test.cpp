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
constexpr Mode ne = IEEEFloat::ROUND_NEAREST_EVEN, tz = IEEEFloat::ROUND_TOWARD_ZERO,
               tp = IEEEFloat::ROUND_TOWARD_POSITIVE, tn = IEEEFloat::ROUND_TOWARD_NEGATIVE;

/// The rounding core on an exact result: the packed integer in decimal, or the
/// message it throws, which must leave the output untouched.
std::string core(Format f, Mode mode, bool negative, const mpz_class& s, const mpz_class& x) {
    detail::TempNumProvider tmp;
    QNumber significand(s), exponent(x), out(12345L);
    const std::string message = error_of(
        [&] { detail::round_and_pack_float(tmp, f, mode, negative, exponent, significand, out); });
    if (message == "no error") return out.to_mpz().get_str();
    return out == QNumber(12345L) ? message : message + ", and out changed";
}

/// An independent reference: rounds |S| * 2^(X - m) by locating its binade
/// with a logarithm and counting it in units of the format's spacing there,
/// instead of shifting out a round bit and a sticky bit.
mpz_class reference(Format f, Mode mode, bool negative, mpz_class s, const mpz_class& x) {
    const unsigned long e = f.exponent_width, m = f.mantissa_width;
    negative ^= s < 0;
    s = abs(s);
    const mpz_class sign_bit = mpz_class(negative ? 1 : 0) << (e + m);
    if (s == 0) return sign_bit;
    const mpz_class bias = (mpz_class(1) << (e - 1)) - 1;
    const mpz_class k = x - m; // value = s * 2^k
    const unsigned long length = mpz_sizeinbase(s.get_mpz_t(), 2);
    const mpz_class binade = std::max<mpz_class>(length - 1 + k, 1 - bias);

    // units = value / 2^(binade - m), split into an integer and a fraction. Far
    // below half a unit only a sticky bit counts, so a few bits past s will do.
    const mpz_class scale = k - binade + m;
    const unsigned long drop = scale >= 0 ? 0 : std::min<mpz_class>(-scale, length + 2).get_ui();
    const mpz_class shifted = scale >= 0 ? mpz_class(s << scale.get_ui()) : s;
    mpz_class units = shifted >> drop;
    const mpz_class fraction = shifted - (units << drop), half = (mpz_class(1) << drop) >> 1;
    const bool nearest_up = fraction > half || (fraction == half && units % 2 != 0);
    if (fraction != 0 && (mode == ne   ? nearest_up
                          : mode == tp ? !negative
                                       : mode == tn && negative))
        units += 1;

    // The rounded value overflows when it reaches 2^(bias + 1). (A format with
    // a one-bit exponent has only subnormals, so the binade alone does not tell.)
    if (units != 0 && mpz_class(mpz_sizeinbase(units.get_mpz_t(), 2) - 1) + binade - m > bias) {
        const bool saturate = mode == tz || (mode == tp && negative) || (mode == tn && !negative);
        return (((mpz_class(1) << e) - 1) << m) - (saturate ? 1 : 0) + sign_bit;
    }
    if ((units >> m) == 0) return units + sign_bit; // subnormal or zero
    // A carry to 2^(m + 1) units lands on the next binade's first pattern by itself.
    return ((binade + bias) << m) + units - (mpz_class(1) << m) + sign_bit;
}

std::vector<std::string> hook_messages;

// The message is built in two stages, and the diagnostic hook sees both.
TEST(RoundingCore, HookSeesBothStagesOfTheInvalidModeMessage) {
    auto previous = tarn::Exception::set_assertion_handler(
        [](tarn::Exception const& e) noexcept { hook_messages.emplace_back(e.what()); });
    EXPECT_EQ(core({3, 2}, static_cast<Mode>(4), false, 9, 2), "bad rounding mode: 4");
    tarn::Exception::set_assertion_handler(previous);
    EXPECT_EQ(hook_messages,
              (std::vector<std::string>{"bad rounding mode: ", "bad rounding mode: 4"}));
}

TEST(RoundingCore, ExponentsFarBelowTheSubnormalsHitThePrecisionLimit) {
    // In (3, 2) the subnormal shift is -2 - X, which must fit a signed word.
    const mpz_class two63 = mpz_class(1) << 63;
    for (Mode mode : all_modes) {
        EXPECT_EQ(core({3, 2}, mode, false, 3, -two63 - 1), mode == tp ? "1" : "0"); // 1/16 or 0
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
        for (Mode mode : all_modes)
            ASSERT_EQ(core(f, mode, negative, s, x), reference(f, mode, negative, s, x).get_str())
                << "seed " << seed << " mode " << mode << (negative ? " negative" : "")
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
