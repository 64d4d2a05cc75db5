// vrk/ext/heap_allocator.hpp: an allocator on the platform heap, for
// programs and tools that have no allocator of their own.
//
// allocateNoThrow returns null when the heap is exhausted; both allocate
// throw std::bad_alloc. A request for 0 bytes gets a distinct block.
#pragma once

#include <cstdlib>
#include <new>

#include "vrk/memory.hpp"

namespace vrk {

class heap_allocator final : public allocator {
public:
    void* allocateNoThrow(size_t size, const void*) noexcept override {
        return std::malloc(size != 0 ? size : 1);
    }
    void* allocate(size_t size, const void* caller) override {
        if (void* p = allocateNoThrow(size, caller))
            return p;
        throw std::bad_alloc();
    }
    void* allocate(size_t size) override { return allocate(size, nullptr); }
    void deallocate(void* p) noexcept override { std::free(p); }
};

} // namespace vrk
