// The data block: a separate stack buffer and the codes of its failures, and
// what the common operations cost in allocator requests. (Alignment on any
// allocator and release at the address it came from: the exception fuzz
// target, which switches a misaligning allocator in. Every request failing
// in turn: fault_sweep_test.cpp. The fixture checks every block came back.)
#include "support/test_host.hpp"
#include "vrk/ext/buffer_stream.hpp"

namespace {

using vrk::exception;

const vrk::error_code CODE7{7, "seven chars", nullptr};

using ExceptionData = vrk_test::counted_fixture;

TEST_F(ExceptionData, CommonOperationsStayWithinTheirRequestBudget) {
    exception e("f", 1, vrk::error_code{1000123, "Cannot open $NAME$", nullptr});
    EXPECT_EQ(alloc_.requests(), 2) << "creation: the block and the stack buffer";
    alloc_.reset_requests();
    exception copy(e);
    EXPECT_EQ(alloc_.requests(), 0) << "copying";
    e << vrk::error_message("g", 2, 3, "more");
    EXPECT_EQ(alloc_.requests(), 1) << "appending a message";
    e << vrk::msgarg_int("ID", 7, false);
    EXPECT_EQ(alloc_.requests(), 2) << "an argument";
    (void)e.what();
    vrk::buffer_stream<2048> out;
    out.getStream() << e;
    EXPECT_EQ(alloc_.requests(), 2) << "what() and printing into a buffer_stream";
}

// A capture without frames gives its buffer back at once. (The text of
// each code is checked by the printing tests.)
TEST_F(ExceptionData, ACaptureWithoutFramesKeepsNoBuffer) {
    vrk_test::settings().capture_no_frame = true;
    exception e("f", 1, CODE7);
    e.mark_processed();
    EXPECT_EQ(e.begin()->bad_alloc(), vrk::exception_node::STACK_ERROR);
    EXPECT_EQ(e.data()->p_buff_, nullptr);
    EXPECT_EQ(alloc_.balance(), 1);
}

} // namespace
