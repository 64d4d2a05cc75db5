// An allocator for the samples: the platform heap, counting the blocks it
// has handed out and not yet got back.
#pragma once
#include <cstdlib>
#include <new>

#include "vrk/memory.hpp"

struct counting_heap final : vrk::allocator {
    void* allocateNoThrow(size_t n, const void*) noexcept override {
        void* p = std::malloc(n != 0 ? n : 1);
        live += p != nullptr;
        return p; // null when exhausted: the caller degrades
    }
    void* allocate(size_t n, const void* caller) override {
        if (void* p = allocateNoThrow(n, caller))
            return p;
        throw std::bad_alloc();
    }
    void* allocate(size_t n) override { return allocate(n, nullptr); }
    void deallocate(void* p) noexcept override {
        live -= p != nullptr;
        std::free(p);
    }
    long live = 0;
};
