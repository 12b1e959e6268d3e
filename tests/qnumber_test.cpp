#include "tarn/numbers/qnumber.h"
#include "tests/testing.h"

#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>

namespace tarn {
namespace {

using tarn_testing::forced_big;
using tarn_testing::holds;
using tarn_testing::Operand;
using tarn_testing::pow2z;
using tarn_testing::random_operand;
using tarn_testing::scaled;
using tarn_testing::show;

constexpr unsigned long kSeed = 0x7a126e5eedUL;

enum class Op { add, sub, mul, div };
constexpr Op kOps[] = {Op::add, Op::sub, Op::mul, Op::div};

void apply(Op op, QNumber& x, QNumber const& y) {
    if (op == Op::add) x += y;
    if (op == Op::sub) x -= y;
    if (op == Op::mul) x *= y;
    if (op == Op::div) x /= y;
}

/// x op y by the free operators, for QNumber and for GMP's rationals alike.
template <class T>
T combine(Op op, T const& x, T const& y) {
    if (op == Op::add) return x + y;
    if (op == Op::sub) return x - y;
    if (op == Op::mul) return x * y;
    return x / y;
}

// Whether two small operands keep the small form is decided by the overflow
// checks on the intermediates of the word algorithms, not by whether the final
// value would fit. This model recomputes those intermediates exactly and asks
// whether each lies within +-(2^63-1).

bool in_word(mpz_class const& v) {
    return abs(v) <= LONG_MAX;
}

mpz_class gcd(mpz_class const& a, mpz_class const& b) {
    mpz_class g;
    mpz_gcd(g.get_mpz_t(), a.get_mpz_t(), b.get_mpz_t());
    return g;
}

bool add_sub_stays_small(bool sub, mpz_class const& a, mpz_class const& b, mpz_class const& c,
                         mpz_class const& d) {
    mpz_class const g = gcd(b, d);
    mpz_class const ad = a * (d / g), cb = c * (b / g);
    mpz_class const n = sub ? mpz_class(ad - cb) : mpz_class(ad + cb);
    if (b == 1 && d == 1) return in_word(n);
    return in_word(ad) && in_word(cb) && in_word(n) && in_word((b / g) * (d / gcd(n, g)));
}

bool mul_stays_small(mpz_class const& a, mpz_class const& b, mpz_class const& c,
                     mpz_class const& d) {
    if (b == 1 && d == 1) return c == 0 || in_word(a * c);
    mpz_class const g1 = gcd(a, d), g2 = gcd(c, b);
    return in_word((a / g1) * (c / g2)) && in_word((b / g2) * (d / g1));
}

/// The form x op y must have.
bool expect_small(Op op, QNumber const& x, QNumber const& y) {
    if (x.is_big() || y.is_big())
        return op == Op::mul && x.is_big() && !x.is_integer() && y.is_small() && y.is_zero();
    mpq_class const xv = x.to_mpq(), yv = y.to_mpq();
    mpz_class const a = xv.get_num(), b = xv.get_den(), c = yv.get_num(), d = yv.get_den();
    if (op == Op::add || op == Op::sub) return add_sub_stays_small(op == Op::sub, a, b, c, d);
    if (op == Op::mul) return mul_stays_small(a, b, c, d);
    return mul_stays_small(a, b, c < 0 ? mpz_class(-d) : d, abs(c)); // times the reciprocal
}

std::string describe(Op op, QNumber const& x, QNumber const& y, int i) {
    static char const symbols[] = "+-*/";
    return show(x) + ' ' + symbols[static_cast<int>(op)] + ' ' + show(y) + " (seed " +
           std::to_string(kSeed) + ", iteration " + std::to_string(i) + ')';
}

TEST(QNumberProperty, ArithmeticHasExactValueAndFixedForm) {
    std::mt19937_64 rng(kSeed);
    for (int i = 0; i < scaled(20000); ++i) {
        Operand const x = random_operand(rng);
        Operand const y = random_operand(rng);
        for (Op op : kOps) {
            if (op == Op::div && y.v == 0) continue;
            mpq_class const want = combine<mpq_class>(op, x.v, y.v);
            bool const small = expect_small(op, x.q, y.q);
            std::string const what = describe(op, x.q, y.q, i);

            QNumber r = x.q;
            apply(op, r, y.q);
            ASSERT_TRUE(holds(r, want) && r.is_small() == small) << what << " gave " << show(r);
            QNumber const f = combine(op, x.q, y.q);
            ASSERT_TRUE(holds(f, want) && f.is_small() == small) << what << " (free operator)";

            // x op= x reads the operand before changing this.
            QNumber self = x.q;
            if (op != Op::div || x.v != 0) {
                apply(op, self, self);
                ASSERT_TRUE(holds(self, combine<mpq_class>(op, x.v, x.v)) &&
                            self.is_small() == expect_small(op, x.q, x.q))
                    << describe(op, x.q, x.q, i);
            }

            // A long operand behaves as the QNumber it makes (-2^63 is big).
            if (op == Op::div || y.v.get_den() != 1 || !y.v.get_num().fits_slong_p()) continue;
            long const n = y.v.get_num().get_si();
            QNumber rl = x.q;
            if (op == Op::add) rl += n;
            if (op == Op::sub) rl -= n;
            if (op == Op::mul) rl *= n;
            ASSERT_TRUE(holds(rl, want) && rl.is_small() == expect_small(op, x.q, QNumber(n)))
                << what << " (long operand)";
        }
    }
}

TEST(QNumberProperty, ComparisonsAgreeWithGmp) {
    std::mt19937_64 rng(kSeed + 1);
    for (int i = 0; i < scaled(30000); ++i) {
        Operand const x = random_operand(rng);
        // Equal values must compare equal in every pairing of forms, so some
        // right operands are the left value, as it is or forced big.
        unsigned long const pick = rng() % 6;
        Operand const y = pick == 0   ? x
                          : pick == 1 ? Operand{forced_big(x.q), x.v}
                                      : random_operand(rng);
        int const want = (x.v > y.v) - (x.v < y.v);
        std::string const what = describe(Op::sub, x.q, y.q, i);
        ASSERT_EQ(cmp(x.q, y.q), want) << what;
        ASSERT_TRUE((x.q < y.q) == (want < 0) && (x.q == y.q) == (want == 0) &&
                    (x.q != y.q) == (want != 0) && (x.q > y.q) == (want > 0) &&
                    (x.q <= y.q) == (want <= 0) && (x.q >= y.q) == (want >= 0))
            << what;
        if (y.v.get_den() == 1 && y.v.get_num().fits_slong_p()) {
            ASSERT_EQ(x.q < y.v.get_num().get_si(), want < 0) << what << " (long operand)";
        }
    }
}

TEST(QNumberProperty, UnaryOperationsHaveExactValueAndForm) {
    std::mt19937_64 rng(kSeed + 2);
    for (int i = 0; i < scaled(20000); ++i) {
        Operand const x = random_operand(rng);
        std::string const what = show(x.q) + " (iteration " + std::to_string(i) + ")";
        bool const small = x.q.is_small();
        if (x.v != 0) {
            QNumber const r = x.q.inv();
            ASSERT_TRUE(holds(r, 1 / x.v) && r.is_small() == small) << what;
        }
        mpz_class fl;
        mpz_fdiv_q(fl.get_mpz_t(), x.v.get_num_mpz_t(), x.v.get_den_mpz_t());
        QNumber const f = x.q.floor();
        ASSERT_TRUE(holds(f, mpq_class(fl)) && f.is_small() == small && x.q.to_mpz() == fl) << what;

        // From a big value, a part comes back small when it fits 32 bits.
        QNumber const num = x.q.get_num(), den = x.q.get_den();
        ASSERT_TRUE(holds(num, mpq_class(x.v.get_num())) && holds(den, mpq_class(x.v.get_den())));
        ASSERT_EQ(num.is_small(), small || x.v.get_num().fits_sint_p()) << what;
        ASSERT_EQ(den.is_small(), small || x.v.get_den().fits_sint_p()) << what;

        QNumber n = x.q;
        n.self_neg();
        ASSERT_TRUE(holds(n, -x.v) && n.is_small() == small && holds(-x.q, -x.v)) << what;
        ASSERT_TRUE(x.q.sign() == sgn(x.v) && x.q.is_integer() == (x.v.get_den() == 1)) << what;

        std::ostringstream text;
        text << x.q;
        ASSERT_EQ(text.str(), x.v.get_str()) << what;
    }
}

TEST(QNumberProperty, DivmodRoundsTowardMinusInfinityInEveryForm) {
    std::mt19937_64 rng(kSeed + 3);
    for (int i = 0; i < scaled(20000); ++i) {
        // divmod reads numerators only: give it integers.
        QNumber const x = random_operand(rng).q.floor();
        QNumber const y = random_operand(rng).q.floor();
        if (y.is_zero()) continue;
        mpz_class wq, wr;
        mpz_fdiv_qr(wq.get_mpz_t(), wr.get_mpz_t(), x.to_mpz().get_mpz_t(), y.to_mpz().get_mpz_t());
        bool const words = x.is_small() && y.is_small();
        std::string const what = describe(Op::div, x, y, i);

        // Small targets take small results in place; big targets stay big.
        for (bool big_targets : {false, true}) {
            QNumber q = big_targets ? forced_big(QNumber(5)) : QNumber(5);
            QNumber r = q;
            x.divmod(y, q, r);
            ASSERT_TRUE(holds(q, mpq_class(wq)) && holds(r, mpq_class(wr))) << what;
            ASSERT_TRUE(q.is_small() == (words && !big_targets) && r.is_small() == q.is_small())
                << what;
        }
        // The quotient may overwrite the dividend or the divisor.
        QNumber a = x, b = y, r;
        a.divmod(y, a, r);
        ASSERT_TRUE(holds(a, mpq_class(wq)) && holds(r, mpq_class(wr))) << what;
        x.divmod(b, b, r);
        ASSERT_TRUE(holds(b, mpq_class(wq)) && holds(r, mpq_class(wr))) << what;
    }
}

QNumber big(mpz_class const& n, mpz_class const& d = 1) {
    return QNumber(n, d);
}

QNumber op(QNumber x, Op o, QNumber const& y) {
    apply(o, x, y);
    return x;
}

// What the random operands never are: the one word with no small form, long
// operands of -2^63, negative denominators, and the wide constructors.
TEST(QNumberBoundary, ValueAndForm) {
    QNumber big_target = big(pow2z(70));
    big_target = QNumber(3, 4);
    struct Case {
        QNumber value;
        char const* text;
        bool small;
    } const cases[] = {
        {QNumber(LONG_MIN), "-9223372036854775808", false},
        {QNumber(LONG_MIN, 6), "-4611686018427387904/3", false},
        {op(QNumber(LONG_MIN), Op::div, QNumber(-1)), "9223372036854775808", false},
        {QNumber(0) += LONG_MIN, "-9223372036854775808", false},
        {big(4, -6), "-2/3", true},
        {QNumber(4, -6), "-2/3", true},
        {QNumber(0, -9), "0", true},
        {big_target, "3/4", false},
        {QNumber(mpz_class(LONG_MAX)), "9223372036854775807", true},
        {QNumber(mpq_class(6, 4)), "3/2", true},
    };
    for (Case const& c : cases) {
        std::ostringstream text;
        text << c.value;
        EXPECT_EQ(text.str(), c.text);
        EXPECT_EQ(c.value.is_small(), c.small) << c.text;
    }
}

TEST(QNumberValueSemantics, CopiesAreDeepAndMovesLeaveValidValues) {
    QNumber const original = big(pow2z(90) + 7, 3);
    QNumber copy = original;
    copy += 1;
    EXPECT_FALSE(copy == original);

    QNumber source = original;
    QNumber const moved(std::move(source));
    source += 2; // a moved-from object is still a usable value
    EXPECT_TRUE(moved == original && moved.is_big() && source.is_integer());

    QNumber target(5), giver = original;
    target = std::move(giver);
    giver *= 3;
    EXPECT_TRUE(target == original && target.is_big() && giver == QNumber(15));

    QNumber big_target = big(pow2z(80));
    big_target = QNumber(-2, 3); // a small move source keeps a big target big
    EXPECT_TRUE(big_target.is_big() && big_target == QNumber(-2, 3));
}

TEST(QNumberDivisionByZero, ThrowsInEveryForm) {
    QNumber q, r;
    for (QNumber const& zero : {QNumber(0), forced_big(QNumber(0))}) {
        EXPECT_THROW(QNumber(1) /= zero, std::domain_error);
        EXPECT_THROW(forced_big(QNumber(1, 3)) /= zero, std::domain_error);
        EXPECT_THROW(zero.inv(), std::domain_error);
        EXPECT_THROW(QNumber(7).divmod(zero, q, r), std::domain_error);
    }
    EXPECT_THROW(QNumber(1, 0), std::domain_error);
    EXPECT_THROW(QNumber(mpz_class(1), mpz_class(0)), std::domain_error);
}

} // namespace
} // namespace tarn
