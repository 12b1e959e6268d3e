// Bulk conversion of float32 arrays of 10^7 elements into the low-precision
// encodings (one thread, nearest-even, saturating; stochastic; two threads;
// from doubles) and back, beside the CPU's own float-to-binary16 conversion
// (F16C) over the same array.
// After the runs, nanoseconds per element and the ratios to the hardware.

#include "bench/median_times.h"
#include "tarn/lowp/lowp.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <random>
#include <vector>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define TARN_BENCH_F16C 1
#endif

namespace {

constexpr std::size_t count = 10'000'000;

/// Values within a few dozen binades of 1, both signs: the common case.
const std::vector<float>& inputs() {
    static const std::vector<float> v = [] {
        std::mt19937 gen(42);
        std::uniform_real_distribution<float> mantissa(1.0f, 2.0f);
        std::uniform_int_distribution<int> exponent(-20, 10), sign(0, 1);
        std::vector<float> out(count);
        for (float& x : out)
            x = std::ldexp(mantissa(gen), exponent(gen)) * (sign(gen) ? -1.0f : 1.0f);
        return out;
    }();
    return v;
}

template <class Out>
void run(benchmark::State& state, const char* name, bool random, unsigned threads) {
    const tarn::encoding e = *tarn::encoding::by_name(name);
    const std::vector<float>& in = inputs();
    std::vector<Out> out(count);
    for (auto _ : state) {
        if (random)
            tarn::quantize(in.data(), count, out.data(), e, tarn::stochastic{7},
                           tarn::overflow::saturate, threads);
        else
            tarn::quantize(in.data(), count, out.data(), e, tarn::rounding::nearest_even,
                           tarn::overflow::saturate, threads);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}

void BM_e4m3fn_from_double(benchmark::State& state) {
    const tarn::encoding e = *tarn::encoding::by_name("float8_e4m3fn");
    const std::vector<double> in(inputs().begin(), inputs().end());
    std::vector<std::uint8_t> out(count);
    for (auto _ : state) {
        tarn::quantize(in.data(), count, out.data(), e, tarn::rounding::nearest_even,
                       tarn::overflow::saturate);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}

void BM_e4m3fn_dequantize(benchmark::State& state) {
    const tarn::encoding e = *tarn::encoding::by_name("float8_e4m3fn");
    std::vector<std::uint8_t> in(count);
    tarn::quantize(inputs().data(), count, in.data(), e, tarn::rounding::nearest_even,
                   tarn::overflow::saturate);
    std::vector<float> out(count);
    for (auto _ : state) {
        tarn::dequantize(in.data(), count, out.data(), e);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}

void BM_e4m3fn(benchmark::State& s) {
    run<std::uint8_t>(s, "float8_e4m3fn", false, 1);
}
void BM_e5m2(benchmark::State& s) {
    run<std::uint8_t>(s, "float8_e5m2", false, 1);
}
void BM_binary16(benchmark::State& s) {
    run<std::uint16_t>(s, "float16", false, 1);
}
void BM_bfloat16(benchmark::State& s) {
    run<std::uint16_t>(s, "bfloat16", false, 1);
}
void BM_e4m3fn_stochastic(benchmark::State& s) {
    run<std::uint8_t>(s, "float8_e4m3fn", true, 1);
}
void BM_e4m3fn_2_threads(benchmark::State& s) {
    run<std::uint8_t>(s, "float8_e4m3fn", false, 2);
}

#ifdef TARN_BENCH_F16C
/// The hardware's conversion, eight at a time, nearest-even.
__attribute__((target("avx,f16c"))) void BM_hardware_binary16(benchmark::State& state) {
    const std::vector<float>& in = inputs();
    std::vector<std::uint16_t> out(count);
    for (auto _ : state) {
        for (std::size_t i = 0; i + 8 <= count; i += 8)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(&out[i]),
                             _mm256_cvtps_ph(_mm256_loadu_ps(&in[i]), _MM_FROUND_TO_NEAREST_INT));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}
BENCHMARK(BM_hardware_binary16);
#endif

BENCHMARK(BM_e4m3fn);
BENCHMARK(BM_e5m2);
BENCHMARK(BM_binary16);
BENCHMARK(BM_bfloat16);
BENCHMARK(BM_e4m3fn_stochastic);
BENCHMARK(BM_e4m3fn_2_threads)->UseRealTime();
BENCHMARK(BM_e4m3fn_from_double);
BENCHMARK(BM_e4m3fn_dequantize);

void print_ratios(const tarn_bench::MedianTimes& times) {
    const double* hardware = times.find("BM_hardware_binary16");
    for (const auto& [name, ns] : times.all()) {
        std::printf("%-26s %6.3f ns per element", name.c_str(), ns / count);
        if (hardware) std::printf("  %5.2fx the hardware binary16", ns / *hardware);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    return tarn_bench::run_and_print(argc, argv, print_ratios);
}
