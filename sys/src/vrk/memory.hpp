// vrk/memory.hpp: the allocator interface every piece of vrk memory comes from.
//
// A `vrk::allocator` hands out raw bytes and takes them back; whatever it
// supplied goes back to it and to no other allocator or global heap. Products
// and tests implement it (counting, failing, misaligning allocators).
#pragma once

#include <cstddef>

namespace vrk {

class allocator {
public:
    virtual ~allocator() = default;

    // Returns `size` bytes or null; never throws. `caller` is a code address
    // naming the requester, for the allocator's own diagnostics.
    virtual void* allocateNoThrow(size_t size, const void* caller) noexcept = 0;

    // Return `size` bytes; on failure they throw and never return null.
    virtual void* allocate(size_t size, const void* caller) = 0;
    virtual void* allocate(size_t size) = 0;

    // Takes back memory obtained from this allocator; null is ignored.
    virtual void deallocate(void* p) noexcept = 0;
};

} // namespace vrk
