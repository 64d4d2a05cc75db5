// The default host: the hooks a product supplies, in a form that lets the
// facility run on its own.
//
// File names are kept as given; stacks are captured by a fast walk over the
// call-frame information, or the unwinder of the language runtime where the
// walk gives up (never resolving symbols and never allocating on the capture
// path); traces name each frame's module and offset, and its function from
// the module's symbol table; an uncaught vrk::exception is printed by a
// terminate handler; forgotten exceptions are noted on the error output; each
// thread's registration head lives in trivially destructible thread-local
// state; aborts report to the error output and end the process; the default
// allocator is the platform heap.
#include <cxxabi.h>
#include <dlfcn.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <type_traits>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/host/default_host.hpp"
#include "vrk/host/frame_names.hpp"
#include "vrk/host/frame_walk.hpp"
#include "vrk/host/never_destroyed.hpp"
#include "vrk/import.hpp"
#include "vrk/ostream.hpp"
#include "vrk/sstream.hpp"

namespace {

// Writes straight to file descriptor 2: usable while memory is exhausted.
void write_error_output(const char* text, size_t len) noexcept {
    while (len > 0) {
        const ssize_t n = ::write(2, text, len);
        if (n <= 0)
            return;
        text += n;
        len -= static_cast<size_t>(n);
    }
}

// Writes a note of `len` characters formatted into a buffer of `cap` bytes
// (`len` may exceed what fitted, as snprintf's result does; negative: an
// error). A note cut at the buffer still ends its line, so that the next
// line of the error output starts on a line of its own.
void write_note(char* text, int len, size_t cap) noexcept {
    if (len <= 0)
        return;
    size_t n = static_cast<size_t>(len);
    if (n >= cap) {
        n = cap - 1;
        text[n - 1] = '\n';
    }
    write_error_output(text, n);
}

// --- stack capture ---------------------------------------------------------

struct capture_state {
    void** frames_;
    unsigned max_frames_;
    unsigned count_;
    const void* caller_;
    bool started_; // the frame of `caller` has been seen
    unsigned skipped_;
};

// Frames of the capture itself (this callback's caller chain inside the
// facility) are skipped until the frame that returns to `caller`. Should
// `caller` never show up (a tail call, or an address that is no return
// address), the capture is made again from the top without skipping.
_Unwind_Reason_Code collect_frame(_Unwind_Context* context, void* arg) {
    auto* state = static_cast<capture_state*>(arg);
    const void* ip = reinterpret_cast<const void*>(_Unwind_GetIP(context));
    if (ip == nullptr)
        return _URC_END_OF_STACK;
    if (!state->started_) {
        if (ip != state->caller_) {
            if (++state->skipped_ > 256)
                return _URC_END_OF_STACK;
            return _URC_NO_REASON;
        }
        state->started_ = true;
    }
    state->frames_[state->count_++] = const_cast<void*>(ip);
    return state->count_ < state->max_frames_ ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// The runtime's unwinder: every frame it can describe, slowly.
unsigned unwinder_capture(void** frames, unsigned max_frames, const void* caller) noexcept {
    capture_state state{frames, max_frames, 0, caller, caller == nullptr, 0};
    _Unwind_Backtrace(collect_frame, &state);
    if (state.count_ == 0 && !state.started_) {
        // `caller` was not on the stack: record from the top instead.
        state = capture_state{frames, max_frames, 0, nullptr, true, 0};
        _Unwind_Backtrace(collect_frame, &state);
    }
    return state.count_;
}

// The unwinder finds and caches the unwind tables on first use; doing that
// once at start-up keeps the first capture from paying for it inside a
// failing path.
struct unwinder_warm_up {
    unwinder_warm_up() noexcept {
        void* frames[4];
        capture_state state{frames, 4, 0, nullptr, true, 0};
        _Unwind_Backtrace(collect_frame, &state);
    }
} g_unwinder_warm_up;

// --- per-thread registration head -------------------------------------------

// Destructors of statics and of thread_locals that run late at exit may
// still throw and catch exceptions, which register on the thread: what they
// reach must not have been destroyed before them. So the head lives in
// trivially destructible thread-local state, and the callback object (which
// holds none) and the default allocator are never destroyed.
struct thread_state {
    const vrk::exception* head_;
};
static_assert(std::is_trivially_destructible_v<thread_state>);
constinit thread_local thread_state t_state{nullptr};

class default_unhandled final : public vrk_extern::unhandled {
public:
    void unhandled_exception(const vrk::exception& e) override {
        char line[256];
        const int n = std::snprintf(line, sizeof line,
                                    "vrk: exception %d (%s:%d) was not registered on this thread\n",
                                    e.error_no(), e.file().get() ? e.file().get() : "?", e.line());
        write_note(line, n, sizeof line);
    }
    bool is_test_handler() override { return false; }
    void add_recent_exception(const vrk::exception&) override {}
    void register_exception(const vrk::exception& e) override { t_state.head_ = &e; }
    void unregister_exception(const vrk::exception&) override { t_state.head_ = nullptr; }
    const vrk::exception* get_registered_exception() override { return t_state.head_; }
    void abort(const char* file, int line, const char* msg) override {
        vrk_extern::import::abort(file, line, msg);
    }
    void halt(const char* file, int line, const char* msg) override {
        vrk_extern::import::abort(file, line, msg);
    }
};

constinit vrk::host::never_destroyed<default_unhandled> g_callback;
constinit vrk::host::never_destroyed<vrk::heap_allocator> g_heap;

std::atomic<bool> g_collapse{true};
// The frame buffer the library offers (its capacity, 32 frames). A trace
// that fills it may have been cut: the printed trace says so.
std::atomic<unsigned> g_offered_frames{0};

// --- uncaught exceptions ------------------------------------------------------

// Prints `e` in its long form to the error output, under `heading`.
void print_to_error_output(const char* heading, const vrk::exception& e) noexcept {
    try {
        vrk::osstream os(g_heap.object_);
        os << heading << e;
        const char* text = os.c_str();
        write_error_output(text, std::strlen(text));
    } catch (...) {
        // Nothing more can be said: the process is ending.
    }
}

std::terminate_handler g_previous_terminate = nullptr;

struct terminate_installer {
    terminate_installer() noexcept {
        g_previous_terminate = std::set_terminate(vrk::host::terminate_handler);
    }
} g_terminate_installer;

} // namespace

const char* vrk_extern::import::stdFileName(const char* fname) noexcept { return fname; }

unsigned vrk_extern::import::save_stack_trace(void** frames, unsigned max_frames,
                                              const void* caller) noexcept {
    if (max_frames == 0)
        return 0;
    g_offered_frames.store(max_frames, std::memory_order_relaxed);
    // The fast walk serves plain frames from its rule table; a frame it does
    // not handle sends the whole capture to the runtime's unwinder.
    unsigned count = 0;
    if (vrk::host::walk_stack(frames, max_frames, caller, &count) == vrk::host::walk_result::done) {
        if (count != 0 || caller == nullptr)
            return count;
        // `caller` was not on the stack: record from the top instead.
        if (vrk::host::walk_stack(frames, max_frames, nullptr, &count) ==
            vrk::host::walk_result::done)
            return count;
    }
    return unwinder_capture(frames, max_frames, caller);
}

// One frame a line, numbered:
//   #0  0x000055d4c8a0b1c4 app::save_document()+0x54 (app+0x11c4) at /src/app/save.cpp:32
// The address is a return address as captured; the module offset is that
// address as the module is linked (what addr2line or `vrkexc symbolize` take
// on another machine); function and source line are those of the call in
// front of it (see vrk/host/frame_names.hpp). Without debug information the
// source line is left out. Symbols are resolved here, when printing, never
// when capturing.
void vrk_extern::import::print_stack_trace(vrk::ostream* os, void** frames, unsigned count) {
    vrk::host::frame_names names;
    const bool collapse = g_collapse.load(std::memory_order_relaxed);
    unsigned left_out = 0;
    // One line for the run of `left_out` frames before frame `next`.
    const auto write_left_out = [&](unsigned next) {
        if (left_out == 0)
            return;
        char line[120];
        const unsigned first = next - left_out;
        const int n =
            left_out == 1
                ? std::snprintf(line, sizeof line,
                                "#%-2u 1 frame of the standard library's invoke and thread "
                                "machinery left out",
                                first)
                : std::snprintf(line, sizeof line,
                                "#%u-%u  %u frames of the standard library's invoke and thread "
                                "machinery left out",
                                first, next - 1, left_out);
        os->write(line, n);
        *os << vrk::endl;
        left_out = 0;
    };
    for (unsigned i = 0; i < count; ++i) {
        const vrk::host::frame_info info = names.resolve(frames[i]);
        // Frame 0 holds the throw site, whatever code was inlined around it.
        if (collapse && i != 0 && info.p_function_ != nullptr &&
            vrk::host::is_runtime_machinery(info.p_function_)) {
            ++left_out;
            continue;
        }
        write_left_out(i);
        vrk::host::write_frame(*os, i, reinterpret_cast<uintptr_t>(frames[i]), info);
        *os << vrk::endl;
    }
    write_left_out(count);
    if (count != 0 && count == g_offered_frames.load(std::memory_order_relaxed))
        *os << "... the trace holds " << count
            << " frames; the callers further out were not recorded" << vrk::endl;
}

void vrk_extern::import::caught_exception(const vrk::exception&) {}

// One line: where the exception was created (whether it was ever thrown is
// not known here), how to keep the note away, and its messages expanded and
// separated by " / ", cut where the buffer ends. Reads the nodes directly
// (iterating would mark the block processed); expanding into the buffer
// allocates nothing.
void vrk_extern::import::forgotten_exception(const vrk::exception& e) noexcept {
    char line[512];
    // Room for the line end; a cut note is as long as one cut by write_note.
    constexpr size_t cap = sizeof line - 2;
    const char* file = e.file().get();
    const int head = std::snprintf(line, sizeof line,
                                   "vrk: exception %d created at %s:%d was never looked at (print "
                                   "it or call mark_processed()): ",
                                   e.error_no(), file != nullptr ? file : "?", e.line());
    if (head <= 0)
        return;
    size_t used = static_cast<size_t>(head) < cap ? static_cast<size_t>(head) : cap;
    auto append = [&](const char* text, size_t len) {
        len = len < cap - used ? len : cap - used;
        std::memcpy(line + used, text, len);
        used += len;
    };
    // The facility reports only exceptions that have a block.
    const auto* block = const_cast<const vrk::exception_data*>(e.data());
    for (const vrk::exception_node* node = block != nullptr ? &block->node_ : nullptr;
         node != nullptr && used < cap; node = node->next()) {
        if (node != &block->node_)
            append(" / ", 3);
        used += node->expand(line + used, cap - used);
    }
    line[used++] = '\n';
    write_error_output(line, used);
}

vrk_extern::unhandled* vrk_extern::import::get_unhandled_callback() noexcept {
    return &g_callback.object_;
}

void vrk_extern::import::abort(const char* file, int line, const char* msg) noexcept {
    char text[512];
    const int n = std::snprintf(text, sizeof text, "vrk abort: %s:%d: %s\n", file, line, msg);
    write_note(text, n, sizeof text);
    std::abort();
}

void vrk_extern::import::abort(const char* file, int line, const char* msg, long value) noexcept {
    char text[512];
    const int n =
        std::snprintf(text, sizeof text, "vrk abort: %s:%d: %s%ld\n", file, line, msg, value);
    write_note(text, n, sizeof text);
    std::abort();
}

vrk::allocator& vrk::exception::default_allocator() { return g_heap.object_; }

void vrk::host::set_collapse_runtime_frames(bool collapse) noexcept {
    g_collapse.store(collapse, std::memory_order_relaxed);
}

void vrk::host::write_uncaught(const vrk::exception& e) noexcept {
    print_to_error_output("vrk: terminating on an uncaught exception:\n", e);
    for (const vrk::exception* live = vrk::exception::get_first_registered(); live != nullptr;
         live = live->get_next_registered())
        if (live->data() != e.data())
            print_to_error_output("vrk: live exception of this thread:\n", *live);
}

// The exception is caught by rethrowing the one in flight; the runtime keeps
// it alive while this handler runs.
void vrk::host::terminate_handler() noexcept {
    // Printing that ends in terminate again goes straight to the previous
    // handler.
    static constinit thread_local bool t_printing = false;
    const std::exception_ptr in_flight = t_printing ? nullptr : std::current_exception();
    t_printing = true;
    if (in_flight) {
        try {
            std::rethrow_exception(in_flight);
        } catch (const vrk::exception& e) {
            vrk::host::write_uncaught(e);
        } catch (...) {
            // Not ours: the previous handler describes it.
        }
    }
    if (g_previous_terminate != nullptr && g_previous_terminate != vrk::host::terminate_handler)
        g_previous_terminate();
    std::abort();
}
