// vrk/throw_helpers.hpp: raising the library's common range and size errors.
//
// Each function builds its exception, registers it on the calling thread and
// throws it; none returns. They allocate only what the exception allocates.
#pragma once

#include <cstddef>

namespace vrk {

// Raises a `vrk::exception` with the number of ERR_VRK_OUT_OF_RANGE and the
// text "Position <value> out of range [<lo>, <hi>]", located at fname:line.
[[noreturn]] void throwOutOfRange(const char* fname, int line, size_t value, size_t lo, size_t hi);

namespace impl {

// Raises a `vrk::runtime_error` "Bad allocation of <n> bytes": a storage
// request that no allocator can satisfy.
[[noreturn]] void throwBadAllocation(size_t n);

} // namespace impl
} // namespace vrk
