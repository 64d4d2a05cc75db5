// vrk/impl/stream_region.hpp: the guarded region around the calls a stream
// makes into its buffer and facets, for the stream implementation only.
//
// What leaves the region is handled by kind: a forced unwind (thread
// cancellation) passes with badbit set; a vrk::exception or a standard
// exception sets badbit and is rethrown only when the exceptions mask holds
// badbit (a vrk::exception that is not rethrown goes to dump()); anything
// else passes untouched. The region itself never allocates.
#pragma once

#include "vrk/ios.hpp"

namespace vrk::impl {

// Handles the exception in flight for the region of `s`: rethrows it, or
// absorbs it and returns false. Only called from a handler.
bool absorb_in_region_(basic_ios<char>& s);

// Runs f() inside the region; returns false when an exception left it and
// was absorbed. The region is inline: on the way through, it costs nothing
// but the call of f.
template <class F> bool stream_region(basic_ios<char>& s, F&& f) {
    try {
        f();
        return true;
    } catch (...) {
        return absorb_in_region_(s);
    }
}

} // namespace vrk::impl
