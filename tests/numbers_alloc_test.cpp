// The small form's promise: values that fit two words never touch the heap,
// and neither do binary32 and binary64 values held in their words.
// This binary replaces the global allocation operator and GMP's allocator with
// counting versions and runs every small-form operation inside a window.
#include "allocation_counter.h"
#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/numbers/bvnumber.h"

#include <gtest/gtest.h>

using tarn_testing::allocations_in;

namespace tarn {
namespace {

// A thousand bits is beyond what the per-thread cache of freed integers keeps,
// so the heap is reached whatever earlier tests left behind.
TEST(NumbersAllocation, CountingSeesTheBigForm) {
    EXPECT_GT(allocations_in([] {
                  QNumber big;
                  BVNumber::pow2(1000, &big);
              }),
              0);
}

TEST(NumbersAllocation, SmallFormOperationsNeverAllocate) {
    QNumber const a(3, 7);
    QNumber const b(-5, 11);
    QNumber const c(1L << 20);
    QNumber const d(-(1L << 31) + 3);
    long sink = 0;
    long const count = allocations_in([&] {
        for (int i = 0; i < 100; ++i) {
            QNumber x = a;
            x += b;
            x -= c;
            x *= d;
            x /= b;
            x += 5;
            x -= 7;
            x *= -3;
            x = x.inv();
            x.self_neg();
            QNumber y = a + b;
            y = y - c;
            y = y * d;
            y = 3 / y;
            y = -y;
            y = y.floor();
            QNumber q, r;
            c.divmod(d, q, r);
            d.divmod(QNumber(2), q, r);
            sink += cmp(a, b) + (a < b) + (a == b) + (a < 5L) + (x != y) + x.get_num().is_small() +
                    x.get_den().is_small() + q.is_small() + r.is_small() + x.is_zero() +
                    x.is_negative() + x.is_integer();

            QNumber bits(0x5a5a5a5aL);
            BVNumber::set_bit(bits, 62, true);
            BVNumber::set_bit(bits, 70, false);
            BVNumber::set_bit(bits, 3, false);
            long word;
            sink += BVNumber::test_bit(bits, 62) + BVNumber::test_bit(bits, 64) +
                    static_cast<long>(BVNumber::scan_bit_1(bits, 7)) +
                    static_cast<long>(BVNumber::scan_bit_0(bits, 1)) +
                    static_cast<long>(BVNumber::count_leading_zeros(bits, 80)) +
                    BVNumber::to_long(bits, &word);
            BVNumber::trim(bits, 20);
            BVNumber::trim(bits, 64);
            BVNumber::pow2(62, &q);
            BVNumber::bit_left_shift(QNumber(3), 61, &r);
            BVNumber::bit_left_shift(QNumber(1), 62, &r);
            BVNumber::bit_left_shift(QNumber(0), 500, &r);
            BVNumber::bit_right_shift(bits, 5, &bits);
            BVNumber::bit_right_shift(bits, 64, &r);
            BVNumber::bit_op(bits, q, BVNumber::bit_and_l, mpz_and, &bits);
            sink += (word & 0xff) + bits.is_small() + r.is_small();
        }
    });
    EXPECT_EQ(count, 0);
    EXPECT_NE(sink, 0);
}

TEST(NumbersAllocation, WordFloatOperationsNeverAllocate) {
    // Not get_bits: a binary64 pattern with the sign set is an integer beyond
    // the small form.
    for (IEEEFloat::format f : {IEEEFloat::format{8, 23}, IEEEFloat::format{11, 52}}) {
        IEEEFloat const a =
            IEEEFloat::from_number(QNumber(10, 3), f, IEEEFloat::ROUND_NEAREST_EVEN);
        IEEEFloat const b = IEEEFloat::from_number(QNumber(-7, 5), f, IEEEFloat::ROUND_TOWARD_ZERO);
        long sink = 0;
        long const count = allocations_in([&] {
            for (int i = 0; i < 100; ++i) {
                IEEEFloat x = a;
                x += b;
                x -= a;
                x *= b;
                x /= a;
                x.sqrt();
                x.self_neg();
                x.set_sign(i % 2 == 0);
                x.next_representable(true);
                x.packed_next(false);
                IEEEFloat y(std::move(x));
                y.set_format(f == IEEEFloat::format{8, 23} ? IEEEFloat::format{11, 52}
                                                           : IEEEFloat::format{8, 23});
                y.set_format(f);
                x = y;
                sink += (x < a) + (x <= b) + (x == y) + ieee_cmp(x, b) + x.is_normal() +
                        x.is_subnormal() + x.is_zero() + x.is_inf() + x.is_nan() + x.get_sign();
            }
        });
        EXPECT_EQ(count, 0) << f.exponent_width;
        EXPECT_NE(sink, 0);
    }
}

} // namespace
} // namespace tarn
