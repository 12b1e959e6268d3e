// MPFR on formats of at most 64 bits whose patterns are held in machine words, as a
// user of MPFR would hold binary16, bfloat16, fp8, binary32 or binary64 values: the
// fair baseline for tarn's word paths. The registers are set up once per format;
// nothing is allocated per call. Patterns follow the IEEE-754 layout of
// tests/oracle/oracle.h, and results agree with its Emulator.
#pragma once

#include "tests/oracle/oracle.h"

#include <cstdint>
#include <gmpxx.h>
#include <mpfr.h>

static_assert(GMP_NUMB_BITS == 64, "significands are read as one 64-bit limb");

namespace bench {

using Word = std::uint64_t;

using oracle::to_word;

class WordEmulator {
public:
    explicit WordEmulator(oracle::Format fmt)
        : fmt_(fmt), bias_(fmt.bias()), sign_(Word(1) << (fmt.e + fmt.m)),
          exp_mask_((Word(1) << fmt.e) - 1), mant_mask_((Word(1) << fmt.m) - 1) {
        mpfr_inits2(static_cast<mpfr_prec_t>(fmt.m) + 1, x_, y_, r_,
                    static_cast<mpfr_ptr>(nullptr));
    }
    ~WordEmulator() { mpfr_clears(x_, y_, r_, static_cast<mpfr_ptr>(nullptr)); }
    WordEmulator(const WordEmulator&) = delete;
    WordEmulator& operator=(const WordEmulator&) = delete;

    Word apply(oracle::Operation op, Word a, Word b, mpfr_rnd_t rnd) {
        enter_range();
        decode(x_, a);
        decode(y_, b);
        using oracle::Operation;
        const int t = op == Operation::Add   ? mpfr_add(r_, x_, y_, rnd)
                      : op == Operation::Sub ? mpfr_sub(r_, x_, y_, rnd)
                      : op == Operation::Mul ? mpfr_mul(r_, x_, y_, rnd)
                      : op == Operation::Div ? mpfr_div(r_, x_, y_, rnd)
                                             : mpfr_sqrt(r_, x_, rnd);
        mpfr_subnormalize(r_, t, rnd);
        return encode(r_);
    }

    Word from_rational(const mpq_class& q, mpfr_rnd_t rnd) {
        full_range();
        return fit(mpfr_set_q(r_, q.get_mpq_t(), rnd), rnd);
    }

    /// `bits` of `from`'s format rounded into this one.
    Word convert(WordEmulator& from, Word bits, mpfr_rnd_t rnd) {
        full_range();
        from.decode(from.x_, bits);
        return fit(mpfr_set(r_, from.x_, rnd), rnd);
    }

private:
    void enter_range() const {
        mpfr_set_emin(2 - bias_ - static_cast<long>(fmt_.m));
        mpfr_set_emax(bias_ + 1);
    }
    static void full_range() {
        mpfr_set_emin(mpfr_get_emin_min());
        mpfr_set_emax(mpfr_get_emax_max());
    }
    Word fit(int t, mpfr_rnd_t rnd) {
        enter_range();
        t = mpfr_check_range(r_, t, rnd);
        mpfr_subnormalize(r_, t, rnd);
        return encode(r_);
    }

    void decode(mpfr_ptr dst, Word bits) const {
        const bool negative = (bits & sign_) != 0;
        const Word field = (bits >> fmt_.m) & exp_mask_, mantissa = bits & mant_mask_;
        if (field == exp_mask_) {
            if (mantissa != 0)
                mpfr_set_nan(dst);
            else
                mpfr_set_inf(dst, negative ? -1 : 1);
        } else if (field == 0 && mantissa == 0) {
            mpfr_set_zero(dst, negative ? -1 : 1);
        } else {
            const long sig =
                static_cast<long>(field != 0 ? mantissa | (Word(1) << fmt_.m) : mantissa);
            const long exp =
                static_cast<long>(field != 0 ? field : 1) - bias_ - static_cast<long>(fmt_.m);
            mpfr_set_si_2exp(dst, negative ? -sig : sig, exp, MPFR_RNDN);
        }
    }

    Word encode(mpfr_srcptr src) const {
        if (mpfr_nan_p(src)) return sign_ | (exp_mask_ << fmt_.m) | 1;
        const Word sign = mpfr_signbit(src) ? sign_ : 0;
        if (mpfr_inf_p(src)) return sign | (exp_mask_ << fmt_.m);
        if (mpfr_zero_p(src)) return sign;
        // The significand is one limb whose top bit is the leading 1.
        const mpfr_exp_t exponent = mpfr_get_exp(src);
        const Word top = static_cast<const mp_limb_t*>(mpfr_custom_get_significand(src))[0];
        const long biased = exponent - 1 + bias_;
        if (biased >= 1)
            return sign | (Word(biased) << fmt_.m) | ((top >> (63 - fmt_.m)) & mant_mask_);
        return sign | (top >> (65 - bias_ - static_cast<long>(fmt_.m) - exponent));
    }

    oracle::Format fmt_;
    long bias_;
    Word sign_, exp_mask_, mant_mask_;
    mpfr_t x_, y_, r_;
};

} // namespace bench
