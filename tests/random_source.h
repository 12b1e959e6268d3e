// A seeded stand-in for libFuzzer's FuzzedDataProvider, so that the checks the
// fuzz targets run on the fuzzer's bytes also run under CTest, deterministically,
// in builds (g++) that have no libFuzzer headers. It offers the part of the
// provider's interface the shared checks use; `remaining_bytes` counts down a
// budget, so loops that read "while there are bytes" end as they do on a real
// input. `consume_bits` reads wide integers from either source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <gmpxx.h>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

namespace tarn_testing {

class RandomSource {
public:
    RandomSource(std::uint64_t seed, std::size_t budget) : rng_(seed), budget_(budget) {}

    bool ConsumeBool() { return ConsumeIntegralInRange<unsigned char>(0, 1) != 0; }

    /// Uniform in [lo, hi], whole range of T allowed.
    template <class T>
    T ConsumeIntegralInRange(T lo, T hi) {
        using U = std::make_unsigned_t<T>;
        take(sizeof(T));
        const std::uint64_t span = static_cast<U>(static_cast<U>(hi) - static_cast<U>(lo));
        const std::uint64_t draw = rng_(), offset = span == UINT64_MAX ? draw : draw % (span + 1);
        return static_cast<T>(static_cast<U>(lo) + static_cast<U>(offset));
    }

    template <class T>
    T ConsumeIntegral() {
        return ConsumeIntegralInRange<T>(std::numeric_limits<T>::min(),
                                         std::numeric_limits<T>::max());
    }

    std::string ConsumeBytesAsString(std::size_t n) {
        std::string bytes(n < budget_ ? n : budget_, '\0');
        take(bytes.size());
        for (char& c : bytes)
            c = static_cast<char>(rng_());
        return bytes;
    }

    std::size_t remaining_bytes() const { return budget_; }

private:
    void take(std::size_t n) { budget_ = n < budget_ ? budget_ - n : 0; }

    std::mt19937_64 rng_;
    std::size_t budget_;
};

/// A non-negative integer of at most `bits` bits made of the next bytes of
/// `in` (a RandomSource or a FuzzedDataProvider); fewer when the input runs out.
template <class Source>
mpz_class consume_bits(Source& in, unsigned long bits) {
    const std::string raw = in.ConsumeBytesAsString((bits + 7) / 8);
    mpz_class z;
    mpz_import(z.get_mpz_t(), raw.size(), 1, 1, 0, 0, raw.data());
    mpz_fdiv_r_2exp(z.get_mpz_t(), z.get_mpz_t(), bits);
    return z;
}

} // namespace tarn_testing
