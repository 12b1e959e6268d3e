// Cost of long values in text: to_float_str of 1.5 (few digits out of a long
// exact expansion), the largest finite value (hundreds of thousands of
// significant digits) and the smallest subnormal (one digit after hundreds of
// thousands of zeros) in formats (20, m), to_str_digits of up to a million
// significant digits of 1/3, and from_string of numerals of up to a million
// digits. After the runs the growth of each case per tenfold size is
// printed: about 10 for a near-linear conversion, 100 for a quadratic one.

#include "bench/median_times.h"
#include "tarn/ieeefloat/ieeefloat.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <random>
#include <string>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr const char* value_names[] = {"one_and_half", "largest", "smallest_subnormal"};

IEEEFloat long_value(int which, unsigned long m) {
    const IEEEFloat::format f(20, m);
    if (which == 0) return IEEEFloat::from_string("1.5", f, IEEEFloat::ROUND_NEAREST_EVEN);
    if (which == 1) return IEEEFloat::max_value(f);
    return IEEEFloat::from_bits(QNumber(1L), f);
}

void BM_text(benchmark::State& state) {
    const IEEEFloat x =
        long_value(static_cast<int>(state.range(0)), static_cast<unsigned long>(state.range(1)));
    for (auto _ : state) {
        std::string text = x.to_float_str();
        benchmark::DoNotOptimize(text.data());
    }
}

/// The first n significant digits of 1/3 in (20, 4000000), whose exact
/// expansion runs to more than a million digits.
void BM_digits(benchmark::State& state) {
    const IEEEFloat::format f(20, 4000000);
    const auto mode = IEEEFloat::ROUND_NEAREST_EVEN;
    const IEEEFloat third =
        IEEEFloat::from_string("1", f, mode) / IEEEFloat::from_string("3", f, mode);
    for (auto _ : state) {
        std::string text = third.to_str_digits(static_cast<int>(state.range(0)), 'e');
        benchmark::DoNotOptimize(text.data());
    }
}

/// A numeral of n significant digits: random ones after "1." to read into
/// (20, 4000000), whose precision keeps every digit in play, or, for binary64,
/// the exact midpoint 1 + 2^-53 followed by zeros and a last 1, so that only
/// the final digit decides between the two neighbours and the whole numeral
/// has to be read exactly.
std::string numeral(bool binary64, long n) {
    if (binary64) {
        const std::string midpoint = "1.00000000000000011102230246251565404236316680908203125";
        return midpoint + std::string(static_cast<std::size_t>(n) - midpoint.size() + 1, '0') + "1";
    }
    std::mt19937 rng(static_cast<unsigned>(n));
    std::string text = "1.";
    for (long i = 1; i < n; ++i)
        text += static_cast<char>('0' + rng() % 10);
    return text + "1";
}

void BM_read(benchmark::State& state) {
    const bool binary64 = state.range(0) == 1;
    const std::string text = numeral(binary64, state.range(1));
    const IEEEFloat::format f =
        binary64 ? IEEEFloat::format::binary64() : IEEEFloat::format(20, 4000000);
    for (auto _ : state) {
        IEEEFloat x = IEEEFloat::from_string(text, f, IEEEFloat::ROUND_NEAREST_EVEN);
        benchmark::DoNotOptimize(x);
    }
}

BENCHMARK(BM_text)
    ->ArgsProduct({{0, 1, 2}, {1000, 10000, 100000, 1000000}})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.1);
BENCHMARK(BM_digits)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.1);
BENCHMARK(BM_read)
    ->ArgsProduct({{0, 1}, {10000, 100000, 1000000}})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.1);

/// The time of each case at one size over its time at the size ten times smaller.
void print_growth(const tarn_bench::MedianTimes& times) {
    // A kind below 0 stands for a benchmark with the size as its only argument.
    auto growth = [&](const std::string& name, int kind, long from, long to) {
        const std::string prefix = name + "/" + (kind < 0 ? "" : std::to_string(kind) + "/");
        const double* low = times.find(prefix + std::to_string(from) + "/min_time:0.100");
        const double* high = times.find(prefix + std::to_string(to) + "/min_time:0.100");
        if (low && high) std::printf(" %ld->%ld: %5.1f", from, to, *high / *low);
    };
    for (int which = 0; which < 3; ++which) {
        std::printf("growth to_float_str %-19s", value_names[which]);
        for (long m = 1000; m < 1000000; m *= 10)
            growth("BM_text", which, m, 10 * m);
        std::printf("\n");
    }
    std::printf("growth to_str_digits %-18s", "1/3, 'e'");
    for (long n = 1000; n < 1000000; n *= 10)
        growth("BM_digits", -1, n, 10 * n);
    std::printf("\n");
    for (int binary64 = 0; binary64 < 2; ++binary64) {
        std::printf("growth from_string %-20s", binary64 ? "binary64 midpoint" : "(20, 4000000)");
        growth("BM_read", binary64, 10000, 100000);
        growth("BM_read", binary64, 100000, 1000000);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv) {
    return tarn_bench::run_and_print(argc, argv, print_growth);
}
