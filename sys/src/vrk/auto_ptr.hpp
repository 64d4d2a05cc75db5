// vrk/auto_ptr.hpp: an owning pointer that carries the allocator its object
// came from.
//
// Releasing it destroys the complete object through its virtual destructor
// and returns the complete object's memory (found through run-time type
// information) to that allocator. Ownership moves on copy, through
// `impl::auto_ptr_ref`, as with the classic auto_ptr, and on move.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "vrk/memory.hpp"

namespace vrk {

// Deleter policy: destroy in place, free to the carried allocator.
struct default_deleter {};

namespace impl {
template <class T> struct auto_ptr_ref {
    T* p_object_;
    allocator* p_alloc_;
};
} // namespace impl

class auto_ptr_mem_ref;

template <class T, class D = default_deleter> class auto_ptr {
public:
    auto_ptr() noexcept = default;
    auto_ptr(T* p, allocator* alloc) noexcept : p_object_(p), p_alloc_(alloc) {}
    auto_ptr(impl::auto_ptr_ref<T> r) noexcept // NOLINT: implicit by design
        : p_object_(r.p_object_), p_alloc_(r.p_alloc_) {}
    auto_ptr(auto_ptr&& o) noexcept : p_object_(o.p_object_), p_alloc_(o.p_alloc_) {
        o.p_object_ = nullptr;
    }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    auto_ptr(auto_ptr<U, D>&& o) noexcept // NOLINT: implicit by design
        : p_object_(o.get()), p_alloc_(o.get_allocator()) {
        o.release();
    }
    auto_ptr& operator=(auto_ptr&& o) noexcept {
        if (this != &o) {
            reset_c_();
            p_object_ = std::exchange(o.p_object_, nullptr);
            p_alloc_ = o.p_alloc_;
        }
        return *this;
    }
    ~auto_ptr() { reset_c_(); }

    // Hands ownership over, leaving this pointer empty.
    operator impl::auto_ptr_ref<T>() noexcept { // NOLINT: implicit by design
        impl::auto_ptr_ref<T> r{p_object_, p_alloc_};
        p_object_ = nullptr;
        return r;
    }

    T* get() const noexcept { return p_object_; }
    T* operator->() const noexcept { return p_object_; }
    T& operator*() const noexcept { return *p_object_; }
    explicit operator bool() const noexcept { return p_object_ != nullptr; }
    allocator* get_allocator() const noexcept { return p_alloc_; }

    // Gives up ownership without destroying.
    T* release() noexcept { return std::exchange(p_object_, nullptr); }
    void reset() noexcept { reset_c_(); }
    void reset(T* p, allocator* alloc) noexcept {
        reset_c_();
        p_object_ = p;
        p_alloc_ = alloc;
    }

private:
    friend class auto_ptr_mem_ref;

    // Memory for an object still being built: owned as raw memory, never
    // destroyed as a T (see auto_ptr_mem_ref).
    void take_memory_(void* p, allocator* alloc) noexcept {
        reset_c_();
        p_object_ = static_cast<T*>(p);
        p_alloc_ = alloc;
    }
    void drop_memory_() noexcept { p_object_ = nullptr; }

    void reset_c_() noexcept {
        T* p = std::exchange(p_object_, nullptr);
        if (p == nullptr)
            return;
        void* whole;
        if constexpr (std::is_polymorphic_v<T>)
            whole = dynamic_cast<void*>(p);
        else
            whole = p;
        p->~T();
        p_alloc_->deallocate(whole);
    }

    T* p_object_ = nullptr;
    allocator* p_alloc_ = nullptr;
};

// The owning pointer an object is being allocated for, in the owning
// placement allocation below:
//
//     auto_ptr<exception, default_deleter> result;
//     ::new (auto_ptr_mem_ref(result), alloc, 0) my_error(...);
//     return result;
//
// The memory belongs to `result` before the constructor runs; if the
// constructor throws, the matching placement delete takes it back from
// `result` and returns it to the allocator, so nothing leaks and `result`
// never destroys an object that was not built. `result` takes the memory's
// address as its T*, so T must lie at the start of the object built (as a
// class derived from T alone does).
class auto_ptr_mem_ref {
public:
    template <class T, class D>
    explicit auto_ptr_mem_ref(auto_ptr<T, D>& owner) noexcept
        : p_owner_(&owner), take_(&take_as_<T, D>), drop_(&drop_as_<T, D>) {}

    void take(void* p, allocator& alloc) const noexcept { take_(p_owner_, p, &alloc); }
    void drop() const noexcept { drop_(p_owner_); }

private:
    template <class T, class D> static void take_as_(void* owner, void* p, allocator* a) noexcept {
        static_cast<auto_ptr<T, D>*>(owner)->take_memory_(p, a);
    }
    template <class T, class D> static void drop_as_(void* owner) noexcept {
        static_cast<auto_ptr<T, D>*>(owner)->drop_memory_();
    }

    void* p_owner_;
    void (*take_)(void*, void*, allocator*) noexcept;
    void (*drop_)(void*) noexcept;
};

} // namespace vrk

// The owning placement allocation: `size` + `extra` bytes from `alloc`
// (`extra` for data kept behind the object), handed to the owning pointer
// before construction. Throws what the allocator throws.
inline void* operator new(std::size_t size, const vrk::auto_ptr_mem_ref& owner,
                          vrk::allocator& alloc, std::size_t extra) {
    void* p = alloc.allocate(size + extra < size ? ~std::size_t{0} : size + extra);
    owner.take(p, alloc);
    return p;
}

// Called only when the constructor throws: the memory goes back unbuilt.
inline void operator delete(void* p, const vrk::auto_ptr_mem_ref& owner, vrk::allocator& alloc,
                            std::size_t) noexcept {
    owner.drop();
    alloc.deallocate(p);
}
