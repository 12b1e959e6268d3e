// Block scaling. A block's scale needs one pass for its largest magnitude and
// that magnitude's exponent. Its elements then go through the bulk kernel of
// the element encoding with the bias lowered by the scale's exponent: rounding
// x into that encoding is rounding x / 2^s into the element encoding, grid,
// tininess and overflow all moved by 2^s, so the quotient is never formed and
// nothing is rounded twice.

#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/lowp/kernel.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

namespace tarn {

namespace {

using lowp_detail::Plan;

// float8_e8m0fnu: pattern p is 2^(p - 127), 255 is NaN.
constexpr long scale_bias = 127;
constexpr std::uint8_t scale_nan = 255;

template <class F>
struct Bits;
template <>
struct Bits<float> {
    using word = std::uint32_t;
    static constexpr long m = 23, bias = 127;
};
template <>
struct Bits<double> {
    using word = std::uint64_t;
    static constexpr long m = 52, bias = 1023;
};

void check_block(std::size_t block) {
    if (block == 0) throw IEEEFloat::error("invalid block size");
}

/// The element encoding's plans under each scale, made when first needed.
class Plans {
public:
    explicit Plans(const encoding& element) : element_(element), plans_(scale_nan) {}

    /// The plan that rounds x as the element encoding rounds x / 2^s.
    const Plan& at(long s) {
        std::optional<Plan>& p = plans_[static_cast<std::size_t>(s + scale_bias)];
        if (!p) {
            encoding shifted = element_;
            shifted.bias -= s;
            p.emplace(shifted, lowp_detail::Method::nearest_even, overflow::saturate);
        }
        return *p;
    }

private:
    encoding element_;
    std::vector<std::optional<Plan>> plans_;
};

/// Blocks [first, last) of in[0, n): their scales and elements; returns the OR
/// of their flags.
template <class F>
unsigned quantize_blocks(const encoding& element, long emax, const F* in, std::size_t n,
                         std::size_t block, std::size_t first, std::size_t last,
                         std::uint8_t* elements, std::uint8_t* scales) {
    using W = typename Bits<F>::word;
    constexpr W magnitude = ~W{0} >> 1, infinity = magnitude >> Bits<F>::m << Bits<F>::m;
    Plans plans(element);
    unsigned flags = 0;
    for (std::size_t b = first; b < last; ++b) {
        const std::size_t begin = b * block, size = std::min(block, n - begin);
        W top = 0; // the largest magnitude's bits: they order as the magnitudes do
        for (std::size_t i = 0; i < size; ++i) {
            W u;
            std::memcpy(&u, in + begin + i, sizeof u);
            top = std::max<W>(top, u & magnitude);
        }
        if (top >= infinity) {
            scales[b] = scale_nan;
            std::fill(elements + begin, elements + begin + size, std::uint8_t{0});
            flags |= FLAG_INVALID;
            continue;
        }
        // floor(log2) of the largest magnitude, subnormal or normal.
        const long field = static_cast<long>(top >> Bits<F>::m);
        const long log2 = field != 0 ? field - Bits<F>::bias
                                     : 63 - __builtin_clzll(std::uint64_t{top} | 1) + 1 -
                                           Bits<F>::bias - Bits<F>::m;
        const long s = top == 0 ? -scale_bias : std::clamp(log2 - emax, -scale_bias, scale_bias);
        scales[b] = static_cast<std::uint8_t>(s + scale_bias);
        flags |=
            lowp_detail::quantize_span(plans.at(s), nullptr, in + begin, size, elements + begin, 0);
    }
    return flags;
}

template <class F>
void mx_quantize_with(const F* in, std::size_t n, std::size_t block, const encoding& element,
                      std::uint8_t* elements, std::uint8_t* scales, unsigned threads) {
    Plans checked(element);
    const long emax = checked.at(0).emax;
    if (element.width() > 8)
        throw IEEEFloat::error("invalid encoding: wider than the output elements");
    check_block(block);
    checked.at(-scale_bias); // the biases of every scale are valid when the extremes are
    checked.at(scale_bias);
    const std::size_t blocks = n / block + (n % block != 0);
    const std::size_t parts = std::max<std::size_t>(1, std::min<std::size_t>(threads, blocks));
    std::vector<unsigned> flags(parts, 0);
    const auto part = [&](std::size_t p) {
        flags[p] = quantize_blocks(element, emax, in, n, block, blocks * p / parts,
                                   blocks * (p + 1) / parts, elements, scales);
    };
    std::vector<std::thread> workers;
    for (std::size_t p = 1; p < parts; ++p)
        workers.emplace_back(part, p);
    part(0);
    unsigned all = flags[0];
    for (std::size_t p = 1; p < parts; ++p) {
        workers[p - 1].join();
        all |= flags[p];
    }
    ieeefloat_detail::raise(all);
}

template <class F>
void mx_dequantize_with(const std::uint8_t* elements, const std::uint8_t* scales, std::size_t n,
                        std::size_t block, const encoding& element, F* out) {
    std::uint8_t patterns[256];
    for (unsigned p = 0; p < 256; ++p)
        patterns[p] = static_cast<std::uint8_t>(p);
    double values[256];
    dequantize(patterns, 256, values, element);
    check_block(block);
    for (std::size_t begin = 0, b = 0; begin < n; begin += block, ++b) {
        const std::size_t end = std::min(n, begin + block);
        if (scales[b] == scale_nan) {
            std::fill(out + begin, out + end, std::numeric_limits<F>::quiet_NaN());
            continue;
        }
        const double scale = std::ldexp(1.0, scales[b] - static_cast<int>(scale_bias));
        for (std::size_t i = begin; i < end; ++i)
            out[i] = static_cast<F>(values[elements[i]] * scale);
    }
}

} // namespace

void mx_quantize(const float* in, std::size_t n, std::size_t block, const encoding& element,
                 std::uint8_t* elements, std::uint8_t* scales, unsigned threads) {
    mx_quantize_with(in, n, block, element, elements, scales, threads);
}
void mx_quantize(const double* in, std::size_t n, std::size_t block, const encoding& element,
                 std::uint8_t* elements, std::uint8_t* scales, unsigned threads) {
    mx_quantize_with(in, n, block, element, elements, scales, threads);
}

void mx_dequantize(const std::uint8_t* elements, const std::uint8_t* scales, std::size_t n,
                   std::size_t block, const encoding& element, float* out) {
    mx_dequantize_with(elements, scales, n, block, element, out);
}
void mx_dequantize(const std::uint8_t* elements, const std::uint8_t* scales, std::size_t n,
                   std::size_t block, const encoding& element, double* out) {
    mx_dequantize_with(elements, scales, n, block, element, out);
}

} // namespace tarn
