// The exception type registry: one atomic slot per type number.
#include "vrk/exception_types.hpp"

#include <atomic>

namespace vrk {

namespace {
// 65536 pointers, zero at program start: no initialisation order problem for
// creators registered from static constructors, and a lookup is one load.
std::atomic<exception_creator> g_creators[0x10000];
} // namespace

exception_creator exception_by_type(unsigned short type) noexcept {
    return g_creators[type].load(std::memory_order_acquire);
}

bool register_exception_type(unsigned short type, exception_creator creator) noexcept {
    exception_creator expected = nullptr;
    if (g_creators[type].compare_exchange_strong(expected, creator, std::memory_order_acq_rel))
        return true;
    return expected == creator;
}

bool unregister_exception_type(unsigned short type, exception_creator creator) noexcept {
    exception_creator expected = creator;
    return g_creators[type].compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel);
}

} // namespace vrk
