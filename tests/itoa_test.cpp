// Integer to text: exact results, clipped results after a failure, and a
// comparison with std::to_chars; every output buffer sits between guard bytes.
#include "vrk/ext/itoa.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using vrk::impl::FmtFlags;
using vrk::impl::FmtFlags_basefield;
using vrk::impl::FmtFlags_dec;
using vrk::impl::FmtFlags_hex;
using vrk::impl::FmtFlags_oct;
using vrk::impl::FmtFlags_uppercase;

constexpr char GUARD = '\x5a';
constexpr char FILL = '\x7e';

// A buffer of `size` characters preset to FILL between two runs of guard
// bytes; `written()` is how much of it was changed, `intact()` whether the
// guards survived.
class guarded_buf {
public:
    explicit guarded_buf(size_t size) : size_(size), raw_(size + 2 * PAD, GUARD) {
        std::fill_n(data(), size, FILL);
    }
    char* data() { return raw_.data() + PAD; }
    std::string bytes(size_t n) { return std::string(data(), n); }
    bool intact() const {
        for (size_t k = 0; k < PAD; ++k)
            if (raw_[k] != GUARD || raw_[PAD + size_ + k] != GUARD)
                return false;
        return true;
    }
    // Characters from the start that are no longer FILL (a FILL byte is
    // never produced by the conversions).
    size_t written() const {
        size_t n = size_;
        while (n > 0 && raw_[PAD + n - 1] == FILL)
            --n;
        return n;
    }

private:
    static constexpr size_t PAD = 32;
    size_t size_;
    std::string raw_;
};

struct itoa_result {
    bool ok;
    std::string bytes; // everything written
};

template <class T>
itoa_result run_itoa(T v, uint32_t length, int radix, uint32_t width) {
    guarded_buf b(length);
    char* r = vrk::impl::iToA<T>(v, b.data(), length, radix, width);
    EXPECT_TRUE(b.intact()) << "wrote past length " << length;
    EXPECT_LE(b.written(), length);
    EXPECT_TRUE(r == nullptr || r == b.data());
    return {r != nullptr, b.bytes(b.written())};
}

std::string z(const char* s) { return std::string(s, std::strlen(s) + 1); } // with terminator

TEST(Itoa, CheckedConversionGivesTheExactTexts) {
    EXPECT_EQ(run_itoa<int>(0, 10, 10, 0).bytes, z("0"));
    EXPECT_EQ(run_itoa<int>(0, 10, 2, 0).bytes, z("0"));
    EXPECT_TRUE(run_itoa<int>(0, 10, 2, 0).ok);

    itoa_result r = run_itoa<int>(-5, 150, 10, 11);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.bytes, "000000000-5");

    EXPECT_EQ(run_itoa<unsigned long>(0, 64, 16, 16).bytes, std::string(16, '0'));
    EXPECT_EQ(run_itoa<unsigned long>(255, 64, 16, 0).bytes, z("ff"));
    EXPECT_EQ(run_itoa<long>(-1, 64, 16, 0).bytes, z("ffffffffffffffff"));
    EXPECT_EQ(run_itoa<int>(-1, 64, 16, 0).bytes, z("ffffffff"));
    EXPECT_EQ(run_itoa<int>(-1, 64, 8, 0).bytes, z("37777777777"));
    EXPECT_EQ(run_itoa<long>(-1, 64, 8, 0).bytes, z("1777777777777777777777"));
    EXPECT_EQ(run_itoa<char>(static_cast<char>(200), 64, 10, 0).bytes, z("200"));
    EXPECT_EQ(run_itoa<char>(static_cast<char>(200), 64, 16, 0).bytes, z("c8"));
    EXPECT_EQ(run_itoa<char>(static_cast<char>(200), 64, 2, 0).bytes, z("11001000"));
    EXPECT_EQ(run_itoa<unsigned char>(255, 64, 8, 0).bytes, z("377"));

    r = run_itoa<unsigned int>(5, 10, 2, 4);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.bytes, "0101");
    EXPECT_EQ(run_itoa<unsigned long>(~0ul, 65, 2, 0).bytes, z(std::string(64, '1').c_str()));
    EXPECT_EQ(run_itoa<unsigned long>(~0ul, 64, 36, 0).bytes, z("3W5E11264SGSF"));
    EXPECT_EQ(run_itoa<unsigned int>(35, 64, 36, 0).bytes, z("Z"));
    // Hexadecimal through iToA is lower case; other radixes upper case.
    EXPECT_EQ(run_itoa<unsigned int>(0xabcu, 64, 16, 0).bytes, z("abc"));
    EXPECT_EQ(run_itoa<unsigned int>(0xabcu, 64, 15, 0).bytes, z("C33"));

    // The most negative values.
    EXPECT_EQ(run_itoa<long>(std::numeric_limits<long>::min(), 21, 10, 0).bytes,
              z("-9223372036854775808"));
    EXPECT_EQ(run_itoa<int>(std::numeric_limits<int>::min(), 21, 10, 0).bytes, z("-2147483648"));
    EXPECT_EQ(run_itoa<long>(std::numeric_limits<long>::min(), 64, 16, 0).bytes,
              z("8000000000000000"));
}

TEST(Itoa, NullResultsLeaveTheDocumentedText) {
    // Too long for the width: its last `width` characters (decimal family)...
    itoa_result r = run_itoa<int>(1234567, 72, 10, 6);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "234567");
    r = run_itoa<int>(-1234567, 72, 10, 6);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "234567"); // the sign is lost
    // ... and the same clipped again to a buffer shorter than the width.
    r = run_itoa<int>(1234567, 4, 10, 6);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "2345");
    // ... but the first `width` digits in other radixes.
    r = run_itoa<unsigned int>(0xffu, 64, 2, 4);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "1111");
    r = run_itoa<unsigned int>(12u, 64, 2, 3); // 1100
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "110");
    r = run_itoa<unsigned int>(12u, 2, 2, 3);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "11");

    // Natural text too long: as much as fits, then a terminator.
    r = run_itoa<unsigned long>(12345, 4, 10, 0);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, z("123"));
    r = run_itoa<unsigned long>(12345, 5, 10, 0);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, z("1234"));
    r = run_itoa<unsigned long>(12345, 6, 10, 0); // fits exactly, below the 21 reserved
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.bytes, z("12345"));
    r = run_itoa<unsigned int>(12u, 4, 2, 0);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, z("110"));
    r = run_itoa<unsigned int>(12u, 5, 2, 0);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.bytes, z("1100"));
    r = run_itoa<int>(7, 1, 10, 0); // only room for the terminator
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, std::string(1, '\0'));

    // Width beyond the buffer: the start of the padded text.
    r = run_itoa<int>(42, 5, 10, 8);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "00000");
    r = run_itoa<int>(42, 7, 16, 8);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "0000002");
    r = run_itoa<unsigned int>(5u, 3, 2, 6);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "000");
    // A width larger than any scratch array behaves the same way.
    r = run_itoa<int>(42, 100, 10, 200);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, std::string(100, '0'));
    r = run_itoa<int>(42, 100, 7, 200);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, std::string(100, '0'));
    r = run_itoa<int>(42, 100, 10, 99); // wide, but it fits
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.bytes, std::string(97, '0') + "42");

    // Bad radix or no room: nothing written at all.
    for (int radix : {-10, 0, 1, 37, 100}) {
        r = run_itoa<long>(12, 10, radix, 0);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.bytes, "");
    }
    for (int radix : {2, 8, 10, 16, 36}) {
        r = run_itoa<long>(12, 0, radix, 0);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.bytes, "");
        r = run_itoa<long>(12, 0, radix, 4);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.bytes, "");
    }
}

TEST(Itoa, NegativeValuesInOtherRadixesGetASign) {
    EXPECT_EQ(run_itoa<int>(-5, 64, 2, 0).bytes, z("-101"));
    EXPECT_EQ(run_itoa<long>(-35, 64, 36, 0).bytes, z("-Z"));
    EXPECT_EQ(run_itoa<long>(std::numeric_limits<long>::min(), 66, 2, 0).bytes,
              z(("-1" + std::string(63, '0')).c_str()));
    // The sign counts as a character: padding goes in front of it.
    itoa_result r = run_itoa<int>(-5, 64, 2, 6);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.bytes, "00-101");
    r = run_itoa<int>(-5, 64, 2, 3);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.bytes, "-10");
}

TEST(Itoa, WriteIntegerWidthsAndCounts) {
    char buf[40];
    // Natural length: the text, a terminator, and the count with it.
    EXPECT_EQ(vrk::impl::write_integer<long>(std::numeric_limits<long>::min(), buf, FmtFlags_dec, 0), 21u);
    EXPECT_STREQ(buf, "-9223372036854775808");
    {
        guarded_buf b(6);
        EXPECT_EQ(vrk::impl::write_integer<int>(-5, b.data(), FmtFlags_dec, 4), 4u);
        EXPECT_EQ(b.bytes(b.written()), "00-5");
        EXPECT_TRUE(b.intact());
    }
    {
        guarded_buf b(3);
        EXPECT_EQ(vrk::impl::write_integer<unsigned int>(42, b.data(), FmtFlags_hex, 3), 3u);
        EXPECT_EQ(b.bytes(3), "02a");
        EXPECT_TRUE(b.intact());
    }
    {
        // Longer than the width: the last `width` characters, the full count,
        // and not a byte beyond the width.
        guarded_buf b(3);
        EXPECT_EQ(vrk::impl::write_integer<long>(-123456, b.data(), FmtFlags_dec, 3), 7u);
        EXPECT_EQ(b.bytes(b.written()), "456");
        EXPECT_TRUE(b.intact());
    }
    {
        guarded_buf b(4);
        EXPECT_EQ(vrk::impl::write_integer<int>(-12, b.data(), FmtFlags_dec, -1), 3u);
        EXPECT_EQ(b.written(), 0u);
        EXPECT_TRUE(b.intact());
    }
    // Backwards: returns the first character, writes nothing before it or
    // at the end pointer.
    {
        guarded_buf b(22);
        char* end = b.data() + 22;
        char* first = vrk::impl::write_integer_backward<long>(-1, end, FmtFlags_oct);
        EXPECT_EQ(first, b.data());
        EXPECT_EQ(std::string(first, end), "1777777777777777777777");
        EXPECT_TRUE(b.intact());
        first = vrk::impl::write_integer_backward<int>(0, end, FmtFlags_hex);
        EXPECT_EQ(std::string(first, end), "0");
    }
}

TEST(Itoa, FlagsSelectBaseAndCase) {
    char buf[32];
    auto text = [&](unsigned int v, uint32_t flags) {
        vrk::impl::write_integer(v, buf, static_cast<FmtFlags>(flags), 0);
        return std::string(buf);
    };
    EXPECT_EQ(text(255, FmtFlags_hex), "ff");
    EXPECT_EQ(text(255, FmtFlags_hex | FmtFlags_uppercase), "FF");
    EXPECT_EQ(text(255, FmtFlags_oct), "377");
    EXPECT_EQ(text(255, FmtFlags_oct | FmtFlags_uppercase), "377");
    EXPECT_EQ(text(255, FmtFlags_dec | FmtFlags_uppercase), "255");
    // No base flag, or several, mean decimal.
    EXPECT_EQ(text(255, 0), "255");
    EXPECT_EQ(text(255, FmtFlags_oct | FmtFlags_hex), "255");
    EXPECT_EQ(text(255, FmtFlags_basefield), "255");
    EXPECT_EQ(text(255, FmtFlags_hex | 1u | 8u), "ff"); // bits outside the fields are ignored

    EXPECT_STREQ(vrk::impl::hexCharTable(false), "0123456789abcdefghijklmnopqrstuvwxyz");
    EXPECT_STREQ(vrk::impl::hexCharTable(true), "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ");
}

TEST(Itoa, InlineItoaWritesDecimalIntoAnArray) {
    char buf[66];
    std::memset(buf, FILL, sizeof buf);
    EXPECT_EQ((vrk::itoa<unsigned int, 66>(4294967295u, buf)), buf);
    EXPECT_EQ(std::string(buf, 11), z("4294967295"));
    EXPECT_EQ(buf[11], FILL);
    char small[21];
    EXPECT_STREQ(vrk::itoa(std::numeric_limits<long>::min(), small), "-9223372036854775808");
    EXPECT_STREQ(vrk::itoa(static_cast<char>(200), small), "200");
}

// --- Comparison with std::to_chars ---------------------------------------

template <class T>
std::vector<T> boundary_values() {
    using L = std::numeric_limits<T>;
    std::vector<T> v = {T(0), T(1), L::max(), T(L::max() - 1), L::min(), T(L::min() + 1)};
    if constexpr (L::is_signed)
        v.push_back(T(-1));
    for (unsigned long p = 10; p <= static_cast<unsigned long>(L::max()); p *= 10) {
        v.push_back(T(p - 1));
        v.push_back(T(p));
        if constexpr (L::is_signed) {
            v.push_back(T(-static_cast<long>(p - 1)));
            v.push_back(T(-static_cast<long>(p)));
        }
        if (p > static_cast<unsigned long>(L::max()) / 10)
            break;
    }
    for (int bit = 0; bit < L::digits; ++bit) { // powers of two and one below
        const auto u = static_cast<std::make_unsigned_t<T>>(1) << bit;
        v.push_back(static_cast<T>(u));
        v.push_back(static_cast<T>(u - 1));
    }
    std::mt19937_64 rng(12345);
    for (int k = 0; k < 500; ++k) // random values of every length
        v.push_back(static_cast<T>(rng() >> (rng() % 64)));
    return v;
}

// The reference text: to_chars of the value as this library reads it; octal
// and hexadecimal show the unsigned bit pattern, other radixes upper case.
template <class T>
std::string reference(T v, int radix) {
    char out[80];
    std::to_chars_result r;
    using U = std::make_unsigned_t<T>;
    if constexpr (std::is_same_v<T, char>)
        r = std::to_chars(out, out + sizeof out, static_cast<unsigned char>(v), radix);
    else if (radix == 8 || radix == 16)
        r = std::to_chars(out, out + sizeof out, static_cast<U>(v), radix);
    else
        r = std::to_chars(out, out + sizeof out, v, radix);
    std::string s(out, r.ptr);
    if (radix != 16)
        std::transform(s.begin(), s.end(), s.begin(), [](char c) { return static_cast<char>(std::toupper(c)); });
    return s;
}

template <class T>
void compare_with_to_chars() {
    for (T v : boundary_values<T>()) {
        for (int radix : {2, 3, 7, 8, 10, 16, 31, 36}) {
            const std::string want = reference(v, radix);
            SCOPED_TRACE(testing::Message() << "value " << +v << " radix " << radix);
            // Natural length with terminator, in the smallest buffer that
            // holds it (below the room the fast path reserves).
            itoa_result r = run_itoa<T>(v, static_cast<uint32_t>(want.size() + 1), radix, 0);
            EXPECT_TRUE(r.ok);
            EXPECT_EQ(r.bytes, z(want.c_str()));
            // One character short: clipped, terminated, null.
            if (want.size() > 1) {
                r = run_itoa<T>(v, static_cast<uint32_t>(want.size()), radix, 0);
                EXPECT_FALSE(r.ok);
                EXPECT_EQ(r.bytes, z(want.substr(0, want.size() - 1).c_str()));
            }
            // Exact width and a wider one.
            r = run_itoa<T>(v, 80, radix, static_cast<uint32_t>(want.size()));
            EXPECT_TRUE(r.ok);
            EXPECT_EQ(r.bytes, want);
            r = run_itoa<T>(v, 80, radix, static_cast<uint32_t>(want.size() + 3));
            EXPECT_TRUE(r.ok);
            EXPECT_EQ(r.bytes, "000" + want);
        }
        for (int radix : {8, 10, 16}) {
            const FmtFlags f = radix == 8 ? FmtFlags_oct : radix == 10 ? FmtFlags_dec : FmtFlags_hex;
            const std::string want = reference(v, radix);
            guarded_buf b(want.size() + 1);
            EXPECT_EQ(vrk::impl::write_integer<T>(v, b.data(), f, 0), want.size() + 1);
            EXPECT_EQ(b.bytes(want.size() + 1), z(want.c_str()));
            EXPECT_TRUE(b.intact());
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
