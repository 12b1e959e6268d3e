// tarn::BVNumber, bit-vector operations on non-negative integer QNumbers.
//
// The float code builds and takes apart packed bit patterns with these
// functions: bit i of a value is the coefficient of 2^i. Every operation has
// a word path for small operands within fixed limits, which never allocates,
// and a GMP path for the rest. Results are assigned to an output QNumber, so
// the output may be one of the inputs, and a big output stays big.
#pragma once

#include "tarn/numbers/qnumber.h"

#include <climits>
#include <cstdint>
#include <gmp.h>

static_assert(GMP_NUMB_BITS == 64, "two-word access reads 64-bit limbs");

namespace tarn {

/// Static bit-vector operations on integer QNumbers. Operands must be
/// non-negative integers (to_long accepts any integer); only numerators are
/// read. A negative operand gives an unspecified value and form, but never
/// undefined behaviour: the word paths see its two's complement word and the
/// GMP paths GMP's infinite two's complement.
class BVNumber {
public:
    /// Not constructible: BVNumber only groups static functions.
    BVNumber() = delete;

    /// Returned by the scans when no matching bit exists.
    static constexpr unsigned long no_bit = ~0UL;

    /// Sets bit i of q to v, in place. Setting a bit at 63 or above moves a
    /// small q to the big form.
    static void set_bit(QNumber& q, unsigned long i, bool v) {
        if (q.is_small()) {
            if (i <= 62) {
                unsigned long const mask = 1UL << i;
                unsigned long const word = static_cast<unsigned long>(q.num_);
                q.num_ = static_cast<long>(v ? word | mask : word & ~mask);
                return;
            }
            // A non-negative word has no bits at 63 or above to clear.
            if (!v) return;
            q.become_big_from_words();
        }
        if (v)
            mpz_setbit(q.big_->num, i);
        else
            mpz_clrbit(q.big_->num, i);
    }

    /// Bit i of q.
    static bool test_bit(QNumber const& q, unsigned long i) noexcept {
        if (q.is_small()) return i < 64 && ((static_cast<unsigned long>(q.num_) >> i) & 1UL);
        return mpz_tstbit(q.big_->num, i) != 0;
    }

    /// The lowest index at or above start whose bit is 1, or no_bit.
    static unsigned long scan_bit_1(QNumber const& q, unsigned long start) noexcept {
        if (q.is_small()) {
            if (start >= 64) return no_bit;
            unsigned long const rest = static_cast<unsigned long>(q.num_) >> start;
            // One trailing-zero count instead of a halving sequence; same result.
            return rest == 0 ? no_bit : start + static_cast<unsigned long>(__builtin_ctzl(rest));
        }
        return mpz_scan1(q.big_->num, start);
    }

    /// The lowest index at or above start whose bit is 0 (always exists for a
    /// non-negative value).
    static unsigned long scan_bit_0(QNumber const& q, unsigned long start) noexcept {
        if (q.is_small()) {
            // Every bit from 63 up of a non-negative word is 0.
            if (start > 63) return start;
            unsigned long const rest = ~static_cast<unsigned long>(q.num_) >> start;
            // rest is 0 only for a negative word (outside the contract).
            return rest == 0 ? no_bit : start + static_cast<unsigned long>(__builtin_ctzl(rest));
        }
        return mpz_scan0(q.big_->num, start);
    }

    /// True and *out = q when the integer q fits a signed 64-bit word (in
    /// either form); false and *out untouched otherwise.
    static bool to_long(QNumber const& q, long* out) noexcept {
        if (q.is_small()) {
            *out = q.num_;
            return true;
        }
        if (!mpz_fits_slong_p(q.big_->num)) return false;
        *out = mpz_get_si(q.big_->num);
        return true;
    }

    /// q becomes q mod 2^width, in place. Costs nothing when q already fits.
    static void trim(QNumber& q, unsigned long width) {
        if (q.is_small()) {
            if (width >= 64) return;
            unsigned long const word = static_cast<unsigned long>(q.num_);
            if ((word >> width) == 0) return;
            q.num_ = static_cast<long>(word & ((1UL << width) - 1));
            return;
        }
        if (mpz_sizeinbase(q.big_->num, 2) <= width) return;
        // Masking a big value leaves it big; taking the low bits in place is
        // the AND with 2^width - 1 without building the mask.
        mpz_fdiv_r_2exp(q.big_->num, q.big_->num, width);
    }

    /// *out = 2^n: small for n <= 62, big from 63 on.
    static void pow2(unsigned long n, QNumber* out) {
        if (n <= 62) {
            out->assign_long(1L << n);
            return;
        }
        out->make_big_integer();
        mpz_set_ui(out->big_->num, 0);
        mpz_setbit(out->big_->num, n);
    }

    /// *out = q × 2^n: small whenever the result fits a word, even for a big
    /// q (a big output stays big). A big result is computed in the output's
    /// own integer, so shifting into a grown output allocates nothing.
    static void bit_left_shift(QNumber const& q, unsigned long n, QNumber* out) {
        if (n == 0) {
            *out = q;
            return;
        }
        if (q.is_small()) {
            unsigned long const word = static_cast<unsigned long>(q.num_);
            if (n <= 62 && (word >> (63 - n)) == 0) {
                out->assign_long(static_cast<long>(word << n));
                return;
            }
            if (word == 0) {
                out->assign_long(0);
                return;
            }
            // A non-zero word that fails the test above needs bit 63 or higher.
            out->make_big_integer(); // out may be &q: word was read first
            mpz_set_si(out->big_->num, static_cast<long>(word));
            mpz_mul_2exp(out->big_->num, out->big_->num, n);
            return;
        }
        mpz_srcptr const z = q.big_->num;
        if (out->is_small() && shifted_fits_word(z, n)) {
            // A non-zero z that fits has n < 63; a zero stays zero at any n.
            unsigned long const word = static_cast<unsigned long>(mpz_get_si(z));
            out->assign_long(word == 0 ? 0 : static_cast<long>(word << n));
            return;
        }
        out->make_big_integer();
        mpz_mul_2exp(out->big_->num, z, n);
    }

    /// *out = floor(q / 2^n), in the form of q (a big output stays big).
    static void bit_right_shift(QNumber const& q, unsigned long n, QNumber* out) {
        if (n == 0) {
            *out = q;
            return;
        }
        if (q.is_small()) {
            out->assign_long(n <= 63 ? q.num_ >> n : (q.num_ < 0 ? -1 : 0));
            return;
        }
        out->make_big_integer(); // out may be &q: GMP shifts in place
        mpz_fdiv_q_2exp(out->big_->num, q.big_->num, n);
    }

    /// width minus the bit length of q, or 0 when the bit length exceeds width.
    static unsigned long count_leading_zeros(QNumber const& q, unsigned long width) noexcept {
        // Leading zeros of a byte value: the portable way to finish a count
        // once halving has brought the top set bit into the top byte.
        [[maybe_unused]] static constexpr unsigned char count_tbl[256] = {
            8, 7, 6, 6, 5, 5, 5, 5, 4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3,
            3, 3, 3, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2,
            2, 2, 2, 2, 2, 2, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
            1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
            1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        if (q.is_big()) {
            // GMP gives a bit length of 1 for zero; a big zero has none.
            unsigned long const length =
                mpz_sgn(q.big_->num) == 0 ? 0 : mpz_sizeinbase(q.big_->num, 2);
            return width >= length ? width - length : 0;
        }
        unsigned long word = static_cast<unsigned long>(q.num_);
        unsigned long zeros;
#if defined(__GNUC__)
        // One instruction where the compiler has it; identical to the table.
        zeros = word == 0 ? 64 : static_cast<unsigned long>(__builtin_clzl(word));
#else
        zeros = 0;
        if ((word >> 32) == 0) zeros += 32, word <<= 32;
        if ((word >> 48) == 0) zeros += 16, word <<= 16;
        if ((word >> 56) == 0) zeros += 8, word <<= 8;
        zeros += count_tbl[word >> 56];
#endif
        // The word has 64 bits, the bit length is 64 - zeros.
        if (width >= 64) return zeros + (width - 64);
        unsigned long const excess = 64 - width;
        return zeros >= excess ? zeros - excess : 0;
    }

    /// *out = a op b for a symmetric bitwise op, given as a word function
    /// long(long, long) and a GMP function void(mpz_ptr, mpz_srcptr,
    /// mpz_srcptr). Small when both operands are small, big otherwise; a big
    /// result is computed in the output's own integer.
    template <class F, class G>
    static void bit_op(QNumber const& a, QNumber const& b, F word_op, G gmp_op, QNumber* out) {
        if (a.is_small() && b.is_small()) {
            out->assign_long(word_op(a.num_, b.num_));
            return;
        }
        // Views copy a small operand's word, so out may alias either operand.
        QNumber::WordView a_word;
        QNumber::WordView b_word;
        mpz_srcptr const x = a.numerator_in(a_word);
        mpz_srcptr const y = b.numerator_in(b_word);
        out->make_big_integer();
        gmp_op(out->big_->num, x, y);
    }

    /// x AND y, the word half of the library's one bit_op.
    static long bit_and_l(long x, long y) noexcept {
        return x & y;
    }

    /// True, with the low and the high 64 bits of q in *low and *high, when
    /// q is a non-negative integer below 2^128 (in either form); false and
    /// both words untouched otherwise. Never allocates: this is how the float
    /// code reads two-word bit patterns.
    static bool to_words(QNumber const& q, std::uint64_t* low, std::uint64_t* high) noexcept {
        if (q.is_small()) {
            if (q.num_ < 0) return false;
            *low = static_cast<std::uint64_t>(q.num_);
            *high = 0;
            return true;
        }
        mpz_srcptr z = q.big_->num;
        if (mpz_sgn(z) < 0 || mpz_size(z) > 2) return false;
        *low = mpz_getlimbn(z, 0);
        *high = mpz_getlimbn(z, 1);
        return true;
    }

    /// True, with the magnitude of q's numerator and q's denominator each as
    /// a low and a high word, when both are below 2^128 (q in either form);
    /// false and the words untouched otherwise. Unlike the other functions
    /// here it reads any rational q: conversions from rationals read their
    /// parts this way without copying them into numbers of their own.
    static bool fraction_to_words(QNumber const& q, std::uint64_t num[2],
                                  std::uint64_t den[2]) noexcept {
        if (q.is_small()) {
            num[0] = QNumber::magnitude(q.num_);
            num[1] = 0;
            den[0] = static_cast<std::uint64_t>(q.den_);
            den[1] = 0;
            return true;
        }
        mpz_srcptr const n = q.big_->num;
        mpz_srcptr const d = q.big_->den;
        if (mpz_size(n) > 2 || mpz_size(d) > 2) return false;
        num[0] = mpz_getlimbn(n, 0);
        num[1] = mpz_getlimbn(n, 1);
        den[0] = mpz_getlimbn(d, 0);
        den[1] = mpz_getlimbn(d, 1);
        return true;
    }

    /// *out = the magnitude of q's numerator (or denominator) divided by its
    /// largest power-of-two factor; returns the exponent of that factor. For
    /// any non-zero rational q. The part is read in place, so a part of
    /// thousands of bits that is mostly trailing zeros is never copied whole.
    static unsigned long odd_numerator(QNumber const& q, QNumber* out) {
        if (q.is_small()) return odd_word(QNumber::magnitude(q.num_), out);
        return odd_integer(q.big_->num, out);
    }
    static unsigned long odd_denominator(QNumber const& q, QNumber* out) {
        if (q.is_small()) return odd_word(static_cast<std::uint64_t>(q.den_), out);
        return odd_integer(q.big_->den, out);
    }

    /// *out = high * 2^64 + low. A value that fits a signed word goes into a
    /// small *out as a word; a big *out stays big and reuses its limbs, so
    /// writing two-word patterns into the same number allocates only once.
    static void assign_words(std::uint64_t low, std::uint64_t high, QNumber* out) {
        if (high == 0 && low <= static_cast<std::uint64_t>(LONG_MAX)) {
            out->assign_long(static_cast<long>(low));
            return;
        }
        if (out->is_small()) {
            // Straight to a pair, without first copying the word into it:
            // both of its integers are overwritten below. A 64-bit pattern
            // with the top bit set comes through here on every decoding.
            out->big_ = QNumber::take_pair();
            out->den_ = 0;
        }
        int const size = high != 0 ? 2 : 1;
        mp_limb_t* limbs = mpz_limbs_write(out->big_->num, size);
        limbs[0] = low;
        if (high != 0) limbs[1] = high;
        mpz_limbs_finish(out->big_->num, size);
        mpz_set_ui(out->big_->den, 1);
    }

private:
    static unsigned long odd_word(std::uint64_t magnitude, QNumber* out) {
        auto const zeros = static_cast<unsigned long>(__builtin_ctzll(magnitude));
        out->assign_long(static_cast<long>(magnitude >> zeros));
        return zeros;
    }

    static unsigned long odd_integer(mpz_srcptr z, QNumber* out) {
        // Trailing zeros are the same in GMP's two's complement of -|z|.
        unsigned long const zeros = mpz_scan1(z, 0);
        out->make_big_integer();
        mpz_tdiv_q_2exp(out->big_->num, z, zeros);
        mpz_abs(out->big_->num, out->big_->num);
        return zeros;
    }

    /// Whether z × 2^n fits a signed word other than -2^63.
    static bool shifted_fits_word(mpz_srcptr z, unsigned long n) noexcept {
        if (mpz_sgn(z) == 0) return true;
        unsigned long const length = mpz_sizeinbase(z, 2);
        return n < 63 && length <= 63 - n;
    }
};

} // namespace tarn
