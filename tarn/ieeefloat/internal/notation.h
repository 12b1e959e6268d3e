// Private to the IEEEFloat units, not installed: the shortest text in
// scientific form, shared by to_sci_str and stream output.
#pragma once

#include <string>
#include <string_view>

namespace tarn::ieeefloat_detail {

/// A positional numeral as to_float_str writes it ("-0.00125", "1500") in
/// scientific form with the same significant digits ("-1.25e-3", "1.5e+3"),
/// and the decimal exponent of its first significant digit (0 for zeros).
std::string scientific_of_positional(std::string_view positional, long& exponent);

} // namespace tarn::ieeefloat_detail
