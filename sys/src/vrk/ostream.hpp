// vrk/ostream.hpp: basic_ostream<char> (vrk::ostream), formatted and
// unformatted output over any vrk stream buffer.
//
// A failure sets state bits and raises only when the exceptions mask asks for
// it; exceptions of the buffer are absorbed by kind (see stream_region). The
// stream itself never allocates; its buffer may.
#pragma once

#include "vrk/ios.hpp"

namespace vrk {

namespace impl {

// Formatted insertion of `n` characters: padded to the width, which is reset.
basic_ostream<char>& ostreamInsert(basic_ostream<char>& os, const char* s, streamsize n);
// Formatted integer insertion through the num_put facet.
basic_ostream<char>& ostreamInsert(basic_ostream<char>& os, long v);
basic_ostream<char>& ostreamInsert(basic_ostream<char>& os, unsigned long v);
basic_ostream<char>& ostreamInsert(basic_ostream<char>& os, bool v);
basic_ostream<char>& ostreamInsert(basic_ostream<char>& os, const void* v);
// One character, unformatted.
basic_ostream<char>& ostreamPut(basic_ostream<char>& os, char c);
// `n` characters, unformatted: no padding, the width is left alone.
basic_ostream<char>& ostreamWrite(basic_ostream<char>& os, const char* s, streamsize n);
// Syncs the buffer, also in a failed state; nothing without a buffer.
basic_ostream<char>& ostreamFlush(basic_ostream<char>& os);

} // namespace impl

template <> class basic_ostream<char> : virtual public basic_ios<char> {
public:
    // The output sentry: flushes a tied stream while the state is good;
    // converts to true when output may proceed, and otherwise has set failbit
    // (badbit too without a buffer) under the state-change rule.
    class sentry {
    public:
        explicit sentry(basic_ostream& os) {
            if (os.tie() != nullptr && os.good())
                impl::ostreamFlush(*os.tie());
            // A stream without a buffer starts good but can write nothing.
            ok_ = os.good() && os.rdbuf() != nullptr;
            if (!ok_)
                os.setstate(failbit);
        }
        explicit operator bool() const noexcept { return ok_; }

    private:
        bool ok_;
    };

    explicit basic_ostream(basic_streambuf<char>* sb) { init(sb); }
    ~basic_ostream() override;

    basic_ostream& operator<<(basic_ostream& (*pf)(basic_ostream&)) { return pf(*this); }
    basic_ostream& operator<<(basic_ios<char>& (*pf)(basic_ios<char>&)) {
        pf(*this);
        return *this;
    }
    basic_ostream& operator<<(ios_base& (*pf)(ios_base&)) {
        pf(*this);
        return *this;
    }

    basic_ostream& operator<<(long v) { return impl::ostreamInsert(*this, v); }
    basic_ostream& operator<<(unsigned long v) { return impl::ostreamInsert(*this, v); }
    basic_ostream& operator<<(long long v) {
        return impl::ostreamInsert(*this, static_cast<long>(v));
    }
    basic_ostream& operator<<(unsigned long long v) {
        return impl::ostreamInsert(*this, static_cast<unsigned long>(v));
    }
    // In octal and hexadecimal an int shows its 32-bit pattern: it is
    // converted to unsigned int before widening.
    basic_ostream& operator<<(int v) {
        const fmtflags base = flags() & basefield;
        if (base == oct || base == hex)
            return impl::ostreamInsert(*this, static_cast<long>(static_cast<unsigned int>(v)));
        return impl::ostreamInsert(*this, static_cast<long>(v));
    }
    // Unsigned values go through the unsigned overload: they never get a +.
    basic_ostream& operator<<(unsigned int v) {
        return impl::ostreamInsert(*this, static_cast<unsigned long>(v));
    }
    basic_ostream& operator<<(short v) {
        const fmtflags base = flags() & basefield;
        if (base == oct || base == hex)
            return impl::ostreamInsert(*this, static_cast<long>(static_cast<unsigned short>(v)));
        return impl::ostreamInsert(*this, static_cast<long>(v));
    }
    basic_ostream& operator<<(unsigned short v) {
        return impl::ostreamInsert(*this, static_cast<unsigned long>(v));
    }
    basic_ostream& operator<<(bool v) { return impl::ostreamInsert(*this, v); }
    basic_ostream& operator<<(const void* v) { return impl::ostreamInsert(*this, v); }

    basic_ostream& put(char c) { return impl::ostreamPut(*this, c); }
    basic_ostream& write(const char* s, streamsize n) { return impl::ostreamWrite(*this, s, n); }
    basic_ostream& flush() { return impl::ostreamFlush(*this); }

protected:
    // For streams that derive from this one and from basic_istream: the
    // basic_istream part initializes the shared basic_ios.
    basic_ostream() noexcept = default;

    // Writes `n` characters to the buffer: true when all were accepted,
    // otherwise sets badbit and returns false. The caller has passed the
    // sentry, so the buffer exists.
    bool do_write(const char* s, streamsize n);

    friend basic_ostream& impl::ostreamInsert(basic_ostream& os, const char* s, streamsize n);
};

// One character, formatted (padded to the width).
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, char c) {
    return impl::ostreamInsert(os, &c, 1);
}
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, signed char c) {
    return os << static_cast<char>(c);
}
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, unsigned char c) {
    return os << static_cast<char>(c);
}

// A null pointer sets badbit and writes nothing; the length is taken once.
basic_ostream<char>& operator<<(basic_ostream<char>& os, const char* s);
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, const signed char* s) {
    return os << reinterpret_cast<const char*>(s);
}
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, const unsigned char* s) {
    return os << reinterpret_cast<const char*>(s);
}

// A new line, then a flush. Needs the ctype facet.
basic_ostream<char>& endl(basic_ostream<char>& os);
// A NUL character.
basic_ostream<char>& ends(basic_ostream<char>& os);

} // namespace vrk
