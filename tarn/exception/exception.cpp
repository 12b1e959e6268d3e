#include "tarn/exception/exception.h"

#include <atomic>

namespace tarn {

namespace {
std::atomic<Exception::assertion_handler> installed_handler{nullptr};
} // namespace

void Exception::dump_msg_and_raise_assertion() noexcept {
    if (assertion_handler handler = installed_handler.load(std::memory_order_acquire))
        handler(*this);
}

Exception::assertion_handler Exception::set_assertion_handler(assertion_handler handler) noexcept {
    return installed_handler.exchange(handler, std::memory_order_acq_rel);
}

} // namespace tarn
