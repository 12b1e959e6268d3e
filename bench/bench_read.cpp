// Speed of reading numerals with IEEEFloat::from_string, beside the C
// library's strtod, std::from_chars and MPFR reading into the emulated format
// (the test reference), on the same texts. After the runs the ratios are
// printed.
//
// The texts: binary64 values of everyday magnitude written as their shortest
// positional numerals ("short"); binary64 values uniform over all patterns
// written with 17 significant digits and an exponent ("sci17"); random
// 40-digit numerals of binary64 range ("long"); binary32 values with 9
// digits; and 36-digit numerals for the (15, 112) format, read generically.

#include "bench/median_times.h"
#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/oracle.h"

#include <benchmark/benchmark.h>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr std::size_t sample_count = 4096; // a power of two

const IEEEFloat::format binary32{8, 23}, binary64{11, 52}, quad{15, 112};

double random_double(std::mt19937_64& rng, bool everyday) {
    for (;;) {
        std::uint64_t bits = rng();
        if (everyday) bits = (bits & 0x800FFFFFFFFFFFFFULL) | (1006 + rng() % 67) << 52;
        if (((bits >> 52) & 0x7FF) == 0x7FF) continue;
        double v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
}

/// The shortest positional numerals of everyday binary64 values, as the
/// library writes them.
std::vector<std::string> short_numerals() {
    std::mt19937_64 rng(11);
    std::vector<std::string> out;
    while (out.size() < sample_count) {
        const double v = random_double(rng, true);
        std::uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        QNumber q(static_cast<long>(bits >> 1));
        q *= 2L;
        q += static_cast<long>(bits & 1);
        out.push_back(IEEEFloat::from_bits(q, binary64).to_float_str());
    }
    return out;
}

/// printf("%.*e") of random values: uniform over the patterns of binary64,
/// or of binary32.
std::vector<std::string> scientific_numerals(int digits, bool single) {
    std::mt19937_64 rng(single ? 12 : 13);
    std::vector<std::string> out;
    char buffer[64];
    while (out.size() < sample_count) {
        double v = random_double(rng, false);
        if (single) {
            const auto word = static_cast<std::uint32_t>(rng());
            if (((word >> 23) & 0xFF) == 0xFF) continue;
            float f;
            std::memcpy(&f, &word, sizeof f);
            v = f;
        }
        std::snprintf(buffer, sizeof buffer, "%.*e", digits - 1, v);
        out.push_back(buffer);
    }
    return out;
}

/// Random numerals of `digits` significant digits with exponents in
/// [-max_exponent, max_exponent].
std::vector<std::string> long_numerals(int digits, int max_exponent, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<std::string> out;
    while (out.size() < sample_count) {
        std::string text = std::to_string(1 + rng() % 9) + ".";
        for (int i = 1; i < digits; ++i)
            text += static_cast<char>('0' + rng() % 10);
        text +=
            "e" + std::to_string(static_cast<int>(rng() % (2 * max_exponent + 1)) - max_exponent);
        out.push_back(text);
    }
    return out;
}

const std::vector<std::string>& numerals(const std::string& set) {
    static const std::vector<std::string> short_set = short_numerals();
    static const std::vector<std::string> sci17 = scientific_numerals(17, false);
    static const std::vector<std::string> long_set = long_numerals(40, 300, 14);
    static const std::vector<std::string> single9 = scientific_numerals(9, true);
    static const std::vector<std::string> quad36 = long_numerals(36, 4900, 15);
    if (set == "short") return short_set;
    if (set == "sci17") return sci17;
    if (set == "long") return long_set;
    if (set == "binary32") return single9;
    return quad36;
}

IEEEFloat::format format_of(const std::string& set) {
    return set == "binary32" ? binary32 : set == "quad36" ? quad : binary64;
}

void BM_tarn(benchmark::State& state, const std::string& set) {
    const auto& texts = numerals(set);
    const IEEEFloat::format f = format_of(set);
    std::size_t i = 0;
    for (auto _ : state) {
        IEEEFloat x = IEEEFloat::from_string(texts[i++ & (sample_count - 1)], f,
                                             IEEEFloat::ROUND_NEAREST_EVEN);
        benchmark::DoNotOptimize(x);
    }
}

void BM_strtod(benchmark::State& state, const std::string& set) {
    const auto& texts = numerals(set);
    const bool single = set == "binary32";
    std::size_t i = 0;
    for (auto _ : state) {
        const char* text = texts[i++ & (sample_count - 1)].c_str();
        if (single) {
            float v = std::strtof(text, nullptr);
            benchmark::DoNotOptimize(v);
        } else {
            double v = std::strtod(text, nullptr);
            benchmark::DoNotOptimize(v);
        }
    }
}

void BM_from_chars(benchmark::State& state, const std::string& set) {
    const auto& texts = numerals(set);
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string& text = texts[i++ & (sample_count - 1)];
        double v;
        auto result = std::from_chars(text.data(), text.data() + text.size(), v);
        benchmark::DoNotOptimize(v);
        benchmark::DoNotOptimize(result.ptr);
    }
}

/// MPFR at the format's precision and exponent range, subnormals included.
void BM_mpfr(benchmark::State& state, const std::string& set) {
    const auto& texts = numerals(set);
    const IEEEFloat::format f = format_of(set);
    oracle::Emulator emulator(
        {static_cast<unsigned>(f.exponent_width), static_cast<unsigned>(f.mantissa_width)});
    mpz_class bits;
    std::size_t i = 0;
    for (auto _ : state) {
        emulator.read(bits, texts[i++ & (sample_count - 1)], oracle::NEAREST_EVEN);
        benchmark::DoNotOptimize(bits.get_mpz_t());
    }
}

void register_all() {
    for (const char* set : {"short", "sci17", "long", "binary32", "quad36"}) {
        const std::string name(set);
        benchmark::RegisterBenchmark(("BM_" + name + "_tarn").c_str(), BM_tarn, name);
        if (name != "quad36")
            benchmark::RegisterBenchmark(("BM_" + name + "_strtod").c_str(), BM_strtod, name);
        if (name != "quad36" && name != "binary32")
            benchmark::RegisterBenchmark(("BM_" + name + "_from_chars").c_str(), BM_from_chars,
                                         name);
        benchmark::RegisterBenchmark(("BM_" + name + "_mpfr").c_str(), BM_mpfr, name);
    }
}

void print_ratios(const tarn_bench::MedianTimes& times) {
    for (const char* set : {"short", "sci17", "long", "binary32", "quad36"}) {
        const std::string base = std::string("BM_") + set;
        const double* tarn = times.find(base + "_tarn");
        if (!tarn) continue;
        for (const char* other : {"strtod", "from_chars", "mpfr"}) {
            const double* t = times.find(base + "_" + other);
            if (t) std::printf("ratio %-9s from_string / %-10s = %.2f\n", set, other, *tarn / *t);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    register_all();
    return tarn_bench::run_and_print(argc, argv, print_ratios);
}
