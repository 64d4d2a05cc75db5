// The lock table behind the library's 128-bit atomics.
#include "vrk/atomic.hpp"

namespace vrk::impl {

// Zero-initialised static storage: no lock is ever created at run time.
HashLocks s_lockwd[HASH_LOCK_COUNT];

static_assert(sizeof(HashLocks) == 64, "one cache line per slot");

} // namespace vrk::impl
