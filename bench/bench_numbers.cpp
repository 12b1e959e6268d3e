// Costs of the exact-number layer that the generic float path sits on:
// small-form QNumber arithmetic and comparison against GMP's own rationals,
// the word and GMP paths of the BVNumber bit operations, and big-form
// arithmetic in place.
#include "tarn/numbers/bvnumber.h"

#include <benchmark/benchmark.h>
#include <gmpxx.h>
#include <random>
#include <vector>

namespace {

using tarn::BVNumber;
using tarn::QNumber;

constexpr std::size_t kCount = 1024; // operands cycled through, to defeat folding

/// Small integers and small fractions with 20-bit parts: what exponents,
/// biases and narrow significands look like.
std::vector<QNumber> small_operands(bool fractions) {
    std::mt19937_64 rng(42);
    std::vector<QNumber> v;
    for (std::size_t i = 0; i < kCount; ++i) {
        long const n = static_cast<long>(rng() % (1 << 20)) - (1 << 19);
        long const d = fractions ? static_cast<long>(rng() % (1 << 20)) + 1 : 1;
        v.emplace_back(n, d);
    }
    return v;
}

std::vector<mpq_class> as_mpq(std::vector<QNumber> const& v) {
    std::vector<mpq_class> r;
    for (QNumber const& q : v)
        r.push_back(q.to_mpq());
    return r;
}

/// Non-negative integers of `bits` bits, in the form that size calls for.
std::vector<QNumber> bit_vectors(unsigned long bits) {
    std::mt19937_64 rng(7);
    std::vector<QNumber> v;
    for (std::size_t i = 0; i < kCount; ++i) {
        mpz_class z = 1;
        for (unsigned long b = 1; b < bits; ++b)
            z = z * 2 + static_cast<long>(rng() & 1);
        v.push_back(z.fits_slong_p() ? QNumber(z.get_si()) : QNumber(z, mpz_class(1)));
    }
    return v;
}

enum Op { add, mul, div, less };

template <class T>
void run(benchmark::State& state, std::vector<T> const& x, std::vector<T> const& y, Op op) {
    std::size_t i = 0;
    T acc = x[0];
    for (auto _ : state) {
        T const& a = x[i];
        T const& b = y[(i * 7 + 3) % kCount];
        i = (i + 1) % kCount;
        switch (op) {
        case add:
            acc = a;
            acc += b;
            break;
        case mul:
            acc = a;
            acc *= b;
            break;
        case div:
            acc = a;
            acc /= b;
            break;
        case less:
            benchmark::DoNotOptimize(a < b);
            break;
        }
        benchmark::DoNotOptimize(acc);
    }
}

// The first argument picks the operands: 0 two integers, 1 two fractions,
// 2 a fraction and an integer.
void BM_QNumber(benchmark::State& state) {
    auto const x = small_operands(state.range(0) != 0);
    auto y = small_operands(state.range(0) == 1);
    for (QNumber& q : y)
        if (q.is_zero()) q = QNumber(1);
    run(state, x, y, static_cast<Op>(state.range(1)));
}

void BM_Mpq(benchmark::State& state) {
    auto const x = as_mpq(small_operands(state.range(0) != 0));
    auto y = as_mpq(small_operands(state.range(0) == 1));
    for (mpq_class& q : y)
        if (q == 0) q = 1;
    run(state, x, y, static_cast<Op>(state.range(1)));
}

// Arguments: {operands, op}; op 0 add, 1 mul, 2 div, 3 less.
BENCHMARK(BM_QNumber)->ArgsProduct({{0, 1, 2}, {0, 1, 2, 3}})->ArgNames({"frac", "op"});
BENCHMARK(BM_Mpq)->ArgsProduct({{0, 1, 2}, {0, 1, 2, 3}})->ArgNames({"frac", "op"});

/// One significand-sized job per iteration: shift left, mask, shift right,
/// measure, the mix the rounding core performs.
void BM_BitOps(benchmark::State& state) {
    unsigned long const bits = static_cast<unsigned long>(state.range(0));
    auto const v = bit_vectors(bits);
    QNumber t;
    std::size_t i = 0;
    for (auto _ : state) {
        BVNumber::bit_left_shift(v[i], 3, &t);
        BVNumber::trim(t, bits - 2);
        BVNumber::bit_right_shift(t, 5, &t);
        unsigned long const r = BVNumber::count_leading_zeros(t, bits) +
                                BVNumber::scan_bit_1(t, 1) + BVNumber::test_bit(t, bits / 2);
        benchmark::DoNotOptimize(r);
        i = (i + 1) % kCount;
    }
}
BENCHMARK(BM_BitOps)->Arg(24)->Arg(53)->Arg(113)->Arg(237);

/// In-place addition of big integers, reusing the target's heap pair.
void BM_BigAdd(benchmark::State& state) {
    auto const v = bit_vectors(static_cast<unsigned long>(state.range(0)));
    QNumber acc = v[0];
    std::size_t i = 0;
    for (auto _ : state) {
        acc = v[i];
        acc += v[(i + 1) % kCount];
        benchmark::DoNotOptimize(acc);
        i = (i + 1) % kCount;
    }
}
BENCHMARK(BM_BigAdd)->Arg(128)->Arg(1024);

} // namespace

BENCHMARK_MAIN();
