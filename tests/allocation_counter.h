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
inline long allocations = 0;
// Blocks allocated minus blocks freed while counting.
inline long live_blocks = 0;

inline void* (*gmp_alloc)(size_t);
inline void* (*gmp_realloc)(void*, size_t, size_t);
inline void (*gmp_free)(void*, size_t);

inline void* counted_gmp_alloc(size_t n) {
    if (counting) ++allocations, ++live_blocks;
    return gmp_alloc(n);
}
inline void* counted_gmp_realloc(void* p, size_t old_size, size_t new_size) {
    if (counting) ++allocations;
    return gmp_realloc(p, old_size, new_size);
}

inline void counted_gmp_free(void* p, size_t n) {
    if (counting) --live_blocks;
    gmp_free(p, n);
}

/// Runs f with every allocation and release through operator new and GMP
/// counted. The counts are reset first.
template <class F>
void count_heap_in(F f) {
    mp_get_memory_functions(&gmp_alloc, &gmp_realloc, &gmp_free);
    mp_set_memory_functions(counted_gmp_alloc, counted_gmp_realloc, counted_gmp_free);
    allocations = 0;
    live_blocks = 0;
    counting = true;
    f();
    counting = false;
    mp_set_memory_functions(gmp_alloc, gmp_realloc, gmp_free);
}

/// Counts the allocations made by f, through operator new and through GMP.
template <class F>
long allocations_in(F f) {
    count_heap_in(f);
    return allocations;
}

/// The blocks f allocated and did not free: 0 unless f leaks (or keeps a
/// cache it had not filled before).
template <class F>
long blocks_left_by(F f) {
    count_heap_in(f);
    return live_blocks;
}

} // namespace tarn_testing

// Out of line, so that the compiler does not pair an inlined free() with the
// new expression it sees at the call site.
[[gnu::noinline]] void* operator new(std::size_t n) {
    if (tarn_testing::counting) ++tarn_testing::allocations, ++tarn_testing::live_blocks;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    if (p != nullptr && tarn_testing::counting) --tarn_testing::live_blocks;
    std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
    if (p != nullptr && tarn_testing::counting) --tarn_testing::live_blocks;
    std::free(p);
}
