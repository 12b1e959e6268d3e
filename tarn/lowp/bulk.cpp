// The array conversions: the kernels run over contiguous parts of the array on
// std::threads, and their flags are raised on the calling thread; the
// dequantizers read a table of the encoding's values; dense packing.

#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/lowp/kernel.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

namespace tarn {

namespace {

using lowp_detail::Method;
using lowp_detail::Plan;

template <class F, class Out>
void quantize_parts(const Plan& plan, const stochastic* s, const F* in, std::size_t n, Out* out,
                    unsigned threads) {
    if (plan.enc.width() > 8 * sizeof(Out))
        throw IEEEFloat::error("invalid encoding: wider than the output elements");
    if (s) lowp_detail::check_stochastic(*s);
    const std::size_t parts = std::max<std::size_t>(1, std::min<std::size_t>(threads, n));
    if (parts == 1) {
        ieeefloat_detail::raise(lowp_detail::quantize_span(plan, s, in, n, out, 0));
        return;
    }
    std::vector<unsigned> flags(parts, 0);
    std::vector<std::thread> workers;
    workers.reserve(parts - 1);
    const auto part = [&](std::size_t p) {
        const std::size_t begin = n * p / parts, end = n * (p + 1) / parts;
        flags[p] = lowp_detail::quantize_span(plan, s, in + begin, end - begin, out + begin, begin);
    };
    for (std::size_t p = 1; p < parts; ++p)
        workers.emplace_back(part, p);
    part(0);
    for (std::thread& t : workers)
        t.join();
    unsigned all = 0;
    for (const unsigned f : flags)
        all |= f;
    ieeefloat_detail::raise(all);
}

template <class In, class F>
void dequantize_with(const In* in, std::size_t n, F* out, const encoding& enc) {
    const Plan plan(enc, Method::nearest_even, overflow::saturate);
    if (enc.width() > 8 * sizeof(In))
        throw IEEEFloat::error("invalid encoding: wider than the input elements");
    using limits = std::numeric_limits<F>;
    // Values within F's range, subnormals included, are exact in F: made with
    // ldexp. Others go through decode and a conversion rounding once.
    const bool fits = plan.emax < limits::max_exponent && plan.emin - static_cast<long>(plan.m) >=
                                                              limits::min_exponent - limits::digits;
    const IEEEFloat::format target =
        sizeof(F) == 4 ? IEEEFloat::format::binary32() : IEEEFloat::format::binary64();
    const auto value_of = [&](std::uint64_t bits) {
        const lowp_detail::Split v = lowp_detail::split(plan, bits);
        F value = 0;
        if (v.kind == lowp_detail::Split::nan) {
            value = limits::quiet_NaN();
        } else if (v.kind == lowp_detail::Split::infinite) {
            value = limits::infinity();
        } else if (v.kind == lowp_detail::Split::finite && fits) {
            value = std::ldexp(static_cast<F>(v.significand), static_cast<int>(v.exponent));
        } else if (v.kind == lowp_detail::Split::finite) {
            const std::uint64_t bits_out =
                convert(decode(bits, enc), target, rounding::nearest_even)
                    .get_bits()
                    .to_mpz()
                    .get_ui();
            std::memcpy(&value, &bits_out, sizeof(F)); // little-endian: the low bytes
        }
        return v.negative && v.kind != lowp_detail::Split::nan ? -std::abs(value) : value;
    };
    // A table of every pattern when the array is longer than it: a load per
    // element. The patterns' bits above the width are masked off first.
    const std::size_t patterns = std::size_t{1} << enc.width();
    if (enc.width() <= 16 && n >= patterns) {
        std::vector<F> table(patterns);
        for (std::size_t p = 0; p < patterns; ++p)
            table[p] = value_of(p);
        const auto mask = static_cast<In>(patterns - 1);
        for (std::size_t i = 0; i < n; ++i)
            out[i] = table[in[i] & mask];
        return;
    }
    for (std::size_t i = 0; i < n; ++i)
        out[i] = value_of(in[i]);
}

} // namespace

#define TARN_LOWP_QUANTIZE(F, Out)                                                                 \
    void quantize(const F* in, std::size_t n, Out* out, const encoding& enc, rounding r,           \
                  overflow o, unsigned threads) {                                                  \
        quantize_parts(Plan(enc, lowp_detail::method_of(r), o), nullptr, in, n, out, threads);     \
    }                                                                                              \
    void quantize(const F* in, std::size_t n, Out* out, const encoding& enc, const stochastic& s,  \
                  overflow o, unsigned threads) {                                                  \
        quantize_parts(Plan(enc, Method::stochastic, o), &s, in, n, out, threads);                 \
    }
TARN_LOWP_QUANTIZE(float, std::uint8_t)
TARN_LOWP_QUANTIZE(double, std::uint8_t)
TARN_LOWP_QUANTIZE(float, std::uint16_t)
TARN_LOWP_QUANTIZE(double, std::uint16_t)
#undef TARN_LOWP_QUANTIZE

void dequantize(const std::uint8_t* in, std::size_t n, float* out, const encoding& enc) {
    dequantize_with(in, n, out, enc);
}
void dequantize(const std::uint8_t* in, std::size_t n, double* out, const encoding& enc) {
    dequantize_with(in, n, out, enc);
}
void dequantize(const std::uint16_t* in, std::size_t n, float* out, const encoding& enc) {
    dequantize_with(in, n, out, enc);
}
void dequantize(const std::uint16_t* in, std::size_t n, double* out, const encoding& enc) {
    dequantize_with(in, n, out, enc);
}

void pack_bits(const std::uint8_t* in, std::size_t n, unsigned width, std::uint8_t* out) {
    if (width < 1 || width > 8) throw IEEEFloat::error("invalid element width for packing");
    std::fill(out, out + packed_size(n, width), std::uint8_t{0});
    const unsigned mask = (1u << width) - 1;
    for (std::size_t i = 0, bit = 0; i < n; ++i, bit += width) {
        const unsigned v = (in[i] & mask) << (bit % 8);
        out[bit / 8] |= static_cast<std::uint8_t>(v);
        if (v >> 8) out[bit / 8 + 1] |= static_cast<std::uint8_t>(v >> 8);
    }
}

void unpack_bits(const std::uint8_t* in, std::size_t n, unsigned width, std::uint8_t* out) {
    if (width < 1 || width > 8) throw IEEEFloat::error("invalid element width for packing");
    const unsigned mask = (1u << width) - 1;
    for (std::size_t i = 0, bit = 0; i < n; ++i, bit += width) {
        const std::size_t byte = bit / 8;
        const unsigned shift = bit % 8;
        unsigned v = in[byte] >> shift;
        if (shift + width > 8) v |= static_cast<unsigned>(in[byte + 1]) << (8 - shift);
        out[i] = static_cast<std::uint8_t>(v & mask);
    }
}

} // namespace tarn
