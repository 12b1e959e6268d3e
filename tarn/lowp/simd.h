// Private to the library and its tests, not installed: the instruction sets
// the bulk kernels are built for, so that a test can run each one on the
// machine it has.
#pragma once

#include <cstdint>
#include <vector>

namespace tarn::lowp_detail {

/// The instruction sets (Highway's target bits) of the vector kernels that
/// this CPU runs, best last; empty when the library has none.
std::vector<std::int64_t> simd_targets();
/// Makes every later bulk call run the kernel of `target`, one of
/// simd_targets(), or with 0 the best again. Not for concurrent use.
void use_simd_target(std::int64_t target);

} // namespace tarn::lowp_detail
