// Counting of heap allocations, for tests that prove a stretch of work stays
// off the heap or gives back all it takes. Include this header in exactly one
// source file of a test binary: it replaces the global allocation operators of
// that binary, and the counting functions also route GMP's allocator through
// the count.
#pragma once

#include <cstdlib>
#include <gmp.h>
#include <new>

namespace tarn_testing {

inline bool counting = false;
// Allocations (reallocations included), and blocks allocated minus blocks freed.
inline long allocations = 0, live_blocks = 0;

inline void note(long allocated, long blocks) {
    if (counting) allocations += allocated, live_blocks += blocks;
}

/// Runs f with every allocation and release through operator new and GMP
/// counted. The counts are reset first.
template <class F>
void count_heap_in(F f) {
    static void* (*gmp_alloc)(size_t);
    static void* (*gmp_realloc)(void*, size_t, size_t);
    static void (*gmp_free)(void*, size_t);
    mp_get_memory_functions(&gmp_alloc, &gmp_realloc, &gmp_free);
    mp_set_memory_functions(
        [](size_t n) { return note(1, 1), gmp_alloc(n); },
        [](void* p, size_t old, size_t n) { return note(1, 0), gmp_realloc(p, old, n); },
        [](void* p, size_t n) { note(0, -1), gmp_free(p, n); });
    allocations = live_blocks = 0;
    counting = true;
    f();
    counting = false;
    mp_set_memory_functions(gmp_alloc, gmp_realloc, gmp_free);
}

/// Counts the allocations made by f, through operator new and through GMP.
template <class F>
long allocations_in(F f) {
    return count_heap_in(f), allocations;
}

/// The blocks f allocated and did not free: 0 unless f leaks (or keeps a
/// cache it had not filled before).
template <class F>
long blocks_left_by(F f) {
    return count_heap_in(f), live_blocks;
}

} // namespace tarn_testing

// Out of line, so that the compiler does not pair an inlined free() with the
// new expression it sees at the call site.
[[gnu::noinline]] void* operator new(std::size_t n) {
    tarn_testing::note(1, 1);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    if (p != nullptr) tarn_testing::note(0, -1);
    std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
    operator delete(p);
}
