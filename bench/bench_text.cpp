// Speed of the shortest decimal text beside the standard library's shortest
// fixed notation (std::to_chars with std::chars_format::fixed) on the same
// binary64 and binary32 values, and of the text of generic formats; the
// hexadecimal text beside printf's %a. After the runs the ratios are printed.

#include "bench/median_times.h"
#include "tarn/ieeefloat/ieeefloat.h"

#include <benchmark/benchmark.h>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr std::size_t sample_count = 4096; // a power of two

/// Random finite binary64 patterns: uniform over all bits ("all"), or with
/// the exponent drawn so that the magnitudes lie between about 1e-5 and 1e15,
/// where everyday numbers live ("everyday").
std::vector<std::uint64_t> binary64_patterns(bool everyday) {
    std::mt19937_64 rng(everyday ? 2 : 1);
    std::vector<std::uint64_t> out;
    while (out.size() < sample_count) {
        std::uint64_t bits = rng();
        if (everyday) bits = (bits & 0x800FFFFFFFFFFFFFULL) | (1006 + rng() % 67) << 52;
        if (((bits >> 52) & 0x7FF) != 0x7FF) out.push_back(bits);
    }
    return out;
}

std::vector<std::uint32_t> binary32_patterns() {
    std::mt19937_64 rng(3);
    std::vector<std::uint32_t> out;
    while (out.size() < sample_count) {
        const auto bits = static_cast<std::uint32_t>(rng());
        if (((bits >> 23) & 0xFF) != 0xFF) out.push_back(bits);
    }
    return out;
}

QNumber integer(std::uint64_t bits) {
    QNumber q(static_cast<long>(bits >> 1));
    q *= 2L;
    q += static_cast<long>(bits & 1);
    return q;
}

template <class Word>
std::vector<IEEEFloat> values_of(const std::vector<Word>& patterns, IEEEFloat::format f) {
    std::vector<IEEEFloat> out;
    for (const Word bits : patterns)
        out.push_back(IEEEFloat::from_bits(integer(bits), f));
    return out;
}

void text_of_values(benchmark::State& state, const std::vector<IEEEFloat>& values) {
    std::size_t i = 0;
    for (auto _ : state) {
        std::string text = values[i++ & (sample_count - 1)].to_float_str();
        benchmark::DoNotOptimize(text.data());
    }
}

template <class Float, class Word>
void to_chars_of(benchmark::State& state, const std::vector<Word>& patterns) {
    std::vector<Float> values;
    for (const Word bits : patterns) {
        Float v;
        std::memcpy(&v, &bits, sizeof v);
        values.push_back(v);
    }
    char buffer[400];
    std::size_t i = 0;
    for (auto _ : state) {
        auto result = std::to_chars(buffer, buffer + sizeof buffer,
                                    values[i++ & (sample_count - 1)], std::chars_format::fixed);
        benchmark::DoNotOptimize(result.ptr);
        benchmark::ClobberMemory();
    }
}

void BM_binary64_all_tarn(benchmark::State& state) {
    static const auto values = values_of(binary64_patterns(false), {11, 52});
    text_of_values(state, values);
}
void BM_binary64_all_to_chars(benchmark::State& state) {
    to_chars_of<double>(state, binary64_patterns(false));
}
void BM_binary64_everyday_tarn(benchmark::State& state) {
    static const auto values = values_of(binary64_patterns(true), {11, 52});
    text_of_values(state, values);
}
void BM_binary64_everyday_to_chars(benchmark::State& state) {
    to_chars_of<double>(state, binary64_patterns(true));
}
void BM_binary32_all_tarn(benchmark::State& state) {
    static const auto values = values_of(binary32_patterns(), {8, 23});
    text_of_values(state, values);
}
void BM_binary32_all_to_chars(benchmark::State& state) {
    to_chars_of<float>(state, binary32_patterns());
}
/// binary64 patterns held generically: the same digits from a packed integer.
void BM_binary64_all_generic_tarn(benchmark::State& state) {
    static const auto values = [] {
        auto out = values_of(binary64_patterns(false), {11, 52});
        for (IEEEFloat& v : out)
            v.self_specialize_repr(IEEEFloat::REPR_GENERIC);
        return out;
    }();
    text_of_values(state, values);
}
/// Random finite values of a format, from patterns `draw` makes out of the
/// random generator.
template <class Draw>
std::vector<IEEEFloat> random_finite_values(IEEEFloat::format f, std::uint64_t seed, Draw draw) {
    std::mt19937_64 rng(seed);
    std::vector<IEEEFloat> out;
    while (out.size() < sample_count) {
        IEEEFloat v = IEEEFloat::from_bits(draw(rng), f);
        if (!v.is_nan() && !v.is_inf()) out.push_back(v);
    }
    return out;
}

/// binary16 and a quadruple-precision-like format, for scale.
void BM_binary16_all_tarn(benchmark::State& state) {
    static const auto values = random_finite_values(
        {5, 10}, 4, [](std::mt19937_64& rng) { return integer(rng() & 0xFFFF); });
    text_of_values(state, values);
}
/// Random finite values of a quadruple-precision-like format, from 127
/// random bits.
const std::vector<IEEEFloat>& binary128_values() {
    static const auto values = random_finite_values({15, 112}, 5, [](std::mt19937_64& rng) {
        QNumber bits = integer(rng() >> 1); // 127 random bits
        bits *= integer(std::uint64_t{1} << 62);
        bits *= 4L;
        bits += integer(rng());
        return bits;
    });
    return values;
}
void BM_binary128_all_tarn(benchmark::State& state) {
    text_of_values(state, binary128_values());
}

/// The hexadecimal text, beside the C library's %a on the same binary64 values.
void hex_of_values(benchmark::State& state, const std::vector<IEEEFloat>& values) {
    std::size_t i = 0;
    for (auto _ : state) {
        std::string text = values[i++ & (sample_count - 1)].to_hex_str();
        benchmark::DoNotOptimize(text.data());
    }
}
void BM_binary64_hex_tarn(benchmark::State& state) {
    static const auto values = values_of(binary64_patterns(false), {11, 52});
    hex_of_values(state, values);
}
void BM_binary64_hex_printf(benchmark::State& state) {
    std::vector<double> values;
    for (const std::uint64_t bits : binary64_patterns(false)) {
        double v;
        std::memcpy(&v, &bits, sizeof v);
        values.push_back(v);
    }
    char buffer[64];
    std::size_t i = 0;
    for (auto _ : state) {
        const int length =
            std::snprintf(buffer, sizeof buffer, "%a", values[i++ & (sample_count - 1)]);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
}
void BM_binary128_hex_tarn(benchmark::State& state) {
    hex_of_values(state, binary128_values());
}

BENCHMARK(BM_binary64_all_tarn);
BENCHMARK(BM_binary64_all_to_chars);
BENCHMARK(BM_binary64_everyday_tarn);
BENCHMARK(BM_binary64_everyday_to_chars);
BENCHMARK(BM_binary32_all_tarn);
BENCHMARK(BM_binary32_all_to_chars);
BENCHMARK(BM_binary64_all_generic_tarn);
BENCHMARK(BM_binary16_all_tarn);
BENCHMARK(BM_binary128_all_tarn);
BENCHMARK(BM_binary64_hex_tarn);
BENCHMARK(BM_binary64_hex_printf);
BENCHMARK(BM_binary128_hex_tarn);

/// Remembers the time per iteration of every run so that ratios can be
/// printed once all have finished.
/// to_float_str beside std::to_chars, per set of values.
void print_ratios(const tarn_bench::MedianTimes& times) {
    for (const char* set : {"binary64_all", "binary64_everyday", "binary32_all"}) {
        const double* tarn = times.find(std::string("BM_") + set + "_tarn");
        const double* std_ = times.find(std::string("BM_") + set + "_to_chars");
        if (!tarn || !std_) continue;
        std::printf("ratio %-18s to_float_str / std::to_chars(fixed) = %.2f\n", set, *tarn / *std_);
    }
    const double* hex = times.find("BM_binary64_hex_tarn");
    const double* printf_hex = times.find("BM_binary64_hex_printf");
    if (hex && printf_hex)
        std::printf("ratio %-18s to_hex_str / printf(%%a) = %.2f\n", "binary64_all",
                    *hex / *printf_hex);
}

} // namespace

int main(int argc, char** argv) {
    return tarn_bench::run_and_print(argc, argv, print_ratios);
}
