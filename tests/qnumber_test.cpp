#include "numbers_testing.h"
#include "tarn/numbers/qnumber.h"

#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <vector>

namespace tarn {
namespace {

using testing::forced_big;
using testing::holds;
using testing::Operand;
using testing::pow2z;
using testing::random_operand;
using testing::scaled;
using testing::show;

constexpr unsigned long kSeed = 0x7a126e5eedUL;

enum class Op { add, sub, mul, div };
constexpr Op kOps[] = {Op::add, Op::sub, Op::mul, Op::div};
char const* name(Op op) {
    static char const* const names[] = {"+", "-", "*", "/"};
    return names[static_cast<int>(op)];
}

void apply(Op op, QNumber& x, QNumber const& y) {
    switch (op) {
    case Op::add:
        x += y;
        break;
    case Op::sub:
        x -= y;
        break;
    case Op::mul:
        x *= y;
        break;
    case Op::div:
        x /= y;
        break;
    }
}

/// x op y by the free operators, for QNumber and for GMP's rationals alike.
template <class T>
T combine(Op op, T const& x, T const& y) {
    switch (op) {
    case Op::add:
        return x + y;
    case Op::sub:
        return x - y;
    case Op::mul:
        return x * y;
    default:
        return x / y;
    }
}

// ---- the word algorithms' overflow model ------------------------------------
// Whether two small operands keep the small form is decided by the overflow
// checks on the intermediates of the word algorithm, not by whether the final
// value would fit. This model recomputes those intermediates exactly and asks
// whether each lies within +-(2^63-1).

bool in_word(mpz_class const& v) {
    return v >= -mpz_class(LONG_MAX) && v <= LONG_MAX;
}

mpz_class gcd(mpz_class const& a, mpz_class const& b) {
    mpz_class g;
    mpz_gcd(g.get_mpz_t(), a.get_mpz_t(), b.get_mpz_t());
    return g;
}

bool add_sub_stays_small(bool sub, mpz_class const& a, mpz_class const& b, mpz_class const& c,
                         mpz_class const& d) {
    if (b == 1 && d == 1) return in_word(sub ? mpz_class(a - c) : mpz_class(a + c));
    mpz_class const g = gcd(b, d);
    mpz_class const ad = a * (d / g);
    mpz_class const cb = c * (b / g);
    if (!in_word(ad) || !in_word(cb)) return false;
    mpz_class const n = sub ? mpz_class(ad - cb) : mpz_class(ad + cb);
    if (!in_word(n)) return false;
    return in_word((b / g) * (d / gcd(n, g)));
}

bool mul_stays_small(mpz_class const& a, mpz_class const& b, mpz_class const& c,
                     mpz_class const& d) {
    if (b == 1 && d == 1) return c == 0 || in_word(a * c);
    mpz_class const g1 = gcd(a, d);
    mpz_class const g2 = gcd(c, b);
    return in_word((a / g1) * (c / g2)) && in_word((b / g2) * (d / g1));
}

/// The form x op y must have.
bool expect_small(Op op, QNumber const& x, QNumber const& y) {
    if (x.is_big() || y.is_big())
        return op == Op::mul && x.is_big() && !x.is_integer() && y.is_small() && y.is_zero();
    mpq_class const xv = x.to_mpq();
    mpq_class const yv = y.to_mpq();
    mpz_class const a = xv.get_num(), b = xv.get_den(), c = yv.get_num(), d = yv.get_den();
    switch (op) {
    case Op::add:
        return add_sub_stays_small(false, a, b, c, d);
    case Op::sub:
        return add_sub_stays_small(true, a, b, c, d);
    case Op::mul:
        return mul_stays_small(a, b, c, d);
    default:
        return mul_stays_small(a, b, c < 0 ? mpz_class(-d) : d, abs(c));
    }
}

std::string describe(Op op, Operand const& x, Operand const& y, int i) {
    std::ostringstream os;
    os << show(x.q) << ' ' << name(op) << ' ' << show(y.q) << " (seed " << kSeed << ", iteration "
       << i << ')';
    return os.str();
}

// ---- randomized properties against GMP ----------------------------------------

TEST(QNumberProperty, ArithmeticHasExactValueAndFixedForm) {
    std::mt19937_64 rng(kSeed);
    for (int i = 0; i < scaled(20000); ++i) {
        Operand const x = random_operand(rng);
        Operand const y = random_operand(rng);
        for (Op op : kOps) {
            if (op == Op::div && y.v == 0) continue;
            mpq_class const want = combine<mpq_class>(op, x.v, y.v);
            bool const small = expect_small(op, x.q, y.q);

            QNumber r = x.q;
            apply(op, r, y.q);
            ASSERT_TRUE(holds(r, want)) << describe(op, x, y, i) << " gave " << show(r);
            ASSERT_EQ(r.is_small(), small) << describe(op, x, y, i);

            QNumber const f = combine(op, x.q, y.q);
            ASSERT_TRUE(holds(f, want) && f.is_small() == small) << describe(op, x, y, i);

            // A long operand behaves as the small QNumber it makes.
            long n;
            if (op != Op::div && y.v.get_den() == 1 && y.v.get_num().fits_slong_p() &&
                (n = y.v.get_num().get_si()) != LONG_MIN) {
                QNumber rl = x.q;
                if (op == Op::add) rl += n;
                if (op == Op::sub) rl -= n;
                if (op == Op::mul) rl *= n;
                ASSERT_TRUE(holds(rl, want)) << describe(op, x, y, i) << " as long";
                ASSERT_EQ(rl.is_small(), expect_small(op, x.q, QNumber(n)))
                    << describe(op, x, y, i) << " as long";
            }
        }
    }
}

TEST(QNumberProperty, OperandMayBeTheObjectItself) {
    std::mt19937_64 rng(kSeed + 1);
    for (int i = 0; i < scaled(10000); ++i) {
        Operand const x = random_operand(rng);
        for (Op op : kOps) {
            if (op == Op::div && x.v == 0) continue;
            QNumber r = x.q;
            apply(op, r, r);
            ASSERT_TRUE(holds(r, combine<mpq_class>(op, x.v, x.v))) << describe(op, x, x, i);
            ASSERT_EQ(r.is_small(), expect_small(op, x.q, x.q)) << describe(op, x, x, i);
        }
    }
}

TEST(QNumberProperty, ComparisonsAgreeWithGmp) {
    std::mt19937_64 rng(kSeed + 2);
    for (int i = 0; i < scaled(30000); ++i) {
        Operand const x = random_operand(rng);
        // Equal values must compare equal in any pairing of forms, so some
        // right operands are the left value, as it is or forced big.
        unsigned long const pick = rng() % 6;
        Operand const y = pick == 0   ? Operand{x.q, x.v}
                          : pick == 1 ? Operand{forced_big(x.q), x.v}
                                      : random_operand(rng);
        int const want = cmp(x.v, y.v) < 0 ? -1 : cmp(x.v, y.v) > 0 ? 1 : 0;
        std::string const what = describe(Op::sub, x, y, i);
        ASSERT_EQ(cmp(x.q, y.q), want) << what;
        ASSERT_EQ(x.q < y.q, want < 0) << what;
        ASSERT_EQ(x.q == y.q, want == 0) << what;
        ASSERT_EQ(x.q != y.q, want != 0) << what;
        ASSERT_EQ(x.q > y.q, want > 0) << what;
        ASSERT_EQ(x.q <= y.q, want <= 0) << what;
        ASSERT_EQ(x.q >= y.q, want >= 0) << what;
        if (y.v.get_den() == 1 && y.v.get_num().fits_slong_p()) {
            ASSERT_EQ(x.q < y.v.get_num().get_si(), want < 0) << what;
        }
    }
}

TEST(QNumberProperty, UnaryOperationsHaveExactValueAndForm) {
    std::mt19937_64 rng(kSeed + 3);
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
        ASSERT_TRUE(holds(f, mpq_class(fl)) && f.is_small() == small) << what;
        ASSERT_EQ(x.q.to_mpz(), fl) << what;

        QNumber const num = x.q.get_num();
        QNumber const den = x.q.get_den();
        ASSERT_TRUE(holds(num, mpq_class(x.v.get_num())) && holds(den, mpq_class(x.v.get_den())));
        ASSERT_EQ(num.is_small(), small || x.v.get_num().fits_sint_p()) << what;
        ASSERT_EQ(den.is_small(), small || x.v.get_den().fits_sint_p()) << what;

        QNumber n = x.q;
        n.self_neg();
        ASSERT_TRUE(holds(n, -x.v) && n.is_small() == small) << what;
        ASSERT_TRUE(holds(-x.q, -x.v)) << what;

        ASSERT_EQ(x.q.sign(), sgn(x.v)) << what;
        ASSERT_EQ(x.q.is_zero(), x.v == 0) << what;
        ASSERT_EQ(x.q.is_negative(), x.v < 0) << what;
        ASSERT_EQ(x.q.is_integer(), x.v.get_den() == 1) << what;
        ASSERT_TRUE(holds(QNumber(x.v), x.v)) << what;

        std::ostringstream text;
        text << x.q;
        ASSERT_EQ(text.str(), x.v.get_str()) << what;
    }
}

TEST(QNumberProperty, DivmodRoundsTowardMinusInfinityInEveryForm) {
    std::mt19937_64 rng(kSeed + 4);
    for (int i = 0; i < scaled(20000); ++i) {
        Operand x = random_operand(rng);
        Operand y = random_operand(rng);
        // divmod reads numerators only: give it integers.
        x = {x.q.floor(), mpq_class(x.q.to_mpz())};
        y = {y.q.floor(), mpq_class(y.q.to_mpz())};
        if (y.v == 0) continue;
        mpz_class wq, wr;
        mpz_fdiv_qr(wq.get_mpz_t(), wr.get_mpz_t(), x.v.get_num_mpz_t(), y.v.get_num_mpz_t());
        bool const words = x.q.is_small() && y.q.is_small();
        std::string const what = describe(Op::div, x, y, i);

        // Fresh small targets, then big targets that must stay big.
        for (bool big_targets : {false, true}) {
            QNumber q = big_targets ? forced_big(QNumber(5)) : QNumber(5);
            QNumber r = big_targets ? forced_big(QNumber(5)) : QNumber(5);
            x.q.divmod(y.q, q, r);
            ASSERT_TRUE(holds(q, mpq_class(wq)) && holds(r, mpq_class(wr))) << what;
            ASSERT_EQ(q.is_small(), words && !big_targets) << what;
            ASSERT_EQ(r.is_small(), words && !big_targets) << what;
        }
        // The quotient may overwrite the dividend or the divisor.
        QNumber a = x.q, r;
        a.divmod(y.q, a, r);
        ASSERT_TRUE(holds(a, mpq_class(wq)) && holds(r, mpq_class(wr))) << what;
        QNumber b = y.q;
        x.q.divmod(b, b, r);
        ASSERT_TRUE(holds(b, mpq_class(wq)) && holds(r, mpq_class(wr))) << what;
    }
}

// ---- fixed cases at the form boundaries ------------------------------------------

QNumber big(mpz_class const& n, mpz_class const& d = 1) {
    return QNumber(n, d);
}

struct FormCase {
    char const* what;
    std::function<QNumber()> make;
    char const* text;
    bool small;
};

void PrintTo(FormCase const& c, std::ostream* os) {
    *os << c.what;
}

class QNumberBoundary : public ::testing::TestWithParam<FormCase> {};

TEST_P(QNumberBoundary, ValueAndForm) {
    FormCase const& c = GetParam();
    QNumber const r = c.make();
    std::ostringstream text;
    text << r;
    EXPECT_EQ(text.str(), c.text);
    EXPECT_EQ(r.is_small(), c.small);
}

QNumber op(QNumber x, Op o, QNumber const& y) {
    apply(o, x, y);
    return x;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, QNumberBoundary,
    ::testing::Values(
        FormCase{"minimum word", [] { return QNumber(LONG_MIN); }, "-9223372036854775808", false},
        FormCase{"minimum word as a fraction", [] { return QNumber(LONG_MIN, 6); },
                 "-4611686018427387904/3", false},
        FormCase{"2^62 + 2^62", [] { return op(QNumber(1L << 62), Op::add, QNumber(1L << 62)); },
                 "9223372036854775808", false},
        FormCase{"-2^62 - 2^62 reaches -2^63",
                 [] { return op(QNumber(-(1L << 62)), Op::add, QNumber(-(1L << 62))); },
                 "-9223372036854775808", false},
        FormCase{"max - (-1)", [] { return op(QNumber(LONG_MAX), Op::sub, QNumber(-1)); },
                 "9223372036854775808", false},
        FormCase{"(2^63 - 2) + 1", [] { return op(QNumber(LONG_MAX - 1), Op::add, QNumber(1)); },
                 "9223372036854775807", true},
        FormCase{"1/3 + 2/3", [] { return op(QNumber(1, 3), Op::add, QNumber(2, 3)); }, "1", true},
        FormCase{"1/6 - 1/6", [] { return op(QNumber(1, 6), Op::sub, QNumber(1, 6)); }, "0", true},
        FormCase{"2/3 * 9/4", [] { return op(QNumber(2, 3), Op::mul, QNumber(9, 4)); }, "3/2",
                 true},
        FormCase{"3037000500^2",
                 [] { return op(QNumber(3037000500L), Op::mul, QNumber(3037000500L)); },
                 "9223372037000250000", false},
        FormCase{"3037000499^2",
                 [] { return op(QNumber(3037000499L), Op::mul, QNumber(3037000499L)); },
                 "9223372030926249001", true},
        FormCase{"3/4 / -5/7", [] { return op(QNumber(3, 4), Op::div, QNumber(-5, 7)); }, "-21/20",
                 true},
        FormCase{"-2^63 / -1", [] { return op(QNumber(LONG_MIN), Op::div, QNumber(-1)); },
                 "9223372036854775808", false},
        FormCase{"inv of -2/6", [] { return QNumber(-2, 6).inv(); }, "-3", true},
        FormCase{"floor -7/2", [] { return QNumber(-7, 2).floor(); }, "-4", true},
        FormCase{"floor 7/2", [] { return QNumber(7, 2).floor(); }, "3", true},
        FormCase{"floor -4", [] { return QNumber(-4).floor(); }, "-4", true},
        FormCase{"floor of big -(2^70+1)/2", [] { return big(-(pow2z(70) + 1), 2).floor(); },
                 "-590295810358705651713", false},
        FormCase{"big fraction times small 0",
                 [] { return op(big(pow2z(70) + 1, 2), Op::mul, QNumber(0)); }, "0", true},
        FormCase{"big integer times small 0",
                 [] { return op(big(pow2z(70)), Op::mul, QNumber(0)); }, "0", false},
        FormCase{"small plus big stays big even when it fits",
                 [] { return op(QNumber(1), Op::add, big(pow2z(40))); }, "1099511627777", false},
        FormCase{"big minus itself", [] { return op(big(pow2z(70)), Op::sub, big(pow2z(70))); },
                 "0", false},
        FormCase{"+= -2^63 counts as a big operand", [] { return QNumber(0) += LONG_MIN; },
                 "-9223372036854775808", false},
        FormCase{"get_den of -3/4", [] { return QNumber(-3, 4).get_den(); }, "4", true},
        FormCase{"get_num of big 5", [] { return forced_big(QNumber(5, 7)).get_num(); }, "5", true},
        FormCase{"get_num of big 2^40", [] { return big(pow2z(40), 3).get_num(); }, "1099511627776",
                 false},
        FormCase{"GMP parts beyond 32 bits", [] { return big(pow2z(40), 6); }, "549755813888/3",
                 false},
        FormCase{"GMP parts within 32 bits", [] { return big(4, -6); }, "-2/3", true},
        FormCase{"two words with negative denominator", [] { return QNumber(4, -6); }, "-2/3",
                 true},
        FormCase{"zero over anything", [] { return QNumber(0, -9); }, "0", true},
        FormCase{"small assigned into big stays big",
                 [] {
                     QNumber x = big(pow2z(70));
                     x = QNumber(3, 4);
                     return x;
                 },
                 "3/4", false},
        FormCase{"default", [] { return QNumber(); }, "0", true}),
    [](::testing::TestParamInfo<FormCase> const& info) {
        return "case" + std::to_string(info.index);
    });

TEST(QNumberDivmod, SmallAndBigOperandsAgree) {
    struct Case {
        long a, d, q, r;
    };
    Case const cases[] = {{7, 2, 3, 1},    {-7, 2, -4, 1},  {-1, 2, -1, 1},
                          {7, -2, -4, -1}, {-7, -2, 3, -1}, {6, 3, 2, 0}};
    for (Case const& c : cases) {
        for (int forms = 0; forms < 4; ++forms) {
            QNumber const a = forms & 1 ? forced_big(QNumber(c.a)) : QNumber(c.a);
            QNumber const d = forms & 2 ? forced_big(QNumber(c.d)) : QNumber(c.d);
            QNumber q, r;
            a.divmod(d, q, r);
            EXPECT_TRUE(q == QNumber(c.q) && r == QNumber(c.r))
                << c.a << " divmod " << c.d << " forms " << forms << ": " << q << ", " << r;
        }
    }
    QNumber q, r;
    big(pow2z(70)).divmod(QNumber(3), q, r);
    EXPECT_TRUE(q.is_big() && r.is_big());
    EXPECT_EQ(q.to_mpz() * 3 + r.to_mpz(), pow2z(70));
}

TEST(QNumberValueSemantics, CopiesAreDeepAndMovesLeaveValidValues) {
    QNumber const original = big(pow2z(90) + 7, 3);
    QNumber copy = original;
    copy += 1;
    EXPECT_FALSE(copy == original);

    QNumber source = original;
    QNumber moved(std::move(source));
    EXPECT_TRUE(moved == original && moved.is_big());
    source += 2; // the moved-from object is still a usable value
    EXPECT_TRUE(source.is_integer());

    QNumber target(5);
    QNumber giver = original;
    target = std::move(giver);
    EXPECT_TRUE(target == original && target.is_big());
    giver *= 3;
    EXPECT_TRUE(giver == QNumber(15));

    QNumber big_target = big(pow2z(80));
    big_target = QNumber(-2, 3); // a small move source keeps a big target big
    EXPECT_TRUE(big_target.is_big() && big_target == QNumber(-2, 3));

    QNumber self = original;
    QNumber& alias = self;
    self = alias;
    EXPECT_TRUE(self == original);
}

TEST(QNumberConversions, RoundTripThroughGmp) {
    EXPECT_TRUE(QNumber(mpz_class(LONG_MAX)).is_small());
    EXPECT_TRUE(QNumber(mpz_class(LONG_MIN)).is_big());
    EXPECT_TRUE(QNumber(mpq_class(6, 4)) == QNumber(3, 2)); // canonicalised on the way in
    EXPECT_EQ(QNumber(-7, 2).to_mpz(), -4);
    EXPECT_EQ(big(-pow2z(70) - 1, 2).to_mpq(), mpq_class(-pow2z(70) - 1, 2));
}

TEST(QNumberDivisionByZero, ThrowsInEveryForm) {
    QNumber const big_zero = forced_big(QNumber(0));
    QNumber q, r;
    for (QNumber const& zero : {QNumber(0), big_zero}) {
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
