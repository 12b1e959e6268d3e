// Private to the IEEEFloat units, not installed: the flags of the calling thread.
#pragma once

namespace tarn::ieeefloat_detail {

/// The sticky flags of the calling thread, which ieee_flags() reads. Operations OR into it
/// directly, so that raising costs one instruction on the paths where nothing is raised.
extern thread_local unsigned raised_flags;

/// Raises `flags`; most operations raise nothing, and then nothing is written.
inline void raise(unsigned flags) {
    if (flags != 0) raised_flags |= flags;
}

} // namespace tarn::ieeefloat_detail
