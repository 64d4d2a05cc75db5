// The allocation budget of the common operations: what a product pays, in
// allocator requests, to create, copy, annotate, read and print an exception.
// (Every allocation failing in turn is swept in fault_sweep_test.cpp.)
#include <string>

#include "support/test_host.hpp"
#include "vrk/ext/buffer_stream.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk_test::host_fixture;
using vrk_test::test_allocator;

const vrk::error_code OPEN_FAILED{1000123, "Cannot open $NAME$", nullptr};

using AllocationBudget = vrk_test::counted_fixture;

TEST_F(AllocationBudget, OfCommonOperations) {
    vrk::exception e("f", 1, OPEN_FAILED);
    EXPECT_EQ(alloc_.requests(), 2) << "creation: the block and the stack buffer";
    alloc_.reset_requests();
    vrk::exception copy(e);
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

} // namespace
