// The base library's error registry: numbers, default texts, category.
#include "vrk/error_registry.hpp"

namespace vrk {

const error_category& vrk_category() noexcept {
    static constexpr error_category category{"vrk"};
    return category;
}

#define VRK_DEFINE_ERROR(NAME, NUMBER, TEXT)                                                       \
    const error_code& registry_##NAME() noexcept {                                                 \
        static const error_code code{NUMBER, TEXT, &vrk_category()};                               \
        return code;                                                                               \
    }

VRK_DEFINE_ERROR(ERR_VRK_RUNTIME, 1001, "Runtime error")
VRK_DEFINE_ERROR(ERR_VRK_NOT_REGISTERED, 1002,
                 "Exception to unregister was not registered on this thread")
VRK_DEFINE_ERROR(ERR_VRK_LOGIC, 1003, "Logic error")
VRK_DEFINE_ERROR(ERR_VRK_OVERFLOW, 1004, "Overflow error")
VRK_DEFINE_ERROR(ERR_VRK_UNDERFLOW, 1005, "Underflow error")
VRK_DEFINE_ERROR(ERR_VRK_RVALUE, 1006, "Change of a read-only value")
VRK_DEFINE_ERROR(ERR_VRK_IOS, 1007, "Stream failure")
VRK_DEFINE_ERROR(ERR_VRK_OUT_OF_RANGE, 1008, "Position out of range")

} // namespace vrk
