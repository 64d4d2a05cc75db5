#include "support/test_host.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "vrk/exception.hpp"
#include "vrk/ostream.hpp"

namespace vrk_test {

namespace {

host_settings g_settings;
host_counters g_counters;
std::mutex g_forgotten_mutex;
std::vector<int> g_forgotten_errors;

test_allocator& test_default() {
    static test_allocator* a = new test_allocator(); // lives for the whole process
    return *a;
}
std::atomic<vrk::allocator*> g_default{nullptr};

struct thread_state {
    const vrk::exception* head = nullptr;
    std::vector<host_event> events;
};
thread_local thread_state t_state;

class test_unhandled final : public vrk_extern::unhandled {
public:
    void unhandled_exception(const vrk::exception& e) override {
        ++g_counters.unhandled;
        t_state.events.push_back({host_event::UNHANDLED, &e});
    }
    bool is_test_handler() override { return true; }
    void add_recent_exception(const vrk::exception& e) override {
        t_state.events.push_back({host_event::ADD_RECENT, &e});
    }
    void register_exception(const vrk::exception& e) override {
        t_state.events.push_back({host_event::REGISTER, &e});
        t_state.head = &e;
    }
    void unregister_exception(const vrk::exception& e) override {
        t_state.events.push_back({host_event::UNREGISTER, &e});
        t_state.head = nullptr;
    }
    const vrk::exception* get_registered_exception() override {
        t_state.events.push_back({host_event::GET_HEAD, nullptr});
        if (g_settings.fake_head)
            return g_settings.fake_head_value;
        return t_state.head;
    }
    void abort(const char* file, int line, const char* msg) override {
        vrk_extern::import::abort(file, line, msg);
    }
    void halt(const char* file, int line, const char* msg) override {
        vrk_extern::import::abort(file, line, msg);
    }
};

} // namespace

host_settings& settings() { return g_settings; }
host_counters& counters() { return g_counters; }
std::vector<host_event>& thread_events() { return t_state.events; }
const vrk::exception* thread_head() { return t_state.head; }
std::vector<int> forgotten_errors() {
    std::lock_guard<std::mutex> lock(g_forgotten_mutex);
    return g_forgotten_errors;
}

test_allocator& default_test_allocator() { return test_default(); }
void set_default_allocator(vrk::allocator* a) { g_default = a; }

void reset_host() {
    g_settings = host_settings{};
    g_counters.forgotten = g_counters.caught = g_counters.unhandled = g_counters.captures = 0;
    {
        std::lock_guard<std::mutex> lock(g_forgotten_mutex);
        g_forgotten_errors.clear();
    }
    t_state.events.clear();
    g_default = nullptr;
    test_default().fail_never();
    test_default().misalign(false);
}

void host_fixture::SetUp() {
    reset_host();
    balance_at_start_ = test_default().balance();
}

void host_fixture::TearDown() {
    EXPECT_EQ(test_default().balance(), balance_at_start_) << "default allocator leaked";
    EXPECT_EQ(test_default().bad_releases(), 0) << "a block was released twice";
    EXPECT_EQ(thread_head(), nullptr) << "an exception is still registered on this thread";
    reset_host();
}

void counted_fixture::SetUp() {
    host_fixture::SetUp();
    set_default_allocator(&alloc_);
}

void counted_fixture::TearDown() {
    set_default_allocator(nullptr);
    EXPECT_EQ(alloc_.balance(), 0) << "blocks were never released";
    EXPECT_EQ(alloc_.bad_releases(), 0) << "a block was released twice";
    host_fixture::TearDown();
}

} // namespace vrk_test

// ---------------------------------------------------------------------------
// The host hooks.

const char* vrk_extern::import::stdFileName(const char* fname) noexcept {
    if (fname != nullptr && vrk_test::g_settings.basename_files) {
        const char* slash = std::strrchr(fname, '/');
        return slash != nullptr ? slash + 1 : fname;
    }
    return fname;
}

unsigned vrk_extern::import::save_stack_trace(void** frames, unsigned max_frames,
                                              const void* caller) noexcept {
    ++vrk_test::g_counters.captures;
    if (vrk_test::g_settings.capture_no_frame)
        return 0;
    // A fixed, recognisable fake stack: the caller, then made-up frames.
    unsigned n = max_frames < 3 ? max_frames : 3;
    for (unsigned i = 0; i < n; ++i)
        frames[i] = reinterpret_cast<char*>(const_cast<void*>(caller)) + i;
    return n;
}

// Deterministic frames for exact comparisons: "#<i> <address>" a line.
void vrk_extern::import::print_stack_trace(vrk::ostream* os, void** frames, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        char line[64];
        const int n = std::snprintf(line, sizeof line, "#%u %p\n", i, frames[i]);
        os->write(line, n);
    }
}

void vrk_extern::import::caught_exception(const vrk::exception&) { ++vrk_test::g_counters.caught; }

void vrk_extern::import::forgotten_exception(const vrk::exception& e) noexcept {
    ++vrk_test::g_counters.forgotten;
    {
        std::lock_guard<std::mutex> lock(vrk_test::g_forgotten_mutex);
        vrk_test::g_forgotten_errors.push_back(e.error_no());
    }
    if (vrk_test::g_settings.on_forgotten)
        vrk_test::g_settings.on_forgotten(e);
}

vrk_extern::unhandled* vrk_extern::import::get_unhandled_callback() noexcept {
    thread_local vrk_test::test_unhandled callback;
    return &callback;
}

void vrk_extern::import::abort(const char* file, int line, const char* msg) noexcept {
    std::fprintf(stderr, "vrk abort: %s:%d: %s\n", file, line, msg);
    std::fflush(stderr);
    std::abort();
}

void vrk_extern::import::abort(const char* file, int line, const char* msg, long value) noexcept {
    std::fprintf(stderr, "vrk abort: %s:%d: %s%ld\n", file, line, msg, value);
    std::fflush(stderr);
    std::abort();
}

vrk::allocator& vrk::exception::default_allocator() {
    vrk::allocator* a = vrk_test::g_default.load();
    return a != nullptr ? *a : vrk_test::test_default();
}
