// Encoding one IEEEFloat of any format: its exact value, split into sign,
// integer significand and the weight of its lowest bit, rounded once onto the
// encoding's grid.

#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/decode.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/held.h"
#include "tarn/lowp/kernel.h"

namespace tarn {

namespace {

using namespace ieeefloat_detail;
using lowp_detail::Method;
using lowp_detail::Plan;
__extension__ using wide = unsigned __int128;

/// The significand M cut at bit s: M / 2^s truncated (M * 2^-s when s <= 0,
/// which the callers allow only when it fits a word), the first discarded bit,
/// whether any below it is set, and the discarded bits read as a 64-bit
/// binary fraction (truncated).
struct Cut {
    std::uint64_t kept = 0;
    bool round_bit = false, sticky = false;
    std::uint64_t fraction = 0;
};

Cut cut_word(std::uint64_t M, long s) {
    Cut c;
    if (s <= 0) {
        c.kept = M << -s;
        return c;
    }
    const auto u = static_cast<unsigned long>(s);
    c.kept = u >= 64 ? 0 : M >> u;
    c.round_bit = u - 1 < 64 && ((M >> (u - 1)) & 1);
    c.sticky = (M & low_mask(u - 1)) != 0;
    c.fraction = u <= 64 ? (M & low_mask(u)) << (64 - u) : u - 64 < 64 ? M >> (u - 64) : 0;
    return c;
}

Cut cut(const FiniteParts& p, long s) {
    if (p.in_word) return cut_word(p.word, s);
    mpz_srcptr M = p.wide.get_mpz_t();
    Cut c;
    mpz_class t;
    if (s <= 0) {
        mpz_mul_2exp(t.get_mpz_t(), M, static_cast<unsigned long>(-s));
        c.kept = mpz_get_ui(t.get_mpz_t());
        return c;
    }
    const auto u = static_cast<unsigned long>(s);
    mpz_tdiv_q_2exp(t.get_mpz_t(), M, u);
    c.kept = mpz_get_ui(t.get_mpz_t());
    c.round_bit = mpz_tstbit(M, u - 1) != 0;
    c.sticky = u > 1 && mpz_scan1(M, 0) < u - 1;
    mpz_tdiv_r_2exp(t.get_mpz_t(), M, u);
    if (u >= 64)
        mpz_tdiv_q_2exp(t.get_mpz_t(), t.get_mpz_t(), u - 64);
    else
        mpz_mul_2exp(t.get_mpz_t(), t.get_mpz_t(), 64 - u);
    c.fraction = mpz_get_ui(t.get_mpz_t());
    return c;
}

unsigned long bit_length_of(const FiniteParts& p) {
    return p.in_word ? 64 - static_cast<unsigned long>(__builtin_clzll(p.word))
                     : mpz_sizeinbase(p.wide.get_mpz_t(), 2);
}

/// Whether an inexact result moves away from zero: the directions read the
/// pattern's parity as the last digit (for exponent_only, the exponent's).
bool away(const Plan& plan, RoundingContext& r, const stochastic* s, bool negative, const Cut& c,
          bool odd) {
    if (!c.round_bit && !c.sticky) return false;
    if (plan.method != Method::stochastic)
        return rounds_away(r, negative, c.round_bit, c.sticky, odd);
    const unsigned drop = 64 - s->random_bits;
    return lowp_detail::random_bits(s->seed, s->offset) >> drop < c.fraction >> drop;
}

std::uint64_t encode_finite(const Plan& plan, RoundingContext& r, const stochastic* s,
                            const FiniteParts& p, unsigned& flags) {
    const bool negative = p.negative;
    const long E = p.exponent + static_cast<long>(bit_length_of(p)) - 1;
    const auto m = static_cast<long>(plan.m);
    bool overflow = E > plan.emax, inexact = true, tiny = E < plan.emin;
    wide pattern = 0;
    if (!plan.subnormals && tiny) {
        // Nothing lies below the smallest scale: every direction gives it.
    } else if (!overflow) {
        const long Ec = E < plan.emin ? plan.emin : E;
        const long s_cut = Ec - m - p.exponent;
        const Cut c = cut(p, s_cut);
        inexact = c.round_bit || c.sticky;
        pattern = (static_cast<wide>(Ec - plan.emin + static_cast<long>(plan.base)) << m) + c.kept -
                  (wide{1} << m);
        pattern += away(plan, r, s, negative, c, (pattern & 1) != 0);
        overflow = pattern > plan.max_mag;
        if (plan.method != Method::stochastic && E == plan.emin - 1) {
            // Tiny unless rounding at full precision carries up to 2^emin.
            const Cut f = cut(p, s_cut - 1);
            tiny = !(f.kept == low_mask(plan.m + 1) && (f.round_bit || f.sticky) &&
                     rounds_away(r, negative, f.round_bit, f.sticky, true));
        }
    }
    std::uint64_t result;
    bool zero = false;
    if (overflow) {
        flags = FLAG_OVERFLOW | FLAG_INEXACT;
        result = plan.overflowed[negative];
    } else {
        flags = inexact ? FLAG_INEXACT | (tiny ? FLAG_UNDERFLOW : 0) : 0;
        zero = plan.subnormals && pattern == 0;
        result =
            zero ? plan.zero[negative] : static_cast<std::uint64_t>(pattern) | plan.sign[negative];
    }
    if (negative && !plan.has_sign && !zero) {
        flags = FLAG_INVALID;
        result = plan.nan;
    }
    return result;
}

std::uint64_t encode_with(const IEEEFloat& x, const Plan& plan, RoundingContext r,
                          const stochastic* s) {
    const auto& held = Access::held(x);
    FiniteParts p;
    unsigned flags = 0;
    std::uint64_t result = 0;
    switch (decode_value(x.get_repr(), held, x.get_format(), p)) {
    case ValueClass::nan:
        result = plan.nan;
        flags = plan.nan_flags |
                (held_nan_is_signaling(x.get_repr(), held, x.get_format()) ? FLAG_INVALID : 0);
        break;
    case ValueClass::infinite:
        result = p.negative && !plan.has_sign ? plan.nan : plan.inf_in[p.negative];
        flags = p.negative && !plan.has_sign ? FLAG_INVALID : plan.inf_in_flags;
        break;
    case ValueClass::zero:
        result = plan.zero_in[p.negative];
        flags = plan.zero_in_flags;
        break;
    case ValueClass::finite:
        result = encode_finite(plan, r, s, p, flags);
        break;
    }
    raise(flags);
    return result;
}

} // namespace

namespace lowp_detail {

void check_stochastic(const stochastic& s) {
    if (s.random_bits < 1 || s.random_bits > 64)
        throw IEEEFloat::error("invalid stochastic rounding: random_bits must be 1 to 64");
}

Method method_of(rounding r) {
    if (static_cast<unsigned>(r) > 5) throw_bad_rounding_mode(static_cast<int>(r));
    return static_cast<Method>(r);
}

} // namespace lowp_detail

std::uint64_t encode(const IEEEFloat& x, const encoding& enc, rounding r, overflow o) {
    return encode_with(x, Plan(enc, lowp_detail::method_of(r), o), RoundingContext(r), nullptr);
}

std::uint64_t encode(const IEEEFloat& x, const encoding& enc, const stochastic& s, overflow o) {
    lowp_detail::check_stochastic(s);
    return encode_with(x, Plan(enc, Method::stochastic, o), RoundingContext(rounding::nearest_even),
                       &s);
}

} // namespace tarn
