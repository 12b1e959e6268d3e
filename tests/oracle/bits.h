// Small integer helpers shared by the reference and the operand generators.
#pragma once

#include <gmpxx.h>

namespace oracle {

/// The number of bits of a non-negative integer; 0 for 0.
inline unsigned long bit_length(const mpz_class& n) {
    return mpz_sgn(n.get_mpz_t()) == 0 ? 0 : mpz_sizeinbase(n.get_mpz_t(), 2);
}

/// 2^n.
inline mpz_class pow2(unsigned long n) {
    mpz_class r;
    mpz_setbit(r.get_mpz_t(), n);
    return r;
}

} // namespace oracle
