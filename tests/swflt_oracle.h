#pragma once

// The host FPU as the reference for the soft-float tests.

#include <cstdint>

namespace swflt_oracle {

// clang-format off
enum class Op { add, sub, mul, div, sqrt, convert, lt, le, eq, fma, nearbyint, rint,
                remainder, fmin, fmax, scalbn, ilogb };
// clang-format on

/// A result word (0 or 1 for comparisons) and the IEEE flags raised, as soft-float flag bits.
struct Outcome {
    std::uint64_t bits;
    std::uint8_t flags;
};

/// Performs `op` once on the hardware in binary32 (width 32) or binary64 (width 64) under the
/// host rounding that HostRounding chose. `convert` narrows a binary64 word for width 32 and widens
/// a binary32 word for width 64; sqrt and convert ignore b; eq is the signalling equality; only fma
/// reads c. scalbn reads b as an int; ilogb gives the low 32 bits of its int.
Outcome host(Op op, int width, std::uint64_t a, std::uint64_t b, std::uint64_t c = 0);

/// Chooses the host rounding direction of `host` from a soft-float rounding code (0 to 3, any
/// other code rounding to nearest) for the current scope. The hardware has no direction for
/// codes 4 (ties away) and 5 (to odd); the library's word rows check them against MPFR.
class HostRounding {
public:
    explicit HostRounding(int code);
    ~HostRounding();
    HostRounding(HostRounding const&) = delete;
    HostRounding& operator=(HostRounding const&) = delete;
};

} // namespace swflt_oracle
