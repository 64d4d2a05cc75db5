// vrk/host/frame_walk.hpp: the default host's fast stack walk (x86-64).
//
// Follows the call-frame information of each return address, as the
// runtime's unwinder does, but only for plain frames (canonical frame address
// from the stack or frame pointer, return address just below it, frame
// pointer saved at a fixed offset or not at all), and remembers the rule of
// every return address in a fixed table, so a repeated capture costs one
// table look-up per frame. Never allocates, locks or resolves symbols; gives
// up on anything else so that the caller can use the full unwinder. The
// table is never emptied: a product that unloads a library and then runs
// other code at the same addresses must bring its own capture hook.
#pragma once

namespace vrk_host {

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

} // namespace vrk_host
