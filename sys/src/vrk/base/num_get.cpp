// Integer input of the num_get facet.
#include "vrk/base/num_get.hpp"

#include <climits>

namespace vrk {

namespace {

struct parsed {
    unsigned long mag;
    bool negative;
    bool any_digit;
    bool overflow;
};

int digit_value(char c) noexcept {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u >= '0' && u <= '9')
        return u - '0';
    if (u >= 'a' && u <= 'z')
        return u - 'a' + 10;
    if (u >= 'A' && u <= 'Z')
        return u - 'A' + 10;
    return 99;
}

// Reads sign, prefix and digits; the magnitude saturates on overflow.
parsed parse(num_get::iter_type& in, const num_get::iter_type& end, ios_base& str) {
    parsed p{0, false, false, false};
    if (in == end)
        return p;
    if (*in == '-' || *in == '+') {
        p.negative = *in == '-';
        ++in;
    }
    const ios_base::fmtflags basefield = str.flags() & ios_base::basefield;
    unsigned base = 10;
    if (basefield == ios_base::oct)
        base = 8;
    else if (basefield == ios_base::hex)
        base = 16;
    if ((basefield == ios_base::hex || basefield == 0) && !(in == end) && *in == '0') {
        // A leading 0 is a digit in its own right: "0x" without hex digits
        // still reads as 0.
        p.any_digit = true;
        ++in;
        if (!(in == end) && (*in == 'x' || *in == 'X')) {
            base = 16;
            ++in;
        } else if (basefield == 0) {
            base = 8;
        }
    }
    const unsigned long limit = ULONG_MAX / base;
    for (; !(in == end); ++in) {
        const int d = digit_value(*in);
        if (d >= static_cast<int>(base))
            break;
        p.any_digit = true;
        const unsigned long ud = static_cast<unsigned long>(d);
        if (p.mag > limit || p.mag * base > ULONG_MAX - ud)
            p.overflow = true;
        else
            p.mag = p.mag * base + ud;
    }
    return p;
}

} // namespace

num_get::~num_get() = default;

num_get::iter_type num_get::do_get(iter_type in, iter_type end, ios_base& str,
                                   ios_base::iostate& err, long& v) const {
    const parsed p = parse(in, end, str);
    if (!p.any_digit) {
        v = 0;
        err |= ios_base::failbit;
    } else if (p.negative) {
        // LONG_MIN's magnitude is LONG_MAX + 1.
        if (p.overflow || p.mag > static_cast<unsigned long>(LONG_MAX) + 1) {
            v = LONG_MIN;
            err |= ios_base::failbit;
        } else {
            v = static_cast<long>(0UL - p.mag);
        }
    } else if (p.overflow || p.mag > static_cast<unsigned long>(LONG_MAX)) {
        v = LONG_MAX;
        err |= ios_base::failbit;
    } else {
        v = static_cast<long>(p.mag);
    }
    if (in == end)
        err |= ios_base::eofbit;
    return in;
}

num_get::iter_type num_get::do_get(iter_type in, iter_type end, ios_base& str,
                                   ios_base::iostate& err, unsigned long& v) const {
    const parsed p = parse(in, end, str);
    if (!p.any_digit) {
        v = 0;
        err |= ios_base::failbit;
    } else if (p.overflow) {
        v = ULONG_MAX;
        err |= ios_base::failbit;
    } else {
        v = p.negative ? 0UL - p.mag : p.mag;
    }
    if (in == end)
        err |= ios_base::eofbit;
    return in;
}

} // namespace vrk
