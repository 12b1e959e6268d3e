// Reading a numeral at the start of longer text: from_chars. The numeral's
// end is found by the scanner of the numeral grammar and the numeral itself
// read by from_string, so the two readers cannot disagree on a value.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/numeral_scanner.h"

#include <string>

namespace tarn {

using namespace ieeefloat_detail;

IEEEFloat IEEEFloat::from_chars(std::string_view text, format f, rounding_mode mode,
                                std::size_t& consumed) {
    NumeralScanner scanner;
    for (const char c : text)
        if (!scanner.feed(c)) break;
    if (scanner.accepted() == 0) {
        std::string message = "invalid number: \"";
        message.append(text.data(), text.size());
        throw error(message + '"');
    }
    IEEEFloat value = from_string(text.substr(0, scanner.accepted()), f, mode);
    consumed = scanner.accepted();
    return value;
}

} // namespace tarn
