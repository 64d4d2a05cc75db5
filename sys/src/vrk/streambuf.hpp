// vrk/streambuf.hpp: the stream buffer base of the vrk streams: a get area, a
// put area, a locale, and the virtual operations that refill and drain them.
//
// The base itself never allocates and never throws; derived buffers may do
// both from their virtual operations, and the streams absorb what they
// raise. Characters pass to and from the virtual operations as int: 0 to 255
// for a character, -1 for end-of-file.
#pragma once

#include "vrk/ext/noncopyable.hpp"
#include "vrk/impl/char_traits.hpp"
#include "vrk/impl/ios_flags.hpp"
#include "vrk/impl/postypes.hpp"
#include "vrk/iosfwd.hpp"
#include "vrk/locale.hpp"

namespace vrk {

template <> class basic_streambuf<char> : private non_copyable {
public:
    using char_type = char;
    using int_type = int;
    using traits_type = char_traits<char>;
    using pos_type = streampos;
    using off_type = streamoff;

    virtual ~basic_streambuf();

    locale pubimbue(const locale& loc);
    locale getloc() const noexcept { return buf_locale_; }

    basic_streambuf* pubsetbuf(char* s, streamsize n) { return setbuf(s, n); }
    streampos pubseekoff(streamoff off, impl::IosSeekdir way,
                         impl::IosOpenmode which = impl::in | impl::out) {
        return seekoff(off, way, which);
    }
    streampos pubseekpos(streampos sp, impl::IosOpenmode which = impl::in | impl::out) {
        return seekpos(sp, which);
    }
    int pubsync() { return sync(); }

    // Characters readable without blocking; -1 when none will come.
    streamsize in_avail() {
        return in_cur_ < in_end_ ? static_cast<streamsize>(in_end_ - in_cur_) : showmanyc();
    }
    int sgetc() { return in_cur_ < in_end_ ? traits_type::to_int_type(*in_cur_) : underflow(); }
    int sbumpc() { return in_cur_ < in_end_ ? traits_type::to_int_type(*in_cur_++) : uflow(); }
    int snextc() { return sbumpc() == traits_type::eof() ? traits_type::eof() : sgetc(); }
    streamsize sgetn(char* s, streamsize n) { return xsgetn(s, n); }
    int sputbackc(char c) {
        if (in_beg_ < in_cur_ && traits_type::eq(in_cur_[-1], c))
            return traits_type::to_int_type(*--in_cur_);
        return pbackfail(traits_type::to_int_type(c));
    }
    int sungetc() {
        if (in_beg_ < in_cur_)
            return traits_type::to_int_type(*--in_cur_);
        return pbackfail(traits_type::eof());
    }

    int sputc(char c) {
        if (out_cur_ < out_end_) {
            *out_cur_++ = c;
            return traits_type::to_int_type(c);
        }
        return overflow(traits_type::to_int_type(c));
    }
    streamsize sputn(const char* s, streamsize n) { return xsputn(s, n); }

protected:
    basic_streambuf() noexcept;

    char* eback() const noexcept { return in_beg_; }
    char* gptr() const noexcept { return in_cur_; }
    char* egptr() const noexcept { return in_end_; }
    void gbump(int n) noexcept { in_cur_ += n; }
    void setg(char* beg, char* cur, char* end) noexcept {
        in_beg_ = beg;
        in_cur_ = cur;
        in_end_ = end;
    }

    char* pbase() const noexcept { return out_beg_; }
    char* pptr() const noexcept { return out_cur_; }
    char* epptr() const noexcept { return out_end_; }
    void pbump(int n) noexcept { out_cur_ += n; }
    void setp(char* beg, char* end) noexcept {
        out_beg_ = beg;
        out_cur_ = beg;
        out_end_ = end;
    }

    // The virtual operations, in their fixed slot order. The defaults: no
    // locale handling, no own buffer, no positioning (-1), sync succeeds,
    // nothing more to read, no put-back, nothing can be written.
    virtual void imbue(const locale& loc);
    virtual basic_streambuf* setbuf(char* s, streamsize n);
    virtual streampos seekoff(streamoff off, impl::IosSeekdir way, impl::IosOpenmode which);
    virtual streampos seekpos(streampos sp, impl::IosOpenmode which);
    virtual int sync();
    virtual streamsize showmanyc();
    // Block-copies from the get area, calling uflow at each boundary; returns
    // the characters delivered.
    virtual streamsize xsgetn(char* s, streamsize n);
    virtual int underflow();
    virtual int uflow();
    virtual int pbackfail(int c);
    // Block-copies into the put area, calling overflow at each boundary;
    // returns the characters accepted.
    virtual streamsize xsputn(const char* s, streamsize n);
    virtual int overflow(int c);

    char* in_beg_;
    char* in_cur_;
    char* in_end_;
    char* out_beg_;
    char* out_cur_;
    char* out_end_;
    locale buf_locale_;
};

} // namespace vrk
