// vrk/host/never_destroyed.hpp: storage for an object of the default host
// that is never destroyed: exceptions made and printed by destructors that
// run late at exit still reach it.
#pragma once

namespace vrk::host {

template <class T> union never_destroyed {
    T object_;
    constexpr never_destroyed() : object_() {}
    ~never_destroyed() {}
};

} // namespace vrk::host
