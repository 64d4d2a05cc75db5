// Hexadecimal text of serialized exceptions, as logs carry it.
#include "tool.hpp"

namespace vrkexc {

namespace {
int digit_value(unsigned char c) noexcept {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}
bool is_blank(unsigned char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
} // namespace

void write_hex(vrk::ostream& os, const char* p, size_t n) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    char line[16 * 3];
    size_t len = 0;
    for (size_t i = 0; i < n; ++i) {
        const auto b = static_cast<unsigned char>(p[i]);
        line[len++] = DIGITS[b >> 4];
        line[len++] = DIGITS[b & 15];
        const bool end_of_line = i % 16 == 15 || i + 1 == n;
        line[len++] = end_of_line ? '\n' : ' ';
        if (end_of_line) {
            os.write(line, static_cast<vrk::streamsize>(len));
            len = 0;
        }
    }
}

bool looks_like_hex(const vrk::string& text) noexcept {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text.data()[i]);
        if (!is_blank(c))
            return digit_value(c) >= 0;
    }
    return false;
}

bool decode_hex(const vrk::string& text, vrk::string& bytes, size_t* bad_at) {
    int high = -1;
    size_t high_at = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text.data()[i]);
        if (is_blank(c))
            continue;
        const int v = digit_value(c);
        if (v < 0) {
            *bad_at = i;
            return false;
        }
        if (high < 0) {
            high = v;
            high_at = i;
        } else {
            bytes.push_back(static_cast<char>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) {
        *bad_at = high_at;
        return false;
    }
    return true;
}

} // namespace vrkexc
