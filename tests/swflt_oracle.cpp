// Built with -frounding-math -ffp-contract=off: the compiler must neither fold, fuse nor
// move these operations across the changes of the rounding direction. The operands are
// volatile so that every operation really happens on the hardware at run time.

#include "swflt_oracle.h"

#include "tarn/swflt/swflt.h"

#include <cfenv>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace swflt_oracle {
namespace {

namespace sw = tarn::swflt;

template <class To, class From>
To bit_cast(From from) {
    static_assert(sizeof(To) == sizeof(From), "bit_cast needs equal sizes");
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

int host_direction(int code) {
    switch (code) {
    case sw::round_toward_negative:
        return FE_DOWNWARD;
    case sw::round_toward_positive:
        return FE_UPWARD;
    case sw::round_toward_zero:
        return FE_TOWARDZERO;
    default:
        return FE_TONEAREST;
    }
}

std::uint8_t raised_flags() {
    int const raised = std::fetestexcept(FE_ALL_EXCEPT);
    std::uint8_t flags = 0;
    if (raised & FE_INEXACT) flags |= sw::flag_inexact;
    if (raised & FE_UNDERFLOW) flags |= sw::flag_underflow;
    if (raised & FE_OVERFLOW) flags |= sw::flag_overflow;
    if (raised & FE_DIVBYZERO) flags |= sw::flag_divide_by_zero;
    if (raised & FE_INVALID) flags |= sw::flag_invalid;
    return flags;
}

template <class Float, class Word, class Op>
auto run(Word a, Word b, Op op) {
    volatile Float x = bit_cast<Float>(a);
    volatile Float y = bit_cast<Float>(b);
    std::feclearexcept(FE_ALL_EXCEPT);
    volatile Float r = op(x, y);
    std::uint8_t const flags = raised_flags();
    using Result = std::conditional_t<sizeof(Word) == 4, Result32, Result64>;
    return Result{bit_cast<Word>(static_cast<Float>(r)), flags};
}

template <class Float, class Word, class Op>
Result32 compare(Word a, Word b, Op op) {
    volatile Float x = bit_cast<Float>(a);
    volatile Float y = bit_cast<Float>(b);
    std::feclearexcept(FE_ALL_EXCEPT);
    volatile bool r = op(x, y);
    std::uint8_t const flags = raised_flags();
    return Result32{static_cast<std::uint32_t>(r), flags};
}

// The relational operators compile to the signalling compare instructions; an equality that
// signals on quiet NaNs is built from two of them.
bool signaling_equal_of(float x, float y) {
    return (x <= y) & (y <= x);
}
bool signaling_equal_of(double x, double y) {
    return (x <= y) & (y <= x);
}

} // namespace

HostRounding::HostRounding(int code) {
    std::fesetround(host_direction(code));
}
HostRounding::~HostRounding() {
    std::fesetround(FE_TONEAREST);
}

Result32 add32(std::uint32_t a, std::uint32_t b) {
    return run<float>(a, b, [](float x, float y) { return x + y; });
}
Result32 sub32(std::uint32_t a, std::uint32_t b) {
    return run<float>(a, b, [](float x, float y) { return x - y; });
}
Result32 mul32(std::uint32_t a, std::uint32_t b) {
    return run<float>(a, b, [](float x, float y) { return x * y; });
}
Result32 div32(std::uint32_t a, std::uint32_t b) {
    return run<float>(a, b, [](float x, float y) { return x / y; });
}
Result32 sqrt32(std::uint32_t a, std::uint32_t) {
    return run<float>(a, a, [](float x, float) { return std::sqrt(x); });
}
Result64 add64(std::uint64_t a, std::uint64_t b) {
    return run<double>(a, b, [](double x, double y) { return x + y; });
}
Result64 sub64(std::uint64_t a, std::uint64_t b) {
    return run<double>(a, b, [](double x, double y) { return x - y; });
}
Result64 mul64(std::uint64_t a, std::uint64_t b) {
    return run<double>(a, b, [](double x, double y) { return x * y; });
}
Result64 div64(std::uint64_t a, std::uint64_t b) {
    return run<double>(a, b, [](double x, double y) { return x / y; });
}
Result64 sqrt64(std::uint64_t a, std::uint64_t) {
    return run<double>(a, a, [](double x, double) { return std::sqrt(x); });
}

Result32 narrow(std::uint64_t a) {
    volatile double x = bit_cast<double>(a);
    std::feclearexcept(FE_ALL_EXCEPT);
    volatile float r = static_cast<float>(x);
    std::uint8_t const flags = raised_flags();
    return Result32{bit_cast<std::uint32_t>(static_cast<float>(r)), flags};
}

Result64 widen(std::uint32_t a) {
    volatile float x = bit_cast<float>(a);
    std::feclearexcept(FE_ALL_EXCEPT);
    volatile double r = static_cast<double>(x);
    std::uint8_t const flags = raised_flags();
    return Result64{bit_cast<std::uint64_t>(static_cast<double>(r)), flags};
}

Result32 lt32(std::uint32_t a, std::uint32_t b) {
    return compare<float>(a, b, [](float x, float y) { return x < y; });
}
Result32 le32(std::uint32_t a, std::uint32_t b) {
    return compare<float>(a, b, [](float x, float y) { return x <= y; });
}
Result32 eq32(std::uint32_t a, std::uint32_t b) {
    return compare<float>(a, b, [](float x, float y) { return signaling_equal_of(x, y); });
}
Result32 lt64(std::uint64_t a, std::uint64_t b) {
    return compare<double>(a, b, [](double x, double y) { return x < y; });
}
Result32 le64(std::uint64_t a, std::uint64_t b) {
    return compare<double>(a, b, [](double x, double y) { return x <= y; });
}
Result32 eq64(std::uint64_t a, std::uint64_t b) {
    return compare<double>(a, b, [](double x, double y) { return signaling_equal_of(x, y); });
}

} // namespace swflt_oracle
