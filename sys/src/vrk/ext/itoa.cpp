// The cold paths of the integer conversions: texts that do not fit the
// caller's buffer and radixes other than 8, 10 and 16. Stack scratch only.
#include "vrk/ext/itoa.hpp"

namespace vrk::impl {

namespace {

uint32_t min_(uint32_t a, uint32_t b) noexcept { return a < b ? a : b; }

// Writes the first min(length, width) characters of `count` characters of
// `text` padded with zeros in front to `width` (count <= width). The padded
// text is never built, so a width larger than the scratch array and the
// buffer gives the same result as any other: the buffer filled with the start
// of the padded text, and null.
void copy_padded_(char* buf, uint32_t length, const char* text, uint32_t count,
                  uint32_t width) noexcept {
    const uint32_t n = min_(length, width);
    const uint32_t zeros = width - count;
    if (n <= zeros) {
        std::memset(buf, '0', n);
        return;
    }
    std::memset(buf, '0', zeros);
    std::memcpy(buf + zeros, text, n - zeros);
}

} // namespace

template <class T>
void write_integer_tail_(T a, char* buf, FmtFlags io_flags, uint32_t width) noexcept {
    char scratch[max_oct_digits + 1];
    char* const end = scratch + sizeof scratch;
    write_integer_backward(a, end, io_flags);
    std::memcpy(buf, end - width, width);
}

// Radix 8, 10 or 16 when the room the text may need exceeds `length`
// (length > 0). The buffer receives what the fixed-size conversion would have
// produced, clipped to `length`:
//  width 0: the text and terminator when they fit; else the first
//    length - 1 characters and a terminator, and null;
//  width != 0: the first `length` characters of the zero-padded text, or of
//    the last `width` characters of a longer text, and null.
template <class T>
char* iToA_clipped_(T i, char* buf, uint32_t length, FmtFlags flags, uint32_t width) noexcept {
    char scratch[max_oct_digits + 1];
    char* const end = scratch + sizeof scratch;
    const char* text = write_integer_backward(i, end, flags);
    const uint32_t len = static_cast<uint32_t>(end - text);
    if (width == 0) {
        if (len + 1 > length) {
            std::memcpy(buf, text, length - 1);
            buf[length - 1] = '\0';
            return nullptr;
        }
        std::memcpy(buf, text, len);
        buf[len] = '\0';
        return buf;
    }
    if (len > width) {
        std::memcpy(buf, end - width, min_(length, width));
        return nullptr;
    }
    // Only a width too large for write_integer's int can fit here.
    copy_padded_(buf, length, text, len, width);
    return width <= length ? buf : nullptr;
}

// Any radix 2..36 with upper-case letters. A negative `long` or `int` is
// written as '-' and the digits of its magnitude; that sign counts as one
// more digit everywhere below, so padding goes in front of it as in decimal
// (-5 in radix 2, width 6: "00-101").
template <class T>
char* iToA_radix_(T i, char* buf, uint32_t length, int radix, uint32_t width) noexcept {
    if (radix < 2 || radix > 36 || length == 0)
        return nullptr;
    using traits = itoa_traits_<T>;
    using U = typename traits::unsigned_type;
    U u = traits::bits(i);
    bool negative = false;
    if constexpr (traits::SIGNED) {
        if (i < 0) {
            negative = true;
            u = U(0) - u;
        }
    }
    const char* table = hexCharTable(true);
    const U r = static_cast<U>(radix);
    char scratch[convert_buf_size];
    char* const end = scratch + sizeof scratch;
    char* p = end;
    do {
        *--p = table[u % r];
        u /= r;
    } while (u != 0); // at most 64 digits: a sign still fits
    if (negative)
        *--p = '-';
    const uint32_t count = static_cast<uint32_t>(end - p);

    if (width != 0) {
        if (count > width) {
            std::memcpy(buf, p, min_(width, length));
            return nullptr;
        }
        copy_padded_(buf, length, p, count, width);
        return width <= length ? buf : nullptr;
    }
    if (count >= length) {
        std::memcpy(buf, p, length - 1);
        buf[length - 1] = '\0';
        return nullptr;
    }
    std::memcpy(buf, p, count);
    buf[count] = '\0';
    return buf;
}

#define VRK_ITOA_INSTANTIATE_(T)                                                                   \
    template void write_integer_tail_<T>(T, char*, FmtFlags, uint32_t) noexcept;                   \
    template char* iToA_clipped_<T>(T, char*, uint32_t, FmtFlags, uint32_t) noexcept;              \
    template char* iToA_radix_<T>(T, char*, uint32_t, int, uint32_t) noexcept;

VRK_ITOA_INSTANTIATE_(unsigned long)
VRK_ITOA_INSTANTIATE_(long)
VRK_ITOA_INSTANTIATE_(unsigned int)
VRK_ITOA_INSTANTIATE_(int)
VRK_ITOA_INSTANTIATE_(unsigned char)
VRK_ITOA_INSTANTIATE_(char)

#undef VRK_ITOA_INSTANTIATE_

} // namespace vrk::impl
