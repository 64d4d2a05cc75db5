// Internal header of the stream implementation; not installed.
// vrk/impl/stream_region.hpp: the guarded region around the calls a stream
// makes into its buffer and facets, for the stream implementation only.
//
// What leaves the region is handled by kind: a forced unwind (thread
// cancellation) passes with badbit set; a vrk::exception or a standard
// exception sets badbit and is rethrown only when the exceptions mask holds
// badbit (a vrk::exception that is not rethrown goes to dump()); anything
// else passes untouched. The region itself never allocates.
#pragma once

#include <type_traits>

#include "vrk/ios.hpp"

namespace vrk::impl {

// Runs fn(ctx) inside the region; returns false when an exception left it
// and was absorbed.
bool run_stream_region(basic_ios<char>& s, void (*fn)(void*), void* ctx);

template <class F> bool stream_region(basic_ios<char>& s, F&& f) {
    using fn_type = std::remove_reference_t<F>;
    return run_stream_region(
        s, [](void* p) { (*static_cast<fn_type*>(p))(); }, static_cast<void*>(&f));
}

// A call into the buffer whose failure is badbit: `op` returns false when
// the buffer refused. True when `op` succeeded; false when it failed or an
// exception left it and was absorbed.
template <class Op> bool buffer_op(basic_ios<char>& s, Op&& op) {
    bool done = false;
    if (!stream_region(s, [&] { done = op(); }))
        return false;
    if (!done)
        s.setstate(ios_base::badbit);
    return done;
}

} // namespace vrk::impl
