// Internal header, reached through vrk/streambuf.hpp; include that instead.
// vrk/impl/ios_flags.hpp: the format, state, open-mode and seek enumerations
// of the vrk streams, with their fixed 32-bit values.
//
// Values are bit masks (except IosSeekdir) and are part of the library's
// interface; they never change. Nothing here allocates or throws.
#pragma once

#include <cstdint>

namespace vrk::impl {

enum IosFmtflags : uint32_t {
    boolalpha = 1,
    dec = 2,
    fixed = 4,
    hex = 8,
    internal = 16,
    left = 32,
    oct = 64,
    right = 128,
    scientific = 256,
    showbase = 512,
    showpoint = 1024,
    showpos = 2048,
    skipws = 4096,
    unitbuf = 8192,
    uppercase = 16384,
    adjustfield = left | right | internal,
    basefield = dec | oct | hex,
    floatfield = fixed | scientific,
};

enum IosIostate : uint32_t { goodbit = 0, badbit = 1, eofbit = 2, failbit = 4 };

enum IosOpenmode : uint32_t {
    app = 1,
    ate = 2,
    binary = 4,
    in = 8,
    out = 16,
    trunc = 32,
    sync = 64
};

enum IosSeekdir : uint32_t { beg = 0, cur = 1, end = 2 };

// Bit operations that keep the enumeration type.
#define VRK_IOS_BITMASK_OPS(T)                                                                     \
    constexpr T operator|(T a, T b) noexcept {                                                     \
        return static_cast<T>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));                \
    }                                                                                              \
    constexpr T operator&(T a, T b) noexcept {                                                     \
        return static_cast<T>(static_cast<uint32_t>(a) & static_cast<uint32_t>(b));                \
    }                                                                                              \
    constexpr T operator^(T a, T b) noexcept {                                                     \
        return static_cast<T>(static_cast<uint32_t>(a) ^ static_cast<uint32_t>(b));                \
    }                                                                                              \
    constexpr T operator~(T a) noexcept { return static_cast<T>(~static_cast<uint32_t>(a)); }      \
    constexpr T& operator|=(T& a, T b) noexcept { return a = a | b; }                              \
    constexpr T& operator&=(T& a, T b) noexcept { return a = a & b; }                              \
    constexpr T& operator^=(T& a, T b) noexcept { return a = a ^ b; }

VRK_IOS_BITMASK_OPS(IosFmtflags)
VRK_IOS_BITMASK_OPS(IosIostate)
VRK_IOS_BITMASK_OPS(IosOpenmode)

#undef VRK_IOS_BITMASK_OPS

} // namespace vrk::impl
