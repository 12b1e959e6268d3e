// Private to the IEEEFloat units, not installed: the library's errors and the alignment limit.
#pragma once

namespace tarn::ieeefloat_detail {

inline constexpr char precision_limit_message[] = "reached limit on float precision";

/// Throws IEEEFloat::error with the message. Out of line and cold, so the
/// paths that may fail stay small.
[[noreturn, gnu::cold, gnu::noinline]] void throw_error(char const* message);

/// Throws "bad rounding mode: N".
[[noreturn, gnu::cold, gnu::noinline]] void throw_bad_rounding_mode(int mode);

/// The largest exponent difference that addition aligns. The alignment is
/// exact: the significand with the larger exponent is shifted onto the
/// smaller one, giving an integer of about d + m + 1 bits, and in a format
/// with a very wide exponent field d can approach 2^e. Past this bound (2^26
/// bits, an 8 MiB integer) addition and subtraction throw "reached limit on
/// float precision" rather than allocate without limit. The largest
/// difference within a format is 2^e - 3, so every format with up to 26
/// exponent bits is far from it; a zero addend is never aligned at all.
inline constexpr unsigned long max_alignment_distance = 1UL << 26;

} // namespace tarn::ieeefloat_detail
