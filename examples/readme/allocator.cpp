// Texts made from an exception come from the allocator the caller names and
// go back to it; exceptions themselves use the host's default allocator.
#include "heap.hpp"
#include "vrk/exception.hpp"

const vrk::error_code ERR_QUOTA{7008, "Quota exceeded for $USER$", nullptr};

int main() {
    counting_heap heap;
    vrk::exception e("app/quota.cpp", 3, ERR_QUOTA);
    e << vrk::msgarg_text("USER", "alice");
    long while_held = 0;
    {
        const vrk::string text = e.what(heap, true);
        while_held = heap.live;
    }
    return while_held > 0 && heap.live == 0 ? 0 : 1;
}
