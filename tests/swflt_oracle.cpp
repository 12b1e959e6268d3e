// Built with -frounding-math -ffp-contract=off: the compiler must neither fold, fuse nor move
// these operations across changes of the rounding direction. The operands are volatile so that
// every operation really happens on the hardware at run time.

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

template <class From, class To>
Outcome convert(std::uint64_t a) {
    using Word = std::conditional_t<sizeof(From) == 4, std::uint32_t, std::uint64_t>;
    using Result = std::conditional_t<sizeof(To) == 4, std::uint32_t, std::uint64_t>;
    volatile From x = bit_cast<From>(static_cast<Word>(a));
    std::feclearexcept(FE_ALL_EXCEPT);
    volatile To r = static_cast<To>(x);
    std::uint8_t const flags = raised_flags();
    return {bit_cast<Result>(static_cast<To>(r)), flags};
}

template <class Float, class Word>
Outcome compute(Op op, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    volatile Float x = bit_cast<Float>(static_cast<Word>(a));
    volatile Float y = bit_cast<Float>(static_cast<Word>(b));
    volatile Float z = bit_cast<Float>(static_cast<Word>(c));
    volatile Float r = 0;
    volatile bool truth = false;
    std::feclearexcept(FE_ALL_EXCEPT);
    if (op == Op::add) r = x + y;
    if (op == Op::sub) r = x - y;
    if (op == Op::mul) r = x * y;
    if (op == Op::div) r = x / y;
    if (op == Op::sqrt) r = std::sqrt(x);
    if (op == Op::fma) r = std::fma(x, y, z);
    if (op == Op::nearbyint) r = std::nearbyint(x);
    if (op == Op::rint) r = std::rint(x);
    if (op == Op::remainder) r = std::remainder(x, y);
    if (op == Op::fmin) r = std::fmin(x, y);
    if (op == Op::fmax) r = std::fmax(x, y);
    if (op == Op::scalbn) r = std::scalbn(x, static_cast<int>(b));
    volatile int logb = op == Op::ilogb ? std::ilogb(x) : 0;
    if (op == Op::lt) truth = x < y;
    if (op == Op::le) truth = x <= y;
    // The relational operators signal on quiet NaNs; == does not, so build it from two. When
    // the first is false it has already raised whatever a NaN raises.
    if (op == Op::eq) truth = x <= y && y <= x;
    std::uint8_t const flags = raised_flags();
    bool const is_compare = op == Op::lt || op == Op::le || op == Op::eq;
    if (op == Op::ilogb) return {static_cast<std::uint32_t>(logb), flags};
    return {is_compare ? std::uint64_t(truth) : bit_cast<Word>(static_cast<Float>(r)), flags};
}

Outcome under(int direction, Op op, int width, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    int const saved = std::fegetround();
    std::fesetround(direction);
    Outcome const outcome =
        op == Op::convert ? (width == 32 ? convert<double, float>(a) : convert<float, double>(a))
        : width == 32     ? compute<float, std::uint32_t>(op, a, b, c)
                          : compute<double, std::uint64_t>(op, a, b, c);
    std::fesetround(saved);
    return outcome;
}

thread_local int rounding_code = 0;

} // namespace

Outcome host(Op op, int width, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    int const directions[] = {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO};
    int const code = rounding_code;
    return under(code >= 0 && code <= 3 ? directions[code] : FE_TONEAREST, op, width, a, b, c);
}

HostRounding::HostRounding(int code) {
    rounding_code = code;
}
HostRounding::~HostRounding() {
    rounding_code = 0;
}

} // namespace swflt_oracle
