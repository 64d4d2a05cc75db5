// vrk/ext/itoa.hpp: integers to text without locale, stream or platform
// formatting, for the paths that run while memory is exhausted.
//
// Nothing here allocates, throws or locks, and nothing depends on another vrk
// component. Plain `char` is taken as an unsigned 8-bit value everywhere.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vrk {

// Room for the texts below (characters, terminator not included).
enum {
    convert_buf_size = 66, // scratch of iToA; most digits collected in radix 2..36
    max_bin_digits = 64,
    max_oct_digits = 22,
    max_dec_digits = 20, // 20 digits, or a sign and 19 digits
    max_hex_digits = 16
};

// Compiles only when A <= B; used to refuse arrays too small for a text.
template <size_t A, size_t B> struct less_equal_size {
    static_assert(A <= B, "the array is too small for this conversion");
    static constexpr bool value = true;
};

namespace impl {

// Formatting flags, used as a bit set. `flags & FmtFlags_basefield` selects
// octal or hexadecimal only when it is exactly that flag; every other
// combination means decimal.
enum FmtFlags : uint32_t {
    FmtFlags_uppercase = 4,
    FmtFlags_dec = 512,
    FmtFlags_oct = 1024,
    FmtFlags_hex = 2048,
    FmtFlags_basefield = 3584
};

constexpr FmtFlags operator|(FmtFlags a, FmtFlags b) noexcept {
    return static_cast<FmtFlags>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

// The 36 digit characters 0-9 then A-Z (or a-z); constant data.
inline const char* hexCharTable(bool uppercase) noexcept;

// Writes the digits of `nmb` backwards into the characters before `buf` (one
// past the end of a scratch area) and returns its first character. Decimal
// values of `long` and `int` get a leading '-'; octal and hexadecimal write
// the unsigned bit pattern. No terminator; needs at most `max_oct_digits`.
template <class T> char* write_integer_backward(T nmb, char* buf, FmtFlags io_flags) noexcept;

// Writes the text of `a` forward into `buf`:
//  width 0: the text and a terminator, returns its length + 1;
//  width > 0: exactly `width` characters, no terminator: zeros in front (even
//    of a sign) and returns `width`, or, when the text is longer, its last
//    `width` characters and returns the text length;
//  width < 0: writes nothing and returns the text length.
template <class T>
unsigned long write_integer(T a, char* buf, FmtFlags io_flags, int width) noexcept;

// Checked conversion in radix 2..36 into `length` characters at `buf`. `width`
// 0 asks for the natural text with terminator, otherwise for exactly `width`
// zero-padded characters without one. Returns `buf`, or null when the radix
// is bad (nothing written), `length` is 0 (nothing written) or the text does
// not fit. The buffer then holds a clipped text that callers may use: with a
// width, radix 8/10/16 keep the last `width` characters of a longer text and
// other radixes the first; without one, the start of the text and a
// terminator (details in itoa.cpp). Never writes past `length` characters.
template <class T> char* iToA(T i, char* buf, uint32_t length, int radix, uint32_t width) noexcept;

} // namespace impl

// The decimal text of `i` with terminator in `buf`; returns `buf`, so that
// the text can be passed on in the same expression. Arrays of fewer than 21
// characters do not compile.
template <class T, size_t N> char* itoa(T i, char (&buf)[N]) noexcept;

// ---------------------------------------------------------------------------
// Inline definitions
// ---------------------------------------------------------------------------

namespace impl {

// What a value is taken as: its unsigned bit pattern and whether decimal text
// carries a sign. Only the six supported types are accepted; plain char is
// unsigned in this library whatever the compiler thinks.
template <class T> struct itoa_traits_ {
    static_assert(std::is_same_v<T, unsigned long> || std::is_same_v<T, long> ||
                      std::is_same_v<T, unsigned int> || std::is_same_v<T, int> ||
                      std::is_same_v<T, unsigned char> || std::is_same_v<T, char>,
                  "integer text is written for long, int, char and their unsigned types");
    using unsigned_type =
        std::conditional_t<(sizeof(T) > sizeof(unsigned int)), unsigned long, unsigned int>;
    static constexpr bool SIGNED = std::is_same_v<T, long> || std::is_same_v<T, int>;
    static unsigned_type bits(T v) noexcept {
        if constexpr (sizeof(T) == 1)
            return static_cast<unsigned char>(v);
        else
            return static_cast<unsigned_type>(v);
    }
};

inline constexpr char HEX_LOWER_[37] = "0123456789abcdefghijklmnopqrstuvwxyz";
inline constexpr char HEX_UPPER_[37] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

inline const char* hexCharTable(bool uppercase) noexcept {
    return uppercase ? HEX_UPPER_ : HEX_LOWER_;
}

struct digit_pairs_ {
    char text_[200];
    constexpr digit_pairs_() noexcept : text_() {
        for (int i = 0; i < 100; ++i) {
            text_[2 * i] = static_cast<char>('0' + i / 10);
            text_[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
// "00" "01" ... "99": two decimal digits per division.
inline constexpr digit_pairs_ DIGIT_PAIRS_{};

struct hex_pairs_ {
    char text_[512];
    constexpr explicit hex_pairs_(const char* digits) noexcept : text_() {
        for (int i = 0; i < 256; ++i) {
            text_[2 * i] = digits[i / 16];
            text_[2 * i + 1] = digits[i % 16];
        }
    }
};
// "00" "01" ... "ff" and "00" ... "FF": two hexadecimal digits per byte.
inline constexpr hex_pairs_ HEX_PAIRS_LOWER_{HEX_LOWER_};
inline constexpr hex_pairs_ HEX_PAIRS_UPPER_{HEX_UPPER_};

// Decimal digits of `u`, by comparisons, four digits a round, rather than a
// bit scan and a table: the processor predicts the length and runs ahead to
// the writes, where a computed length held every store back (1.5x slower on
// values of random length).
template <class U> inline uint32_t dec_digits_(U u) noexcept {
    uint32_t n = 1;
    for (;;) {
        if (u < 10)
            return n;
        if (u < 100)
            return n + 1;
        if (u < 1000)
            return n + 2;
        if (u < 10000)
            return n + 3;
        u /= 10000u;
        n += 4;
    }
}

template <class U> inline char* write_decimal_backward_(U u, char* p) noexcept {
    while (u >= 100) {
        const uint32_t r = static_cast<uint32_t>(u % 100);
        u /= 100;
        p -= 2;
        std::memcpy(p, DIGIT_PAIRS_.text_ + 2 * r, 2);
    }
    if (u >= 10) {
        p -= 2;
        std::memcpy(p, DIGIT_PAIRS_.text_ + 2 * u, 2);
    } else {
        *--p = static_cast<char>('0' + u);
    }
    return p;
}

// Hexadecimal digits of `u` ending at `buf`: one table load and one
// two-byte store per byte of the value. Kept apart from the decimal code,
// which the compiler then lays out as tightly as without it.
template <class U> inline char* write_hex_backward_(U u, char* buf, bool upper) noexcept {
    const char* pairs = upper ? HEX_PAIRS_UPPER_.text_ : HEX_PAIRS_LOWER_.text_;
    while (u >= 0x100) {
        buf -= 2;
        std::memcpy(buf, pairs + 2 * (u & 0xff), 2);
        u >>= 8;
    }
    if (u >= 0x10) {
        buf -= 2;
        std::memcpy(buf, pairs + 2 * u, 2);
    } else {
        *--buf = pairs[2 * u + 1];
    }
    return buf;
}

// Length of the text write_integer_backward produces, sign included.
template <class T> inline uint32_t text_length_(T nmb, FmtFlags io_flags) noexcept {
    using traits = itoa_traits_<T>;
    const auto u = traits::bits(nmb);
    const uint32_t base = io_flags & FmtFlags_basefield;
    if (base == FmtFlags_hex)
        return (static_cast<uint32_t>(std::bit_width(u | 1u)) + 3) / 4;
    if (base == FmtFlags_oct)
        return (static_cast<uint32_t>(std::bit_width(u | 1u)) + 2) / 3;
    if constexpr (traits::SIGNED) {
        if (nmb < 0)
            return dec_digits_(decltype(u)(0) - u) + 1;
    }
    return dec_digits_(u);
}

template <class T>
inline char* write_integer_backward(T nmb, char* buf, FmtFlags io_flags) noexcept {
    using traits = itoa_traits_<T>;
    auto u = traits::bits(nmb);
    const uint32_t base = io_flags & FmtFlags_basefield;
    if (base == FmtFlags_hex) {
        return write_hex_backward_(u, buf, (io_flags & FmtFlags_uppercase) != 0);
    }
    if (base == FmtFlags_oct) {
        do {
            *--buf = static_cast<char>('0' + (u & 7));
            u >>= 3;
        } while (u != 0);
        return buf;
    }
    if constexpr (traits::SIGNED) {
        if (nmb < 0) {
            // The magnitude of the most negative value fits the unsigned type.
            buf = write_decimal_backward_(decltype(u)(0) - u, buf);
            *--buf = '-';
            return buf;
        }
    }
    return write_decimal_backward_(u, buf);
}

// The last `width` characters of a text longer than `width`.
template <class T>
void write_integer_tail_(T a, char* buf, FmtFlags io_flags, uint32_t width) noexcept;

template <class T>
inline unsigned long write_integer(T a, char* buf, FmtFlags io_flags, int width) noexcept {
    const uint32_t base = io_flags & FmtFlags_basefield;
    if (width == 0 && base != FmtFlags_hex && base != FmtFlags_oct) {
        const auto u = itoa_traits_<T>::bits(a);
        // The sign without a branch: a '-' goes first in any case, and a
        // value that is not negative writes its first digit over it.
        bool negative = false;
        auto magnitude = u;
        if constexpr (itoa_traits_<T>::SIGNED) {
            negative = a < 0;
            magnitude = negative ? decltype(u)(0) - u : u;
            buf[0] = '-';
        }
        char* digits = buf + (negative ? 1 : 0);
        const uint32_t n = dec_digits_(magnitude);
        write_decimal_backward_(magnitude, digits + n);
        digits[n] = '\0';
        return n + 1 + (negative ? 1u : 0u);
    }
    const uint32_t len = text_length_(a, io_flags);
    if (width == 0) {
        write_integer_backward(a, buf + len, io_flags);
        buf[len] = '\0';
        return len + 1;
    }
    if (width < 0)
        return len;
    const uint32_t w = static_cast<uint32_t>(width);
    if (len > w) {
        write_integer_tail_(a, buf, io_flags, w);
        return len;
    }
    std::memset(buf, '0', w - len);
    write_integer_backward(a, buf + w, io_flags);
    return w;
}

// Cold paths of iToA, out of line in itoa.cpp.
template <class T>
char* iToA_clipped_(T i, char* buf, uint32_t length, FmtFlags flags, uint32_t width) noexcept;
template <class T>
char* iToA_radix_(T i, char* buf, uint32_t length, int radix, uint32_t width) noexcept;

template <class T>
inline char* iToA(T i, char* buf, uint32_t length, int radix, uint32_t width) noexcept {
    FmtFlags flags;
    uint32_t natural; // room for the longest text with terminator
    if (radix == 10) {
        flags = FmtFlags_dec;
        natural = max_dec_digits + 1;
    } else if (radix == 16) {
        flags = FmtFlags_hex;
        natural = max_hex_digits + 1;
    } else if (radix == 8) {
        flags = FmtFlags_oct;
        natural = max_oct_digits + 1;
    } else {
        return iToA_radix_(i, buf, length, radix, width);
    }
    const uint32_t needed = width != 0 ? width : natural;
    if (needed > length || width > static_cast<uint32_t>(INT32_MAX))
        return length == 0 ? nullptr : iToA_clipped_(i, buf, length, flags, width);
    const unsigned long n = write_integer(i, buf, flags, static_cast<int>(width));
    return width == 0 || n == width ? buf : nullptr;
}

} // namespace impl

template <class T, size_t N> inline char* itoa(T i, char (&buf)[N]) noexcept {
    static_assert(less_equal_size<max_dec_digits + 1, N>::value);
    impl::write_integer(i, buf, impl::FmtFlags_dec, 0);
    return buf;
}

} // namespace vrk
