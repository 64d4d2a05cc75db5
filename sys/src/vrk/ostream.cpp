// Output operations of vrk::ostream.
#include "vrk/ostream.hpp"

#include <cstring>

#include "vrk/base/num_put.hpp"
#include "vrk/impl/stream_region.hpp"

namespace vrk {

namespace {

using ostream_t = basic_ostream<char>;

// After a successful operation on a unit-buffered stream, sync the buffer;
// -1 sets badbit.
void unit_buffer_step(ostream_t& os) {
    if ((os.flags() & ios_base::unitbuf) == 0)
        return;
    int r = 0;
    if (impl::stream_region(os, [&] { r = os.rdbuf()->pubsync(); }) && r == -1)
        os.setstate(ios_base::badbit);
}

// Puts `n` fill characters one by one; false when the buffer refused one.
bool put_fill(basic_streambuf<char>* sb, char fill, streamsize n) {
    for (streamsize i = 0; i < n; ++i)
        if (sb->sputc(fill) == char_traits<char>::eof())
            return false;
    return true;
}

template <class T> ostream_t& insert_number(ostream_t& os, T v) {
    ostream_t::sentry ok(os);
    if (!ok)
        return os;
    const char fill = os.fill();
    basic_ios<char>::require_facet_(os.num_put_facet());
    bool failed = false;
    if (!impl::stream_region(os, [&] {
            failed = os.num_put_facet()->put(ostreambuf_iterator(os.rdbuf()), os, fill, v).failed();
        }))
        return os;
    if (failed) {
        os.setstate(ios_base::badbit);
        return os;
    }
    unit_buffer_step(os);
    return os;
}

} // namespace

basic_ostream<char>::~basic_ostream() = default;

bool basic_ostream<char>::do_write(const char* s, streamsize n) {
    if (rdbuf()->sputn(s, n) == n)
        return true;
    setstate(badbit);
    return false;
}

streampos basic_ostream<char>::tellp() {
    if (fail())
        return streampos(-1);
    streampos r(-1);
    impl::stream_region(*this, [&] { r = rdbuf()->pubseekoff(0, cur, out); });
    return r;
}

basic_ostream<char>& basic_ostream<char>::seekp(streampos pos) {
    if (fail())
        return *this;
    streampos r(-1);
    if (impl::stream_region(*this, [&] { r = rdbuf()->pubseekpos(pos, out); }) &&
        static_cast<streamoff>(r) == -1)
        setstate(failbit);
    return *this;
}

basic_ostream<char>& basic_ostream<char>::seekp(streamoff off, seekdir way) {
    if (fail())
        return *this;
    streampos r(-1);
    if (impl::stream_region(*this, [&] { r = rdbuf()->pubseekoff(off, way, out); }) &&
        static_cast<streamoff>(r) == -1)
        setstate(failbit);
    return *this;
}

namespace impl {

ostream_t& ostreamInsert(ostream_t& os, const char* s, streamsize n) {
    ostream_t::sentry ok(os);
    if (!ok)
        return os;
    const streamsize pad = os.width() - n;
    bool failed = false;
    bool completed;
    if (pad <= 0) {
        completed = stream_region(os, [&] { failed = os.rdbuf()->sputn(s, n) != n; });
    } else {
        const char fill = os.fill();
        if ((os.flags() & ios_base::adjustfield) == ios_base::left) {
            completed = stream_region(os, [&] {
                if (os.do_write(s, n))
                    failed = !put_fill(os.rdbuf(), fill, pad);
            });
        } else {
            completed = stream_region(os, [&] {
                failed = !put_fill(os.rdbuf(), fill, pad);
                if (!failed)
                    os.do_write(s, n);
            });
        }
    }
    // The width applies to one insertion, whatever its outcome.
    os.width(0);
    if (!completed)
        return os;
    if (failed)
        os.setstate(ios_base::badbit);
    unit_buffer_step(os);
    return os;
}

ostream_t& ostreamInsert(ostream_t& os, long v) { return insert_number(os, v); }
ostream_t& ostreamInsert(ostream_t& os, unsigned long v) { return insert_number(os, v); }
ostream_t& ostreamInsert(ostream_t& os, bool v) { return insert_number(os, v); }
ostream_t& ostreamInsert(ostream_t& os, const void* v) { return insert_number(os, v); }

ostream_t& ostreamPut(ostream_t& os, char c) {
    ostream_t::sentry ok(os);
    if (!ok)
        return os;
    bool failed = false;
    if (!stream_region(os, [&] { failed = os.rdbuf()->sputc(c) == char_traits<char>::eof(); }))
        return os;
    if (failed) {
        os.setstate(ios_base::badbit);
        return os;
    }
    unit_buffer_step(os);
    return os;
}

ostream_t& ostreamWrite(ostream_t& os, const char* s, streamsize n) {
    ostream_t::sentry ok(os);
    if (!ok)
        return os;
    bool failed = false;
    if (!stream_region(os, [&] { failed = os.rdbuf()->sputn(s, n) != n; }))
        return os;
    if (failed) {
        os.setstate(ios_base::badbit);
        return os;
    }
    unit_buffer_step(os);
    return os;
}

ostream_t& ostreamFlush(ostream_t& os) {
    if (os.rdbuf() == nullptr)
        return os;
    int r = 0;
    if (stream_region(os, [&] { r = os.rdbuf()->pubsync(); }) && r == -1)
        os.setstate(ios_base::badbit);
    return os;
}

} // namespace impl

basic_ostream<char>& operator<<(basic_ostream<char>& os, const char* s) {
    if (s == nullptr) {
        os.setstate(ios_base::badbit);
        return os;
    }
    return impl::ostreamInsert(os, s, static_cast<streamsize>(std::strlen(s)));
}

basic_ostream<char>& endl(basic_ostream<char>& os) {
    basic_ios<char>::require_facet_(os.ctype_facet());
    return impl::ostreamFlush(impl::ostreamPut(os, '\n'));
}

basic_ostream<char>& ends(basic_ostream<char>& os) { return impl::ostreamPut(os, '\0'); }

basic_ostream<char>& flush(basic_ostream<char>& os) { return impl::ostreamFlush(os); }

} // namespace vrk
