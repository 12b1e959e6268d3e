// MX block scaling of 10^7 float32 values, blocks of 32, into float8_e4m3fn and
// float4_e2m1fn elements (one thread), beside the plain bulk conversion of the
// same array into the same encodings, which has no scales to find. After the
// runs, nanoseconds per element and what the scales cost on top.

#include "bench/median_times.h"
#include "tarn/lowp/lowp.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t count = 10'000'000, block = 32;

/// Normally distributed, as weights and activations are, with the spread
/// drifting over the array so that neighbouring blocks get different scales.
const std::vector<float>& inputs() {
    static const std::vector<float> v = [] {
        std::mt19937 gen(7);
        std::normal_distribution<float> normal(0.0f, 1.0f);
        std::vector<float> out(count);
        for (std::size_t i = 0; i < count; ++i)
            out[i] = normal(gen) * static_cast<float>(1 + i % 4096) / 64.0f;
        return out;
    }();
    return v;
}

void run(benchmark::State& state, const char* name, bool scaled) {
    const tarn::encoding e = *tarn::encoding::by_name(name);
    const std::vector<float>& in = inputs();
    std::vector<std::uint8_t> elements(count), scales(count / block);
    for (auto _ : state) {
        if (scaled)
            tarn::mx_quantize(in.data(), count, block, e, elements.data(), scales.data());
        else
            tarn::quantize(in.data(), count, elements.data(), e, tarn::rounding::nearest_even,
                           tarn::overflow::saturate);
        benchmark::DoNotOptimize(elements.data());
        benchmark::DoNotOptimize(scales.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}

void BM_mx_e4m3fn(benchmark::State& s) {
    run(s, "float8_e4m3fn", true);
}
void BM_mx_e2m1fn(benchmark::State& s) {
    run(s, "float4_e2m1fn", true);
}
void BM_plain_e4m3fn(benchmark::State& s) {
    run(s, "float8_e4m3fn", false);
}
void BM_plain_e2m1fn(benchmark::State& s) {
    run(s, "float4_e2m1fn", false);
}
BENCHMARK(BM_mx_e4m3fn);
BENCHMARK(BM_mx_e2m1fn);
BENCHMARK(BM_plain_e4m3fn);
BENCHMARK(BM_plain_e2m1fn);

void print_ratios(const tarn_bench::MedianTimes& times) {
    for (const char* name : {"e4m3fn", "e2m1fn"}) {
        const double* mx = times.find(std::string("BM_mx_") + name);
        const double* plain = times.find(std::string("BM_plain_") + name);
        if (!mx) continue;
        std::printf("%-8s MX blocks of %zu: %6.3f ns per element", name, block, *mx / count);
        if (plain) std::printf(", %5.2fx the plain conversion", *mx / *plain);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    return tarn_bench::run_and_print(argc, argv, print_ratios);
}
