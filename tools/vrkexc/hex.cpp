// Hexadecimal text of serialized exceptions, as logs and dumps carry it.
#include <cstdint>
#include <cstring>

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
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}
bool has_0x(const char* p, size_t n) noexcept {
    return n > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X');
}
bool is_separator(char c) noexcept { return is_blank(static_cast<unsigned char>(c)) || c == ','; }

// The hexadecimal part of an `xxd` line, "00000010: face 0000 ...  text":
// after the offset and its colon, up to the two blanks that open the text
// column. False for any other line.
bool xxd_columns(const char* line, size_t len, size_t* begin, size_t* end) noexcept {
    size_t i = 0;
    while (i < len && is_blank(static_cast<unsigned char>(line[i])))
        ++i;
    const size_t offset = i;
    while (i < len && digit_value(static_cast<unsigned char>(line[i])) >= 0)
        ++i;
    if (i - offset < 4 || i + 2 >= len || line[i] != ':' || line[i + 1] != ' ')
        return false;
    *begin = i + 2;
    size_t j = *begin;
    while (j < len && !(line[j] == ' ' && j + 1 < len && line[j + 1] == ' '))
        ++j;
    *end = j;
    return true;
}

// The hexadecimal part of a `hexdump -C` line,
// "00000010  fa ce 00 00 ...  |....|": between the offset and the two blanks
// that open the text column in bars. False for any other line.
bool canonical_columns(const char* line, size_t len, size_t* begin, size_t* end) noexcept {
    size_t i = 0;
    while (i < len && digit_value(static_cast<unsigned char>(line[i])) >= 0)
        ++i;
    if (i < 8 || i + 2 >= len || line[i] != ' ' || line[i + 1] != ' ' || line[len - 1] != '|')
        return false;
    const char* bar = static_cast<const char*>(std::memchr(line + i, '|', len - i));
    const size_t text = static_cast<size_t>(bar - line);
    if (text + 1 == len || text < i + 4 || line[text - 1] != ' ' || line[text - 2] != ' ')
        return false;
    *begin = i + 2;
    *end = text - 2;
    return true;
}

// The offset that opens a `hexdump -C` line, or that stands alone on the
// line ending its dump (`*alone`).
uint64_t dump_offset(const char* line, size_t len, bool* alone) noexcept {
    uint64_t offset = 0;
    size_t i = 0;
    for (; i < len && digit_value(static_cast<unsigned char>(line[i])) >= 0; ++i)
        offset =
            offset << 4 | static_cast<uint64_t>(digit_value(static_cast<unsigned char>(line[i])));
    const size_t digits = i;
    while (i < len && is_blank(static_cast<unsigned char>(line[i])))
        ++i;
    *alone = i == len && digits >= 8;
    return offset;
}

// Where a `hexdump -C` dump stands: inside one, the offset of the text its
// offsets count from, and a "*" line (lines equal to the one before left
// out) waiting for the next offset.
struct dump_state {
    bool inside = false;
    bool repeat = false;
    uint64_t base = 0;
    size_t last_line = 0; // where the bytes of the dump's last line start
};

// Brings `bytes` up to the offset of a `hexdump -C` line, repeating the
// line before a "*" as often as the offsets say.
void fill_to(vrk::string& bytes, dump_state& dump, uint64_t offset) {
    // No serialized exception is near this long: offsets beyond it are not
    // filled, and the bytes then fail to decode where they end.
    constexpr uint64_t MOST_REPEATED = uint64_t{1} << 26;
    const size_t line_len = bytes.size() - dump.last_line;
    const uint64_t have = bytes.size() - dump.base;
    while (dump.repeat && line_len != 0 && offset > have && offset - have <= MOST_REPEATED &&
           bytes.size() - dump.base < offset) {
        const size_t start = bytes.size() - line_len;
        for (size_t k = 0; k < line_len; ++k)
            bytes.push_back(bytes[start + k]);
    }
    dump.repeat = false;
}

// Calls `each(begin, end)` for every word of [from, to) of `line`, words
// being separated by blanks and commas.
template <class Each> void for_words(const char* line, size_t from, size_t to, Each each) {
    for (size_t i = from;;) {
        while (i < to && is_separator(line[i]))
            ++i;
        if (i >= to)
            return;
        const size_t begin = i;
        while (i < to && !is_separator(line[i]))
            ++i;
        each(begin, i);
    }
}

// Appends the bytes of one hex word; false when its digits do not make
// whole bytes (one digit after 0x is one byte: "0xA" is 0A).
bool add_word(const char* p, size_t n, vrk::string& bytes) {
    const bool prefixed = has_0x(p, n);
    if (prefixed) {
        p += 2;
        n -= 2;
    }
    if (n % 2 != 0 && !(prefixed && n == 1))
        return false;
    if (n == 1)
        bytes.push_back(static_cast<char>(digit_value(static_cast<unsigned char>(p[0]))));
    for (size_t i = 0; i + 1 < n; i += 2)
        bytes.push_back(static_cast<char>(digit_value(static_cast<unsigned char>(p[i])) << 4 |
                                          digit_value(static_cast<unsigned char>(p[i + 1]))));
    return true;
}

bool is_hex_word(const char* p, size_t n) noexcept {
    if (has_0x(p, n)) {
        p += 2;
        n -= 2;
    }
    for (size_t i = 0; i < n; ++i)
        if (digit_value(static_cast<unsigned char>(p[i])) < 0)
            return false;
    return n != 0;
}

// Reads the hex of one line (see tool.hpp); false with `*column` (from 1) at
// a word that does not make whole bytes.
bool read_line(const char* line, size_t len, vrk::string& bytes, size_t* column, dump_state& dump) {
    size_t from = 0, to = len;
    bool alone = false;
    const uint64_t offset = dump_offset(line, len, &alone);
    const bool canonical = canonical_columns(line, len, &from, &to);
    if (dump.inside && len == 1 && line[0] == '*') {
        dump.repeat = true;
        return true;
    }
    const bool ends_dump = dump.inside && !canonical && alone;
    if (dump.inside && (canonical || ends_dump))
        fill_to(bytes, dump, offset);
    if (canonical && !dump.inside)
        dump.base = bytes.size() - offset; // offsets count modulo 2^64 alike
    dump.inside = canonical;
    if (ends_dump)
        return true;
    dump.last_line = bytes.size();
    if (!canonical && !xxd_columns(line, len, &from, &to)) {
        // The run of hex words that ends the line; what precedes it is a
        // prefix (time, level, source) and is skipped.
        size_t run = to;
        for_words(line, from, to, [&](size_t b, size_t e) {
            if (!is_hex_word(line + b, e - b))
                run = to;
            else if (run == to)
                run = b;
        });
        from = run;
    }
    bool ok = true;
    for_words(line, from, to, [&](size_t b, size_t e) {
        if (ok && !(is_hex_word(line + b, e - b) && add_word(line + b, e - b, bytes))) {
            *column = b + 1;
            ok = false;
        }
    });
    return ok;
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

bool is_raw_input(const vrk::string& input) noexcept {
    const char* p = input.data();
    if (input.empty())
        return false;
    if (static_cast<unsigned char>(p[0]) >= 0xF8)
        return true;
    for (size_t i = 0; i < input.size(); ++i)
        if (p[i] == '\0')
            return true;
    return false;
}

bool read_hex_text(const vrk::string& text, vrk::string& bytes, text_position* fault) {
    const char* p = text.data();
    size_t line_no = 1;
    // A text saved by an editor that marks UTF-8 with a byte-order mark.
    const bool bom = text.size() >= 3 && std::memcmp(p, "\xEF\xBB\xBF", 3) == 0;
    dump_state dump;
    for (size_t start = bom ? 3 : 0; start < text.size(); ++line_no) {
        size_t end = start;
        while (end < text.size() && p[end] != '\n')
            ++end;
        size_t column = 0;
        size_t len = end - start;
        if (len > 0 && p[start + len - 1] == '\r')
            --len;
        if (!read_line(p + start, len, bytes, &column, dump)) {
            *fault = text_position{line_no, column};
            return false;
        }
        start = end + 1;
    }
    return true;
}

} // namespace vrkexc
