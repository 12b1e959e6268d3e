// tarn's arithmetic, square root and conversions against MPFR emulating the
// same format (precision m + 1, the format's exponent range, subnormals by
// mpfr_subnormalize), on the same operands. Both sides start from bit
// patterns and end with one: tarn builds its values with from_bits and reads
// the result with get_bits, MPFR decodes the patterns into registers and
// encodes the result. After the runs a table gives the time of each side and
// the ratio tarn / MPFR (below 1 means tarn is faster).

#include "bench/median_times.h"
#include "bench/mpfr_words.h"
#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/operands.h"
#include "tests/oracle/oracle.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

constexpr std::size_t operand_count = 1024;
constexpr int mode = 0; // nearest-even, the mode of nearly every real computation

struct BenchFormat {
    const char* name;
    unsigned e, m;
    IEEEFloat::Repr repr;
};

const BenchFormat formats[] = {
    {"binary16", 5, 10, IEEEFloat::REPR_GENERIC},
    {"bfloat16", 8, 7, IEEEFloat::REPR_GENERIC},
    {"fp8(4,3)", 4, 3, IEEEFloat::REPR_GENERIC},
    {"binary32-generic", 8, 23, IEEEFloat::REPR_GENERIC},
    {"binary64-generic", 11, 52, IEEEFloat::REPR_GENERIC},
    {"binary128", 15, 112, IEEEFloat::REPR_GENERIC},
};

/// The destination of the set_format case: a narrower format, where the
/// conversion has to round.
oracle::Format narrower(const BenchFormat& f) {
    return f.m == 10 && f.e == 5 ? oracle::Format{4, 3} : oracle::Format{5, 10};
}

/// Operands of one format, prepared once in every form the two sides read.
struct Operands {
    std::vector<QNumber> a, b, x, root;
    std::vector<mpz_class> a_mpz, b_mpz, x_mpz, root_mpz;
    std::vector<QNumber> rational;
    std::vector<mpq_class> rational_mpq;
};

oracle::Operation to_oracle(const std::string& op) {
    if (op == "add") return oracle::Operation::Add;
    if (op == "mul") return oracle::Operation::Mul;
    return oracle::Operation::Div;
}

/// Finite operands from the edge-biased generator: NaNs and infinities
/// would make both sides take shortcuts that say nothing about arithmetic.
Operands make_operands(const BenchFormat& f, const std::string& op) {
    const oracle::Format of{f.e, f.m};
    oracle::OperandGenerator gen(of, 42);
    auto finite = [&](const mpz_class& bits) {
        const oracle::Kind k = oracle::classify(of, bits);
        return k != oracle::Kind::NaN && k != oracle::Kind::Infinite;
    };
    Operands ops;
    while (ops.a.size() < operand_count) {
        const auto [a, b] =
            gen.pair(op == "sqrt" || op == "convert" ? oracle::Operation::Add : to_oracle(op));
        if (!finite(a) || !finite(b)) continue;
        ops.a_mpz.push_back(a);
        ops.b_mpz.push_back(b);
        ops.a.emplace_back(a);
        ops.b.emplace_back(b);
    }
    while (ops.root.size() < operand_count) {
        const mpz_class x = gen.sqrt_operand();
        if (!finite(x) || oracle::classify(of, x) == oracle::Kind::Zero ||
            mpz_tstbit(x.get_mpz_t(), f.e + f.m))
            continue;
        ops.root_mpz.push_back(x);
        ops.root.emplace_back(x);
    }
    while (ops.rational.size() < operand_count) {
        const mpq_class q = gen.rational();
        ops.rational_mpq.push_back(q);
        ops.rational.emplace_back(q);
    }
    return ops;
}

const Operands& operands_for(const BenchFormat& f, const std::string& op) {
    static std::map<std::string, Operands> cache;
    const std::string key = std::string(f.name) + op;
    auto it = cache.find(key);
    if (it == cache.end()) it = cache.emplace(key, make_operands(f, op)).first;
    return it->second;
}

IEEEFloat decode(const QNumber& bits, const BenchFormat& f) {
    IEEEFloat x = IEEEFloat::from_bits(bits, {f.e, f.m});
    x.self_specialize_repr(f.repr);
    return x;
}

// ---- tarn ------------------------------------------------------------------

template <class Op>
void tarn_binary(benchmark::State& state, const BenchFormat& f, const std::string& name, Op op) {
    const Operands& ops = operands_for(f, name);
    std::size_t i = 0;
    for (auto _ : state) {
        IEEEFloat a = decode(ops.a[i], f);
        const IEEEFloat b = decode(ops.b[i], f);
        op(a, b);
        benchmark::DoNotOptimize(a.get_bits());
        i = (i + 1) % operand_count;
    }
}

/// binary16 += a binary32 word holding the same operands as tarn/add/binary16:
/// the path of operands of different formats and representations.
void tarn_add_mixed(benchmark::State& state) {
    const BenchFormat& f = formats[0];
    const BenchFormat word{"binary32", 8, 23, IEEEFloat::REPR_FLOAT32};
    const Operands& ops = operands_for(f, "add");
    std::vector<QNumber> b;
    for (const QNumber& bits : ops.b) {
        IEEEFloat x = decode(bits, f);
        x.set_format({word.e, word.m});
        b.push_back(x.get_bits());
    }
    std::size_t i = 0;
    for (auto _ : state) {
        IEEEFloat a = decode(ops.a[i], f);
        a += decode(b[i], word);
        benchmark::DoNotOptimize(a.get_bits());
        i = (i + 1) % operand_count;
    }
}

/// Only the decoding of two patterns and the encoding of one: the part of
/// every tarn figure above that is not arithmetic.
void tarn_codec(benchmark::State& state, const BenchFormat& f) {
    const Operands& ops = operands_for(f, "add");
    std::size_t i = 0;
    for (auto _ : state) {
        const IEEEFloat a = decode(ops.a[i], f);
        const IEEEFloat b = decode(ops.b[i], f);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(a.get_bits());
        i = (i + 1) % operand_count;
    }
}

void tarn_sqrt(benchmark::State& state, const BenchFormat& f) {
    const Operands& ops = operands_for(f, "sqrt");
    std::size_t i = 0;
    for (auto _ : state) {
        IEEEFloat x = decode(ops.root[i], f);
        x.sqrt();
        benchmark::DoNotOptimize(x.get_bits());
        i = (i + 1) % operand_count;
    }
}

void tarn_from_number(benchmark::State& state, const BenchFormat& f) {
    const Operands& ops = operands_for(f, "from_number");
    std::size_t i = 0;
    for (auto _ : state) {
        const IEEEFloat x =
            IEEEFloat::from_number(ops.rational[i], {f.e, f.m}, IEEEFloat::ROUND_NEAREST_EVEN);
        benchmark::DoNotOptimize(x.get_bits());
        i = (i + 1) % operand_count;
    }
}

void tarn_set_format(benchmark::State& state, const BenchFormat& f) {
    const Operands& ops = operands_for(f, "convert");
    const oracle::Format to = narrower(f);
    std::size_t i = 0;
    for (auto _ : state) {
        IEEEFloat x = decode(ops.a[i], f);
        x.set_format({to.e, to.m});
        benchmark::DoNotOptimize(x.get_bits());
        i = (i + 1) % operand_count;
    }
}

// ---- MPFR --------------------------------------------------------------------

/// Runs `op` on words where the format fits one, on GMP integers otherwise, which is
/// how a user of MPFR would hold such values.
void mpfr_binary(benchmark::State& state, const BenchFormat& f, const std::string& name,
                 oracle::Operation op) {
    const Operands& ops = operands_for(f, name);
    const bool root = op == oracle::Operation::Sqrt;
    const std::vector<mpz_class>& a = root ? ops.root_mpz : ops.a_mpz;
    const std::vector<mpz_class>& b = root ? ops.root_mpz : ops.b_mpz;
    std::size_t i = 0;
    if (f.e + f.m < 64) {
        bench::WordEmulator em({f.e, f.m});
        std::vector<bench::Word> wa, wb;
        for (std::size_t k = 0; k < operand_count; ++k) {
            wa.push_back(bench::to_word(a[k]));
            wb.push_back(bench::to_word(b[k]));
        }
        for (auto _ : state) {
            benchmark::DoNotOptimize(em.apply(op, wa[i], wb[i], MPFR_RNDN));
            i = (i + 1) % operand_count;
        }
    } else {
        oracle::Emulator em({f.e, f.m});
        mpz_class out;
        for (auto _ : state) {
            em.apply(op, out, a[i], b[i], mode);
            benchmark::DoNotOptimize(out.get_mpz_t());
            i = (i + 1) % operand_count;
        }
    }
}

void mpfr_from_number(benchmark::State& state, const BenchFormat& f) {
    const Operands& ops = operands_for(f, "from_number");
    oracle::Emulator em({f.e, f.m});
    bench::WordEmulator word_em({f.e, f.m});
    const bool word = f.e + f.m < 64;
    std::size_t i = 0;
    mpz_class out;
    for (auto _ : state) {
        if (word) {
            benchmark::DoNotOptimize(word_em.from_rational(ops.rational_mpq[i], MPFR_RNDN));
        } else {
            em.from_rational(out, ops.rational_mpq[i], mode);
            benchmark::DoNotOptimize(out.get_mpz_t());
        }
        i = (i + 1) % operand_count;
    }
}

void mpfr_set_format(benchmark::State& state, const BenchFormat& f) {
    const Operands& ops = operands_for(f, "convert");
    std::size_t i = 0;
    if (f.e + f.m < 64) {
        bench::WordEmulator from({f.e, f.m}), to(narrower(f));
        std::vector<bench::Word> x;
        for (const auto& v : ops.a_mpz)
            x.push_back(bench::to_word(v));
        for (auto _ : state) {
            benchmark::DoNotOptimize(to.convert(from, x[i], MPFR_RNDN));
            i = (i + 1) % operand_count;
        }
    } else {
        oracle::Emulator from({f.e, f.m}), to(narrower(f));
        mpfr_t value;
        mpfr_init2(value, static_cast<mpfr_prec_t>(f.m) + 1);
        mpz_class out;
        for (auto _ : state) {
            mpfr_set_emin(mpfr_get_emin_min());
            mpfr_set_emax(mpfr_get_emax_max());
            from.decode(value, ops.a_mpz[i]);
            to.round_to_format(out, value, mode);
            benchmark::DoNotOptimize(out.get_mpz_t());
            i = (i + 1) % operand_count;
        }
        mpfr_clear(value);
    }
}

// ---- remainder and scale_b -----------------------------------------------------

/// The scale of the i-th scale_b case: within a few binades, so that most results stay finite.
long scale_of(std::size_t i) {
    return static_cast<long>(i % 41) - 20;
}

void tarn_general(benchmark::State& state, const BenchFormat& f, bool scale) {
    const Operands& ops = operands_for(f, "div");
    std::size_t i = 0;
    for (auto _ : state) {
        const IEEEFloat a = decode(ops.a[i], f), b = decode(ops.b[i], f);
        benchmark::DoNotOptimize(
            (scale ? tarn::scale_b(a, scale_of(i)) : tarn::remainder(a, b)).get_bits());
        i = (i + 1) % operand_count;
    }
}

/// mpfr_remainder and mpfr_mul_2si on the emulator's registers, the patterns in
/// GMP integers.
void mpfr_general(benchmark::State& state, const BenchFormat& f, bool scale) {
    const Operands& ops = operands_for(f, "div");
    oracle::Emulator em({f.e, f.m});
    mpfr_t x, y, r;
    mpfr_inits2(static_cast<mpfr_prec_t>(f.m) + 1, x, y, r, static_cast<mpfr_ptr>(nullptr));
    mpz_class out;
    std::size_t i = 0;
    for (auto _ : state) {
        mpfr_set_emin(mpfr_get_emin_min());
        mpfr_set_emax(mpfr_get_emax_max());
        em.decode(x, ops.a_mpz[i]);
        em.decode(y, ops.b_mpz[i]);
        if (scale) {
            mpfr_mul_2si(r, x, scale_of(i), MPFR_RNDN);
            em.round_to_format(out, r, mode);
        } else {
            mpfr_remainder(r, x, y, MPFR_RNDN); // exact
            em.encode(out, r);
        }
        benchmark::DoNotOptimize(out.get_mpz_t());
        i = (i + 1) % operand_count;
    }
    mpfr_clears(x, y, r, static_cast<mpfr_ptr>(nullptr));
}

// ---- Registration and the ratio table ------------------------------------------

const char* const operations[] = {"add",         "mul",        "div",       "sqrt",
                                  "from_number", "set_format", "remainder", "scale_b"};

void register_all() {
    benchmark::RegisterBenchmark("tarn/add_mixed/binary16+binary32", tarn_add_mixed);
    for (const BenchFormat& f : formats) {
        const std::string suffix = std::string("/") + f.name;
        benchmark::RegisterBenchmark(("tarn/codec" + suffix).c_str(),
                                     [f](benchmark::State& s) { tarn_codec(s, f); });
        benchmark::RegisterBenchmark(("tarn/add" + suffix).c_str(), [f](benchmark::State& s) {
            tarn_binary(s, f, "add", [](IEEEFloat& a, const IEEEFloat& b) { a += b; });
        });
        // The value operator: what a + b adds to a += b is the copy of a it returns.
        benchmark::RegisterBenchmark(("tarn/add_value" + suffix).c_str(), [f](benchmark::State& s) {
            tarn_binary(s, f, "add", [](IEEEFloat& a, const IEEEFloat& b) { a = a + b; });
        });
        benchmark::RegisterBenchmark(("mpfr/add" + suffix).c_str(), [f](benchmark::State& s) {
            mpfr_binary(s, f, "add", oracle::Operation::Add);
        });
        benchmark::RegisterBenchmark(("tarn/mul" + suffix).c_str(), [f](benchmark::State& s) {
            tarn_binary(s, f, "mul", [](IEEEFloat& a, const IEEEFloat& b) { a *= b; });
        });
        benchmark::RegisterBenchmark(("mpfr/mul" + suffix).c_str(), [f](benchmark::State& s) {
            mpfr_binary(s, f, "mul", oracle::Operation::Mul);
        });
        benchmark::RegisterBenchmark(("tarn/div" + suffix).c_str(), [f](benchmark::State& s) {
            tarn_binary(s, f, "div", [](IEEEFloat& a, const IEEEFloat& b) { a /= b; });
        });
        benchmark::RegisterBenchmark(("mpfr/div" + suffix).c_str(), [f](benchmark::State& s) {
            mpfr_binary(s, f, "div", oracle::Operation::Div);
        });
        benchmark::RegisterBenchmark(("tarn/sqrt" + suffix).c_str(),
                                     [f](benchmark::State& s) { tarn_sqrt(s, f); });
        benchmark::RegisterBenchmark(("mpfr/sqrt" + suffix).c_str(), [f](benchmark::State& s) {
            mpfr_binary(s, f, "sqrt", oracle::Operation::Sqrt);
        });
        benchmark::RegisterBenchmark(("tarn/from_number" + suffix).c_str(),
                                     [f](benchmark::State& s) { tarn_from_number(s, f); });
        benchmark::RegisterBenchmark(("mpfr/from_number" + suffix).c_str(),
                                     [f](benchmark::State& s) { mpfr_from_number(s, f); });
        benchmark::RegisterBenchmark(("tarn/set_format" + suffix).c_str(),
                                     [f](benchmark::State& s) { tarn_set_format(s, f); });
        benchmark::RegisterBenchmark(("mpfr/set_format" + suffix).c_str(),
                                     [f](benchmark::State& s) { mpfr_set_format(s, f); });
        if (f.m != 10 && f.m != 52 && f.m != 112) continue;
        for (const bool scale : {false, true}) {
            const std::string op = scale ? "scale_b" : "remainder";
            benchmark::RegisterBenchmark(("tarn/" + op + suffix).c_str(),
                                         [f, scale](auto& s) { tarn_general(s, f, scale); });
            benchmark::RegisterBenchmark(("mpfr/" + op + suffix).c_str(),
                                         [f, scale](auto& s) { mpfr_general(s, f, scale); });
        }
    }
}

/// Prints the usual console output and keeps every run's time per iteration.
/// The markdown table of tarn against MPFR, one row per operation and
/// format, with tarn's decoding and encoding alone beside it.
void print_ratios(const tarn_bench::MedianTimes& times) {
    std::printf("\n| operation | format | tarn ns | of which codec | MPFR ns | tarn/MPFR |\n");
    std::printf("|---|---|---:|---:|---:|---:|\n");
    for (const char* op : operations) {
        for (const BenchFormat& f : formats) {
            const std::string tail = std::string(op) + "/" + f.name;
            const double* t = times.find("tarn/" + tail);
            const double* m = times.find("mpfr/" + tail);
            const double* codec = times.find(std::string("tarn/codec/") + f.name);
            if (!t || !m) continue;
            const bool binary =
                std::string(op) == "add" || std::string(op) == "mul" || std::string(op) == "div";
            if (binary && codec)
                std::printf("| %s | %s | %.1f | %.1f | %.1f | %.2f |\n", op, f.name, *t, *codec, *m,
                            *t / *m);
            else
                std::printf("| %s | %s | %.1f | | %.1f | %.2f |\n", op, f.name, *t, *m, *t / *m);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    register_all();
    return tarn_bench::run_and_print(argc, argv, print_ratios);
}
