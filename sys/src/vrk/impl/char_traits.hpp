// Internal header, reached through vrk/streambuf.hpp; include that instead.
// vrk/impl/char_traits.hpp: character operations of the vrk streams for char.
//
// Characters travel between streams and stream buffers as int: a character as
// its unsigned value 0 to 255, end-of-file as -1, whatever the compiler's
// signedness of char. Nothing here allocates or throws.
#pragma once

#include <cstddef>
#include <cstring>

#include "vrk/iosfwd.hpp"

namespace vrk {

template <> struct char_traits<char> {
    using char_type = char;
    using int_type = int;

    static constexpr int_type eof() noexcept { return -1; }
    static constexpr int_type to_int_type(char_type c) noexcept {
        return static_cast<unsigned char>(c);
    }
    static constexpr char_type to_char_type(int_type i) noexcept {
        return static_cast<char_type>(static_cast<unsigned char>(i));
    }
    static constexpr bool eq_int_type(int_type a, int_type b) noexcept { return a == b; }
    static constexpr int_type not_eof(int_type i) noexcept { return i == eof() ? 0 : i; }
    static constexpr bool eq(char_type a, char_type b) noexcept { return a == b; }
    static constexpr bool lt(char_type a, char_type b) noexcept {
        return static_cast<unsigned char>(a) < static_cast<unsigned char>(b);
    }

    static size_t length(const char_type* s) noexcept { return std::strlen(s); }
    static int compare(const char_type* a, const char_type* b, size_t n) noexcept {
        return n == 0 ? 0 : std::memcmp(a, b, n);
    }
    static char_type* copy(char_type* dst, const char_type* src, size_t n) noexcept {
        if (n != 0)
            std::memcpy(dst, src, n);
        return dst;
    }
    static char_type* move(char_type* dst, const char_type* src, size_t n) noexcept {
        if (n != 0)
            std::memmove(dst, src, n);
        return dst;
    }
    static char_type* assign(char_type* dst, size_t n, char_type c) noexcept {
        if (n != 0)
            std::memset(dst, static_cast<unsigned char>(c), n);
        return dst;
    }
};

} // namespace vrk
