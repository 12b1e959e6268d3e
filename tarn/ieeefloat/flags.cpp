// The sticky status flags of each thread.

#include "tarn/ieeefloat/flags.h"

#include "tarn/ieeefloat/internal/flag_state.h"

namespace tarn {

unsigned ieee_flags() noexcept {
    return ieeefloat_detail::raised_flags;
}

void clear_ieee_flags(unsigned mask) noexcept {
    ieeefloat_detail::raised_flags &= ~mask;
}

void raise_ieee_flags(unsigned mask) noexcept {
    ieeefloat_detail::raised_flags |= mask & 0x1F;
}

} // namespace tarn
