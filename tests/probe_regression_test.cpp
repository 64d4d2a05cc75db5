// Faults found by probing the library as a new user would.
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/test_host.hpp"
#include "vrk/exception.hpp"

namespace {

const vrk::error_code PROBE_CODE{5, "five $A$", nullptr};

using ProbeRegression = vrk_test::counted_fixture;

// An operand of a streamed item that throws before the throw site throws: the
// exception under construction lives in raw storage of the throw site (no
// destructor, to keep the unwinder from stopping in the throwing frame), so
// it is never destroyed and its block leaks (the fixture checks the
// balance). Disabled until the throw site can clean up without a destructor
// of its own on the throw path.
TEST_F(ProbeRegression, DISABLED_ThrowingOperandAtAThrowSiteLeaksNothing) {
    const auto name = []() -> const char* { throw std::runtime_error("operand"); };
    EXPECT_THROW(VRK_THROW(vrk::runtime_error, PROBE_CODE) << vrk::msgarg_text("A", name()),
                 std::runtime_error);
}

} // namespace
