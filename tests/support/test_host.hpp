// The test host: defines the host hooks and the default allocator for the
// test binaries, with behaviour each test sets and counters each test reads.
// `host_fixture` resets it before and checks the default allocator's balance
// after every test that uses it.
#pragma once

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_allocator.hpp"
#include "vrk/exception.hpp"

namespace vrk_test {

struct host_settings {
    // save_stack_trace records no frame.
    bool capture_no_frame = false;
    // stdFileName keeps only the part after the last '/'.
    bool basename_files = false;
    // Called from forgotten_exception when set.
    std::function<void(const vrk::exception&)> on_forgotten;
    // What get_registered_exception answers instead of the real head, when set.
    bool fake_head = false;
    const vrk::exception* fake_head_value = nullptr;
};

// Host calls seen on the calling thread (registration) or process-wide.
struct host_counters {
    std::atomic<int> forgotten{0}, caught{0}, unhandled{0}, captures{0};
};

// One registration call of the calling thread, for exact sequence checks.
struct host_event {
    enum kind { REGISTER, UNREGISTER, ADD_RECENT, UNHANDLED, GET_HEAD } what;
    const vrk::exception* arg;
    bool operator==(const host_event&) const = default;
};

host_settings& settings();
host_counters& counters();
// Registration events of the calling thread, in order.
std::vector<host_event>& thread_events();
// The thread's head as the host keeps it.
const vrk::exception* thread_head();
// Error numbers of the exceptions reported as forgotten, in order.
std::vector<int> forgotten_errors();

// The allocator behind vrk::exception::default_allocator() in tests; a test
// may redirect it.
test_allocator& default_test_allocator();
void set_default_allocator(vrk::allocator* a); // null restores the test one

void reset_host();

// Runs `op`, which must raise an E; returns a copy of it, marked processed.
// Raising nothing fails the test with a standard exception.
template <class E, class F> vrk::exception raised(F&& op) {
    try {
        op();
    } catch (const E& e) {
        e.mark_processed();
        return e;
    }
    throw std::logic_error("nothing raised");
}

// Resets the host before each test; afterwards checks that the default
// allocator got back everything it handed out and nothing was released twice.
class host_fixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    long balance_at_start_ = 0;
};

// A host_fixture whose exceptions take their memory from `alloc_`: a
// counting allocator that must have every block back, none released twice,
// when the test ends.
class counted_fixture : public host_fixture {
protected:
    void SetUp() override;
    void TearDown() override;
    test_allocator alloc_;
};

} // namespace vrk_test
