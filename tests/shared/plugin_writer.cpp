// A plugin that serializes exceptions it did not make, and shows which lock
// table its copies of the library's inline code use.
#include "vrk/exception.hpp"
#include "vrk/ostream.hpp"

extern "C" void vrk_plugin_serialize(const vrk::exception& e, vrk::ostream& out) {
    e.serialize(out, true);
}

extern "C" const void* vrk_plugin_lock_table() { return vrk::impl::getHashLocks(); }
