// The default host's printed stack traces: numbered frames named after the
// call in front of each return address, with module and module offset, the
// names of functions without a dynamic symbol from the symbol table, and
// with debug information read (libdw) the throw site's file:line; the
// standard library's thread machinery shown as a count.
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../support/forms.hpp"
#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/host/default_host.hpp"
#include "vrk/host/frame_names.hpp"
#include "vrk/sstream.hpp"

namespace {

const vrk::error_code CODE{31, "printed trace", nullptr};

thread_local int g_throw_line = 0; // each thread checks its own trace
thread_local int g_call_line = 0;
thread_local const void* g_thrower_return = nullptr;

// The line of the printed trace that starts with "#<index> ".
std::string frame_line(const std::string& text, int index) {
    const std::string tag = "\n#" + std::to_string(index) + " ";
    const size_t at = text.find(tag);
    if (at == std::string::npos)
        return "";
    return text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

} // namespace

// Exported (external linkage): the dynamic linker can name it.
[[noreturn]] __attribute__((noinline)) void vrk_test_throw_site() {
    g_thrower_return = __builtin_return_address(0);
    g_throw_line = __LINE__ + 1;
    VRK_THROW(vrk::runtime_error, CODE);
}

namespace {

// No dynamic symbol. Its call of a function that does not return is its last
// instruction, so the return address lies past its end: only a lookup of
// the address in front of it finds this function and this line.
__attribute__((noinline)) void call_throw_site() {
    g_call_line = __LINE__ + 1;
    vrk_test_throw_site();
}

} // namespace

// Exported and right behind call_throw_site: a lookup of the return address
// itself, not of the call in front of it, would name this function.
void vrk_test_behind_call_site() {}

namespace {

// Frame 0 is inside the function holding the throw site, frame 1 the call
// of that function, printed as its return address. Returns the trace.
std::string check_trace() {
    std::string text;
    try {
        call_throw_site();
    } catch (const vrk::exception& e) {
        void** frames = nullptr;
        EXPECT_GE(e.stack_trace(&frames), 2);
        EXPECT_EQ(frames[1], g_thrower_return);
        vrk::heap_allocator heap;
        vrk::osstream os(heap);
        os << e;
        text = os.c_str();
    }
    EXPECT_NE(text.find("exception throw location:\n#0  0x"), std::string::npos) << text;
    const std::string f0 = frame_line(text, 0);
    const std::string f1 = frame_line(text, 1);
    char start[40];
    std::snprintf(start, sizeof start, "#1  0x%016lx ",
                  reinterpret_cast<unsigned long>(g_thrower_return));
    EXPECT_EQ(f1.rfind(start, 0), 0u) << f1;
    const auto has = [](const std::string& line, const std::string& part) {
        return line.find(part) != std::string::npos;
    };
    EXPECT_TRUE(has(f0, " vrk_test_throw_site()+0x") && has(f0, " (vrk_default_host_tests+0x"))
        << f0;
    EXPECT_TRUE(has(f1, " (anonymous namespace)::call_throw_site()+0x")) << f1;
    if (vrk::host::frame_names::reads_debug_info()) {
        EXPECT_TRUE(has(f0, "stack_print_test.cpp:" + std::to_string(g_throw_line))) << f0;
        EXPECT_TRUE(has(f1, "stack_print_test.cpp:" + std::to_string(g_call_line))) << f1;
    }
    return text;
}

TEST(DefaultHostStackPrint, FramesNameTheThrowSiteInEveryThread) {
    check_trace();
    std::vector<std::jthread> threads; // joined when the test ends
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 25 && !testing::Test::HasFailure(); ++i)
                check_trace();
        });
}

// A thread's trace ends in the standard library's thread machinery: one line
// counts those frames, unless the host is told to show them.
TEST(DefaultHostStackPrint, ThreadMachineryIsCountedUnlessShown) {
    for (const bool collapse : {true, false}) {
        vrk::host::set_collapse_runtime_frames(collapse);
        std::string text;
        std::thread([&] { text = check_trace(); }).join();
        const bool shown = text.find(" std::thread::_State_impl<") != std::string::npos;
        const bool counted = text.find(" of the standard library's invoke and thread "
                                       "machinery left out\n") != std::string::npos;
        EXPECT_EQ(shown, !collapse) << text;
        EXPECT_EQ(counted, collapse) << text;
    }
}

} // namespace
