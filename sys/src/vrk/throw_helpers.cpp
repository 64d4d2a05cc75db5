// Raising the library's common range and size errors.
#include "vrk/throw_helpers.hpp"

#include <cstring>

#include "vrk/error_registry.hpp"
#include "vrk/exception.hpp"

namespace vrk {

namespace {

// Appends the decimal digits of v at p; returns the end. Used instead of the
// stream formatting, which sits above this level.
char* put_decimal(char* p, size_t v) noexcept {
    char digits[20];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v);
    while (n)
        *p++ = digits[--n];
    return p;
}

char* put_text(char* p, const char* s) noexcept {
    const size_t n = std::strlen(s);
    std::memcpy(p, s, n);
    return p + n;
}

} // namespace

void throwOutOfRange(const char* fname, int line, size_t value, size_t lo, size_t hi) {
    // Three numbers of up to 20 digits and the fixed words fit comfortably.
    char text[128];
    char* p = put_text(text, "Position ");
    p = put_decimal(p, value);
    p = put_text(p, " out of range [");
    p = put_decimal(p, lo);
    p = put_text(p, ", ");
    p = put_decimal(p, hi);
    p = put_text(p, "]");
    *p = '\0';
    // The exception copies its first message, so a stack text will do.
    const error_code& base = ERR_VRK_OUT_OF_RANGE;
    const error_code code{base.err_no_, text, base.cat_};
    exception e(fname, line, code, __builtin_return_address(0));
    e.register_on_thread();
    e.do_throw();
    impl::throw_check_base::throw_returned();
}

namespace impl {

void throwBadAllocation(size_t n) {
    char text[64];
    char* p = put_text(text, "Bad allocation of ");
    p = put_decimal(p, n);
    p = put_text(p, " bytes");
    *p = '\0';
    runtime_error e("sys/src/vrk/throw_helpers", __LINE__, text, __builtin_return_address(0));
    e.register_on_thread();
    e.do_throw();
    throw_check_base::throw_returned();
}

} // namespace impl
} // namespace vrk
