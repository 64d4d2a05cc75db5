// Integer input of the num_get facet.
#include "vrk/base/num_get.hpp"

#include <climits>

namespace vrk {

namespace {

struct parsed {
    unsigned long mag_;
    bool negative_;
    bool any_digit_;
    bool overflow_;
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
        p.negative_ = *in == '-';
        ++in;
    }
    const ios_base::fmtflags basefield = str.flags() & ios_base::basefield;
    unsigned base = 10;
    if (basefield == ios_base::oct)
        base = 8;
    else if (basefield == ios_base::hex)
        base = 16;
    if ((basefield == ios_base::hex || basefield == 0) && !(in == end) && *in == '0') {
        // A leading 0 is a digit in its own right, but the prefix 0x needs
        // hex digits after it: "0x" alone fails, as with the standard
        // streams.
        p.any_digit_ = true;
        ++in;
        if (!(in == end) && (*in == 'x' || *in == 'X')) {
            base = 16;
            p.any_digit_ = false;
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
        p.any_digit_ = true;
        const unsigned long ud = static_cast<unsigned long>(d);
        if (p.mag_ > limit || p.mag_ * base > ULONG_MAX - ud)
            p.overflow_ = true;
        else
            p.mag_ = p.mag_ * base + ud;
    }
    return p;
}

// No digit: failbit and 0; a magnitude beyond U: failbit and U's largest
// value; otherwise the value, negated in U after a -.
template <class U> void store_unsigned(const parsed& p, U& v, ios_base::iostate& err) {
    const U largest = static_cast<U>(~U{0});
    if (!p.any_digit_) {
        v = 0;
        err |= ios_base::failbit;
    } else if (p.overflow_ || p.mag_ > largest) {
        v = largest;
        err |= ios_base::failbit;
    } else {
        const U mag = static_cast<U>(p.mag_);
        v = p.negative_ ? static_cast<U>(U{0} - mag) : mag;
    }
}

template <class U>
num_get::iter_type get_unsigned(num_get::iter_type in, num_get::iter_type end, ios_base& str,
                                ios_base::iostate& err, U& v) {
    const parsed p = parse(in, end, str);
    store_unsigned(p, v, err);
    if (in == end)
        err |= ios_base::eofbit;
    return in;
}

} // namespace

num_get::~num_get() = default;

num_get::iter_type num_get::do_get(iter_type in, iter_type end, ios_base& str,
                                   ios_base::iostate& err, long& v) const {
    const parsed p = parse(in, end, str);
    if (!p.any_digit_) {
        v = 0;
        err |= ios_base::failbit;
    } else if (p.negative_) {
        // LONG_MIN's magnitude is LONG_MAX + 1.
        if (p.overflow_ || p.mag_ > static_cast<unsigned long>(LONG_MAX) + 1) {
            v = LONG_MIN;
            err |= ios_base::failbit;
        } else {
            v = static_cast<long>(0UL - p.mag_);
        }
    } else if (p.overflow_ || p.mag_ > static_cast<unsigned long>(LONG_MAX)) {
        v = LONG_MAX;
        err |= ios_base::failbit;
    } else {
        v = static_cast<long>(p.mag_);
    }
    if (in == end)
        err |= ios_base::eofbit;
    return in;
}

num_get::iter_type num_get::do_get(iter_type in, iter_type end, ios_base& str,
                                   ios_base::iostate& err, unsigned long& v) const {
    return get_unsigned(in, end, str, err, v);
}

num_get::iter_type num_get::do_get(iter_type in, iter_type end, ios_base& str,
                                   ios_base::iostate& err, unsigned int& v) const {
    return get_unsigned(in, end, str, err, v);
}

} // namespace vrk
