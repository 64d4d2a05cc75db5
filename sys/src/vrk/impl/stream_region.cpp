// The guarded region of the stream operations.
#include "vrk/impl/stream_region.hpp"

#include <cxxabi.h>

#include <exception>

#include "vrk/base/impl/exception_class.hpp"

namespace vrk::impl {

// A forced unwind carries no object, so the reference its handler binds is
// null by design; the sanitizer's null-reference check is off for this one
// function (it must not be a template for the attribute to hold).
__attribute__((no_sanitize("null"))) bool run_stream_region(basic_ios<char>& s, void (*fn)(void*),
                                                            void* ctx) {
    try {
        fn(ctx);
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
