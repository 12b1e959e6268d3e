// Private to the IEEEFloat units, not installed: the flags of the calling thread.
#pragma once

namespace tarn::ieeefloat_detail {

/// The sticky flags of the calling thread, which ieee_flags() reads. Operations OR into it
/// directly. Defined here with its constant initial value, so that every access is a plain
/// thread-local load or store rather than a call that checks for a dynamic initialisation.
inline thread_local unsigned raised_flags = 0;

/// Raises `flags`; most operations raise nothing, and then nothing is written.
inline void raise(unsigned flags) {
    if (flags != 0) raised_flags |= flags;
}

} // namespace tarn::ieeefloat_detail
