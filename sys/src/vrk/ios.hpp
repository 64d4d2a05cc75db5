// vrk/ios.hpp: basic_ios<char>, the state, exceptions mask, fill character,
// tied stream, stream buffer and cached facets of a vrk stream.
//
// A failure changes the state; the stream failure "basic_ios::clear" is
// raised only when the exceptions mask covers the new state. Nothing here
// allocates.
#pragma once

#include "vrk/base/ctype.hpp"
#include "vrk/base/ios_base.hpp"
#include "vrk/iosfwd.hpp"
#include "vrk/streambuf.hpp"

namespace vrk {

class num_put;
class num_get;

template <> class basic_ios<char> : public ios_base {
public:
    using char_type = char;
    using int_type = int;
    using traits_type = char_traits<char>;

    // Where every missing-facet check reports itself: the stream layer's
    // file and one fixed line, so that logs can be matched on it.
    static constexpr const char* IOS_FILE = "sys/src/vrk/ios";
    static constexpr int NULL_FACET_LINE = 75;

    // Saves a stream's fill, width, precision, flags and exceptions mask for
    // the length of a scope and installs the mask `st` (which applies the
    // state-change rule to the current state). The destructor puts the saved
    // values back by plain assignment: restoring the mask never raises.
    class stream_guard {
    public:
        stream_guard(basic_ios& strm, iostate st);
        ~stream_guard();
        stream_guard(const stream_guard&) = delete;
        stream_guard& operator=(const stream_guard&) = delete;

    private:
        basic_ios* const p_stream_;
        char fill_ch_;
        streamsize width_;
        streamsize precision_;
        fmtflags flags_;
        iostate exception_;
    };

    ~basic_ios() override;

    explicit operator bool() const noexcept { return !fail(); }
    bool operator!() const noexcept { return fail(); }

    iostate rdstate() const noexcept { return buf_state_; }
    bool good() const noexcept { return buf_state_ == goodbit; }
    bool eof() const noexcept { return (buf_state_ & eofbit) != 0; }
    bool fail() const noexcept { return (buf_state_ & (failbit | badbit)) != 0; }
    bool bad() const noexcept { return (buf_state_ & badbit) != 0; }

    // The state becomes `s` (plus badbit without a buffer); raises
    // "basic_ios::clear" when the mask covers the new state.
    void clear(iostate s = goodbit);
    void setstate(iostate s) { clear(rdstate() | s); }

    iostate exceptions() const noexcept { return exception_; }
    void exceptions(iostate m) {
        exception_ = m;
        clear(buf_state_);
    }

    basic_streambuf<char>* rdbuf() const noexcept { return streambuf_; }

    basic_ostream<char>* tie() const noexcept { return tie_; }
    basic_ostream<char>* tie(basic_ostream<char>* t) noexcept {
        basic_ostream<char>* old = tie_;
        tie_ = t;
        return old;
    }

    // The fill character; the first use takes the blank of the ctype facet
    // and raises the missing-facet failure when there is none.
    char fill() {
        if (!fill_init_)
            init_fill_();
        return fill_;
    }
    char fill(char c) {
        char old = fill();
        fill_ = c;
        return old;
    }

    // Installs `loc` in the stream and its buffer and caches its facets anew.
    locale imbue(const locale& loc);

    // The cached facets, null when the locale has none.
    const ctype<char>* ctype_facet() const noexcept { return ctype_; }
    const num_put* num_put_facet() const noexcept { return num_put_; }
    const num_get* num_get_facet() const noexcept { return num_get_; }

    // Sets bits without the throw check; for the handling of exceptions that
    // leave a stream buffer, which must not raise a second one.
    void set_state_quiet_(iostate s) noexcept { buf_state_ |= s; }

    // Raises the missing-facet failure unless `facet` is present.
    static void require_facet_(const void* facet) {
        if (facet == nullptr)
            throwNullFacetPointer(IOS_FILE, NULL_FACET_LINE);
    }

protected:
    // For virtual-base construction; the most derived stream calls init.
    basic_ios() noexcept;

    // Default format, no tie, fill not yet set, facets of the stream's locale
    // cached, buffer `sb`. `st` is the initial exceptions mask (the state
    // starts good; every stream of the library passes goodbit).
    void init(basic_streambuf<char>* sb, iostate st = goodbit);

private:
    void init_fill_();
    void cache_facets_() noexcept;

    basic_ostream<char>* tie_;
    char fill_;
    bool fill_init_;
    basic_streambuf<char>* streambuf_;
    const ctype<char>* ctype_;
    const num_put* num_put_;
    const num_get* num_get_;
};

// Format manipulators.
inline ios_base& dec(ios_base& s) {
    s.setf(ios_base::dec, ios_base::basefield);
    return s;
}
inline ios_base& hex(ios_base& s) {
    s.setf(ios_base::hex, ios_base::basefield);
    return s;
}
inline ios_base& oct(ios_base& s) {
    s.setf(ios_base::oct, ios_base::basefield);
    return s;
}
inline ios_base& showbase(ios_base& s) {
    s.setf(ios_base::showbase);
    return s;
}
inline ios_base& noshowbase(ios_base& s) {
    s.unsetf(ios_base::showbase);
    return s;
}
inline ios_base& showpos(ios_base& s) {
    s.setf(ios_base::showpos);
    return s;
}
inline ios_base& noshowpos(ios_base& s) {
    s.unsetf(ios_base::showpos);
    return s;
}
inline ios_base& uppercase(ios_base& s) {
    s.setf(ios_base::uppercase);
    return s;
}
inline ios_base& nouppercase(ios_base& s) {
    s.unsetf(ios_base::uppercase);
    return s;
}
inline ios_base& left(ios_base& s) {
    s.setf(ios_base::left, ios_base::adjustfield);
    return s;
}
inline ios_base& right(ios_base& s) {
    s.setf(ios_base::right, ios_base::adjustfield);
    return s;
}
inline ios_base& internal(ios_base& s) {
    s.setf(ios_base::internal, ios_base::adjustfield);
    return s;
}
inline ios_base& skipws(ios_base& s) {
    s.setf(ios_base::skipws);
    return s;
}
inline ios_base& noskipws(ios_base& s) {
    s.unsetf(ios_base::skipws);
    return s;
}
inline ios_base& unitbuf(ios_base& s) {
    s.setf(ios_base::unitbuf);
    return s;
}
inline ios_base& nounitbuf(ios_base& s) {
    s.unsetf(ios_base::unitbuf);
    return s;
}

} // namespace vrk
