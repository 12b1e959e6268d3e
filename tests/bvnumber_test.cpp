#include "tarn/numbers/bvnumber.h"
#include "tests/testing.h"

#include <gtest/gtest.h>
#include <string>

namespace tarn {
namespace {

using tarn_testing::forced_big;
using tarn_testing::holds;
using tarn_testing::pow2z;
using tarn_testing::scaled;
using tarn_testing::show;

constexpr unsigned long kSeed = 0xb17ec7042UL;

/// A non-negative integer operand and its exact value.
struct Bits {
    QNumber q;
    mpz_class v;
};

/// Non-negative integers concentrated around bits 61 to 64, in both forms:
/// small words, the same words forced big, and values beyond a word.
Bits random_bits(std::mt19937_64& rng) {
    unsigned long const length = rng() % 4 == 0 ? 60 + rng() % 6 : rng() % 130;
    mpz_class v;
    if (length > 0) {
        v = pow2z(length - 1); // top bit set, so the bit length is exact
        for (unsigned long i = 0; i + 1 < length; ++i)
            if (rng() % 3 == 0) mpz_setbit(v.get_mpz_t(), i);
        if (rng() % 4 == 0) v -= 1; // all ones below a power of two
    }
    bool const fits = v.fits_slong_p();
    if (fits && rng() % 3 != 0) return {QNumber(v.get_si()), v};
    if (fits) return {forced_big(QNumber(v.get_si())), v};
    return {QNumber(v, mpz_class(1)), v};
}

/// Runs op into a fresh small output, into a big output, and in place, and
/// checks each against the expected value and form (a big output stays big).
template <class Op>
void check_outputs(QNumber const& x, Op op, mpz_class const& want, bool small,
                   std::string const& what) {
    QNumber fresh;
    op(x, &fresh);
    ASSERT_TRUE(holds(fresh, mpq_class(want)) && fresh.is_small() == small)
        << what << " gave " << show(fresh);
    // A fraction in the output checks that its denominator is replaced too.
    QNumber big_out = forced_big(QNumber(9, 4));
    op(x, &big_out);
    ASSERT_TRUE(holds(big_out, mpq_class(want)) && big_out.is_big()) << what << " into big";
    QNumber in_place = x;
    op(in_place, &in_place);
    ASSERT_TRUE(holds(in_place, mpq_class(want)) && in_place.is_small() == (small && x.is_small()))
        << what << " in place";
}

TEST(BVNumberProperty, EveryOperationMatchesGmpWithItsForm) {
    std::mt19937_64 rng(kSeed);
    for (int i = 0; i < scaled(20000); ++i) {
        Bits const x = random_bits(rng);
        Bits const y = random_bits(rng);
        // Bit indices, shift counts and widths, often near the word thresholds.
        unsigned long const n = rng() % 2 ? 58 + rng() % 10 : rng() % 140;
        std::string const what = show(x.q) + ", " + show(y.q) + ", n = " + std::to_string(n) +
                                 " (seed " + std::to_string(kSeed) + ", iteration " +
                                 std::to_string(i) + ")";
        mpz_srcptr v = x.v.get_mpz_t();

        mpz_class const shifted = x.v << n;
        check_outputs(
            x.q, [n](QNumber const& q, QNumber* out) { BVNumber::bit_left_shift(q, n, out); },
            shifted, n == 0 ? x.q.is_small() : shifted.fits_slong_p(), what + " <<");
        check_outputs(
            x.q, [n](QNumber const& q, QNumber* out) { BVNumber::bit_right_shift(q, n, out); },
            x.v >> n, x.q.is_small(), what + " >>");
        check_outputs(
            x.q,
            [&y](QNumber const& q, QNumber* out) {
                BVNumber::bit_op(q, y.q, BVNumber::bit_and_l, mpz_and, out);
            },
            x.v & y.v, x.q.is_small() && y.q.is_small(), what + " &");

        QNumber p = rng() % 2 ? QNumber() : forced_big(QNumber(1));
        bool const small_target = p.is_small();
        BVNumber::pow2(n, &p);
        ASSERT_TRUE(holds(p, mpq_class(pow2z(n))) && p.is_small() == (small_target && n <= 62))
            << what << " pow2";

        for (bool bit : {false, true}) {
            mpz_class want = x.v;
            bit ? mpz_setbit(want.get_mpz_t(), n) : mpz_clrbit(want.get_mpz_t(), n);
            QNumber q = x.q;
            BVNumber::set_bit(q, n, bit);
            ASSERT_TRUE(holds(q, mpq_class(want)) &&
                        q.is_small() == (x.q.is_small() && (n <= 62 || !bit)))
                << what << " set_bit " << bit;
        }
        mpz_class low;
        mpz_fdiv_r_2exp(low.get_mpz_t(), v, n);
        QNumber t = x.q;
        BVNumber::trim(t, n);
        ASSERT_TRUE(holds(t, mpq_class(low)) && t.is_small() == x.q.is_small()) << what << " trim";

        ASSERT_EQ(BVNumber::test_bit(x.q, n), mpz_tstbit(v, n) != 0) << what;
        ASSERT_EQ(BVNumber::scan_bit_1(x.q, n), mpz_scan1(v, n)) << what;
        ASSERT_EQ(BVNumber::scan_bit_0(x.q, n), mpz_scan0(v, n)) << what;
        unsigned long const length = x.v == 0 ? 0 : mpz_sizeinbase(v, 2);
        ASSERT_EQ(BVNumber::count_leading_zeros(x.q, n), n >= length ? n - length : 0) << what;
        long word = -1;
        ASSERT_EQ(BVNumber::to_long(x.q, &word), x.v.fits_slong_p()) << what;
        ASSERT_EQ(word, x.v.fits_slong_p() ? x.v.get_si() : -1) << what;
    }
    long word = 0;
    EXPECT_TRUE(BVNumber::to_long(QNumber(-5), &word) && word == -5); // any integer that fits
}

TEST(BVNumberBoundary, TwoWordAccess) {
    std::uint64_t low = 1, high = 1;
    EXPECT_TRUE(BVNumber::to_words(QNumber(5), &low, &high) && low == 5 && high == 0);
    EXPECT_TRUE(BVNumber::to_words(forced_big(QNumber(7)), &low, &high) && low == 7 && high == 0);
    const QNumber top = QNumber(mpz_class(pow2z(127) + 9));
    EXPECT_TRUE(BVNumber::to_words(top, &low, &high));
    EXPECT_EQ(low, 9u);
    EXPECT_EQ(high, std::uint64_t{1} << 63);
    EXPECT_FALSE(BVNumber::to_words(QNumber(pow2z(128)), &low, &high));
    EXPECT_FALSE(BVNumber::to_words(QNumber(-1), &low, &high));

    QNumber out(3);
    BVNumber::assign_words(9, std::uint64_t{1} << 63, &out);
    EXPECT_TRUE(out == top);
    BVNumber::assign_words(4, 0, &out);
    EXPECT_TRUE(out.is_big() && out == QNumber(4));
    QNumber small;
    BVNumber::assign_words(std::uint64_t{1} << 63, 0, &small);
    EXPECT_TRUE(small == QNumber(pow2z(63)));
    QNumber word;
    BVNumber::assign_words(12, 0, &word);
    EXPECT_TRUE(word.is_small() && word == QNumber(12));
}

} // namespace
} // namespace tarn
