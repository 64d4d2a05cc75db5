// Internal header of the exception printing; not installed.
// vrk/base/impl/bad_alloc_text.hpp: the texts an exception is reported with
// when memory ran out, and the upper-case hexadecimal digit table.
//
// Everything here works from static storage and never allocates: it runs
// when allocation has already failed.
#pragma once

namespace vrk::impl {

// The 164-character one-line text for an exception without data block, with
// error number, file name (its last 64 characters) and line (its last six
// digits) in fixed right-aligned columns. Filled in place in one static
// array shared by all threads, without lock or allocation; the text changes
// with the next call from any thread, and a reader racing with another
// thread's call may see a mix of both calls' fields.
const char* getBadAllocMsg(int err_no, const char* p_file, int line) noexcept;

// Notes for a node's failure code: index 0 the block itself, 1 a parameter,
// 2 the stack buffer, 3 an appended message.
extern const char* const EXP_BAD_ALLOC_MSG[4];

// "0123456789ABCDEF".
const char* vrkExpHexCode() noexcept;

} // namespace vrk::impl
