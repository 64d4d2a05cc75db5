// Default virtual operations and bulk transfers of the stream buffer base.
#include "vrk/streambuf.hpp"

#include <algorithm>

namespace vrk {

basic_streambuf<char>::basic_streambuf() noexcept
    : in_beg_(nullptr), in_cur_(nullptr), in_end_(nullptr), out_beg_(nullptr), out_cur_(nullptr),
      out_end_(nullptr), buf_locale_() {}

basic_streambuf<char>::~basic_streambuf() = default;

locale basic_streambuf<char>::pubimbue(const locale& loc) {
    locale old = buf_locale_;
    imbue(loc);
    buf_locale_ = loc;
    return old;
}

void basic_streambuf<char>::imbue(const locale&) {}

basic_streambuf<char>* basic_streambuf<char>::setbuf(char*, streamsize) { return this; }

streampos basic_streambuf<char>::seekoff(streamoff, impl::IosSeekdir, impl::IosOpenmode) {
    return streampos(-1);
}

streampos basic_streambuf<char>::seekpos(streampos, impl::IosOpenmode) { return streampos(-1); }

int basic_streambuf<char>::sync() { return 0; }

streamsize basic_streambuf<char>::showmanyc() { return 0; }

int basic_streambuf<char>::underflow() { return traits_type::eof(); }

int basic_streambuf<char>::uflow() {
    if (underflow() == traits_type::eof())
        return traits_type::eof();
    return traits_type::to_int_type(*in_cur_++);
}

int basic_streambuf<char>::pbackfail(int) { return traits_type::eof(); }

int basic_streambuf<char>::overflow(int) { return traits_type::eof(); }

streamsize basic_streambuf<char>::xsgetn(char* s, streamsize n) {
    streamsize count = 0;
    while (count < n) {
        const streamsize avail = in_end_ - in_cur_;
        if (avail > 0) {
            const streamsize len = std::min(avail, n - count);
            traits_type::copy(s, in_cur_, static_cast<size_t>(len));
            s += len;
            in_cur_ += len;
            count += len;
        }
        if (count < n) {
            const int c = uflow();
            if (c == traits_type::eof())
                break;
            *s++ = traits_type::to_char_type(c);
            ++count;
        }
    }
    return count;
}

streamsize basic_streambuf<char>::xsputn(const char* s, streamsize n) {
    streamsize count = 0;
    while (count < n) {
        const streamsize room = out_end_ - out_cur_;
        if (room > 0) {
            const streamsize len = std::min(room, n - count);
            traits_type::copy(out_cur_, s, static_cast<size_t>(len));
            s += len;
            out_cur_ += len;
            count += len;
        }
        if (count < n) {
            if (overflow(traits_type::to_int_type(*s)) == traits_type::eof())
                break;
            ++s;
            ++count;
        }
    }
    return count;
}

} // namespace vrk
