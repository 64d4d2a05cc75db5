// vrk/host/default_host.hpp: what a product can set in the default host.
#pragma once

namespace vrk {
class exception;
}

namespace vrk::host {

// Printed traces show a run of frames of the standard library's invoke,
// thread and function machinery (std::__invoke_impl,
// std::thread::_State_impl, ...) as one line that counts them; false shows
// every frame. True at start-up.
void set_collapse_runtime_frames(bool collapse) noexcept;

// Writes the long form of `e` (with its throw location) and those of the
// thread's other live exceptions to the error output: what the handler below
// prints, for a product's own handler to print as well.
void write_uncaught(const vrk::exception& e) noexcept;

// Installed with std::set_terminate when the program starts (a product may
// install its own instead): when the exception in flight is a
// vrk::exception, calls write_uncaught with it; then calls the
// handler installed before it, std::abort when there was none.
[[noreturn]] void terminate_handler() noexcept;

} // namespace vrk::host
