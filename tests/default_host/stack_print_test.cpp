// The default host's printed stack traces: numbered frames named after the
// call in front of each return address, with module and module offset, the
// names of functions without a dynamic symbol from the symbol table, and
// with debug information read (libdw) the throw site's file:line; the
// standard library's thread machinery shown as a count.
#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/forms.hpp"
#include "support/test_allocator.hpp"
#include "vrk/exception.hpp"
#include "vrk/host/default_host.hpp"
#include "vrk/host/elf_symbols.hpp"
#include "vrk/host/frame_names.hpp"

namespace {

const vrk::error_code CODE{31, "printed trace", nullptr};

thread_local int g_throw_line = 0; // each thread checks its own trace
thread_local int g_call_line = 0;
thread_local const void* g_thrower_return = nullptr;

// The line of the printed trace that starts with "#<index> ".
std::string frame_line(const std::string& text, int index) {
    const size_t at = text.find("\n#" + std::to_string(index) + " ");
    return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
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
        text = vrk_test::long_form(e);
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

// Every thread's trace ends in the standard library's thread machinery: one
// line counts those frames, unless the host is told to show them.
TEST(DefaultHostStackPrint, FramesNameTheThrowSiteInEveryThread) {
    check_trace();
    for (const bool collapse : {false, true}) {
        vrk::host::set_collapse_runtime_frames(collapse);
        std::vector<std::jthread> threads; // joined before the next setting
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([collapse] {
                for (int i = 0; i < 12 && !testing::Test::HasFailure(); ++i) {
                    const std::string text = check_trace();
                    EXPECT_EQ(text.find(" std::thread::_State_impl<") != std::string::npos,
                              !collapse);
                    const size_t out = text.find(" machinery left out\n");
                    EXPECT_EQ(out != std::string::npos, collapse);
                    if (out == std::string::npos)
                        continue;
                    // The run is numbered on from the frame shown before it.
                    const size_t line = text.rfind('\n', out) + 1;
                    unsigned shown = 0, first = 0, last = 0, n = 0;
                    std::sscanf(text.c_str() + text.rfind("\n#", line - 2) + 1, "#%u", &shown);
                    const int got =
                        std::sscanf(text.c_str() + line, "#%u-%u  %u", &first, &last, &n);
                    EXPECT_TRUE(first == shown + 1 && (got == 1 || last + 1 - first == n)) << text;
                }
            });
    }
}

void recurse_and_throw(int depth);
// Through a pointer the compiler cannot see through: a real call per level.
void (*volatile g_recurse)(int) = recurse_and_throw;

__attribute__((noinline)) void recurse_and_throw(int depth) {
    if (depth == 0)
        VRK_THROW(vrk::runtime_error, CODE);
    g_recurse(depth - 1);
}

// A trace that fills the frame buffer says that outer callers are missing;
// a shorter one does not.
TEST(DefaultHostStackPrint, FullTraceSaysItWasCut) {
    for (const int depth : {0, 40}) {
        std::string text;
        try {
            recurse_and_throw(depth);
        } catch (const vrk::exception& e) {
            text = vrk_test::long_form(e);
        }
        const bool cut = text.find("\n... the trace holds 32 frames; the callers further out "
                                   "were not recorded\n") != std::string::npos;
        EXPECT_EQ(cut, depth == 40) << text;
    }
}

// Frames of the standard library's invoke and thread machinery, but not a
// caller's own template that takes the machinery as an argument.
TEST(DefaultHostStackPrint, RuntimeMachineryIsTheLibrarysOwnFramesOnly) {
    for (const auto& [name, machinery] : std::vector<std::pair<const char*, bool>>{
             {"void std::__invoke_impl<void, void (*)()>(std::__invoke_other, void (*&&)())", true},
             {"std::__invoke_result<void (*)()>::type std::__invoke<void (*)()>(void (*&&)())",
              true},
             {"void run<int, std::_Bind<void (*(std::_Placeholder<1>))(int)> >(int, "
              "std::_Bind<void (*(std::_Placeholder<1>))(int)>)",
              false},
             {"app::f(std::thread::_State_impl<int>*)", false},
             {"bool std::operator< <int>(int, std::_Bind<int>)", false}})
        EXPECT_EQ(vrk::host::is_runtime_machinery(name), machinery) << name;
}

// The symbol table of this program as traces read it: a function of an
// anonymous namespace found by its linked address, with every allocation
// failing in turn (nothing leaks). Damaged images are fuzz_elf_symbols' work.
TEST(DefaultHostStackPrint, SymbolTableOfTheProgramFile) {
    Dl_info dl{};
    link_map* map = nullptr;
    const auto fn = reinterpret_cast<uintptr_t>(&call_throw_site);
    ASSERT_NE(
        dladdr1(reinterpret_cast<void*>(fn), &dl, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP),
        0);
    const uint64_t linked = fn - map->l_addr;
    for (int fail_at = 0; fail_at < 3; ++fail_at) {
        vrk_test::test_allocator heap;
        heap.fail_at(fail_at);
        vrk::host::elf_symbols* symbols = vrk::host::elf_symbols::open("/proc/self/exe", heap);
        EXPECT_EQ(symbols == nullptr, fail_at == 0);
        if (symbols != nullptr) {
            EXPECT_EQ(symbols->empty(), fail_at == 1);
            uint64_t offset = 0;
            const char* name = symbols->find(linked + 3, &offset);
            EXPECT_EQ(name != nullptr && std::strstr(name, "call_throw_site") != nullptr &&
                          offset == 3,
                      fail_at == 2);
            EXPECT_EQ(symbols->find(0, &offset), nullptr);
        }
        vrk::host::elf_symbols::close(symbols);
        EXPECT_EQ(heap.balance(), 0);
        EXPECT_EQ(heap.bad_releases(), 0);
    }
}

} // namespace
