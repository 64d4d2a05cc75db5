// The lock table behind the library's 128-bit atomics.
#include "vrk/atomic.hpp"

namespace vrk::impl {

namespace {
// Zero-initialised static storage: no lock is ever created at run time.
HashLocks s_lockwd[HASH_LOCK_COUNT];
} // namespace

HashLocks* getHashLocks() noexcept { return s_lockwd; }

} // namespace vrk::impl
