// fpcalc's encode and decode commands: a value rounded into a low-precision
// encoding, and a pattern of one read back, named or custom.
//
//   fpcalc encode ENCODING VALUE [--round R] [--non-finite]
//   fpcalc decode ENCODING PATTERN
//
// ENCODING is a name (float8_e4m3fn, float8_e5m2, ..., encoding::known_names)
// or eXmY followed by options separated by colons: bias=B (default
// 2^(X-1)-1), unsigned (no sign bit) and one of ieee (the default), fn (no
// infinities, NaN all ones), fnuz (no infinities, no -0, NaN the sign bit
// alone), finite (no specials) and scale (exponent only, unsigned). So
// float8_e4m3fnuz is e4m3:bias=8:fnuz. PATTERN is hexadecimal with 0x,
// binary with 0b, or decimal.
#pragma once

#include "tarn/lowp/lowp.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace fpcalc {

/// Bad text for an encoding, a value or a pattern.
struct EncodingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The encoding `text` names or describes.
tarn::encoding parse_encoding(std::string_view text);

/// "0x3a 0b00111010 = 1.25  flags: inexact": the numeral `value` rounded once
/// into `enc`, its pattern in hex and binary, that pattern's value and flags.
std::string encode_text(const tarn::encoding& enc, std::string_view value, tarn::rounding r,
                        tarn::overflow o);

/// "0x3a 0b00111010 = 1.25": the pattern `pattern` of `enc` and its value.
std::string decode_text(const tarn::encoding& enc, std::string_view pattern);

} // namespace fpcalc
