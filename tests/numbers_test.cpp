// QNumber and BVNumber: the checks the fuzz target runs, here on seeded random
// bytes, and the known answers that random bytes rarely or never reach.
#include "tests/numbers_checks.h"
#include "tests/testing.h"

#include <gtest/gtest.h>

namespace tarn_testing::numbers {
namespace {

TEST(Numbers, AgreeWithGmpInValueAndForm) {
    constexpr std::uint64_t seed = 0x7a126e5eedUL;
    for (int i = 0, failures = 0; i < sampled(20000) && failures < 5; ++i) {
        RandomSource in(seed + i, 4096);
        const std::string failure = check_numbers(in);
        if (!failure.empty() && ++failures)
            ADD_FAILURE() << failure << " (seed " << seed + i << ")";
    }
}

// -2^63 has no small form, in any position, nor as the result of a word operation.
TEST(Numbers, TheLowestWordIsNeverSmall) {
    const std::pair<QNumber, const char*> cases[] = {
        {QNumber(LONG_MIN), "-9223372036854775808"},
        {QNumber(LONG_MIN, 6), "-4611686018427387904/3"},
        {QNumber(6, LONG_MIN), "-3/4611686018427387904"},
        {QNumber(LONG_MIN) /= QNumber(-1), "9223372036854775808"},
        {QNumber(0) += LONG_MIN, "-9223372036854775808"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(value.to_mpq().get_str(), text);
        EXPECT_TRUE(value.is_big()) << text;
    }
}

// Every integer type and double converts exactly, small exactly when a word holds it.
TEST(Numbers, NativeConstructorsAreExact) {
    const std::tuple<QNumber, std::string, bool> cases[] = {
        {QNumber(9223372036854775808ULL), "9223372036854775808", true},
        {QNumber(UINT64_MAX), "18446744073709551615", true},
        {QNumber(static_cast<long long>(INT64_MIN)), "-9223372036854775808", true},
        {QNumber(INT64_MAX), "9223372036854775807", false},
        {QNumber(4294967295U), "4294967295", false},
        {QNumber(-0.75), "-3/4", false},
        {QNumber(0.1f), "13421773/134217728", false},
        {QNumber(-0x1p62), "-4611686018427387904", false},
        {QNumber(0x1p63), "9223372036854775808", true},
        {QNumber(5e-324), "1/" + mpz_class(mpz_class(1) << 1074).get_str(), true},
    };
    for (const auto& [value, text, big] : cases) {
        EXPECT_EQ(value.to_mpq().get_str(), text);
        EXPECT_EQ(value.is_big(), big) << text;
    }
    EXPECT_THROW(QNumber(std::nan("")), std::domain_error);
}

// The operands of the random cases never have a zero denominator, nor a
// negative value for the two-word access.
TEST(Numbers, ZeroDenominatorsAndNegativeWords) {
    EXPECT_THROW(QNumber(1, 0), std::domain_error);
    EXPECT_THROW(QNumber(mpz_class(1), mpz_class(0)), std::domain_error);
    EXPECT_THROW(QNumber(mpq_class(mpz_class(1), mpz_class(0))), std::domain_error);
    std::uint64_t low = 7, high = 9;
    for (const QNumber& negative : {QNumber(-1), big_form_of(-1)})
        EXPECT_TRUE(!BVNumber::to_words(negative, &low, &high) && low == 7 && high == 9);
}

} // namespace
} // namespace tarn_testing::numbers
