// The texts tests compare: an exception's long and short forms and its
// chain, as standard strings. They write on the heap, never on an allocator
// a test counts or makes fail, so they also serve the default-host tests.
#pragma once

#include <string>
#include <vector>

#include "vrk/exception.hpp"
#include "vrk/ext/heap_allocator.hpp"
#include "vrk/sstream.hpp"

namespace vrk_test {

// Exceptions made with it record no throw location.
inline const void* const NO_STACK = vrk::exception::CALLER_SUPPRESS_STACK_TRACE;

inline std::string text_of(const vrk::string& s) { return std::string(s.data(), s.size()); }

// What `os << e` writes: the long form, or a print hook's text.
inline std::string long_form(const vrk::exception& e) {
    vrk::heap_allocator heap;
    vrk::osstream os(heap);
    os << e;
    return text_of(os.str());
}

// The long form without a hook, throw locations as chosen.
inline std::string long_form(const vrk::exception& e, bool suppress_stack, bool suppress_nested) {
    vrk::heap_allocator heap;
    vrk::osstream os(heap);
    e.print_default(os, suppress_stack, suppress_nested);
    return text_of(os.str());
}

// One line per message, no throw locations.
inline std::string short_form(const vrk::exception& e) {
    vrk::heap_allocator heap;
    return text_of(e.what(heap, true));
}

// The error numbers along the chain from `head` on. (`head` itself is not
// copied: a copy would take over its registration.)
inline std::vector<int> chain_numbers(const vrk::exception& head) {
    std::vector<int> out;
    if (head.data() != nullptr)
        out.push_back(head.error_no());
    for (vrk::exception x = head.get_next(); x.data() != nullptr; x = x.get_next())
        out.push_back(x.error_no());
    return out;
}

} // namespace vrk_test
