// vrk/throw.hpp: VRK_THROW, the throw site in one expression.
//
// Builds the exception with the source file and line, lets messages and
// arguments be streamed in, registers it on the calling thread and throws it
// through its own virtual do_throw, so the thrown object keeps its class.
// Building and appending never throw; only the final throw does.
//
//   VRK_THROW(vrk::runtime_error, ERR_DISK_FULL)
//       << vrk::msgarg_int("SEGMENT", 17) << vrk::error_message(...);
//
// Included at the end of vrk/exception.hpp; not meant to be included alone.
#pragma once

namespace vrk::impl {

// The exception under construction at a throw site. Holds it by value: the
// local object of the classic idiom, whose copy is what gets thrown.
template <class T> class throw_site {
public:
    // Builds T(fname, line, args..., caller) in place.
    template <class... Args>
    throw_site(const char* fname, int line, const void* caller, const Args&... args) noexcept
        : exp_(fname, line, args..., caller) {}
    throw_site(const throw_site&) = delete;
    throw_site& operator=(const throw_site&) = delete;

    // Appends whatever `exception << item` accepts: a vrk::error_message, a
    // typed argument, or another exception to chain behind this one.
    template <class Item> throw_site& operator<<(const Item& item) noexcept {
        exp_ << item;
        return *this;
    }

    const T& get() const noexcept { return exp_; }

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
        site.get().register_on_thread();
        throw_check<T>(site.get()).do_throw();
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
