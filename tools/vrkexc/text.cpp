// Texts from decoded exceptions written where they cannot do harm: to a
// terminal with their control characters shown, and into JSON strings.
#include "tool.hpp"

namespace vrkexc {

namespace {

constexpr char DIGITS[] = "0123456789abcdef";

// The length of the well-formed UTF-8 sequence of two to four bytes at `p`
// (of `n` available), 0 when there is none. A C1 control character (U+0080
// to U+009F) counts as none unless `c1` is set: a terminal may act on it.
size_t utf8_sequence(const unsigned char* p, size_t n, bool c1) noexcept {
    const unsigned char b = p[0];
    size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF; // range of the second byte
    if (b >= 0xC2 && b <= 0xDF) {
        len = 2;
        lo = b == 0xC2 && !c1 ? 0xA0 : 0x80;
    } else if (b >= 0xE0 && b <= 0xEF) {
        len = 3;
        lo = b == 0xE0 ? 0xA0 : 0x80;
        hi = b == 0xED ? 0x9F : 0xBF; // no surrogates
    } else if (b >= 0xF0 && b <= 0xF4) {
        len = 4;
        lo = b == 0xF0 ? 0x90 : 0x80;
        hi = b == 0xF4 ? 0x8F : 0xBF;
    }
    if (len == 0 || len > n || p[1] < lo || p[1] > hi)
        return 0;
    for (size_t i = 2; i < len; ++i)
        if (p[i] < 0x80 || p[i] > 0xBF)
            return 0;
    return len;
}

// Walks `text`, handing runs that need no escape to `plain(p, n)` and every
// other byte to `escape(byte)`. `keep(c)` says which ASCII bytes are plain.
template <class Keep, class Plain, class Escape>
void walk(const char* text, size_t len, bool c1, Keep keep, Plain plain, Escape escape) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    size_t run = 0;
    for (size_t i = 0; i < len;) {
        size_t n = p[i] < 0x80 ? (keep(p[i]) ? 1 : 0) : utf8_sequence(p + i, len - i, c1);
        if (n != 0) {
            i += n;
            continue;
        }
        if (i > run)
            plain(text + run, i - run);
        escape(p[i]);
        run = ++i;
    }
    if (len > run)
        plain(text + run, len - run);
}

} // namespace

void write_for_terminal(vrk::ostream& os, const char* text, size_t len) {
    walk(
        text, len, false,
        [](unsigned char c) { return c == '\n' || c == '\t' || (c >= 0x20 && c != 0x7F); },
        [&](const char* p, size_t n) { os.write(p, static_cast<vrk::streamsize>(n)); },
        [&](unsigned char c) {
            const char esc[4] = {'\\', 'x', DIGITS[c >> 4], DIGITS[c & 15]};
            os.write(esc, 4);
        });
}

void write_json_string(vrk::ostream& os, const char* text, size_t len) {
    os.put('"');
    walk(
        text, len, true, [](unsigned char c) { return c >= 0x20 && c != '"' && c != '\\'; },
        [&](const char* p, size_t n) { os.write(p, static_cast<vrk::streamsize>(n)); },
        [&](unsigned char c) {
            // A byte that is not UTF-8 stands for the character of its value.
            const char esc[6] = {'\\', 'u', '0', '0', DIGITS[c >> 4], DIGITS[c & 15]};
            if (c == '"' || c == '\\') {
                const char pair[2] = {'\\', static_cast<char>(c)};
                os.write(pair, 2);
            } else if (c == '\n') {
                os.write("\\n", 2);
            } else {
                os.write(esc, 6);
            }
        });
    os.put('"');
}

} // namespace vrkexc
