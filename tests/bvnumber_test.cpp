#include "numbers_testing.h"
#include "tarn/numbers/bvnumber.h"

#include <gtest/gtest.h>
#include <string>

namespace tarn {
namespace {

using testing::forced_big;
using testing::holds;
using testing::pow2z;
using testing::scaled;
using testing::show;

constexpr unsigned long kSeed = 0xb17ec7042UL;
constexpr unsigned long kNone = ~0UL;

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

/// Bit indices, shift counts and widths near the word thresholds.
unsigned long random_index(std::mt19937_64& rng) {
    return rng() % 2 ? 58 + rng() % 10 : rng() % 140;
}

std::string describe(char const* op, Bits const& x, unsigned long n, int i) {
    return std::string(op) + "(" + show(x.q) + ", " + std::to_string(n) + ") (seed " +
           std::to_string(kSeed) + ", iteration " + std::to_string(i) + ")";
}

bool fits_small(mpz_class const& v) {
    return v.fits_slong_p();
} // operands are non-negative

/// Runs op into a fresh small output, into a big output, and in place, and
/// checks each against the expected value and form (a big output stays big).
template <class Op>
void check_outputs(Bits const& x, Op op, mpz_class const& want, bool small,
                   std::string const& what) {
    QNumber fresh;
    op(x.q, &fresh);
    ASSERT_TRUE(holds(fresh, mpq_class(want))) << what << " gave " << show(fresh);
    ASSERT_EQ(fresh.is_small(), small) << what;

    // A fraction in the output checks that its denominator is replaced too.
    QNumber big_out = forced_big(QNumber(9, 4));
    op(x.q, &big_out);
    ASSERT_TRUE(holds(big_out, mpq_class(want)) && big_out.is_big()) << what << " into big";

    QNumber in_place = x.q;
    op(in_place, &in_place);
    ASSERT_TRUE(holds(in_place, mpq_class(want))) << what << " in place";
    ASSERT_EQ(in_place.is_small(), small && x.q.is_small()) << what << " in place";
}

TEST(BVNumberProperty, ShiftsAndPowersMatchGmp) {
    std::mt19937_64 rng(kSeed);
    for (int i = 0; i < scaled(15000); ++i) {
        Bits const x = random_bits(rng);
        unsigned long const n = random_index(rng);

        mpz_class const left = x.v << n;
        check_outputs(
            x, [n](QNumber const& q, QNumber* out) { BVNumber::bit_left_shift(q, n, out); }, left,
            n == 0 ? x.q.is_small() : fits_small(left), describe("bit_left_shift", x, n, i));

        check_outputs(
            x, [n](QNumber const& q, QNumber* out) { BVNumber::bit_right_shift(q, n, out); },
            x.v >> n, x.q.is_small(), describe("bit_right_shift", x, n, i));

        QNumber p;
        BVNumber::pow2(n, &p);
        ASSERT_TRUE(holds(p, mpq_class(pow2z(n))) && p.is_small() == (n <= 62)) << n;
        QNumber big_p = forced_big(QNumber(1));
        BVNumber::pow2(n, &big_p);
        ASSERT_TRUE(holds(big_p, mpq_class(pow2z(n))) && big_p.is_big()) << n;
    }
}

TEST(BVNumberProperty, BitQueriesMatchGmp) {
    std::mt19937_64 rng(kSeed + 1);
    for (int i = 0; i < scaled(20000); ++i) {
        Bits const x = random_bits(rng);
        unsigned long const n = random_index(rng);
        std::string const what = describe("query", x, n, i);
        mpz_srcptr v = x.v.get_mpz_t();

        ASSERT_EQ(BVNumber::test_bit(x.q, n), mpz_tstbit(v, n) != 0) << what;
        ASSERT_EQ(BVNumber::scan_bit_1(x.q, n), mpz_scan1(v, n)) << what;
        ASSERT_EQ(BVNumber::scan_bit_0(x.q, n), mpz_scan0(v, n)) << what;

        unsigned long const length = x.v == 0 ? 0 : mpz_sizeinbase(v, 2);
        ASSERT_EQ(BVNumber::count_leading_zeros(x.q, n), n >= length ? n - length : 0) << what;

        long word = -1;
        ASSERT_EQ(BVNumber::to_long(x.q, &word), x.v.fits_slong_p()) << what;
        ASSERT_EQ(word, x.v.fits_slong_p() ? x.v.get_si() : -1) << what;
    }
}

TEST(BVNumberProperty, InPlaceEditsMatchGmp) {
    std::mt19937_64 rng(kSeed + 2);
    for (int i = 0; i < scaled(20000); ++i) {
        Bits const x = random_bits(rng);
        unsigned long const n = random_index(rng);

        for (bool v : {false, true}) {
            mpz_class want = x.v;
            v ? mpz_setbit(want.get_mpz_t(), n) : mpz_clrbit(want.get_mpz_t(), n);
            QNumber q = x.q;
            BVNumber::set_bit(q, n, v);
            std::string const what = describe(v ? "set_bit 1" : "set_bit 0", x, n, i);
            ASSERT_TRUE(holds(q, mpq_class(want))) << what;
            ASSERT_EQ(q.is_small(), x.q.is_small() && (n <= 62 || !v)) << what;
        }

        mpz_class low;
        mpz_fdiv_r_2exp(low.get_mpz_t(), x.v.get_mpz_t(), n);
        QNumber t = x.q;
        BVNumber::trim(t, n);
        ASSERT_TRUE(holds(t, mpq_class(low)) && t.is_small() == x.q.is_small())
            << describe("trim", x, n, i);
    }
}

TEST(BVNumberProperty, BitAndMatchesGmpWithAliasing) {
    std::mt19937_64 rng(kSeed + 3);
    for (int i = 0; i < scaled(20000); ++i) {
        Bits const a = random_bits(rng);
        Bits const b = random_bits(rng);
        mpz_class const want = a.v & b.v;
        bool const small = a.q.is_small() && b.q.is_small();
        std::string const what = describe("bit_op", a, 0, i) + " & " + show(b.q);

        QNumber out;
        BVNumber::bit_op(a.q, b.q, BVNumber::bit_and_l, mpz_and, &out);
        ASSERT_TRUE(holds(out, mpq_class(want)) && out.is_small() == small) << what;

        QNumber x = a.q;
        BVNumber::bit_op(x, b.q, BVNumber::bit_and_l, mpz_and, &x);
        ASSERT_TRUE(holds(x, mpq_class(want))) << what << " into the left operand";
        QNumber y = b.q;
        BVNumber::bit_op(a.q, y, BVNumber::bit_and_l, mpz_and, &y);
        ASSERT_TRUE(holds(y, mpq_class(want))) << what << " into the right operand";
    }
}

// ---- fixed cases at the word thresholds -------------------------------------------

QNumber big_pow2(unsigned long n, long plus = 0) {
    return QNumber(pow2z(n) + plus, 1);
}

TEST(BVNumberBoundary, ScansAndBitTests) {
    struct Case {
        QNumber q;
        unsigned long start, one, zero;
    };
    Case const cases[] = {{QNumber(0), 0, kNone, 0},
                          {QNumber(8), 4, kNone, 4},
                          {QNumber(8), 0, 3, 0},
                          {QNumber(8), 3, 3, 4},
                          {QNumber(5), 64, kNone, 64},
                          {QNumber(7), 0, 0, 3},
                          {QNumber(0), 5, kNone, 5},
                          {big_pow2(100), 0, 100, 0},
                          {big_pow2(100), 101, kNone, 101},
                          {QNumber(LONG_MAX), 0, 0, 63},
                          {QNumber(LONG_MAX), 63, kNone, 63}};
    for (Case const& c : cases) {
        EXPECT_EQ(BVNumber::scan_bit_1(c.q, c.start), c.one) << c.q << " from " << c.start;
        EXPECT_EQ(BVNumber::scan_bit_0(c.q, c.start), c.zero) << c.q << " from " << c.start;
    }
    EXPECT_FALSE(BVNumber::test_bit(QNumber(1), 64));
    EXPECT_TRUE(BVNumber::test_bit(big_pow2(63), 63));
}

TEST(BVNumberBoundary, LeadingZeros) {
    struct Case {
        QNumber q;
        unsigned long width, zeros;
    };
    Case const cases[] = {{QNumber(1), 64, 63},       {QNumber(0), 64, 64},
                          {QNumber(0), 100, 100},     {QNumber(1), 10, 9},
                          {QNumber(255), 3, 0},       {QNumber(1), 70, 69},
                          {big_pow2(70), 64, 0},      {big_pow2(70), 100, 29},
                          {QNumber(LONG_MAX), 63, 0}, {forced_big(QNumber(0)), 5, 5}};
    for (Case const& c : cases)
        EXPECT_EQ(BVNumber::count_leading_zeros(c.q, c.width), c.zeros) << c.q << " in " << c.width;
}

TEST(BVNumberBoundary, FormsOfBuiltValues) {
    QNumber x;
    BVNumber::set_bit(x, 63, true);
    EXPECT_TRUE(x.is_big() && x == QNumber(pow2z(63), 1));
    QNumber five(5);
    BVNumber::set_bit(five, 70, false);
    EXPECT_TRUE(five.is_small() && five == QNumber(5));
    BVNumber::set_bit(five, 0, false);
    EXPECT_TRUE(five == QNumber(4));

    QNumber w;
    BVNumber::bit_left_shift(QNumber(3), 61, &w);
    EXPECT_TRUE(w.is_small() && w == QNumber(3L << 61));
    BVNumber::bit_left_shift(QNumber(1), 62, &w);
    EXPECT_TRUE(w.is_small() && w == QNumber(1L << 62));
    QNumber y;
    BVNumber::bit_left_shift(QNumber(1), 63, &y);
    EXPECT_TRUE(y.is_big() && y == big_pow2(63));
    QNumber z;
    BVNumber::bit_left_shift(big_pow2(40), 10, &z); // a big operand whose result fits shrinks
    EXPECT_TRUE(z.is_small() && z == QNumber(1L << 50));

    QNumber zero;
    BVNumber::bit_left_shift(forced_big(QNumber(0)), 67, &zero); // a big zero shifts to a word
    EXPECT_TRUE(zero.is_small() && zero.is_zero());

    QNumber r;
    BVNumber::bit_right_shift(big_pow2(70), 10, &r);
    EXPECT_TRUE(r.is_big() && r == QNumber(1L << 60));
    QNumber s;
    BVNumber::bit_right_shift(QNumber(5), 64, &s);
    EXPECT_TRUE(s.is_small() && s == QNumber(0));

    QNumber t = big_pow2(70, 5);
    BVNumber::trim(t, 64);
    EXPECT_TRUE(t.is_big() && t == QNumber(5));
    QNumber u(255);
    BVNumber::trim(u, 4);
    EXPECT_TRUE(u.is_small() && u == QNumber(15));

    long word = 0;
    EXPECT_FALSE(BVNumber::to_long(big_pow2(63), &word));
    EXPECT_TRUE(BVNumber::to_long(QNumber(-5), &word) && word == -5);
    EXPECT_TRUE(BVNumber::to_long(forced_big(QNumber(7)), &word) && word == 7);
}

// Two-word access reads and writes values below 2^128 in either form; a big
// target keeps its form.
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
