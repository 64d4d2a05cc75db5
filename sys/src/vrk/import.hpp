// vrk/import.hpp: the hooks a product (the host) supplies to the exception
// facility.
//
// Every policy that depends on the product is reached through these: how file
// names are shown, how call stacks are captured and printed, where each
// thread's list of registered exceptions is kept, what happens to exceptions
// nobody looked at, and how the process ends on a broken invariant. The
// default host (target vrk::default_host) supplies a working set.
#pragma once

#include "vrk/iosfwd.hpp"

namespace vrk {
class exception;
}

namespace vrk_extern {

// Per-thread callback object of the host. The facility keeps the list of
// registered exceptions in the exceptions themselves; the host keeps only the
// head of each thread's list.
class unhandled {
public:
    // An exception marked registered was not found on the thread's list.
    virtual void unhandled_exception(const vrk::exception& e) = 0;
    // Not called by the facility.
    virtual bool is_test_handler() = 0;
    // A public registration added `e` to the thread's list.
    virtual void add_recent_exception(const vrk::exception& e) = 0;
    // `e` becomes the head of the calling thread's list.
    virtual void register_exception(const vrk::exception& e) = 0;
    // `e`, the only entry, leaves: the list becomes empty.
    virtual void unregister_exception(const vrk::exception& e) = 0;
    // The head of the calling thread's list, null when it is empty.
    virtual const vrk::exception* get_registered_exception() = 0;
    // Not called by the facility.
    virtual void abort(const char* file, int line, const char* msg) = 0;
    virtual void halt(const char* file, int line, const char* msg) = 0;
    virtual ~unhandled() = default;
};

// The product defines these and the shared core calls them: exported even
// from a product built with -fvisibility=hidden.
#pragma GCC visibility push(default)
namespace import {

// The form of a source file name to store and show. The result is kept
// without copying and never freed.
const char* stdFileName(const char* fname) noexcept;

// Stores at most `max_frames` return addresses of the current stack into
// `frames`, starting at the frame of `caller`; returns how many (0: none).
// Never throws, never allocates from a heap.
unsigned save_stack_trace(void** frames, unsigned max_frames, const void* caller) noexcept;

// Writes a readable form of `count` recorded frames to `os`.
void print_stack_trace(vrk::ostream* os, void** frames, unsigned count);

// `e` was caught and dumped; the facility marks it processed right after.
void caught_exception(const vrk::exception& e);

// `e` was dropped without anybody looking at it. The host may read it but
// must keep no copy: its data is released as soon as this returns.
void forgotten_exception(const vrk::exception& e) noexcept;

// The callback object of the calling thread; never null.
unhandled* get_unhandled_callback() noexcept;

// End the process after reporting the location and message. Never return.
[[noreturn]] void abort(const char* file, int line, const char* msg) noexcept;
[[noreturn]] void abort(const char* file, int line, const char* msg, long value) noexcept;

} // namespace import
#pragma GCC visibility pop
} // namespace vrk_extern
