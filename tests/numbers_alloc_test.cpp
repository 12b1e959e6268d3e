// The small form's promise: values that fit two words never touch the heap.
// This binary replaces the global allocation operator and GMP's allocator with
// counting versions and runs every small-form operation inside a window.
#include "tarn/numbers/bvnumber.h"

#include <cstdlib>
#include <gmp.h>
#include <gtest/gtest.h>
#include <new>

namespace {

bool counting = false;
long allocations = 0;

void* (*gmp_alloc)(size_t);
void* (*gmp_realloc)(void*, size_t, size_t);
void (*gmp_free)(void*, size_t);

void* counted_gmp_alloc(size_t n) {
    if (counting) ++allocations;
    return gmp_alloc(n);
}
void* counted_gmp_realloc(void* p, size_t old_size, size_t new_size) {
    if (counting) ++allocations;
    return gmp_realloc(p, old_size, new_size);
}

/// Counts the allocations made by f.
template <class F>
long allocations_in(F f) {
    mp_get_memory_functions(&gmp_alloc, &gmp_realloc, &gmp_free);
    mp_set_memory_functions(counted_gmp_alloc, counted_gmp_realloc, gmp_free);
    allocations = 0;
    counting = true;
    f();
    counting = false;
    mp_set_memory_functions(gmp_alloc, gmp_realloc, gmp_free);
    return allocations;
}

} // namespace

void* operator new(std::size_t n) {
    if (counting) ++allocations;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace tarn {
namespace {

TEST(NumbersAllocation, CountingSeesTheBigForm) {
    EXPECT_GT(allocations_in([] { QNumber(LONG_MAX) += 1; }), 0);
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

} // namespace
} // namespace tarn
