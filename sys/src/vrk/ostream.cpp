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
    impl::buffer_op(os, [&] { return os.rdbuf()->pubsync() != -1; });
}

// Puts `n` fill characters one by one; false when the buffer refused one.
bool put_fill(basic_streambuf<char>* sb, char fill, streamsize n) {
    for (streamsize i = 0; i < n; ++i)
        if (sb->sputc(fill) == char_traits<char>::eof())
            return false;
    return true;
}

// The rest of an output operation once the sentry let it start: `write`
// (false when the buffer refused characters: badbit) in the guarded region,
// then the sync of a unit-buffered stream.
template <class Write> ostream_t& finish_output(ostream_t& os, Write&& write) {
    if (impl::buffer_op(os, write))
        unit_buffer_step(os);
    return os;
}

template <class Write> ostream_t& output(ostream_t& os, Write&& write) {
    ostream_t::sentry ok(os);
    return ok ? finish_output(os, write) : os;
}

template <class T> ostream_t& insert_number(ostream_t& os, T v) {
    ostream_t::sentry ok(os);
    if (!ok)
        return os;
    const char fill = os.fill();
    basic_ios<char>::require_facet_(os.num_put_facet());
    return finish_output(os, [&] {
        return !os.num_put_facet()->put(ostreambuf_iterator(os.rdbuf()), os, fill, v).failed();
    });
}

} // namespace

basic_ostream<char>::~basic_ostream() = default;

bool basic_ostream<char>::do_write(const char* s, streamsize n) {
    if (rdbuf()->sputn(s, n) == n)
        return true;
    setstate(badbit);
    return false;
}

namespace impl {

ostream_t& ostreamInsert(ostream_t& os, const char* s, streamsize n) {
    ostream_t::sentry ok(os);
    if (!ok)
        return os;
    const streamsize pad = os.width() - n;
    const char fill = pad > 0 ? os.fill() : ' ';
    // The width applies to one insertion, whatever its outcome.
    os.width(0);
    return finish_output(os, [&] {
        if (pad <= 0)
            return os.rdbuf()->sputn(s, n) == n;
        // A short write of the text has set badbit itself.
        if ((os.flags() & ios_base::adjustfield) == ios_base::left)
            return !os.do_write(s, n) || put_fill(os.rdbuf(), fill, pad);
        if (!put_fill(os.rdbuf(), fill, pad))
            return false;
        os.do_write(s, n);
        return true;
    });
}

ostream_t& ostreamInsert(ostream_t& os, long v) { return insert_number(os, v); }
ostream_t& ostreamInsert(ostream_t& os, unsigned long v) { return insert_number(os, v); }
ostream_t& ostreamInsert(ostream_t& os, bool v) { return insert_number(os, v); }
ostream_t& ostreamInsert(ostream_t& os, const void* v) { return insert_number(os, v); }

ostream_t& ostreamPut(ostream_t& os, char c) {
    return output(os, [&] { return os.rdbuf()->sputc(c) != char_traits<char>::eof(); });
}

ostream_t& ostreamWrite(ostream_t& os, const char* s, streamsize n) {
    return output(os, [&] { return os.rdbuf()->sputn(s, n) == n; });
}

ostream_t& ostreamFlush(ostream_t& os) {
    if (os.rdbuf() == nullptr)
        return os;
    buffer_op(os, [&] { return os.rdbuf()->pubsync() != -1; });
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

} // namespace vrk
