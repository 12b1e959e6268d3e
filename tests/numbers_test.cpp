// QNumber and BVNumber: the checks the fuzz target runs, here on seeded random
// bytes, and the known answers at the word limits that random bytes rarely hit.
#include "tests/numbers_checks.h"
#include "tests/testing.h"

#include <gtest/gtest.h>
#include <sstream>

namespace tarn_testing::numbers {
namespace {

TEST(Numbers, AgreeWithGmpInValueAndForm) {
    constexpr std::uint64_t seed = 0x7a126e5eedUL;
    int failures = 0;
    for (int i = 0; i < sampled(20000) && failures < 5; ++i) {
        RandomSource in(seed + i, 4096);
        const std::string failure = check_numbers(in);
        if (!failure.empty() && ++failures)
            ADD_FAILURE() << failure << " (seed " << seed + i << ")";
    }
}

QNumber divided(QNumber x, const QNumber& y) {
    return x /= y;
}

// -2^63 has no small form, in any position; negative denominators move their sign.
TEST(Numbers, ValueAndFormAtTheEndsOfAWord) {
    QNumber big_target = big_form_of(5);
    big_target = QNumber(3, 4);
    const struct {
        QNumber value;
        const char* text;
        bool small;
    } cases[] = {
        {QNumber(LONG_MIN), "-9223372036854775808", false},
        {QNumber(LONG_MIN, 6), "-4611686018427387904/3", false},
        {QNumber(6, LONG_MIN), "-3/4611686018427387904", false},
        {divided(QNumber(LONG_MIN), QNumber(-1)), "9223372036854775808", false},
        {QNumber(0) += LONG_MIN, "-9223372036854775808", false},
        {QNumber(mpz_class(4), mpz_class(-6)), "-2/3", true},
        {QNumber(4, -6), "-2/3", true},
        {QNumber(0, -9), "0", true},
        {big_target, "3/4", false},
        {QNumber(mpz_class(LONG_MAX)), "9223372036854775807", true},
        {QNumber(mpq_class(6, 4)), "3/2", true},
    };
    for (const auto& c : cases) {
        std::ostringstream text;
        text << c.value;
        EXPECT_EQ(text.str(), c.text);
        EXPECT_EQ(c.value.is_small(), c.small) << c.text;
    }
    EXPECT_THROW(QNumber(1, 0), std::domain_error);
    EXPECT_THROW(QNumber(mpz_class(1), mpz_class(0)), std::domain_error);
    EXPECT_THROW(QNumber(mpq_class(mpz_class(1), mpz_class(0))), std::domain_error);
}

// Negative values have no two-word form; a word-sized value goes into a small
// output as a word, and a big output stays big.
TEST(Numbers, TwoWordAccess) {
    std::uint64_t low = 1, high = 1;
    EXPECT_TRUE(BVNumber::to_words(big_form_of(7), &low, &high) && low == 7 && high == 0);
    EXPECT_FALSE(BVNumber::to_words(QNumber(-1), &low, &high) || low != 7);
    EXPECT_FALSE(BVNumber::to_words(QNumber(mpz_class(mpz_class(1) << 128)), &low, &high) ||
                 low != 7);
    QNumber small, big = big_form_of(3);
    BVNumber::assign_words(12, 0, &small);
    BVNumber::assign_words(12, 0, &big);
    EXPECT_TRUE(small.is_small() && small == 12 && big.is_big() && big == 12);
    BVNumber::assign_words(9, std::uint64_t{1} << 63, &small);
    EXPECT_TRUE(small == QNumber(mpz_class((mpz_class(1) << 127) + 9)));
}

} // namespace
} // namespace tarn_testing::numbers
