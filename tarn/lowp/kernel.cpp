// The per-element kernels of the bulk conversions: a float or double input's
// bits to an encoding's pattern with integer operations only (rebias the
// exponent, shift with round and sticky bits, round in the call's direction,
// saturate or go non-finite, subnormals), every decision a select, so that the
// loop body has no branch that depends on the data and the compiler can
// vectorise it. The encoding's constants come from the Plan, once per call.

#include "tarn/lowp/kernel.h"

#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/lowp/simd.h"

#include <cstring>

namespace tarn::lowp_detail {

namespace {

/// c ? a : b without a branch.
template <class T>
T pick(bool c, T a, T b) {
    return b ^ ((a ^ b) & (T{0} - static_cast<T>(c)));
}

template <class F>
struct Input;

template <>
struct Input<float> {
    using word = std::uint32_t;
    using sword = std::int32_t;
    static constexpr int width = 32, m = 23, bias = 127;
    /// floor(log2(x)) for 0 < x < 2^23: the exponent of its exact conversion,
    /// which vectorises where a leading-zero count does not.
    static sword floor_log2(word x) {
        const float f = static_cast<float>(static_cast<sword>(x));
        word bits;
        std::memcpy(&bits, &f, sizeof bits);
        return static_cast<sword>(bits >> 23) - 127;
    }
};

template <>
struct Input<double> {
    using word = std::uint64_t;
    using sword = std::int64_t;
    static constexpr int width = 64, m = 52, bias = 1023;
    static sword floor_log2(word x) { return 63 - __builtin_clzll(x); }
};

/// Whether the word kernel serves `plan` for inputs of type F: every finite
/// input in range cuts at least two bits (so the round and fine bits exist)
/// and the exponents stay far inside the input's word.
template <class F>
bool kernel_serves(const Plan& plan) {
    constexpr long lowest_bit = 1 - Input<F>::bias - Input<F>::m;
    constexpr long limit = 1L << 20;
    return plan.emin - static_cast<long>(plan.m) - 2 >= lowest_bit && plan.emin > -limit &&
           plan.emax < limit && plan.m + 2 < static_cast<unsigned>(Input<F>::m);
}

template <class F, Method how, class Out>
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
// Variable per-lane shifts need AVX2: a second copy for machines that have it.
__attribute__((target_clones("avx2", "default")))
#endif
unsigned
run(const Plan& plan, const stochastic* s, const F* in, std::size_t n, Out* out,
    std::uint64_t first) {
    using W = typename Input<F>::word;
    using S = typename Input<F>::sword;
    constexpr int in_m = Input<F>::m, top = Input<F>::width - 1;
    constexpr W exponent_ones = (W{1} << (top - in_m)) - 1, mantissa_mask = (W{1} << in_m) - 1;
    const S emin = static_cast<S>(plan.emin), emax = static_cast<S>(plan.emax);
    const unsigned m = plan.m;
    const S field_offset = static_cast<S>(plan.base) - emin;
    const W one_m = W{1} << m, max_mag = static_cast<W>(plan.max_mag),
            nan = static_cast<W>(plan.nan);
    const bool subnormals = plan.subnormals, has_sign = plan.has_sign;
    // Pairs by sign as two scalars each: selects, where indexing an array
    // would be a load the vectoriser cannot if-convert.
    const W sign1 = static_cast<W>(plan.sign[1]), zero1 = static_cast<W>(plan.zero[1]);
    const W zero_in0 = static_cast<W>(plan.zero_in[0]), zero_in1 = static_cast<W>(plan.zero_in[1]);
    const W inf_in0 = static_cast<W>(plan.inf_in[0]), inf_in1 = static_cast<W>(plan.inf_in[1]);
    const W over0 = static_cast<W>(plan.overflowed[0]), over1 = static_cast<W>(plan.overflowed[1]);
    const unsigned nan_flags = plan.nan_flags, inf_in_flags = plan.inf_in_flags,
                   zero_in_flags = plan.zero_in_flags;
    const unsigned drop = s ? 64 - s->random_bits : 0;
    const std::uint64_t seed = s ? s->seed : 0, counter = s ? s->offset + first : 0;
    unsigned flags = 0;
    for (std::size_t i = 0; i < n; ++i) {
        W u;
        std::memcpy(&u, in + i, sizeof u);
        const bool negative = (u >> top) != 0;
        const W a = u & ~(W{1} << top);
        const W ef = a >> in_m, mf = a & mantissa_mask;
        const W sig = mf | static_cast<W>(ef != 0) << in_m;
        const S k = static_cast<S>(ef == 0 ? 1 : ef) - Input<F>::bias - in_m;
        // Computed for every element: a conversion under a condition may trap.
        const S subnormal_log2 = Input<F>::floor_log2(mf | 1);
        const S E = k + pick<S>(ef != 0, in_m, subnormal_log2);
        const S Ec = E < emin ? emin : E > emax ? emax : E;
        const S shift = Ec - static_cast<S>(m) - k;
        const unsigned cut = shift < 0 ? 0 : shift > top ? top : static_cast<unsigned>(shift);
        // Two bits below the significand: the round bit and the one after it.
        const W t = sig << 2, w = t >> cut;
        const bool round_bit = (w >> 1) & 1, sticky = (t & ((W{2} << cut) - 1)) != 0;
        W pattern = (static_cast<W>(Ec + field_offset) << m) + (w >> 2) - one_m;
        bool inexact = round_bit | sticky, tiny = E < emin;
        if constexpr (how == Method::stochastic) {
            const std::uint64_t wide_sig = sig;
            const unsigned c = shift < 1 ? 0 : shift > 127 ? 127 : static_cast<unsigned>(shift);
            const std::uint64_t fraction = c == 0    ? 0
                                           : c <= 64 ? (wide_sig & (~std::uint64_t{0} >> (64 - c)))
                                                           << (64 - c)
                                                     : wide_sig >> (c - 64);
            const std::uint64_t random = random_bits(seed, counter + i);
            pattern += inexact && (random >> drop) < (fraction >> drop);
        } else {
            pattern += inexact & directed_away(how, negative, round_bit, sticky, pattern & 1);
            // Tiny unless rounding one bit finer carries up to 2^emin.
            const bool fine = w & 1, fine_sticky = (t & ((W{1} << cut) - 1)) != 0;
            const bool carried = ((w >> 1) == (one_m << 1) - 1) & (fine | fine_sticky) &
                                 directed_away(how, negative, fine, fine_sticky, true);
            tiny = (E < emin - 1) | ((E == emin - 1) & !carried);
        }
        // From here every choice is a masked select: a chain of conditional
        // assignments would merge into one many-armed choice, which the
        // vectoriser does not take apart.
        const bool clamp = !subnormals & (E < emin);
        pattern = pick(clamp, W{0}, pattern);
        inexact |= clamp;
        tiny |= clamp;
        const bool over = (E > emax) | (pattern > max_mag);
        const bool zero_result = !over & subnormals & (pattern == 0);
        const bool bad_sign = negative & !has_sign;
        const bool special = ef == exponent_ones, is_nan = special & (mf != 0);
        const bool quiet = (mf >> (in_m - 1)) & 1;
        W result = pick(negative, pattern | sign1, pattern);
        result = pick(zero_result, pick(negative, zero1, W{0}), result);
        result = pick(over, pick(negative, over1, over0), result);
        result = pick(bad_sign & !zero_result, nan, result);
        result =
            pick(special, pick(is_nan | bad_sign, nan, pick(negative, inf_in1, inf_in0)), result);
        result = pick(a == 0, pick(negative, zero_in1, zero_in0), result);
        unsigned f = (inexact ? FLAG_INEXACT : 0u) | ((inexact & tiny) ? FLAG_UNDERFLOW : 0u);
        f = pick(over, FLAG_OVERFLOW | FLAG_INEXACT, f);
        f = pick(bad_sign & !zero_result, FLAG_INVALID, f);
        f = pick(special,
                 pick(is_nan, nan_flags | (quiet ? 0u : FLAG_INVALID),
                      pick(bad_sign, FLAG_INVALID, inf_in_flags)),
                 f);
        f = pick(a == 0, zero_in_flags, f);
        out[i] = static_cast<Out>(result);
        flags |= f;
    }
    return flags;
}

/// Each element through the scalar encode, for encodings the word kernel does
/// not serve (exponent ranges far beyond the input's).
template <class F, class Out>
unsigned through_scalar(const Plan& plan, const stochastic* s, const F* in, std::size_t n, Out* out,
                        std::uint64_t first) {
    constexpr bool single = sizeof(F) == 4;
    IEEEFloat x(single ? IEEEFloat::format::binary32() : IEEEFloat::format::binary64(),
                IEEEFloat::ROUND_NEAREST_EVEN);
    const unsigned saved = ieeefloat_detail::raised_flags;
    unsigned flags = 0;
    for (std::size_t i = 0; i < n; ++i) {
        auto& held = ieeefloat_detail::Access::held(x);
        if constexpr (single)
            std::memcpy(&held.bits32, in + i, 4);
        else
            std::memcpy(&held.bits64, in + i, 8);
        ieeefloat_detail::raised_flags = 0;
        out[i] = static_cast<Out>(
            s ? encode(x, plan.enc, stochastic{s->seed, s->offset + first + i, s->random_bits},
                       plan.over)
              : encode(x, plan.enc, static_cast<rounding>(plan.method), plan.over));
        flags |= ieeefloat_detail::raised_flags;
    }
    ieeefloat_detail::raised_flags = saved;
    return flags;
}

} // namespace

template <class F, class Out>
unsigned quantize_span(const Plan& plan, const stochastic* s, const F* in, std::size_t n, Out* out,
                       std::uint64_t first) {
#ifdef TARN_LOWP_HWY
    // exponent_only (m = 0) reads the parity of its exponent, and has no
    // subnormals: the word kernel's. The vector kernel takes float's
    // subnormals and zeros to lie below 2^emin.
    if (kernel_serves<float>(plan) && plan.subnormals && plan.m > 0 && plan.emin >= -126)
        return quantize_vectors(plan, s, in, n, out, first);
#endif
    return quantize_words(plan, s, in, n, out, first);
}

template <class F, class Out>
unsigned quantize_words(const Plan& plan, const stochastic* s, const F* in, std::size_t n, Out* out,
                        std::uint64_t first) {
    if (!kernel_serves<F>(plan)) return through_scalar(plan, s, in, n, out, first);
    switch (plan.method) {
    case Method::nearest_even:
        return run<F, Method::nearest_even>(plan, s, in, n, out, first);
    case Method::toward_zero:
        return run<F, Method::toward_zero>(plan, s, in, n, out, first);
    case Method::upward:
        return run<F, Method::upward>(plan, s, in, n, out, first);
    case Method::downward:
        return run<F, Method::downward>(plan, s, in, n, out, first);
    case Method::nearest_away:
        return run<F, Method::nearest_away>(plan, s, in, n, out, first);
    case Method::to_odd:
        return run<F, Method::to_odd>(plan, s, in, n, out, first);
    default:
        return run<F, Method::stochastic>(plan, s, in, n, out, first);
    }
}

#ifndef TARN_LOWP_HWY
std::vector<std::int64_t> simd_targets() {
    return {};
}
void use_simd_target(std::int64_t) {}
#endif

#define TARN_LOWP_SPAN(F, Out)                                                                     \
    template unsigned quantize_span(const Plan&, const stochastic*, const F*, std::size_t, Out*,   \
                                    std::uint64_t);                                                \
    template unsigned quantize_words(const Plan&, const stochastic*, const F*, std::size_t, Out*,  \
                                     std::uint64_t);
TARN_LOWP_SPAN(float, std::uint8_t)
TARN_LOWP_SPAN(float, std::uint16_t)
TARN_LOWP_SPAN(double, std::uint8_t)
TARN_LOWP_SPAN(double, std::uint16_t)
#undef TARN_LOWP_SPAN

} // namespace tarn::lowp_detail
