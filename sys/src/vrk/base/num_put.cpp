// Integer output of the num_put facet.
#include "vrk/base/num_put.hpp"

#include <cstdint>
#include <cstring>

#include "vrk/ext/itoa.hpp"

namespace vrk {

namespace {

// Writes `prefix` and `digits`, padded to the stream's width with the
// adjustment of `flags`, and resets the width.
num_put::iter_type put_padded(num_put::iter_type out, ios_base& str, ios_base::fmtflags flags,
                              char fill, const char* prefix, size_t prefix_len, const char* digits,
                              size_t digit_len) {
    const streamsize len = static_cast<streamsize>(prefix_len + digit_len);
    const streamsize pad = str.width() > len ? str.width() - len : 0;
    const ios_base::fmtflags adjust = flags & ios_base::adjustfield;
    str.width(0);
    if (adjust != ios_base::left && adjust != ios_base::internal)
        for (streamsize i = 0; i < pad; ++i)
            *out++ = fill;
    for (size_t i = 0; i < prefix_len; ++i)
        *out++ = prefix[i];
    if (adjust == ios_base::internal)
        for (streamsize i = 0; i < pad; ++i)
            *out++ = fill;
    for (size_t i = 0; i < digit_len; ++i)
        *out++ = digits[i];
    if (adjust == ios_base::left)
        for (streamsize i = 0; i < pad; ++i)
            *out++ = fill;
    return out;
}

// The digits of `mag` in the base of `flags`; returns their count.
size_t format_digits(unsigned long mag, ios_base::fmtflags flags, char* buf) {
    const ios_base::fmtflags base = flags & ios_base::basefield;
    impl::FmtFlags conv = impl::FmtFlags_dec;
    if (base == ios_base::oct)
        conv = impl::FmtFlags_oct;
    else if (base == ios_base::hex && (flags & ios_base::uppercase) != 0)
        conv = impl::FmtFlags_hex | impl::FmtFlags_uppercase;
    else if (base == ios_base::hex)
        conv = impl::FmtFlags_hex;
    // The count includes the terminator.
    return impl::write_integer<unsigned long>(mag, buf, conv, 0) - 1;
}

// Writes an integer whose magnitude is `mag` and whose sign is `negative`
// (only ever true in decimal) with `flags`, which may differ from the
// stream's; `is_signed` allows the + of showpos.
num_put::iter_type put_integer(num_put::iter_type out, ios_base& str, ios_base::fmtflags flags,
                               char fill, unsigned long mag, bool negative, bool is_signed) {
    const ios_base::fmtflags base = flags & ios_base::basefield;
    const bool show_base = (flags & ios_base::showbase) != 0 && mag != 0;
    // The octal base mark is a leading digit, not a prefix: internal
    // padding goes in front of it.
    char digits[32];
    size_t digit_len = 0;
    if (base == ios_base::oct && show_base)
        digits[digit_len++] = '0';
    digit_len += format_digits(mag, flags, digits + digit_len);

    char prefix[2];
    size_t prefix_len = 0;
    if (base == ios_base::hex && show_base) {
        prefix[prefix_len++] = '0';
        prefix[prefix_len++] = (flags & ios_base::uppercase) != 0 ? 'X' : 'x';
    } else if (base != ios_base::hex && base != ios_base::oct) {
        if (negative)
            prefix[prefix_len++] = '-';
        else if (is_signed && (flags & ios_base::showpos) != 0)
            prefix[prefix_len++] = '+';
    }
    return put_padded(out, str, flags, fill, prefix, prefix_len, digits, digit_len);
}

} // namespace

num_put::~num_put() = default;

num_put::iter_type num_put::do_put(iter_type out, ios_base& str, char fill, long v) const {
    const ios_base::fmtflags base = str.flags() & ios_base::basefield;
    const bool pattern = base == ios_base::oct || base == ios_base::hex;
    // 0 - value on the unsigned type gives the magnitude of the most
    // negative value too.
    const unsigned long u = static_cast<unsigned long>(v);
    if (pattern || v >= 0)
        return put_integer(out, str, str.flags(), fill, u, false, true);
    return put_integer(out, str, str.flags(), fill, 0UL - u, true, true);
}

num_put::iter_type num_put::do_put(iter_type out, ios_base& str, char fill, unsigned long v) const {
    return put_integer(out, str, str.flags(), fill, v, false, false);
}

num_put::iter_type num_put::do_put(iter_type out, ios_base& str, char fill, bool v) const {
    if ((str.flags() & ios_base::boolalpha) == 0)
        return do_put(out, str, fill, static_cast<long>(v));
    const char* text = v ? "true" : "false";
    return put_padded(out, str, str.flags(), fill, "", 0, text, std::strlen(text));
}

// The stream's flags are left alone (a buffer that throws must not leave the
// stream in hex); the digits are lower case whatever `uppercase` says.
num_put::iter_type num_put::do_put(iter_type out, ios_base& str, char fill, const void* v) const {
    const ios_base::fmtflags flags = (str.flags() & ~(ios_base::basefield | ios_base::uppercase)) |
                                     ios_base::hex | ios_base::showbase;
    return put_integer(out, str, flags, fill, reinterpret_cast<uintptr_t>(v), false, false);
}

} // namespace vrk
