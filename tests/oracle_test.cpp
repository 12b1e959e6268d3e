// Checks of the MPFR reference itself. A mistake in it that the library happened
// to share would hide a library fault, so it is held against a brute-force rounding
// of exact rationals over every value of tiny formats (where the subnormal and
// overflow edges are a step apart), which shares nothing with MPFR. Every width goes
// through the same pattern codec, so these formats vouch for the wide ones too.
#include "tests/oracle/operands.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace oracle;

using Outcome = std::pair<mpz_class, unsigned>; // a result and its flags

// Every non-negative finite value of a tiny format in increasing order, and rounding
// by searching them: shares nothing with MPFR. The format with one more exponent bit
// rounds every value of this one's range as an unbounded exponent would, which
// decides tininess and overflow.
class BruteForce {
public:
    explicit BruteForce(Format fmt, bool with_flags = true)
        : fmt_(fmt), beyond_(mpz_class(1) << (fmt.bias() + 1)),
          min_normal_(times_pow2(1, 1 - fmt.bias())) {
        for (mpz_class p = 0; p <= max_pattern(fmt, false); ++p)
            values_.push_back(to_rational(fmt, p));
        if (with_flags) wide_ = std::make_unique<BruteForce>(Format{fmt.e + 1, fmt.m}, false);
    }

    Outcome rounded(const mpq_class& r, int mode, bool zero_negative) const {
        const mpz_class got = round(r, mode, zero_negative);
        const bool inexact = !is_finite(fmt_, got) || to_rational(fmt_, got) != r;
        // A finite result carried onto infinity overflows, also in formats of one
        // exponent bit, whose other results are all tiny.
        if (inexact && !is_finite(fmt_, got)) return {got, FLAG_INEXACT | FLAG_OVERFLOW};
        return {got, flags(wide_->round(r, mode, false), inexact)};
    }

    Outcome rooted(const mpq_class& v, int mode) const {
        const mpz_class got = root(v, mode);
        const mpq_class g = to_rational(fmt_, got);
        return {got, flags(wide_->root(v, mode), g * g != v)};
    }

    // r rounded under `mode`; an exact zero gets the sign `zero_negative`.
    mpz_class round(const mpq_class& r, int mode, bool zero_negative) const {
        bool negative = r < 0 || (r == 0 && zero_negative);
        mpq_class magnitude = abs(r);
        std::size_t lo = last_not_above([&](const mpq_class& v) { return v <= magnitude; });
        if (values_[lo] == magnitude) return pattern(lo, negative);
        // Past the largest finite value stands 2^(bias+1), which means infinity.
        const mpq_class& high = lo + 1 < values_.size() ? values_[lo + 1] : beyond_;
        bool beyond = magnitude >= beyond_;
        int nearer = beyond ? 1 : cmp(magnitude - values_[lo], high - magnitude);
        bool up = mode == NEAREST_EVEN      ? nearer > 0 || (nearer == 0 && odd(lo))
                  : mode == NEAREST_AWAY    ? nearer >= 0
                  : mode == TOWARD_POSITIVE ? !negative
                  : mode == TOWARD_NEGATIVE ? negative
                  : mode == TO_ODD          ? !odd(lo)
                                            : false;
        return pattern(up ? lo + 1 : lo, negative);
    }

    // The square root of a non-negative value, by comparing squares.
    mpz_class root(const mpq_class& v, int mode) const {
        std::size_t lo = last_not_above([&](const mpq_class& r) { return r * r <= v; });
        if (values_[lo] * values_[lo] == v) return pattern(lo, false);
        mpq_class mid = (values_[lo] + values_[lo + 1]) / 2;
        int above = cmp(v, mid * mid); // never 0: no midpoint squares to a value
        bool up = mode == TOWARD_POSITIVE || (mode == TO_ODD && !odd(lo)) ||
                  ((mode == NEAREST_EVEN || mode == NEAREST_AWAY) && above > 0);
        return pattern(up ? lo + 1 : lo, false);
    }

private:
    unsigned flags(const mpz_class& unbounded, bool inexact) const {
        const Format w = wide_->fmt_;
        const mpq_class v = is_finite(w, unbounded) ? abs(to_rational(w, unbounded)) : beyond_;
        return inexact ? FLAG_INEXACT | (v >= beyond_ ? FLAG_OVERFLOW : 0) |
                             (v < min_normal_ ? FLAG_UNDERFLOW : 0)
                       : 0;
    }

    template <class Below>
    std::size_t last_not_above(Below below) const {
        std::size_t lo = 0;
        for (std::size_t step = values_.size(); step > 0; step /= 2)
            while (lo + step < values_.size() && below(values_[lo + step]))
                lo += step;
        return lo;
    }

    // Ties go to the even significand. With m = 0 every normal significand is 1, so a
    // tie between normals goes up.
    bool odd(std::size_t index) const { return fmt_.m == 0 ? index != 0 : index % 2 == 1; }

    mpz_class pattern(std::size_t index, bool negative) const {
        mpz_class bits = index < values_.size() ? mpz_class(static_cast<unsigned long>(index))
                                                : inf_pattern(fmt_, false);
        if (negative) mpz_setbit(bits.get_mpz_t(), fmt_.e + fmt_.m);
        return bits;
    }

    Format fmt_;
    mpq_class beyond_, min_normal_;
    std::vector<mpq_class> values_;
    std::unique_ptr<BruteForce> wide_;
};

// x rounded to an integer in direction `mode`: of the two neighbouring integers, the
// odd one for round-to-odd.
mpz_class integer_of(const mpq_class& x, int mode, bool& changed) {
    mpz_class lo;
    mpz_fdiv_q(lo.get_mpz_t(), x.get_num_mpz_t(), x.get_den_mpz_t());
    const mpq_class frac = x - lo;
    changed = frac != 0;
    const int half = cmp(frac, mpq_class(1, 2));
    const bool odd = mpz_odd_p(lo.get_mpz_t()) != 0;
    const bool up[] = {half > 0 || (half == 0 && odd),
                       x<0, true, false, half> 0 || (half == 0 && x > 0), !odd};
    return changed && up[mode] ? mpz_class(lo + 1) : lo;
}

class AgainstBruteForce : public ::testing::TestWithParam<Format> {};

TEST_P(AgainstBruteForce, EveryPairOfFiniteOperands) {
    const Format fmt = GetParam();
    BruteForce brute(fmt);
    std::vector<mpz_class> finite;
    for (mpz_class p = 0; p < mpz_class(1) << fmt.width(); ++p)
        if (is_finite(fmt, p)) finite.push_back(p);
    unsigned f = 0;
    for (const auto& a : finite) {
        const mpq_class x = to_rational(fmt, a);
        for (int mode : all_directions) {
            if (!sign_of(fmt, a)) {
                ASSERT_EQ((Outcome{apply(fmt, Operation::Sqrt, a, 0, mode, &f), f}),
                          brute.rooted(x, mode))
                    << describe(fmt, a);
            }
            for (const auto& b : finite) {
                const mpq_class y = to_rational(fmt, b);
                bool sa = sign_of(fmt, a), sb = sign_of(fmt, b);
                // Exact zeros: a sum keeps the operands' common sign, else is -0 only
                // toward -infinity; products and quotients take the sign of the signs.
                bool sum_sign = (x == 0 && y == 0 && sa == sb) ? sa : mode == TOWARD_NEGATIVE;
                bool dif_sign = (x == 0 && y == 0 && sa != sb) ? sa : mode == TOWARD_NEGATIVE;
                const struct {
                    Operation op;
                    mpq_class exact;
                    bool zero_negative;
                } expected[] = {{Operation::Add, x + y, sum_sign},
                                {Operation::Sub, x - y, dif_sign},
                                {Operation::Mul, x * y, sa != sb},
                                {Operation::Div, y == 0 ? mpq_class(0) : x / y, sa != sb}};
                for (const auto& e : expected) {
                    if (e.op == Operation::Div && y == 0) continue;
                    ASSERT_EQ((Outcome{apply(fmt, e.op, a, b, mode, &f), f}),
                              brute.rounded(e.exact, mode, e.zero_negative))
                        << to_string(e.op) << " mode " << mode << "\n  a " << describe(fmt, a)
                        << "\n  b " << describe(fmt, b);
                }
                // Every triple where that stays quick; an exact zero keeps the sign that
                // the product and c share, else it is -0 only toward -infinity.
                for (std::size_t k = 0; fmt.width() <= 5 && k < finite.size(); ++k) {
                    const mpq_class z = to_rational(fmt, finite[k]), p = x * y;
                    const bool sp = sa != sb, sc = sign_of(fmt, finite[k]);
                    const bool zero_sign = p == 0 && z == 0 && sp == sc ? sp : mode == 3;
                    ASSERT_EQ((Outcome{oracle::fma(fmt, a, b, finite[k], mode, &f), f}),
                              brute.rounded(p + z, mode, zero_sign))
                        << "fma mode " << mode << "\n  a " << describe(fmt, a) << "\n  b "
                        << describe(fmt, b) << "\n  c " << describe(fmt, finite[k]);
                }
            }
        }
    }
}

// Rounding to an integral value and to an integer type, for every pattern of formats
// that reach 2^32 and 2^64, against the rounding of exact rationals.
TEST(Oracle, IntegersAgainstExactRounding) {
    for (const Format fmt : {Format{6, 2}, Format{7, 1}}) {
        const BruteForce brute(fmt, false);
        for (mpz_class a = 0; a < mpz_class(1) << fmt.width(); ++a) {
            const bool finite = is_finite(fmt, a), nonzero = classify(fmt, a) != Kind::Zero;
            const mpq_class x = finite ? to_rational(fmt, a) : 0;
            const unsigned invalid = is_signaling(fmt, a) ? FLAG_INVALID : 0;
            for (int mode : all_directions) {
                bool changed = false;
                const mpz_class n = integer_of(x, mode, changed);
                for (bool exact : {false, true}) {
                    const unsigned inexact = exact && changed ? FLAG_INEXACT : 0;
                    unsigned f = 0;
                    ASSERT_EQ((Outcome{round_to_integral(fmt, a, mode, exact, &f), f}),
                              (finite && nonzero
                                   ? Outcome{brute.round(n, mode, sign_of(fmt, a)), inexact}
                                   : Outcome{a, invalid}))
                        << describe(fmt, a) << " mode " << mode;
                    for (unsigned width : {32u, 64u}) {
                        for (bool is_signed : {false, true}) {
                            const mpz_class low = is_signed ? mpz_class(-pow2(width - 1)) : 0;
                            const mpz_class high = pow2(width - is_signed) - 1;
                            const bool fits = finite && low <= n && n <= high;
                            ASSERT_EQ(
                                (Outcome{to_int(fmt, a, mode, width, is_signed, exact, &f), f}),
                                (fits ? Outcome{n, inexact}
                                      : Outcome{is_signed ? low : high, FLAG_INVALID}))
                                << describe(fmt, a) << " mode " << mode << " " << width;
                        }
                    }
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Oracle, AgainstBruteForce,
                         ::testing::Values(Format{1, 1}, Format{1, 2}, Format{1, 3}, Format{2, 0},
                                           Format{2, 1}, Format{3, 0}, Format{3, 1}, Format{3, 2},
                                           Format{2, 3}),
                         [](const ::testing::TestParamInfo<Format>& info) {
                             return "e" + std::to_string(info.param.e) + "m" +
                                    std::to_string(info.param.m);
                         });

// The generators exist to reach cases that random operands almost never produce;
// if they stopped, every differential run would silently grow weaker.
TEST(OperandGenerators, ReachTheHardCases) {
    for (const Format fmt : {Format{5, 10}, Format{11, 52}, Format{15, 112}}) {
        OperandGenerator gen(fmt, 42);
        int ties[5] = {}, exact_zeros = 0, subnormal_products = 0, absorbed = 0, twice = 0;
        int halves = 0;
        const int n = 4000;
        for (int i = 0; i < n; ++i) {
            Operation op = static_cast<Operation>(i % 4);
            auto [a, b] = gen.pair(op);
            mpq_class q = gen.rational();
            twice += from_number_model(q, fmt, 0) != from_rational(q, fmt, 0);
            const mpz_class n = gen.integral_operand();
            // Only exact ties n + 1/2 round differently under the two nearest modes.
            halves +=
                round_to_integral(fmt, n, NEAREST_EVEN) != round_to_integral(fmt, n, NEAREST_AWAY);
            const auto [fa, fb, fc] = gen.triple();
            const mpz_class fma_down = oracle::fma(fmt, fa, fb, fc, TOWARD_NEGATIVE);
            const mpz_class fma_up = oracle::fma(fmt, fa, fb, fc, TOWARD_POSITIVE);
            ties[4] += is_finite(fmt, fma_down) && is_finite(fmt, fma_up) && fma_down != fma_up &&
                       to_rational(fmt, fma_down) + to_rational(fmt, fma_up) ==
                           2 * (to_rational(fmt, fa) * to_rational(fmt, fb) + to_rational(fmt, fc));
            if (!is_finite(fmt, a) || !is_finite(fmt, b) || classify(fmt, b) == Kind::Zero)
                continue;
            mpz_class down = apply(fmt, op, a, b, TOWARD_NEGATIVE);
            mpz_class up = apply(fmt, op, a, b, TOWARD_POSITIVE);
            subnormal_products += op == Operation::Mul && classify(fmt, up) == Kind::Subnormal;
            absorbed += op == Operation::Add && apply(fmt, op, a, b, TOWARD_ZERO) == a;
            if (classify(fmt, down) == Kind::Zero && classify(fmt, up) == Kind::Zero) {
                exact_zeros += op == Operation::Sub;
            } else if (down != up && is_finite(fmt, down) && is_finite(fmt, up)) {
                // A tie: the exact result is the midpoint of its two neighbours.
                mpq_class x = to_rational(fmt, a), y = to_rational(fmt, b);
                mpq_class exact = op == Operation::Add   ? mpq_class(x + y)
                                  : op == Operation::Sub ? mpq_class(x - y)
                                  : op == Operation::Mul ? mpq_class(x * y)
                                                         : mpq_class(x / y);
                ties[static_cast<int>(op)] +=
                    2 * exact == to_rational(fmt, down) + to_rational(fmt, up);
            }
        }
        for (int count :
             {ties[0], ties[2], ties[4], exact_zeros, subnormal_products, absorbed, twice, halves})
            EXPECT_GT(count, n / 400) << fmt;
        EXPECT_GT(ties[3], 0) << fmt << ": no quotient landed on a subnormal tie";
    }
}

} // namespace
