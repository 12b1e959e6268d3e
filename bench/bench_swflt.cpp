// Throughput of the soft-float operations against the same operations on the host FPU, on the
// same operands: ordinary normal numbers within a few dozen binades of 1 (the common case;
// subnormal, NaN and infinity paths are not timed), rounding to nearest.
//
// After the usual Google Benchmark output a table gives the nanoseconds per operation of both
// sides and their ratio (the medians when run with --benchmark_repetitions). Each iteration is
// one operation on the next operand pair, so both sides carry the same loop overhead.

#include "bench/median_times.h"
#include "tarn/swflt/swflt.h"

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

namespace sw = tarn::swflt;

constexpr std::size_t operand_count = 1024; // a power of two, small enough to stay in L1

template <class To, class From>
To bit_cast(From from) {
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

// Positive and negative normal numbers with exponents within 30 binades of 1.
template <class Word>
std::vector<Word> operands(std::uint64_t seed, bool positive) {
    constexpr int mantissa_bits = sizeof(Word) == 4 ? 23 : 52;
    constexpr int bias = sizeof(Word) == 4 ? 127 : 1023;
    std::mt19937_64 rng(seed);
    std::vector<Word> words(operand_count);
    for (Word& w : words) {
        auto const exp = static_cast<Word>(bias - 30 + static_cast<int>(rng() % 61));
        Word const man = static_cast<Word>(rng()) & ((Word(1) << mantissa_bits) - 1);
        Word const sign = positive ? 0 : static_cast<Word>(rng() & 1);
        w = (sign << (sizeof(Word) * 8 - 1)) | (exp << mantissa_bits) | man;
    }
    return words;
}

template <class Word, class Op>
void run_binary(benchmark::State& state, Op op) {
    std::vector<Word> const a = operands<Word>(1, false);
    std::vector<Word> const b = operands<Word>(2, false);
    std::size_t i = 0;
    for (auto _ : state) {
        auto r = op(a[i], b[i]);
        benchmark::DoNotOptimize(r);
        i = (i + 1) & (operand_count - 1);
    }
}

template <class Word, class Op>
void run_ternary(benchmark::State& state, Op op) {
    std::vector<Word> const a = operands<Word>(1, false);
    std::vector<Word> const b = operands<Word>(2, false);
    std::vector<Word> const c = operands<Word>(4, false);
    std::size_t i = 0;
    for (auto _ : state) {
        auto r = op(a[i], b[i], c[i]);
        benchmark::DoNotOptimize(r);
        i = (i + 1) & (operand_count - 1);
    }
}

template <class Word, class Op>
void run_unary(benchmark::State& state, Op op) {
    std::vector<Word> const a = operands<Word>(3, true);
    std::size_t i = 0;
    for (auto _ : state) {
        auto r = op(a[i]);
        benchmark::DoNotOptimize(r);
        i = (i + 1) & (operand_count - 1);
    }
}

using W32 = std::uint32_t;
using W64 = std::uint64_t;

float f32(W32 w) {
    return bit_cast<float>(w);
}
double f64(W64 w) {
    return bit_cast<double>(w);
}

#define BINARY(name, Word, soft_call, hard_expr)                                                   \
    void soft_##name(benchmark::State& s) {                                                        \
        run_binary<Word>(s, [](Word a, Word b) { return soft_call(a, b, 0); });                    \
    }                                                                                              \
    void hard_##name(benchmark::State& s) {                                                        \
        run_binary<Word>(s, [](Word a, Word b) { return hard_expr; });                             \
    }                                                                                              \
    BENCHMARK(soft_##name);                                                                        \
    BENCHMARK(hard_##name);

BINARY(add32, W32, sw::float32_add, f32(a) + f32(b))
BINARY(sub32, W32, sw::float32_sub, f32(a) - f32(b))
BINARY(mul32, W32, sw::float32_mul, f32(a) * f32(b))
BINARY(div32, W32, sw::float32_div, f32(a) / f32(b))
BINARY(add64, W64, sw::float64_add, f64(a) + f64(b))
BINARY(sub64, W64, sw::float64_sub, f64(a) - f64(b))
BINARY(mul64, W64, sw::float64_mul, f64(a) * f64(b))
BINARY(div64, W64, sw::float64_div, f64(a) / f64(b))
BINARY(
    lt32, W32, [](W32 x, W32 y, int) { return sw::float32_lt(x, y); }, f32(a) < f32(b))
BINARY(
    lt64, W64, [](W64 x, W64 y, int) { return sw::float64_lt(x, y); }, f64(a) < f64(b))

#define UNARY(name, Word, soft_expr, hard_expr)                                                    \
    void soft_##name(benchmark::State& s) {                                                        \
        run_unary<Word>(s, [](Word a) { return soft_expr; });                                      \
    }                                                                                              \
    void hard_##name(benchmark::State& s) {                                                        \
        run_unary<Word>(s, [](Word a) { return hard_expr; });                                      \
    }                                                                                              \
    BENCHMARK(soft_##name);                                                                        \
    BENCHMARK(hard_##name);

UNARY(sqrt32, W32, sw::float32_sqrt(a, 0), std::sqrt(f32(a)))
UNARY(sqrt64, W64, sw::float64_sqrt(a, 0), std::sqrt(f64(a)))
UNARY(narrow, W64, sw::float64_to_float32(a, 0), static_cast<float>(f64(a)))
UNARY(widen, W32, sw::float32_to_float64(a), static_cast<double>(f32(a)))

// The fused operation against a multiplication followed by an addition, on both sides.
#define TERNARY(name, Word, soft_expr, hard_expr)                                                  \
    void soft_##name(benchmark::State& s) {                                                        \
        run_ternary<Word>(s, [](Word a, Word b, Word c) { return soft_expr; });                    \
    }                                                                                              \
    void hard_##name(benchmark::State& s) {                                                        \
        run_ternary<Word>(s, [](Word a, Word b, Word c) { return hard_expr; });                    \
    }                                                                                              \
    BENCHMARK(soft_##name);                                                                        \
    BENCHMARK(hard_##name);

TERNARY(fma32, W32, sw::float32_mul_add(a, b, c, 0), std::fma(f32(a), f32(b), f32(c)))
TERNARY(mul_add32, W32, sw::float32_add(sw::float32_mul(a, b, 0), c, 0), f32(a) * f32(b) + f32(c))
TERNARY(fma64, W64, sw::float64_mul_add(a, b, c, 0), std::fma(f64(a), f64(b), f64(c)))
TERNARY(mul_add64, W64, sw::float64_add(sw::float64_mul(a, b, 0), c, 0), f64(a) * f64(b) + f64(c))

// Prints the usual console output, then a soft/hard table from the same runs.
/// One row per operation: the soft-float time, the hardware time, their ratio.
void print_ratios(const tarn_bench::MedianTimes& times) {
    std::printf("\n%-8s %10s %10s %8s\n", "op", "soft ns", "hard ns", "ratio");
    for (const auto& [name, soft_ns] : times.all()) {
        if (name.compare(0, 5, "soft_") != 0) continue;
        const std::string op = name.substr(5);
        const double* hard_ns = times.find("hard_" + op);
        if (!hard_ns) continue;
        std::printf("%-8s %10.2f %10.2f %7.1fx\n", op.c_str(), soft_ns, *hard_ns,
                    soft_ns / *hard_ns);
    }
    // A fused multiply-add should cost little more than the two operations it replaces.
    for (const char* width : {"32", "64"}) {
        const double* fused = times.find(std::string("soft_fma") + width);
        const double* apart = times.find(std::string("soft_mul_add") + width);
        if (fused && apart) std::printf("fma%s / (mul then add): %.2f\n", width, *fused / *apart);
    }
}

} // namespace

int main(int argc, char** argv) {
    tarn_bench::MedianTimes times;
    if (!tarn_bench::run_benchmarks(argc, argv, times)) return 1;
    print_ratios(times);
    return 0;
}
