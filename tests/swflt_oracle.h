#pragma once

// The host FPU as the reference for the soft-float tests.

#include <cstdint>

namespace swflt_oracle {

enum class Op { add, sub, mul, div, sqrt, convert, lt, le, eq, fma };

/// A result word (0 or 1 for comparisons) and the IEEE flags raised, as soft-float flag bits.
struct Outcome {
    std::uint64_t bits;
    std::uint8_t flags;
};

/// Performs `op` once on the hardware in binary32 (width 32) or binary64 (width 64) under the
/// current host rounding. `convert` narrows a binary64 word for width 32 and widens a binary32
/// word for width 64; sqrt and convert ignore b; eq is the signalling equality; only fma reads c.
Outcome host(Op op, int width, std::uint64_t a, std::uint64_t b, std::uint64_t c = 0);

/// Sets the host rounding direction from a soft-float rounding code for the current scope.
/// The hardware has no direction for codes 4 (ties away) and 5 (to odd): under them `host`
/// derives the result from the toward-zero, nearest-even and upward or downward results, with
/// MPFR deciding whether the exact value is a tie.
class HostRounding {
public:
    explicit HostRounding(int code);
    ~HostRounding();
    HostRounding(HostRounding const&) = delete;
    HostRounding& operator=(HostRounding const&) = delete;
};

} // namespace swflt_oracle
