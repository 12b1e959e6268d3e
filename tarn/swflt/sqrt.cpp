// Square root. The significand is scaled to an integer X whose square root has its leading
// bit at width - 2, so floor(sqrt(X)) is the working significand and X != floor(sqrt(X))^2 is
// the sticky bit. The integer square root starts from a reciprocal-square-root estimate
// (a table and Newton steps in fixed point) and is then made exact with the remainder.

#include "tarn/swflt/internal.h"
#include "tarn/swflt/swflt.h"

#include <array>
#include <cstdint>

namespace tarn {
namespace swflt {
namespace {

using namespace detail;

// floor(sqrt(n)); runs only at compile time, to fill the table.
constexpr std::uint64_t integer_sqrt_slow(std::uint64_t n) {
    std::uint64_t low = 0;
    std::uint64_t high = std::uint64_t(1) << 32;
    while (high - low > 1) {
        std::uint64_t const mid = low + (high - low) / 2;
        if (mid * mid <= n) {
            low = mid;
        } else {
            high = mid;
        }
    }
    return low;
}

// Entry i - 64 holds 2^16 / sqrt(a) at the midpoint of [i / 64, (i + 1) / 64), for a in [1, 4):
// about 9 correct bits, which two Newton steps raise to the 31 of the fixed-point format.
constexpr int table_first = 64;
constexpr int table_size = 192;

constexpr std::array<std::uint16_t, table_size> make_rsqrt_table() {
    std::array<std::uint16_t, table_size> table{};
    for (int i = 0; i < table_size; ++i) {
        std::uint64_t const twice_index_plus_one =
            2 * static_cast<std::uint64_t>(i + table_first) + 1;
        table[static_cast<std::size_t>(i)] = static_cast<std::uint16_t>(
            integer_sqrt_slow((std::uint64_t(1) << 39) / twice_index_plus_one));
    }
    return table;
}

constexpr std::array<std::uint16_t, table_size> rsqrt_table = make_rsqrt_table();

// For a32 in [2^30, 2^32), read as a = a32 / 2^30 in [1, 4): an estimate of 2^32 / sqrt(a),
// below 2^32. Newton's step y' = y (3 - a y^2) / 2 roughly squares the relative error.
inline std::uint64_t reciprocal_sqrt(std::uint64_t a32) {
    std::uint64_t y = std::uint64_t(rsqrt_table[(a32 >> 24) - table_first]) << 16;
    for (int step = 0; step < 2; ++step) {
        std::uint64_t const y_squared = (y * y) >> 32;     // 2^32 y^2
        std::uint64_t const a_y_squared = y_squared * a32; // 2^62 a y^2
        std::uint64_t const three_minus =
            (std::uint64_t(3) << 62) - a_y_squared; // 2^62 (3 - a y^2)
        y = static_cast<std::uint64_t>((u128(y) * three_minus) >> 63);
        if (y >> 32) y = (std::uint64_t(1) << 32) - 1;
    }
    return y;
}

struct Root64 {
    std::uint64_t root;      // floor(sqrt(x))
    std::uint64_t remainder; // x - root^2
};

// Integer square root of x in [2^60, 2^62).
inline Root64 integer_sqrt(std::uint64_t x) {
    std::uint64_t const a32 = x >> 30;
    std::uint64_t root = (a32 * reciprocal_sqrt(a32)) >> 32;
    // The estimate is within a few units; walk it to the floor with the exact remainder.
    auto remainder = static_cast<std::int64_t>(x - root * root);
    while (remainder < 0) {
        --root;
        remainder += static_cast<std::int64_t>(2 * root + 1);
    }
    while (static_cast<std::uint64_t>(remainder) > 2 * root) {
        remainder -= static_cast<std::int64_t>(2 * root + 1);
        ++root;
    }
    return {root, static_cast<std::uint64_t>(remainder)};
}

// floor(sqrt(x)) for x in [2^124, 2^126), with `exact` set when x is its square.
inline std::uint64_t integer_sqrt(u128 x, bool& exact) {
    // The root of the high word gives the top 32 bits of the result; one Newton step from
    // there, q0 + (x - q0^2) / (2 q0), lands on or at most two units above the floor.
    Root64 const high = integer_sqrt(static_cast<std::uint64_t>(x >> 64));
    u128 const remainder = (u128(high.remainder) << 64) | static_cast<std::uint64_t>(x);
    std::uint64_t root =
        (high.root << 32) + static_cast<std::uint64_t>(remainder >> 33) / high.root;
    u128 square = u128(root) * root;
    while (square > x) {
        square -= 2 * u128(root) - 1;
        --root;
    }
    exact = square == x;
    return root;
}

template <class Word>
Word sqrt_special(Word a) {
    if (is_nan(a)) return propagate_nan(a, a);
    if ((a << 1) == 0) return a;   // sqrt(-0) = -0
    if (!sign_of(a)) return a;     // +inf
    return invalid_result<Word>(); // negative, -inf included
}

// Splits a positive finite non-zero word into a significand with its hidden bit at
// mantissa_bits and an even unbiased exponent, doubling the significand when needed.
template <class Word>
void even_exponent_form(Word a, Word& sig, int& exp) {
    using F = Fmt<Word>;
    Fields<Word> fields(a);
    sig = fields.significand();
    exp = fields.exp - F::bias;
    if (exp & 1) {
        sig <<= 1;
        --exp;
    }
}

// The working significand (leading bit at width - 2, sticky in bit 0) of the square root of
// sig, a significand with its hidden bit at mantissa_bits, possibly doubled.
inline std::uint32_t working_root(std::uint32_t sig) {
    // [2^23, 2^25) scaled to [2^60, 2^62): the root lies in [2^30, 2^31).
    Root64 const r = integer_sqrt(std::uint64_t(sig) << 37);
    return static_cast<std::uint32_t>(r.root) | std::uint32_t(r.remainder != 0);
}
inline std::uint64_t working_root(std::uint64_t sig) {
    // [2^52, 2^54) scaled to [2^124, 2^126): the root lies in [2^62, 2^63).
    bool exact;
    std::uint64_t const root = integer_sqrt(u128(sig) << 72, exact);
    return root | std::uint64_t(!exact);
}

template <class Word>
Word square_root(Word a, int round) {
    using F = Fmt<Word>;
    if (sign_of(a) || exponent_of(a) == F::exponent_max || (a << 1) == 0) return sqrt_special(a);
    Word sig;
    int exp;
    even_exponent_form(a, sig, exp);
    return round_pack(false, exp / 2 + F::bias - 1, working_root(sig), checked_mode(round));
}

} // namespace

std::uint32_t float32_sqrt(std::uint32_t a, int round) {
    return square_root(a, round);
}
std::uint64_t float64_sqrt(std::uint64_t a, int round) {
    return square_root(a, round);
}

} // namespace swflt
} // namespace tarn
