// The rounding core of IEEEFloat against MPFR emulating the same format.
//
// Both sides round the same exact results S * 2^(X - m) and deliver the packed
// bit pattern: tarn with round_and_pack_float, MPFR with mpfr_set_z_2exp at
// precision m+1 in the full exponent range, then the reference's
// fit_to_format (overflow, subnormal rounding) and its encoder. S has 2m + 2
// bits, the size of an exact product of two significands, and X spreads the
// results over the whole range of the format, subnormals and overflow
// included. The core is reached through its internal header.

#include "tarn/ieeefloat/internal/rounding.h"
#include "tests/oracle/oracle.h"

#include <benchmark/benchmark.h>
#include <gmpxx.h>
#include <mpfr.h>
#include <random>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
namespace detail = tarn::ieeefloat_detail;

constexpr int sample_count = 1024;

/// Exact results of one format, held both ways.
struct Results {
    IEEEFloat::format f;
    std::vector<QNumber> s, x;
    std::vector<mpz_class> s_mpz;
    std::vector<long> x_long;
};

Results make_results(unsigned long e, unsigned long m) {
    Results r{{e, m}, {}, {}, {}, {}};
    std::mt19937_64 rng(e * 1000 + m);
    gmp_randclass bits(gmp_randinit_default);
    bits.seed(e * 1000 + m);
    const long bias = (1L << (e - 1)) - 1;
    for (int k = 0; k < sample_count; ++k) {
        const unsigned long length = 2 * m + 2;
        const mpz_class s = bits.get_z_bits(length) | (mpz_class(1) << (length - 1));
        // Biased exponents from a few below the subnormals to just past overflow.
        const long biased = static_cast<long>(rng() % static_cast<unsigned long>(2 * bias + 8)) - 4;
        const long x = biased - bias - static_cast<long>(m + 1);
        r.s.emplace_back(s);
        r.x.emplace_back(x);
        r.s_mpz.push_back(s);
        r.x_long.push_back(x);
    }
    return r;
}

void BM_tarn(benchmark::State& state, unsigned long e, unsigned long m) {
    const Results r = make_results(e, m);
    const auto mode = static_cast<IEEEFloat::rounding_mode>(state.range(0));
    detail::TempNumProvider tmp;
    QNumber significand, exponent, out;
    int k = 0;
    for (auto _ : state) {
        significand = r.s[k];
        exponent = r.x[k];
        detail::RoundingContext context = detail::RoundingContext::of_mode(mode);
        detail::round_and_pack_float(tmp, r.f, context, false, exponent, significand, out);
        benchmark::DoNotOptimize(out);
        k = (k + 1) % sample_count;
    }
}

mpfr_rnd_t mpfr_mode(int mode) {
    const mpfr_rnd_t modes[] = {MPFR_RNDN, MPFR_RNDZ, MPFR_RNDU, MPFR_RNDD};
    return modes[mode];
}

void BM_mpfr(benchmark::State& state, unsigned long e, unsigned long m) {
    const Results r = make_results(e, m);
    oracle::Emulator emulator(oracle::Format{static_cast<unsigned>(e), static_cast<unsigned>(m)});
    const mpfr_rnd_t rnd = mpfr_mode(static_cast<int>(state.range(0)));
    mpfr_t value;
    mpfr_init2(value, static_cast<mpfr_prec_t>(m + 1));
    mpz_class packed;
    int k = 0;
    for (auto _ : state) {
        mpfr_set_emin(mpfr_get_emin_min());
        mpfr_set_emax(mpfr_get_emax_max());
        const int t =
            mpfr_set_z_2exp(value, r.s_mpz[k].get_mpz_t(), r.x_long[k] - static_cast<long>(m), rnd);
        emulator.fit_to_format(value, t, rnd);
        emulator.encode(packed, value);
        benchmark::DoNotOptimize(packed);
        k = (k + 1) % sample_count;
    }
    mpfr_clear(value);
}

#define TARN_CORE_BENCH(name, e, m)                                                                \
    BENCHMARK_CAPTURE(BM_tarn, name, e, m)->Arg(0)->Arg(2);                                        \
    BENCHMARK_CAPTURE(BM_mpfr, name, e, m)->Arg(0)->Arg(2)

TARN_CORE_BENCH(e4m3, 4, 3);
TARN_CORE_BENCH(binary16, 5, 10);
TARN_CORE_BENCH(bfloat16, 8, 7);
TARN_CORE_BENCH(binary32, 8, 23);
TARN_CORE_BENCH(binary64, 11, 52);
TARN_CORE_BENCH(binary128, 15, 112);

} // namespace

BENCHMARK_MAIN();
