// vrk/ext/auto_object.hpp: in-place storage for one object of a polymorphic
// class, destroyed through its virtual destructor without freeing anything.
#pragma once

#include <new>
#include <utility>

#include "vrk/atomic.hpp"

namespace vrk {

template <class T> class auto_object {
public:
    auto_object() noexcept = default;
    auto_object(const auto_object&) = delete;
    auto_object& operator=(const auto_object&) = delete;
    ~auto_object() { destruct_(); }

    T* get() const noexcept { return p_pbject_; }
    T* operator->() const noexcept { return p_pbject_; }
    T& operator*() const noexcept { return *p_pbject_; }
    bool empty() const noexcept { return p_pbject_ == nullptr; }

    // Builds a U in the storage after destroying what was held.
    template <class U = T, class... Args> U* emplace(Args&&... args) {
        static_assert(sizeof(U) <= sizeof(aligned_space_) && alignof(U) <= alignof(atomic_max_t),
                      "object does not fit the in-place storage");
        destruct_();
        U* p = ::new (static_cast<void*>(aligned_space_)) U(std::forward<Args>(args)...);
        p_pbject_ = p;
        return p;
    }

    // Runs the held object's virtual destructor in place.
    void destruct_() noexcept {
        if (T* p = p_pbject_) {
            p_pbject_ = nullptr;
            p->~T();
        }
    }

private:
    T* p_pbject_ = nullptr;
    atomic_max_t aligned_space_[4];
};

} // namespace vrk
