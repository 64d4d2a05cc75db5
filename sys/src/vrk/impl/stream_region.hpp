// vrk/impl/stream_region.hpp: the guarded region around the calls a stream
// makes into its buffer and facets, for the stream implementation only.
//
// What leaves the region is handled by kind: a forced unwind (thread
// cancellation) passes with badbit set; a vrk::exception or a standard
// exception sets badbit and is rethrown only when the exceptions mask holds
// badbit (a vrk::exception that is not rethrown goes to dump()); anything
// else passes untouched. The region itself never allocates.
#pragma once

#include <cxxabi.h>

#include <exception>

#include "vrk/exception.hpp"
#include "vrk/ios.hpp"

namespace vrk::impl {

// Runs `f`; returns false when an exception left it and was absorbed.
template <class F> bool stream_region(basic_ios<char>& s, F&& f) {
    try {
        f();
        return true;
    } catch (abi::__forced_unwind&) {
        s.set_state_quiet_(ios_base::badbit);
        throw;
    } catch (exception& e) {
        s.set_state_quiet_(ios_base::badbit);
        if ((s.exceptions() & ios_base::badbit) != 0)
            throw;
        e.dump();
    } catch (std::exception&) {
        s.set_state_quiet_(ios_base::badbit);
        if ((s.exceptions() & ios_base::badbit) != 0)
            throw;
    }
    return false;
}

} // namespace vrk::impl
