// Double to text through std::to_chars: it is specified to produce printf's
// text in the C locale, never looks at the process's locale, and writes into
// the caller's range only (the standard library's implementation works on
// stack scratch; a check with an interposed malloc over a million random
// bit patterns saw no heap request).
#include "vrk/ext/dtoa.hpp"

#include <charconv>
#include <cmath>

namespace vrk {

char* dtoa(double value, int precision, char* buf, size_t size) noexcept {
    if (buf == nullptr || size == 0)
        return nullptr;
    buf[0] = '\0';
    if (std::isnan(value))
        return nullptr;
    // One place stays for the terminator.
    const std::to_chars_result r =
        std::to_chars(buf, buf + size - 1, value, std::chars_format::general, precision);
    if (r.ec != std::errc()) {
        buf[0] = '\0';
        return nullptr;
    }
    *r.ptr = '\0';
    return buf;
}

} // namespace vrk
