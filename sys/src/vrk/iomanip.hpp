// vrk/iomanip.hpp: manipulators with an argument for the vrk streams: field
// width, fill character and base.
//
// Inserting one changes a format field of the stream; nothing is written,
// nothing allocated, nothing raised (except setfill, which may raise the
// missing-facet failure like fill() itself).
#pragma once

#include "vrk/istream.hpp"
#include "vrk/ostream.hpp"

namespace vrk {

namespace impl {

struct SetW {
    int wd_;
};
struct SetFill {
    char ch_;
};
struct SetBase {
    int base_;
};

} // namespace impl

inline impl::SetW setw(int n) noexcept { return impl::SetW{n}; }
inline impl::SetFill setfill(char c) noexcept { return impl::SetFill{c}; }
// 8, 10 or 16; any other value clears the base (decimal output).
inline impl::SetBase setbase(int base) noexcept { return impl::SetBase{base}; }

inline basic_ostream<char>& operator<<(basic_ostream<char>& os, impl::SetW m) {
    os.width(m.wd_);
    return os;
}
inline basic_istream<char>& operator>>(basic_istream<char>& is, impl::SetW m) {
    is.width(m.wd_);
    return is;
}
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, impl::SetFill m) {
    os.fill(m.ch_);
    return os;
}
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, impl::SetBase m) {
    os.setf(m.base_ == 8    ? ios_base::oct
            : m.base_ == 10 ? ios_base::dec
            : m.base_ == 16 ? ios_base::hex
                            : static_cast<ios_base::fmtflags>(0),
            ios_base::basefield);
    return os;
}

} // namespace vrk
