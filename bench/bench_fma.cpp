// tarn's fused multiply-add against MPFR's mpfr_fma emulating the same format
// (precision m + 1, the format's exponent range, subnormals by
// mpfr_subnormalize), on the same finite operands. Both sides start from three
// bit patterns and end with one: tarn builds its values with from_bits and
// reads the result with get_bits; MPFR decodes the patterns into registers,
// fuses, subnormalises and encodes the result. A quarter of the addends cancel
// the product to within a few units, the case where the exact sum matters most.
// The table at the end gives tarn / MPFR (below 1 means tarn is faster).

#include "bench/median_times.h"
#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/operands.h"
#include "tests/oracle/oracle.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdio>
#include <gmpxx.h>
#include <mpfr.h>
#include <string>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr std::size_t operand_count = 1024;

struct BenchFormat {
    const char* name;
    unsigned e, m;
};

const BenchFormat formats[] = {
    {"fp8(4,3)", 4, 3},
    {"binary16", 5, 10},
    {"bfloat16", 8, 7},
    {"binary128", 15, 112},
};

struct Triples {
    std::vector<mpz_class> a, b, c;
    std::vector<QNumber> qa, qb, qc;
};

const Triples& triples_for(const BenchFormat& f) {
    static std::vector<std::pair<const BenchFormat*, Triples>> cache;
    for (const auto& entry : cache)
        if (entry.first == &f) return entry.second;
    const oracle::Format of{f.e, f.m};
    oracle::OperandGenerator gen(of, 42);
    Triples t;
    while (t.a.size() < operand_count) {
        const auto [a, b] = gen.pair(oracle::Operation::Mul);
        mpz_class c = gen.pair(oracle::Operation::Add).first;
        if (t.a.size() % 4 == 0) {
            // -(a * b) rounded, moved by up to two units: heavy cancellation.
            const IEEEFloat p = tarn::mul(IEEEFloat::from_bits(QNumber(a), {f.e, f.m}),
                                          IEEEFloat::from_bits(QNumber(b), {f.e, f.m}),
                                          tarn::rounding::nearest_even);
            c = p.get_bits().to_mpz() ^ oracle::pow2(f.e + f.m);
            c += static_cast<long>(t.a.size() % 5) - 2;
        }
        if (!oracle::is_finite(of, a) || !oracle::is_finite(of, b) || !oracle::is_finite(of, c) ||
            c < 0)
            continue;
        t.a.push_back(a);
        t.b.push_back(b);
        t.c.push_back(c);
        t.qa.emplace_back(a);
        t.qb.emplace_back(b);
        t.qc.emplace_back(c);
    }
    cache.emplace_back(&f, std::move(t));
    return cache.back().second;
}

void tarn_fma(benchmark::State& state, const BenchFormat& f) {
    const Triples& t = triples_for(f);
    const IEEEFloat::format fmt{f.e, f.m};
    std::size_t i = 0;
    for (auto _ : state) {
        const IEEEFloat r =
            tarn::fma(IEEEFloat::from_bits(t.qa[i], fmt), IEEEFloat::from_bits(t.qb[i], fmt),
                      IEEEFloat::from_bits(t.qc[i], fmt));
        benchmark::DoNotOptimize(r.get_bits());
        i = (i + 1) % operand_count;
    }
}

/// mpfr_fma on patterns held in machine words, registers set up once.
class WordFma {
public:
    explicit WordFma(const BenchFormat& f)
        : m_(f.m), sign_shift_(f.e + f.m), bias_((1L << (f.e - 1)) - 1),
          field_mask_((std::uint64_t{1} << f.e) - 1) {
        mpfr_inits2(static_cast<mpfr_prec_t>(f.m) + 1, x_[0], x_[1], x_[2], r_,
                    static_cast<mpfr_ptr>(nullptr));
    }
    ~WordFma() { mpfr_clears(x_[0], x_[1], x_[2], r_, static_cast<mpfr_ptr>(nullptr)); }
    WordFma(const WordFma&) = delete;
    WordFma& operator=(const WordFma&) = delete;

    /// a * b + c to nearest; finite operands only.
    std::uint64_t fma(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
        mpfr_set_emin(2 - bias_ - static_cast<long>(m_));
        mpfr_set_emax(bias_ + 1);
        load(x_[0], a);
        load(x_[1], b);
        load(x_[2], c);
        const int t = mpfr_fma(r_, x_[0], x_[1], x_[2], MPFR_RNDN);
        mpfr_subnormalize(r_, t, MPFR_RNDN);
        return store(r_);
    }

private:
    void load(mpfr_ptr dst, std::uint64_t bits) const {
        const std::uint64_t field = (bits >> m_) & field_mask_;
        const std::uint64_t fraction = bits & ((std::uint64_t{1} << m_) - 1);
        const long shift = (field == 0 ? 1 : static_cast<long>(field)) - bias_ - m_;
        mpfr_set_ui_2exp(dst, field == 0 ? fraction : fraction | std::uint64_t{1} << m_, shift,
                         MPFR_RNDN);
        if (bits >> sign_shift_) mpfr_neg(dst, dst, MPFR_RNDN);
    }

    std::uint64_t store(mpfr_srcptr v) const {
        const std::uint64_t sign = mpfr_signbit(v) ? std::uint64_t{1} << sign_shift_ : 0;
        if (mpfr_inf_p(v)) return sign | field_mask_ << m_;
        if (mpfr_zero_p(v)) return sign;
        const long biased = mpfr_get_exp(v) - 1 + bias_;
        const auto limb = static_cast<const mp_limb_t*>(mpfr_custom_get_significand(v))[0];
        if (biased <= 0) return sign | limb >> (64 - m_ - biased); // subnormal
        // The limb's leading 1 is the hidden bit.
        return sign | static_cast<std::uint64_t>(biased) << m_ | (limb << 1) >> (64 - m_);
    }

    unsigned m_, sign_shift_;
    long bias_;
    std::uint64_t field_mask_;
    mpfr_t x_[3], r_;
};

/// mpfr_fma on patterns wider than a word, held as GMP integers and read and
/// written by the reference's codec.
class BigFma {
public:
    explicit BigFma(const BenchFormat& f) : em_({f.e, f.m}) {
        mpfr_inits2(static_cast<mpfr_prec_t>(f.m) + 1, x_[0], x_[1], x_[2], r_,
                    static_cast<mpfr_ptr>(nullptr));
    }
    ~BigFma() { mpfr_clears(x_[0], x_[1], x_[2], r_, static_cast<mpfr_ptr>(nullptr)); }
    BigFma(const BigFma&) = delete;
    BigFma& operator=(const BigFma&) = delete;

    const mpz_class& fma(const mpz_class& a, const mpz_class& b, const mpz_class& c) {
        mpfr_set_emin(mpfr_get_emin_min());
        mpfr_set_emax(mpfr_get_emax_max());
        em_.decode(x_[0], a);
        em_.decode(x_[1], b);
        em_.decode(x_[2], c);
        em_.fit_to_format(r_, mpfr_fma(r_, x_[0], x_[1], x_[2], MPFR_RNDN), MPFR_RNDN);
        em_.encode(out_, r_);
        return out_;
    }

private:
    oracle::Emulator em_;
    mpfr_t x_[3], r_;
    mpz_class out_;
};

bool word_format(const BenchFormat& f) {
    return f.e + f.m < 64;
}

void mpfr_side(benchmark::State& state, const BenchFormat& f) {
    const Triples& t = triples_for(f);
    std::size_t i = 0;
    if (word_format(f)) {
        WordFma em(f);
        std::vector<std::uint64_t> a, b, c;
        for (std::size_t k = 0; k < operand_count; ++k) {
            a.push_back(oracle::to_word(t.a[k]));
            b.push_back(oracle::to_word(t.b[k]));
            c.push_back(oracle::to_word(t.c[k]));
        }
        for (auto _ : state) {
            benchmark::DoNotOptimize(em.fma(a[i], b[i], c[i]));
            i = (i + 1) % operand_count;
        }
    } else {
        BigFma em(f);
        for (auto _ : state) {
            benchmark::DoNotOptimize(em.fma(t.a[i], t.b[i], t.c[i]).get_mpz_t());
            i = (i + 1) % operand_count;
        }
    }
}

/// Whether both sides give the same pattern for every triple, before anything is timed.
bool agree(const BenchFormat& f) {
    const Triples& t = triples_for(f);
    const IEEEFloat::format fmt{f.e, f.m};
    WordFma words(f);
    BigFma big(f);
    for (std::size_t k = 0; k < operand_count; ++k) {
        const IEEEFloat r =
            tarn::fma(IEEEFloat::from_bits(t.qa[k], fmt), IEEEFloat::from_bits(t.qb[k], fmt),
                      IEEEFloat::from_bits(t.qc[k], fmt));
        const mpz_class want =
            word_format(f)
                ? mpz_class(static_cast<unsigned long>(words.fma(
                      oracle::to_word(t.a[k]), oracle::to_word(t.b[k]), oracle::to_word(t.c[k]))))
                : big.fma(t.a[k], t.b[k], t.c[k]);
        if (r.get_bits().to_mpz() != want) {
            std::fprintf(stderr, "%s: tarn and MPFR differ on triple %zu\n", f.name, k);
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    for (const BenchFormat& f : formats) {
        if (!agree(f)) return 1;
        const std::string suffix = std::string("/") + f.name;
        benchmark::RegisterBenchmark(("tarn/fma" + suffix).c_str(),
                                     [&f](benchmark::State& s) { tarn_fma(s, f); });
        benchmark::RegisterBenchmark(("mpfr/fma" + suffix).c_str(),
                                     [&f](benchmark::State& s) { mpfr_side(s, f); });
    }
    tarn_bench::MedianTimes times;
    if (!tarn_bench::run_benchmarks(argc, argv, times)) return 1;
    std::printf("\n| format | tarn ns | MPFR ns | tarn/MPFR |\n|---|---:|---:|---:|\n");
    for (const BenchFormat& f : formats) {
        const double* t = times.find(std::string("tarn/fma/") + f.name);
        const double* m = times.find(std::string("mpfr/fma/") + f.name);
        if (t && m) std::printf("| %s | %.1f | %.1f | %.2f |\n", f.name, *t, *m, *t / *m);
    }
    return 0;
}
