// Integer to text: exact results, the text left after a null result, and a
// comparison with std::to_chars; every output buffer sits between guard bytes.
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

template <class T>
void check(T v, uint32_t length, int radix, uint32_t width, bool ok, const std::string& want,
           int line) {
    char* r = nullptr;
    char* base = nullptr;
    const std::string got =
        guarded(length, [&](char* b) { base = b, r = iToA<T>(v, b, length, radix, width); });
    EXPECT_EQ(got, want) << "line " << line;
    EXPECT_EQ(r, ok ? base : nullptr) << "line " << line;
}
// Expected bytes may hold zeros: the literal "12\0" stands for three characters.
template <size_t N> std::string bytes_of(const char (&s)[N]) { return std::string(s, N - 1); }
std::string bytes_of(std::string s) { return s; }
#define ITOA_CASE(T, v, length, radix, width, ok, bytes)                                           \
    check<T>(static_cast<T>(v), length, radix, width, ok, bytes_of(bytes), __LINE__)

const long LMIN = std::numeric_limits<long>::min();

// Plain texts of every type and radix, the least room that fits, one less,
// and small paddings are compared with std::to_chars below; these cases go
// beyond what that comparison covers.
TEST(Itoa, WidthsAndTheTextLeftAfterANullResult) {
    ITOA_CASE(int, 42, 100, 10, 99, true, std::string(97, '0') + "42");
    // Longer than the width: the last `width` characters in radix 8/10/16 ...
    ITOA_CASE(int, 1234567, 72, 10, 6, false, "234567");
    ITOA_CASE(int, -1234567, 72, 10, 6, false, "234567"); // the sign is lost
    ITOA_CASE(int, 1234567, 4, 10, 6, false, "2345");     // and clipped to the buffer
    // ... the first `width` digits in other radixes.
    ITOA_CASE(unsigned int, 12, 64, 2, 3, false, "110");
    ITOA_CASE(unsigned int, 12, 2, 2, 3, false, "11");
    ITOA_CASE(int, -5, 64, 2, 3, false, "-10");
    // Natural text too long: what fits, then a terminator.
    ITOA_CASE(int, 7, 1, 10, 0, false, "\0");
    // Width beyond the buffer: the start of the padded text, also for widths
    // larger than any scratch array.
    ITOA_CASE(int, 42, 5, 10, 8, false, "00000");
    ITOA_CASE(int, 42, 7, 16, 8, false, "0000002");
    ITOA_CASE(unsigned int, 5, 3, 2, 6, false, "000");
    ITOA_CASE(int, 42, 100, 10, 200, false, std::string(100, '0'));
    ITOA_CASE(int, 42, 100, 7, 200, false, std::string(100, '0'));
    // Bad radix or no room: nothing written.
    for (int radix : {-10, 0, 1, 37})
        ITOA_CASE(long, 12, 10, radix, 0, false, "");
    for (int radix : {2, 8, 10, 16, 36}) {
        ITOA_CASE(long, 12, 0, radix, 0, false, "");
        ITOA_CASE(long, 12, 0, radix, 4, false, "");
    }
}

TEST(Itoa, WriteIntegerCountsAndWidths) {
    auto run = [](auto v, size_t size, uint32_t flags, int width, unsigned long count) {
        return guarded(
            size, [&](char* b) { EXPECT_EQ(write_integer(v, b, FmtFlags(flags), width), count); });
    };
    EXPECT_EQ(run(LMIN, 21, FmtFlags_dec, 0, 21), std::string("-9223372036854775808", 21));
    EXPECT_EQ(run(-5, 4, FmtFlags_dec, 4, 4), "00-5");
    EXPECT_EQ(run(42u, 3, FmtFlags_hex, 3, 3), "02a");
    EXPECT_EQ(run(-123456l, 3, FmtFlags_dec, 3, 7), "456"); // last `width`, the full count
    EXPECT_EQ(run(-12, 4, FmtFlags_dec, -1, 3), "");
    // The base is octal or hexadecimal only for exactly that flag; case
    // matters only for hexadecimal.
    EXPECT_EQ(run(255u, 3, FmtFlags_hex | FmtFlags_uppercase, 0, 3), std::string("FF", 3));
    EXPECT_EQ(run(255u, 4, FmtFlags_oct | FmtFlags_uppercase, 0, 4), std::string("377", 4));
    EXPECT_EQ(run(255u, 3, FmtFlags_hex | 1u | 8u, 0, 3), std::string("ff", 3));
    for (uint32_t flags : {0u, 512u | 4u, 1024u | 2048u, 3584u})
        EXPECT_EQ(run(255u, 4, flags, 0, 4), std::string("255", 4));

    const std::string back = guarded(22, [](char* b) {
        EXPECT_EQ(write_integer_backward<long>(-1, b + 22, FmtFlags_oct), b);
        EXPECT_EQ(write_integer_backward<int>(0, b + 22, FmtFlags_hex), b + 21);
    });
    EXPECT_EQ(back, "1777777777777777777770");

    char buf[66];
    std::fill_n(buf, sizeof buf, FILL);
    EXPECT_EQ((vrk::itoa<unsigned int, 66>(4294967295u, buf)), buf);
    EXPECT_EQ(std::string(buf, 12), std::string("4294967295\0", 11) + FILL);
    char small[21];
    EXPECT_STREQ(vrk::itoa(LMIN, small), "-9223372036854775808");
}

// --- Comparison with std::to_chars -------------------------------------

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
    for (int k = 0; k < 500; ++k)
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

template <class T> void compare_with_to_chars() {
    for (T v : interesting_values<T>()) {
        for (int radix : {2, 3, 7, 8, 10, 16, 31, 36}) {
            const std::string want = reference(v, radix);
            const uint32_t n = static_cast<uint32_t>(want.size());
            SCOPED_TRACE(testing::Message() << "value " << +v << " radix " << radix);
            check<T>(v, n + 1, radix, 0, true, want + '\0', __LINE__); // the least room that fits
            check<T>(v, n, radix, 0, false, want.substr(0, n - 1) + '\0', __LINE__);
            check<T>(v, 80, radix, n, true, want, __LINE__);
            check<T>(v, 80, radix, n + 3, true, "000" + want, __LINE__);
            if (radix == 8 || radix == 10 || radix == 16) {
                const FmtFlags f = radix == 8    ? FmtFlags_oct
                                   : radix == 10 ? FmtFlags_dec
                                                 : FmtFlags_hex;
                EXPECT_EQ(guarded(n + 1,
                                  [&](char* b) { EXPECT_EQ(write_integer<T>(v, b, f, 0), n + 1); }),
                          want + '\0');
            }
        }
    }
}

TEST(Itoa, MatchesToCharsForEveryType) {
    compare_with_to_chars<unsigned long>();
    compare_with_to_chars<long>();
    compare_with_to_chars<unsigned int>();
    compare_with_to_chars<int>();
    compare_with_to_chars<unsigned char>();
    compare_with_to_chars<char>();
}

} // namespace
