// vrk/base/num_put.hpp: the facet that writes integers into a stream buffer
// with the stream's base, sign, prefix, case, width and fill.
//
// Never allocates: the text is built in a stack array. A character the buffer
// refuses leaves the returned iterator failed; exceptions of the buffer pass
// through to the stream, which absorbs them.
#pragma once

#include "vrk/base/ios_base.hpp"
#include "vrk/base/streambuf_iterator.hpp"
#include "vrk/locale.hpp"

namespace vrk {

class num_put : public locale::facet {
public:
    using iter_type = ostreambuf_iterator;
    static constexpr locale::id id{locale::NUM_PUT_ID};

    constexpr num_put() noexcept = default;
    ~num_put() override;

    // Writes `v` in the base of `str.flags() & basefield` (octal for oct,
    // hexadecimal for hex, otherwise decimal). Octal and hexadecimal show the
    // value's bit pattern, without sign. `showbase` puts 0 before octal and
    // 0x (0X with `uppercase`) before hexadecimal, except for the value 0;
    // `showpos` puts + before a decimal value of the signed overload that is
    // not negative. Pads to `str.width()` with `fill`: after the text for
    // `left`, between sign or 0x and digits for `internal` (the octal 0 counts
    // as a digit), before it otherwise. Resets the width to 0.
    iter_type put(iter_type out, ios_base& str, char fill, long v) const {
        return do_put(out, str, fill, v);
    }
    iter_type put(iter_type out, ios_base& str, char fill, unsigned long v) const {
        return do_put(out, str, fill, v);
    }
    // "true"/"false" with `boolalpha`, otherwise 1/0.
    iter_type put(iter_type out, ios_base& str, char fill, bool v) const {
        return do_put(out, str, fill, v);
    }
    // Lower-case hexadecimal with the 0x prefix; the stream's flags are
    // neither used for the base nor changed.
    iter_type put(iter_type out, ios_base& str, char fill, const void* v) const {
        return do_put(out, str, fill, v);
    }

protected:
    virtual iter_type do_put(iter_type out, ios_base& str, char fill, long v) const;
    virtual iter_type do_put(iter_type out, ios_base& str, char fill, unsigned long v) const;
    virtual iter_type do_put(iter_type out, ios_base& str, char fill, bool v) const;
    virtual iter_type do_put(iter_type out, ios_base& str, char fill, const void* v) const;
};

} // namespace vrk
