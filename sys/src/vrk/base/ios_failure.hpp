// vrk/base/ios_failure.hpp: the errors the vrk streams raise: a stream failure
// whose state the exceptions mask asked to hear of, and a missing facet.
//
// Both carry the error number of ERR_VRK_IOS, the file and line of the
// detecting check and a fixed text, and throw themselves with their own type.
#pragma once

#include "vrk/base/impl/exception_class.hpp"

namespace vrk {

class ios_failure : public exception {
public:
    ios_failure(const char* fname, int line, const char* msg, const void* caller) noexcept
        : exception(fname, line, ERR_VRK_IOS.number(), msg, caller) {}
    void do_throw() override;
};

// A stream needed a facet (ctype, num_put, num_get) its locale does not have.
class null_facet_error : public ios_failure {
public:
    static constexpr const char* TEXT = "basic_ios: null facet pointer";

    null_facet_error(const char* fname, int line, const void* caller) noexcept
        : ios_failure(fname, line, TEXT, caller) {}
    void do_throw() override;
};

} // namespace vrk
