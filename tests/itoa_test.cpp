// Integer to text, compared with std::to_chars for every type and radix: the
// natural text, widths, buffers too small for either, and the count
// write_integer returns; every output buffer sits between guard bytes.
#include "vrk/ext/itoa.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace vrk::impl;

constexpr size_t PAD = 32;
constexpr char GUARD = '\x5a', FILL = '\x7e'; // neither is ever produced

// Runs `write` on `size` FILL characters between guard runs; returns the
// characters changed (from the start) and fails the test if a guard moved.
template <class F> std::string guarded(size_t size, F write) {
    std::string raw(size + 2 * PAD, GUARD);
    std::fill_n(raw.begin() + PAD, size, FILL);
    write(raw.data() + PAD);
    EXPECT_EQ(raw.substr(0, PAD), std::string(PAD, GUARD)) << "wrote before the buffer";
    EXPECT_EQ(raw.substr(PAD + size), std::string(PAD, GUARD)) << "wrote past " << size;
    size_t n = size;
    while (n > 0 && raw[PAD + n - 1] == FILL)
        --n;
    return raw.substr(PAD, n);
}

// 0, +-1, 10^k - 1, 10^k, 2^k - 1, 2^k, min, max and random values of every
// length.
template <class T> std::vector<T> interesting_values() {
    using L = std::numeric_limits<T>;
    using U = std::make_unsigned_t<T>;
    std::vector<T> v = {T(0), T(1), T(-1), L::max(), T(L::max() - 1), L::min(), T(L::min() + 1)};
    for (U p = 10;; p = U(p * 10)) {
        for (U x : {U(p - 1), p})
            v.insert(v.end(), {T(x), T(U(0) - x)});
        if (p > U(L::max()) / 10)
            break;
    }
    for (int bit = 0; bit < std::numeric_limits<U>::digits; ++bit)
        for (U x : {U(U(1) << bit), U((U(1) << bit) - 1)})
            v.push_back(T(x));
    std::mt19937_64 rng(12345);
    for (int k = 0; k < 60; ++k)
        v.push_back(static_cast<T>(rng() >> (rng() % 64)));
    return v;
}

// to_chars of the value as this library reads it: plain char unsigned, octal
// and hexadecimal as the bit pattern, letters upper case outside radix 16.
template <class T> std::string reference(T v, int radix) {
    char out[80];
    using U = std::make_unsigned_t<T>;
    const auto r = std::is_same_v<T, char> || radix == 8 || radix == 16
                       ? std::to_chars(out, out + sizeof out, static_cast<U>(v), radix)
                       : std::to_chars(out, out + sizeof out, v, radix);
    std::string s(out, r.ptr);
    if (radix != 16)
        std::transform(s.begin(), s.end(), s.begin(),
                       [](char c) { return static_cast<char>(std::toupper(c)); });
    return s;
}

// What iToA leaves in `length` characters, and whether it answers the buffer
// (else null): without a width the text and a terminator, cut to the buffer;
// with one the zero-padded text, or, longer than the width, its last `width`
// characters in radix 8, 10 and 16 (a sign is lost) and its first in the
// others; never a terminator.
struct outcome {
    std::string text;
    bool ok;
    bool operator==(const outcome&) const = default;
};
void PrintTo(const outcome& o, std::ostream* os) {
    *os << testing::PrintToString(o.text) << (o.ok ? " ok" : " null");
}
outcome expected(const std::string& text, uint32_t length, int radix, uint32_t width) {
    const size_t n = text.size();
    if (length == 0)
        return {"", false};
    if (width == 0)
        return {n < length ? text + '\0' : text.substr(0, length - 1) + '\0', n < length};
    if (n > width) {
        const bool tail = radix == 8 || radix == 10 || radix == 16;
        return {text.substr(tail ? n - width : 0, width).substr(0, length), false};
    }
    return {(std::string(width - n, '0') + text).substr(0, length), width <= length};
}
template <class T> outcome run(T v, uint32_t length, int radix, uint32_t width) {
    char *r = nullptr, *base = nullptr;
    std::string text =
        guarded(length, [&](char* b) { base = b, r = iToA<T>(v, b, length, radix, width); });
    EXPECT_TRUE(r == nullptr || r == base);
    return {text, r != nullptr};
}

template <class T> void compare_with_to_chars() {
    for (T v : interesting_values<T>()) {
        for (int radix : {2, 3, 7, 8, 10, 16, 31, 36}) {
            const std::string want = reference(v, radix);
            const uint32_t n = static_cast<uint32_t>(want.size());
            SCOPED_TRACE(testing::Message() << "value " << +v << " radix " << radix);
            for (uint32_t length : {0u, n - 1, n, n + 1, 80u})
                for (uint32_t width : {0u, 1u, n - 1, n, n + 3})
                    EXPECT_EQ(run(v, length, radix, width), expected(want, length, radix, width))
                        << "length " << length << " width " << width;
            if (radix != 8 && radix != 10 && radix != 16)
                continue;
            // write_integer: the text with its terminator, or padded or cut
            // to the width without; the count of the full text either way.
            const FmtFlags f = radix == 8    ? FmtFlags_oct
                               : radix == 10 ? FmtFlags_dec
                                             : FmtFlags_hex;
            for (int width : {0, -1, 1, static_cast<int>(n), static_cast<int>(n) + 3}) {
                const uint32_t w = width < 0 ? 0 : static_cast<uint32_t>(width);
                const std::string out = width < 0    ? ""
                                        : width == 0 ? want + '\0'
                                                     : expected(want, 80, radix, w).text;
                const unsigned long count = width == 0 ? n + 1 : std::max(n, w);
                EXPECT_EQ(
                    guarded(out.size(),
                            [&](char* b) { EXPECT_EQ(write_integer<T>(v, b, f, width), count); }),
                    out)
                    << "write_integer, width " << width;
            }
        }
    }
}

TEST(Itoa, MatchesToCharsForEveryTypeWidthAndBuffer) {
    compare_with_to_chars<unsigned long>();
    compare_with_to_chars<long>();
    compare_with_to_chars<unsigned int>();
    compare_with_to_chars<int>();
    compare_with_to_chars<unsigned char>();
    compare_with_to_chars<char>();
}

TEST(Itoa, WidthsBeyondTheBufferBadRadixesAndFlags) {
    // Widths larger than any scratch array; radixes there are none of.
    for (int radix : {7, 10})
        EXPECT_EQ(run(42, 100, radix, 200), (outcome{std::string(100, '0'), false}));
    for (int radix : {-10, 0, 1, 37})
        EXPECT_EQ(run(12L, 10, radix, 0), (outcome{"", false}));
    // The base is octal or hexadecimal only for exactly that flag; case
    // matters only for hexadecimal.
    const auto with = [](uint32_t flags) {
        return guarded(4, [&](char* b) { write_integer(255u, b, FmtFlags(flags), 0); });
    };
    EXPECT_EQ(with(FmtFlags_hex | FmtFlags_uppercase), std::string("FF", 3));
    EXPECT_EQ(with(FmtFlags_oct | FmtFlags_uppercase), std::string("377", 4));
    EXPECT_EQ(with(FmtFlags_hex | 1u | 8u), std::string("ff", 3));
    for (uint32_t flags : {0u, 512u | 4u, 1024u | 2048u, 3584u})
        EXPECT_EQ(with(flags), std::string("255", 4));
}

} // namespace
