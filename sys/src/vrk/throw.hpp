// vrk/throw.hpp: VRK_THROW, the throw site in one expression.
//
// Builds the exception with the source file and line, lets messages and
// arguments be streamed in, registers it on the calling thread and throws it
// as its own do_throw would: as the class that do_throw throws, which for
// vrk::logic_error (no do_throw of its own) is vrk::exception.
// Building and appending never throw; only the final throw does.
// An operand of a streamed item must not throw either: for the library's own
// classes nothing would destroy the exception under construction (it lives
// in raw storage, see throw_site), and its block would leak.
//
//   VRK_THROW(vrk::runtime_error, ERR_DISK_FULL)
//       << vrk::msgarg_int("SEGMENT", 17) << vrk::error_message(...);
#pragma once

#include <cstddef>
#include <new>
#include <typeinfo>

#include "vrk/base/impl/exception_class.hpp"

namespace vrk::impl {

// Space for a thrown object from the C++ runtime, and the throw of an object
// built there (the runtime's allocate-exception and throw calls).
void* allocate_thrown_(size_t size) noexcept;
[[noreturn]] void throw_allocated_(void* thrown, const std::type_info& type,
                                   void (*destroy)(void*));

// The class a library exception's do_throw throws: its own, or vrk::exception
// for a class without an override of its own. void for every other class,
// whose do_throw is called as it is.
template <class T> struct relocated_throw { using type = void; };
template <> struct relocated_throw<exception> { using type = exception; };
template <> struct relocated_throw<logic_error> { using type = exception; };
template <> struct relocated_throw<runtime_error> { using type = runtime_error; };
template <> struct relocated_throw<overflow_error> { using type = overflow_error; };
template <> struct relocated_throw<underflow_error> { using type = underflow_error; };
template <> struct relocated_throw<rvalue_error> { using type = rvalue_error; };

template <class Thrown> void destroy_thrown_(void* p) noexcept {
    static_cast<Thrown*>(p)->~Thrown();
}

// The exception under construction at a throw site, for the library's own
// classes. It lives in raw storage, so that no object with a destructor
// stays in the frames the throw unwinds: each such frame stops the unwinder
// for a cleanup and a resume, a large share of a throw's cost. The throw does
// what do_throw does, registering the exception and throwing a copy of it,
// but builds the copy in the runtime's space itself and destroys the
// original before the throw instead of during the unwind.
template <class T, class Thrown = typename relocated_throw<T>::type> class throw_site {
public:
    // Builds T(fname, line, args..., caller) in place.
    template <class... Args>
    throw_site(const char* fname, int line, const void* caller, const Args&... args) noexcept {
        ::new (static_cast<void*>(raw_)) T(fname, line, args..., caller);
    }
    throw_site(const throw_site&) = delete;
    throw_site& operator=(const throw_site&) = delete;

    // Appends whatever `exception << item` accepts: a vrk::error_message, a
    // typed argument, or another exception to chain behind this one.
    template <class Item> throw_site& operator<<(const Item& item) noexcept {
        exp_() << item;
        return *this;
    }
    const T& get() const noexcept { return exp_(); }

    [[noreturn]] void throw_() const {
        T& e = exp_();
        e.register_on_thread();
        void* thrown = allocate_thrown_(sizeof(Thrown));
        // The copy takes over the registration and marks the block unseen.
        ::new (thrown) Thrown(static_cast<const Thrown&>(e));
        e.~T();
        throw_allocated_(thrown, typeid(Thrown), &destroy_thrown_<Thrown>);
    }

private:
    T& exp_() const noexcept { return *std::launder(reinterpret_cast<T*>(raw_)); }

    alignas(T) mutable unsigned char raw_[sizeof(T)];
};

// Any other class: holds the exception by value, the local object of the
// classic idiom, and throws through its virtual do_throw.
template <class T> class throw_site<T, void> {
public:
    // Builds T(fname, line, args..., caller) in place.
    template <class... Args>
    throw_site(const char* fname, int line, const void* caller, const Args&... args) noexcept
        : exp_(fname, line, args..., caller) {}
    throw_site(const throw_site&) = delete;
    throw_site& operator=(const throw_site&) = delete;

    template <class Item> throw_site& operator<<(const Item& item) noexcept {
        exp_ << item;
        return *this;
    }
    const T& get() const noexcept { return exp_; }

    [[noreturn]] void throw_() const {
        exp_.register_on_thread();
        throw_check<T>(exp_).do_throw();
    }

private:
    T exp_;
};

// Builds the exception. Out of line so that its return address is an
// address inside the function holding the throw site: passed as the caller,
// it makes the recorded stack start at the throw site itself, whose line a
// symbolising host can then show. The constructor runs while this frame is
// live, so the capture finds that address on the stack.
template <class T, class... Args>
__attribute__((noinline)) throw_site<T> make_throw_site(const char* fname, int line,
                                                        const Args&... args) noexcept {
    return throw_site<T>(fname, line, __builtin_return_address(0), args...);
}

// Builds the exception with a caller position given by the throw site: for
// out-of-line helpers that raise on behalf of the function that detected the
// error and pass that function's return address.
template <class T, class... Args>
throw_site<T> make_throw_site_from(const void* caller, const char* fname, int line,
                                   const Args&... args) noexcept {
    return throw_site<T>(fname, line, caller, args...);
}

// The last step of a throw site: registers and throws. Reached through
// assignment, whose precedence is below `<<`, so every streamed item is
// appended before the throw.
struct throw_now {
    template <class T> [[noreturn]] void operator=(const throw_site<T>& site) const {
        site.throw_();
    }
};

} // namespace vrk::impl

// Throws a T built as T(fname, line, args..., caller) (args: an error code,
// a message text for the derived classes, or nothing for a class that takes
// neither), after the streamed items have been appended. fname is used as
// given: pass the path the product should show (the library's own code names
// its files "sys/src/vrk/..."). The stack is recorded from the throw site on.
#define VRK_THROW_AT(fname, line, T, ...)                                                          \
    ::vrk::impl::throw_now() =                                                                     \
        ::vrk::impl::make_throw_site<T>(fname, line __VA_OPT__(, ) __VA_ARGS__)

// As VRK_THROW_AT, with the stack recorded from `caller` on (a return
// address, or vrk::exception::CALLER_SUPPRESS_STACK_TRACE for none).
#define VRK_THROW_AT_CALLER(fname, line, caller, T, ...)                                           \
    ::vrk::impl::throw_now() =                                                                     \
        ::vrk::impl::make_throw_site_from<T>(caller, fname, line __VA_OPT__(, ) __VA_ARGS__)

// As VRK_THROW_AT with this source file and line. __FILE__ is the path the
// compiler was given; build with -fmacro-prefix-map=<source dir>/= to keep
// it relative to the source tree.
#define VRK_THROW(T, ...) VRK_THROW_AT(__FILE__, __LINE__, T __VA_OPT__(, ) __VA_ARGS__)
