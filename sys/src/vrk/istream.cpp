// Input operations of vrk::istream.
#include "vrk/istream.hpp"

#include <climits>

#include "vrk/base/num_get.hpp"
#include "vrk/impl/stream_region.hpp"

namespace vrk {

namespace {

using istream_t = basic_istream<char>;
constexpr int END = char_traits<char>::eof();

// Reads a number through the num_get facet; false when the extraction did
// not get to store a value (the sentry failed or the buffer threw), so that
// the caller's target stays as it was.
template <class T> bool extract_number(istream_t& is, T& v) {
    istream_t::sentry ok(is);
    if (!ok)
        return false;
    basic_ios<char>::require_facet_(is.num_get_facet());
    ios_base::iostate err = ios_base::goodbit;
    if (!impl::stream_region(is, [&] {
            is.num_get_facet()->get(istreambuf_iterator(is.rdbuf()), istreambuf_iterator(), is, err,
                                    v);
        }))
        return false;
    if (err != ios_base::goodbit)
        is.setstate(err);
    return true;
}

// Reads a long and narrows it to int; out of range: failbit, the limit.
istream_t& extract_int(istream_t& is, int& v) {
    long w = 0;
    if (!extract_number(is, w))
        return is;
    if (w < INT_MIN) {
        v = INT_MIN;
        is.setstate(ios_base::failbit);
    } else if (w > INT_MAX) {
        v = INT_MAX;
        is.setstate(ios_base::failbit);
    } else {
        v = static_cast<int>(w);
    }
    return is;
}

// Reads through the facet's type W, which has the range of T.
template <class W, class T> istream_t& extract_same_range(istream_t& is, T& v) {
    W w = 0;
    if (extract_number(is, w))
        v = w;
    return is;
}

} // namespace

basic_istream<char>::sentry::sentry(basic_istream& is, bool noskip) : ok_(false) {
    ios_base::iostate recorded = ios_base::goodbit;
    if (is.good() && is.rdbuf() != nullptr) {
        if (is.tie() != nullptr)
            impl::ostreamFlush(*is.tie());
        if (!noskip && (is.flags() & ios_base::skipws) != 0) {
            basic_streambuf<char>* sb = is.rdbuf();
            const ctype<char>* ct = is.ctype_facet();
            bool ctype_missing = false;
            if (!impl::stream_region(is, [&] {
                    int c = sb->sgetc();
                    if (ct == nullptr) {
                        ctype_missing = true;
                        return;
                    }
                    while (c != END &&
                           ct->is(ctype_base::space, char_traits<char>::to_char_type(c))) {
                        sb->sbumpc();
                        c = sb->sgetc();
                    }
                    if (c == END)
                        recorded |= ios_base::eofbit;
                })) {
                // Absorbed: badbit is set; failbit joins it, as for any
                // preparation that failed.
                is.setstate(ios_base::failbit);
                return;
            }
            if (ctype_missing)
                basic_ios<char>::require_facet_(nullptr);
        }
        if (is.good() && recorded == ios_base::goodbit && is.rdbuf() != nullptr) {
            ok_ = true;
            return;
        }
    }
    is.setstate(recorded | ios_base::failbit);
}

basic_istream<char>::~basic_istream() = default;

int basic_istream<char>::get() {
    gcount_ = 0;
    sentry ok(*this, true);
    if (!ok)
        return END;
    int c = END;
    // Nothing was taken when the buffer threw: failbit joins badbit.
    if (!impl::stream_region(*this, [&] { c = rdbuf()->sbumpc(); })) {
        setstate(failbit);
        return END;
    }
    if (c == END)
        setstate(eofbit | failbit);
    else
        gcount_ = 1;
    return c;
}

basic_istream<char>& basic_istream<char>::get(char& c) {
    const int r = get();
    if (r != END)
        c = char_traits<char>::to_char_type(r);
    return *this;
}

int basic_istream<char>::peek() {
    gcount_ = 0;
    sentry ok(*this, true);
    if (!ok)
        return END;
    int c = END;
    if (!impl::stream_region(*this, [&] { c = rdbuf()->sgetc(); }))
        return END;
    if (c == END)
        setstate(eofbit);
    return c;
}

basic_istream<char>& basic_istream<char>::unget() {
    gcount_ = 0;
    clear(rdstate() & ~eofbit);
    sentry ok(*this, true);
    if (!ok)
        return *this;
    impl::buffer_op(*this, [&] { return rdbuf()->sungetc() != END; });
    return *this;
}

basic_istream<char>& basic_istream<char>::putback(char c) {
    gcount_ = 0;
    clear(rdstate() & ~eofbit);
    sentry ok(*this, true);
    if (!ok)
        return *this;
    impl::buffer_op(*this, [&] { return rdbuf()->sputbackc(c) != END; });
    return *this;
}

basic_istream<char>& basic_istream<char>::ignore(streamsize n, int delim) {
    gcount_ = 0;
    sentry ok(*this, true);
    if (!ok)
        return *this;
    bool at_end = false;
    if (!impl::stream_region(*this, [&] {
            while (gcount_ < n) {
                const int c = rdbuf()->sbumpc();
                if (c == END) {
                    at_end = true;
                    break;
                }
                ++gcount_;
                if (c == delim)
                    break;
            }
        }))
        return *this;
    if (at_end)
        setstate(eofbit);
    return *this;
}

basic_istream<char>& basic_istream<char>::operator>>(long& v) {
    extract_number(*this, v);
    return *this;
}
basic_istream<char>& basic_istream<char>::operator>>(unsigned long& v) {
    extract_number(*this, v);
    return *this;
}
basic_istream<char>& basic_istream<char>::operator>>(int& v) { return extract_int(*this, v); }
basic_istream<char>& basic_istream<char>::operator>>(unsigned int& v) {
    extract_number(*this, v);
    return *this;
}
basic_istream<char>& basic_istream<char>::operator>>(long long& v) {
    return extract_same_range<long>(*this, v);
}
basic_istream<char>& basic_istream<char>::operator>>(unsigned long long& v) {
    return extract_same_range<unsigned long>(*this, v);
}

streampos basic_istream<char>::tellg() {
    streampos r(-1);
    if (!fail())
        impl::stream_region(*this, [&] { r = rdbuf()->pubseekoff(0, cur, in); });
    return r;
}

namespace impl {

istream_t& istreamRead(istream_t& is, char* s, streamsize n) {
    is.gcount_ = 0;
    istream_t::sentry ok(is, true);
    if (!ok)
        return is;
    streamsize got = 0;
    if (!stream_region(is, [&] { got = is.rdbuf()->sgetn(s, n); }))
        return is;
    is.gcount_ = got;
    if (got != n)
        is.setstate(ios_base::eofbit | ios_base::failbit);
    return is;
}

} // namespace impl

basic_istream<char>& operator>>(basic_istream<char>& is, char& c) {
    istream_t::sentry ok(is);
    if (!ok)
        return is;
    int r = END;
    if (!impl::stream_region(is, [&] { r = is.rdbuf()->sbumpc(); }))
        return is;
    if (r == END)
        is.setstate(ios_base::eofbit | ios_base::failbit);
    else
        c = char_traits<char>::to_char_type(r);
    return is;
}

basic_istream<char>& ws(basic_istream<char>& is) {
    istream_t::sentry ok(is, true);
    if (!ok)
        return is;
    basic_ios<char>::require_facet_(is.ctype_facet());
    const ctype<char>* ct = is.ctype_facet();
    int c = END;
    if (!impl::stream_region(is, [&] {
            c = is.rdbuf()->sgetc();
            while (c != END && ct->is(ctype_base::space, char_traits<char>::to_char_type(c))) {
                is.rdbuf()->sbumpc();
                c = is.rdbuf()->sgetc();
            }
        }))
        return is;
    if (c == END)
        is.setstate(ios_base::eofbit);
    return is;
}

basic_iostream<char>::~basic_iostream() = default;

} // namespace vrk
