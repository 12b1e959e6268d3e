// The IEEE remainder a - n * b, n being a / b rounded to the nearest integer,
// ties to even.
//
// With a = Ma * 2^ka and b = Mb * 2^kb, both magnitudes are integers in units
// of 2^k, k = min(ka, kb): A and B. The remainder is 2^k times that of A by
// B, and only A modulo 2B matters: it tells the parity of the truncated
// quotient and what is left over. When ka > kb, A = Ma * 2^(ka - kb) is
// reduced as (Ma mod 2B) * (2^(ka - kb) mod 2B) with a modular power, so an
// exponent difference of any size costs its number of bits, never a shift.
// When kb exceeds ka by more than the length of Ma, |a| < |b| / 2 and the
// remainder is a. Patterns that fit a word are reduced in registers, the
// others with GMP, and both end in the rounding core, which makes the result
// exact when the formats agree and rounds it once when they do not.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/word_arith.h"

#include <gmpxx.h>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// From rest = A mod 2B, the magnitude of the remainder of A by B and
/// whether it points against A: the truncated quotient is odd when rest >= B;
/// a rest past B / 2, or exactly B / 2 after an odd quotient, takes one more
/// B and flips the sign.
template <class W>
W nearest_rest(W rest, const W& b, bool& flip) {
    const bool odd = rest >= b;
    if (odd) rest -= b;
    const W other = b - rest;
    flip = rest > other || (rest == other && odd);
    return flip ? other : rest;
}

/// 2^d mod n for n >= 2, n below 2^63, by squaring.
u128 pow2_mod(unsigned long d, u128 n) {
    u128 p = 1;
    for (int bit = d == 0 ? -1 : 63 - __builtin_clzl(d); bit >= 0; --bit) {
        p = p * p % n;
        if ((d >> bit) & 1) p = (p << 1) % n;
    }
    return p;
}

/// The remainder of two finite non-zero values split into words, rounded
/// into `out` on words when the held format of `out` has a word path.
/// False when the significands do not fit words.
bool remainder_words(IEEEFloat& out, RoundingContext& r, const FiniteParts& a,
                     const FiniteParts& b) {
    const format f = Access::held_format(out);
    if (!a.in_word || !b.in_word || !Access::word_pattern(f)) return false;
    u128 big_b = b.word, rest;
    long k = b.exponent;
    if (a.exponent >= b.exponent) {
        const u128 modulus = big_b << 1;
        const auto d = static_cast<unsigned long>(a.exponent) - static_cast<unsigned long>(k);
        rest = a.word % modulus * pow2_mod(d, modulus) % modulus;
    } else {
        const auto d =
            static_cast<unsigned long>(b.exponent) - static_cast<unsigned long>(a.exponent);
        if (d > static_cast<unsigned long>(bit_length(a.word)) + 1) return true; // out holds a
        big_b <<= d;
        rest = a.word % (big_b << 1);
        k = a.exponent;
    }
    bool flip;
    const u128 magnitude = nearest_rest(rest, big_b, flip);
    const WordFormat<std::uint64_t> wf(f);
    const bool negative = a.negative != flip;
    Access::store(out, magnitude == 0 ? wf.signed_zero(a.negative)
                                      : round_bits(wf, r, negative, magnitude, k + long(wf.m)) |
                                            wf.signed_zero(negative));
    return true;
}

/// A finite non-zero value as (-1)^negative * sig * 2^k, exponents of any size.
struct Exact {
    bool negative;
    mpz_class sig, k;
};

/// x exactly, from its parts when decode_value could split it, otherwise
/// from the packed codec, which is not bound to exponents that fit a word.
Exact exact_of(const IEEEFloat& x, const FiniteParts* p) {
    if (p) return {p->negative, p->in_word ? mpz_class(p->word) : p->wide, p->exponent};
    TempNumProvider tmp;
    Exact v;
    Access::split(x, v.negative, tmp[0], tmp[1]);
    v.sig = tmp[1].to_mpz();
    v.k = tmp[0].to_mpz() - Access::held_format(x).mantissa_width;
    return v;
}

/// The same on GMP integers, for every size of significand and exponent.
void remainder_exact(IEEEFloat& out, RoundingContext& r, const Exact& a, Exact b) {
    if (a.sig == 0 || b.sig == 0) return; // no value but zero: a format without exponent bits
    mpz_class rest, k = b.k;
    if (a.k >= b.k) {
        const mpz_class modulus = b.sig << 1, d = a.k - b.k;
        // A shift no longer than the operands costs less than the modular power.
        if (d <= 256) {
            rest = (a.sig << d.get_ui()) % modulus;
        } else {
            mpz_powm(rest.get_mpz_t(), mpz_class(2).get_mpz_t(), d.get_mpz_t(),
                     modulus.get_mpz_t());
            rest = rest * a.sig % modulus;
        }
    } else {
        const mpz_class d = b.k - a.k;
        if (d > mpz_sizeinbase(a.sig.get_mpz_t(), 2) + 1) return; // out holds a
        b.sig <<= d.get_ui();
        rest = a.sig % (b.sig << 1);
        k = a.k;
    }
    bool flip;
    const mpz_class magnitude = nearest_rest(rest, b.sig, flip);
    if (magnitude == 0) return out.self_zero(a.negative);
    const format f = Access::held_format(out);
    TempNumProvider tmp;
    tmp[0] = QNumber(mpz_class(k + f.mantissa_width));
    tmp[1] = QNumber(magnitude);
    QNumber packed;
    round_and_pack_float(tmp, f, r, a.negative != flip, tmp[0], tmp[1], packed);
    Access::store(out, packed);
}

} // namespace

IEEEFloat remainder(const IEEEFloat& a, const IEEEFloat& b) {
    const bool a_nan = a.is_nan(), b_nan = b.is_nan();
    if (a_nan || b_nan) {
        if (is_signaling(a) || is_signaling(b)) raise(FLAG_INVALID);
        return Access::nan_result(a, b);
    }
    IEEEFloat result(a);
    if (a.is_inf() || b.is_zero()) {
        raise(FLAG_INVALID);
        result.self_nan();
        return result;
    }
    // A zero, or a finite a over an infinite b, is its own remainder.
    if (a.is_zero() || b.is_inf()) return result;
    RoundingContext r = Access::context_of(a);
    // Formats of up to 62 exponent bits split with exponents in words.
    const auto split = [](const IEEEFloat& x, FiniteParts& p) {
        return (x.get_repr() != IEEEFloat::REPR_GENERIC || x.get_format().exponent_width <= 62) &&
               decode_value(x.get_repr(), Access::held(x), x.get_format(), p) == ValueClass::finite;
    };
    FiniteParts pa, pb;
    const bool a_split = split(a, pa), b_split = split(b, pb);
    if (!a_split || !b_split || !remainder_words(result, r, pa, pb))
        remainder_exact(result, r, exact_of(a, a_split ? &pa : nullptr),
                        exact_of(b, b_split ? &pb : nullptr));
    raise(r.flags);
    return result;
}

} // namespace tarn
