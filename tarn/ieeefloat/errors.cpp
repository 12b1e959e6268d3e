// The library's errors, thrown out of line from every float unit.

#include "tarn/ieeefloat/internal/errors.h"

#include "tarn/exception/exception.h"
#include "tarn/ieeefloat/ieeefloat.h"

#include <string>

namespace tarn::ieeefloat_detail {

void throw_error(char const* message) {
    throw IEEEFloat::error(std::string(message));
}

/// The message ends in a number, so it is built in a stream first; the
/// diagnostic hook therefore sees it twice, once without the number.
void throw_bad_rounding_mode(int mode) {
    Exception partial(std::string("bad rounding mode: "), true);
    partial << mode;
    throw IEEEFloat::error(std::string(partial.what()));
}

} // namespace tarn::ieeefloat_detail
