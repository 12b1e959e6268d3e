// Speed of the integer conversions: to_int64 and from_int64 on binary64 words
// beside the hardware's conversions (std::llrint under the matching rounding,
// static_cast for truncation and from integers), and on binary16 held
// generically. After the runs the ratios are printed.

#include "bench/median_times.h"
#include "tarn/ieeefloat/ieeefloat.h"

#include <benchmark/benchmark.h>
#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using tarn::rounding;

constexpr std::size_t sample_count = 4096; // a power of two

/// Doubles with fractions, of magnitudes from about 1e-3 to 4e18, all within
/// the range of int64: the inputs of everyday float-to-integer conversions.
std::vector<double> doubles() {
    std::mt19937_64 rng(11);
    std::vector<double> out;
    while (out.size() < sample_count) {
        const double magnitude = std::ldexp(std::uniform_real_distribution<double>(1, 2)(rng),
                                            static_cast<int>(rng() % 72) - 10);
        out.push_back(rng() & 1 ? -magnitude : magnitude);
    }
    return out;
}

std::vector<IEEEFloat> values_in(IEEEFloat::format f) {
    std::vector<IEEEFloat> out;
    for (const double d : doubles()) {
        mpq_class q(d);
        out.push_back(IEEEFloat::from_number(QNumber(q), f, IEEEFloat::ROUND_NEAREST_EVEN));
    }
    return out;
}

/// Integers of every length from 1 to 64 bits, either sign.
std::vector<std::int64_t> integers() {
    std::mt19937_64 rng(12);
    std::vector<std::int64_t> out;
    while (out.size() < sample_count)
        out.push_back(static_cast<std::int64_t>(rng() >> (rng() % 64)));
    return out;
}

template <rounding R>
void to_int64_tarn(benchmark::State& state, IEEEFloat::format f) {
    static const std::vector<IEEEFloat> values = values_in(f);
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(tarn::to_int64(values[i++ & (sample_count - 1)], R));
}
void BM_to_int64_nearest_tarn(benchmark::State& state) {
    to_int64_tarn<rounding::nearest_even>(state, {11, 52});
}
void BM_to_int64_toward_zero_tarn(benchmark::State& state) {
    to_int64_tarn<rounding::toward_zero>(state, {11, 52});
}
void BM_to_int64_binary16_tarn(benchmark::State& state) {
    to_int64_tarn<rounding::nearest_even>(state, {5, 10});
}

void BM_to_int64_nearest_llrint(benchmark::State& state) {
    static const std::vector<double> values = doubles();
    std::fesetround(FE_TONEAREST);
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(std::llrint(values[i++ & (sample_count - 1)]));
}
void BM_to_int64_toward_zero_static_cast(benchmark::State& state) {
    static const std::vector<double> values = doubles();
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(static_cast<std::int64_t>(values[i++ & (sample_count - 1)]));
}

void from_int64_tarn(benchmark::State& state, IEEEFloat::format f) {
    static const std::vector<std::int64_t> values = integers();
    std::size_t i = 0;
    for (auto _ : state) {
        IEEEFloat x = tarn::from_int64(values[i++ & (sample_count - 1)], f, rounding::nearest_even);
        benchmark::DoNotOptimize(x);
    }
}
void BM_from_int64_tarn(benchmark::State& state) {
    from_int64_tarn(state, {11, 52});
}
void BM_from_int64_binary16_tarn(benchmark::State& state) {
    from_int64_tarn(state, {5, 10});
}
void BM_from_int64_static_cast(benchmark::State& state) {
    static const std::vector<std::int64_t> values = integers();
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(static_cast<double>(values[i++ & (sample_count - 1)]));
}

BENCHMARK(BM_to_int64_nearest_tarn);
BENCHMARK(BM_to_int64_nearest_llrint);
BENCHMARK(BM_to_int64_toward_zero_tarn);
BENCHMARK(BM_to_int64_toward_zero_static_cast);
BENCHMARK(BM_to_int64_binary16_tarn);
BENCHMARK(BM_from_int64_tarn);
BENCHMARK(BM_from_int64_static_cast);
BENCHMARK(BM_from_int64_binary16_tarn);

void print_ratios(const tarn_bench::MedianTimes& times) {
    const char* pairs[][3] = {
        {"BM_to_int64_nearest_tarn", "BM_to_int64_nearest_llrint", "to_int64 / llrint"},
        {"BM_to_int64_toward_zero_tarn", "BM_to_int64_toward_zero_static_cast",
         "to_int64(toward_zero) / static_cast"},
        {"BM_from_int64_tarn", "BM_from_int64_static_cast", "from_int64 / static_cast"},
    };
    for (const auto& pair : pairs) {
        const double* tarn = times.find(pair[0]);
        const double* hardware = times.find(pair[1]);
        if (tarn && hardware) std::printf("ratio binary64 %s = %.2f\n", pair[2], *tarn / *hardware);
    }
}

} // namespace

int main(int argc, char** argv) {
    tarn_bench::MedianTimes times;
    if (!tarn_bench::run_benchmarks(argc, argv, times)) return 1;
    print_ratios(times);
    return 0;
}
