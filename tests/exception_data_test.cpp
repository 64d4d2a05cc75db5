// The data block: one allocation laid out as promised, stack capture and its
// failure codes, release of everything a block owns. (Blocks the reader
// builds, which own their file names, are checked by the serialization tests.)
#include <cstddef>

#include "support/test_host.hpp"

namespace {

using vrk::exception_data;
using vrk::exception_node;

const vrk::error_code CODE7{7, "seven chars", nullptr};

using ExceptionData = vrk_test::counted_fixture;

// Room for the text and its terminator in steps of eight, and slack to
// align the block to 16 on any allocator: too little is a write past the
// allocation that only a sanitizer would see.
TEST_F(ExceptionData, AllocationSizesPadTheTextToEightBytes) {
    const size_t base = sizeof(exception_data) + 15;
    EXPECT_EQ(exception_data::allocation_size(0), base + 8);
    EXPECT_EQ(exception_data::allocation_size(7), base + 8);
    EXPECT_EQ(exception_data::allocation_size(8), base + 16);
    EXPECT_EQ(exception_node::allocation_size(7), sizeof(exception_node) + 8);
    EXPECT_EQ(exception_node::allocation_size(8), sizeof(exception_node) + 16);
    EXPECT_EQ(offsetof(exception_data, pc_) % 16, 0u);
}

TEST_F(ExceptionData, OneAllocationHoldsBlockAndTextAndStackIsSeparate) {
    {
        vrk::exception e("dir/file.cpp", 12, CODE7);
        e.mark_processed();
        // The block with its text, then the stack buffer.
        EXPECT_EQ(alloc_.bytes_in_use(), exception_data::allocation_size(11) + 256);
        const volatile exception_data* d = e.data();
        EXPECT_EQ(reinterpret_cast<uintptr_t>(d) % 16, 0u);
        EXPECT_EQ(d->offset(), 0);
    }
    {
        vrk::exception e("f", 1, vrk::error_code{3, nullptr, nullptr});
        e.mark_processed();
        EXPECT_EQ(alloc_.bytes_in_use(), exception_data::allocation_size(0) + 256);
        EXPECT_STREQ(e.begin()->message(), "");
    }
}

TEST_F(ExceptionData, MisalignedAllocatorGivesOffsetEightAndIsPaidBackExactly) {
    alloc_.misalign(true);
    {
        vrk::exception e("f", 1, CODE7);
        e.mark_processed();
        const volatile exception_data* d = e.data();
        EXPECT_EQ(reinterpret_cast<uintptr_t>(d) % 16, 0u);
        EXPECT_EQ(d->offset(), 8);
    }
    // The test allocator counts a release of any other address as bad.
    EXPECT_EQ(alloc_.bad_releases(), 0);
    EXPECT_EQ(alloc_.balance(), 0);
}

TEST_F(ExceptionData, StackCodesExplainAMissingThrowLocation) {
    {
        vrk::exception e("f", 1, CODE7, vrk::exception::CALLER_SUPPRESS_STACK_TRACE);
        e.mark_processed();
        EXPECT_EQ(e.begin()->bad_alloc(), exception_node::STACK_SUPPRESS);
        EXPECT_EQ(e.data()->buff_sz_, 0u);
        EXPECT_EQ(e.data()->p_buff_, nullptr);
        EXPECT_EQ(alloc_.allocations(), 1);
    }
    vrk_test::settings().capture_no_frame = true;
    {
        vrk::exception e("f", 1, CODE7);
        e.mark_processed();
        EXPECT_EQ(e.begin()->bad_alloc(), exception_node::STACK_ERROR);
        EXPECT_EQ(e.data()->p_buff_, nullptr);
        EXPECT_EQ(alloc_.balance(), 1); // the empty buffer went back at once
    }
}

TEST_F(ExceptionData, AppendedMessagesAreReleasedWithTheBlock) {
    vrk::exception e("f", 1, CODE7);
    e.append_message("g", 2, 8, "second");
    e.append_message("h", 3, 9, nullptr);
    e.mark_processed();
    std::vector<std::string> texts;
    for (const exception_node& n : e)
        texts.emplace_back(n.message());
    EXPECT_EQ(texts, (std::vector<std::string>{"seven chars", "second", ""}));
    EXPECT_EQ(alloc_.bytes_in_use(), exception_data::allocation_size(11) + 256 +
                                         exception_node::allocation_size(6) +
                                         exception_node::allocation_size(0));
}

} // namespace
