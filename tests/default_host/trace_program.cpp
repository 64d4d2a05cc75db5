// A program linked as a product links the default host, with no exported
// symbols (no -rdynamic): its printed trace must still name a static
// function, one in an anonymous namespace and an external one, and give each
// frame's module offset for naming it later.
#include <cstdio>

#include "support/forms.hpp"

const vrk::error_code CODE{5, "traced", nullptr};

// The empty asm after each call keeps it from becoming a tail jump, which
// would leave its caller off the stack.
namespace {
__attribute__((noinline)) void trace_in_anonymous() { VRK_THROW(vrk::runtime_error, CODE); }
} // namespace

static __attribute__((noinline)) void trace_static() {
    trace_in_anonymous();
    asm volatile("");
}

__attribute__((noinline)) void trace_external() {
    trace_static();
    asm volatile("");
}

int main() {
    try {
        trace_external();
    } catch (const vrk::exception& e) {
        std::fputs(vrk_test::long_form(e).c_str(), stdout);
    }
}
