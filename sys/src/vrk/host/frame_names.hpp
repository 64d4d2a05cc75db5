// vrk/host/frame_names.hpp: names the code addresses of a captured stack for
// the default host's printed traces: function and offset, module, and, where
// debug information can be read, source file and line.
//
// Used only when a trace is printed, never while one is captured: it may
// allocate (the platform's demangler and debug-information reader do) and it
// takes a process-wide lock for the debug-information session.
#pragma once

#include "vrk/ext/noncopyable.hpp"
#include "vrk/iosfwd.hpp"

namespace vrk::host {

// One printing pass over a trace. Holds the lock of the debug-information
// session, if the build has one, for the lifetime of the object.
class frame_names : private vrk::non_copyable {
public:
    frame_names();
    // Releases the session lock; nothing to do in a build without debug
    // information.
    ~frame_names(); // NOLINT(performance-trivially-destructible)

    // Writes " function+0xoffset (module) at file:line" for the return
    // address `pc`, leaving out what cannot be found. The names are those of
    // the call instruction in front of `pc`: a return address can point past
    // the end of a function whose last instruction is a call that does not
    // return.
    void write(vrk::ostream& os, const void* pc);

    // True when this build reads debug information (source lines, names of
    // functions without a dynamic symbol).
    static bool reads_debug_info() noexcept;

private:
    [[maybe_unused]] bool refreshed_ = false; // the module list was read again during this pass
};

} // namespace vrk::host
