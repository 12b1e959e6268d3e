// Checks of the MPFR reference itself. A mistake in it that the library happened
// to share would hide a library fault, so it is held against a brute-force rounding
// of exact rationals over every value of tiny formats (where the subnormal and
// overflow edges are a step apart), which shares nothing with MPFR. Every width goes
// through the same pattern codec, so these formats vouch for the wide ones too.
#include "tests/oracle/operands.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace oracle;

// Every non-negative finite value of a tiny format in increasing order, and rounding
// by searching them: shares nothing with MPFR.
class BruteForce {
public:
    explicit BruteForce(Format fmt) : fmt_(fmt), beyond_(mpz_class(1) << (fmt.bias() + 1)) {
        for (mpz_class p = 0; p <= max_pattern(fmt, false); ++p)
            values_.push_back(to_rational(fmt, p));
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
                  : mode == TOWARD_POSITIVE ? !negative
                  : mode == TOWARD_NEGATIVE ? negative
                                            : false;
        return pattern(up ? lo + 1 : lo, negative);
    }

    // The square root of a non-negative value, by comparing squares.
    mpz_class root(const mpq_class& v, int mode) const {
        std::size_t lo = last_not_above([&](const mpq_class& r) { return r * r <= v; });
        if (values_[lo] * values_[lo] == v) return pattern(lo, false);
        mpq_class mid = (values_[lo] + values_[lo + 1]) / 2;
        int above = cmp(v, mid * mid);
        bool up = mode == TOWARD_POSITIVE ||
                  (mode == NEAREST_EVEN && (above > 0 || (above == 0 && odd(lo))));
        return pattern(up ? lo + 1 : lo, false);
    }

private:
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
    mpq_class beyond_;
    std::vector<mpq_class> values_;
};

class AgainstBruteForce : public ::testing::TestWithParam<Format> {};

TEST_P(AgainstBruteForce, EveryPairOfFiniteOperands) {
    const Format fmt = GetParam();
    BruteForce brute(fmt);
    std::vector<mpz_class> finite;
    for (mpz_class p = 0; p < mpz_class(1) << fmt.width(); ++p)
        if (is_finite(fmt, p)) finite.push_back(p);
    for (const auto& a : finite) {
        const mpq_class x = to_rational(fmt, a);
        for (int mode : all_modes) {
            if (!sign_of(fmt, a)) {
                ASSERT_EQ(apply(fmt, Operation::Sqrt, a, 0, mode), brute.root(x, mode))
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
                    ASSERT_EQ(apply(fmt, e.op, a, b, mode),
                              brute.round(e.exact, mode, e.zero_negative))
                        << to_string(e.op) << " mode " << mode << "\n  a " << describe(fmt, a)
                        << "\n  b " << describe(fmt, b);
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
        int ties[4] = {}, exact_zeros = 0, subnormal_products = 0, absorbed = 0, twice = 0;
        const int n = 4000;
        for (int i = 0; i < n; ++i) {
            Operation op = static_cast<Operation>(i % 4);
            auto [a, b] = gen.pair(op);
            mpq_class q = gen.rational();
            twice += from_number_model(q, fmt, 0) != from_rational(q, fmt, 0);
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
        for (int count : {ties[0], ties[2], exact_zeros, subnormal_products, absorbed, twice})
            EXPECT_GT(count, n / 400) << fmt;
        EXPECT_GT(ties[3], 0) << fmt << ": no quotient landed on a subnormal tie";
    }
}

} // namespace
