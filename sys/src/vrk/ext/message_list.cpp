// Message records and their parameter lists.
#include "vrk/ext/message_list.hpp"

#include <cstring>

namespace vrk {

void msg_parameter::destroy(msg_parameter* first, allocator& alloc) noexcept {
    while (first != nullptr) {
        msg_parameter* next = first->p_next_;
        alloc.deallocate(first);
        first = next;
    }
}

char* message_node::init(const char* text, size_t len) noexcept {
    prm_first_ = nullptr;
    prm_last_ = nullptr;
    length_ = len;
    char* area = text_();
    if (text != nullptr && len != 0)
        std::memcpy(area, text, len);
    area[len] = '\0';
    return area;
}

void message_node::destroy(allocator& alloc) noexcept {
    msg_parameter::destroy(prm_first_, alloc);
    prm_first_ = nullptr;
    prm_last_ = nullptr;
}

} // namespace vrk
