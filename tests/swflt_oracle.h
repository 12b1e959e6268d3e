#pragma once

// The host FPU as a reference for the soft-float tests: each call performs one hardware
// operation under the rounding code given and reports the IEEE flags it raised, translated to
// the soft-float flag constants.

#include <cstdint>

namespace swflt_oracle {

struct Result32 {
    std::uint32_t bits;
    std::uint8_t flags;
};
struct Result64 {
    std::uint64_t bits;
    std::uint8_t flags;
};

/// Sets the host rounding direction for the current thread from a soft-float rounding code
/// and restores round-to-nearest when destroyed.
class HostRounding {
public:
    explicit HostRounding(int code);
    ~HostRounding();
    HostRounding(HostRounding const&) = delete;
    HostRounding& operator=(HostRounding const&) = delete;
};

Result32 add32(std::uint32_t a, std::uint32_t b);
Result32 sub32(std::uint32_t a, std::uint32_t b);
Result32 mul32(std::uint32_t a, std::uint32_t b);
Result32 div32(std::uint32_t a, std::uint32_t b);
Result32 sqrt32(std::uint32_t a, std::uint32_t);
Result64 add64(std::uint64_t a, std::uint64_t b);
Result64 sub64(std::uint64_t a, std::uint64_t b);
Result64 mul64(std::uint64_t a, std::uint64_t b);
Result64 div64(std::uint64_t a, std::uint64_t b);
Result64 sqrt64(std::uint64_t a, std::uint64_t);

Result32 narrow(std::uint64_t a);
Result64 widen(std::uint32_t a);

// Comparisons return 0 or 1 in `bits`.
Result32 lt32(std::uint32_t a, std::uint32_t b);
Result32 le32(std::uint32_t a, std::uint32_t b);
Result32 eq32(std::uint32_t a, std::uint32_t b);
Result32 lt64(std::uint64_t a, std::uint64_t b);
Result32 le64(std::uint64_t a, std::uint64_t b);
Result32 eq64(std::uint64_t a, std::uint64_t b);

} // namespace swflt_oracle
