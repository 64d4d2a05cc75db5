// vrk/base/num_get.hpp: the facet that reads integers from a stream buffer in
// the stream's base.
//
// Never allocates. Errors are reported in the `err` bits, never thrown;
// exceptions of the buffer pass through to the stream, which absorbs them.
#pragma once

#include "vrk/base/ios_base.hpp"
#include "vrk/base/streambuf_iterator.hpp"
#include "vrk/locale.hpp"

namespace vrk {

class num_get : public locale::facet {
public:
    using iter_type = istreambuf_iterator;
    static constexpr locale::id id{locale::NUM_GET_ID};

    constexpr num_get() noexcept = default;
    ~num_get() override;

    // Reads an optional sign and the digits of the base of
    // `str.flags() & basefield`: octal, hexadecimal (an optional 0x or 0X
    // prefix is accepted), decimal, or, with no base flag, the base of the
    // prefix (0x hexadecimal, 0 octal, otherwise decimal). Stops at the first
    // character that is not a digit. No digit (a 0x prefix alone has none):
    // failbit and 0. A value out of range: failbit and the nearest limit.
    // Reaching the end adds eofbit.
    // For the unsigned types a leading - negates the value in the type, as
    // strtoul does (-1 reads as the largest value); a magnitude beyond the
    // type's range is out of range whatever the sign.
    iter_type get(iter_type in, iter_type end, ios_base& str, ios_base::iostate& err,
                  long& v) const {
        return do_get(in, end, str, err, v);
    }
    iter_type get(iter_type in, iter_type end, ios_base& str, ios_base::iostate& err,
                  unsigned long& v) const {
        return do_get(in, end, str, err, v);
    }
    iter_type get(iter_type in, iter_type end, ios_base& str, ios_base::iostate& err,
                  unsigned int& v) const {
        return do_get(in, end, str, err, v);
    }

protected:
    virtual iter_type do_get(iter_type in, iter_type end, ios_base& str, ios_base::iostate& err,
                             long& v) const;
    virtual iter_type do_get(iter_type in, iter_type end, ios_base& str, ios_base::iostate& err,
                             unsigned long& v) const;
    virtual iter_type do_get(iter_type in, iter_type end, ios_base& str, ios_base::iostate& err,
                             unsigned int& v) const;
};

} // namespace vrk
