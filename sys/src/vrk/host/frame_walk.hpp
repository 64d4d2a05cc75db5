// vrk/host/frame_walk.hpp: the default host's fast stack walk (x86-64).
//
// Follows the call-frame information of each return address, as the
// runtime's unwinder does, but only for plain frames (canonical frame address
// from the stack or frame pointer, return address just below it, frame
// pointer saved at a fixed offset or not at all), and remembers the rule of
// every return address in a fixed table, so a repeated capture costs one
// table look-up per frame. Never allocates or resolves symbols; takes only
// the dynamic linker's lock, to learn whether a library was unloaded since
// the rules were read (they are all dropped then). Reads nothing outside the
// thread's stack, and gives up on anything else (a frame without unwind
// information included) so that the caller can use the full unwinder.
#pragma once

namespace vrk::host {

enum class walk_result {
    done,    // the walk reached the end of the stack or filled the buffer
    give_up, // a frame needs the full unwinder; `*count` is meaningless
};

// Stores in `frames` at most `max_frames` return addresses of the calling
// stack, beginning with the first one equal to `caller` (with `caller` null:
// the return address into the function that called walk_stack). `*count`
// receives the number stored; 0 with done when `caller` was not found within
// 256 frames.
walk_result walk_stack(void** frames, unsigned max_frames, const void* caller,
                       unsigned* count) noexcept;

// How many libraries the dynamic linker has unloaded so far in this process:
// whatever was learnt of the code at an address is stale once it moves.
unsigned long long library_unloads() noexcept;

} // namespace vrk::host
