// vrk/istream.hpp: basic_istream<char> (vrk::istream) and
// basic_iostream<char>, input over any vrk stream buffer.
//
// A failure sets state bits and raises only when the exceptions mask asks for
// it; exceptions of the buffer are absorbed by kind (see stream_region). The
// stream itself never allocates.
#pragma once

#include "vrk/ostream.hpp"

namespace vrk {

namespace impl {

// Reads up to `n` characters; fewer sets eofbit and failbit. The count read
// is the stream's gcount().
basic_istream<char>& istreamRead(basic_istream<char>& is, char* s, streamsize n);

} // namespace impl

template <> class basic_istream<char> : virtual public basic_ios<char> {
public:
    // The input sentry: on a good stream flushes the tied stream and, unless
    // `noskip` or without skipws, skips white space (recording eofbit at the
    // end of input). Converts to true when input may proceed; otherwise it
    // has added failbit and what it recorded (under the state-change rule).
    class sentry {
    public:
        explicit sentry(basic_istream& is, bool noskip = false);
        explicit operator bool() const noexcept { return ok_; }

    private:
        bool ok_;
    };

    explicit basic_istream(basic_streambuf<char>* sb) : gcount_(0) { init(sb); }
    ~basic_istream() override;

    // Characters moved by the last unformatted read.
    streamsize gcount() const noexcept { return gcount_; }

    basic_istream& read(char* s, streamsize n) { return impl::istreamRead(*this, s, n); }
    // The next character, or -1 (with eofbit and failbit) at the end.
    int get();
    basic_istream& get(char& c);
    // The next character without taking it, or -1 (with eofbit).
    int peek();
    basic_istream& unget();
    basic_istream& putback(char c);
    // Skips up to `n` characters, through the first `delim`.
    basic_istream& ignore(streamsize n = 1, int delim = char_traits<char>::eof());

    basic_istream& operator>>(basic_istream& (*pf)(basic_istream&)) { return pf(*this); }
    basic_istream& operator>>(basic_ios<char>& (*pf)(basic_ios<char>&)) {
        pf(*this);
        return *this;
    }
    basic_istream& operator>>(ios_base& (*pf)(ios_base&)) {
        pf(*this);
        return *this;
    }

    // Integers through the num_get facet; a value out of the type's range
    // sets failbit and stores the nearest limit (unsigned types: see
    // num_get). When extraction cannot start (the sentry fails) or the
    // buffer throws, the target is left as it was.
    basic_istream& operator>>(long& v);
    basic_istream& operator>>(unsigned long& v);
    basic_istream& operator>>(int& v);
    basic_istream& operator>>(unsigned int& v);
    basic_istream& operator>>(long long& v);
    basic_istream& operator>>(unsigned long long& v);

    // The get position, -1 after a failure or when the buffer cannot tell.
    streampos tellg();

protected:
    // For basic_iostream, which initializes the shared basic_ios itself.
    basic_istream() noexcept : gcount_(0) {}

    friend basic_istream& impl::istreamRead(basic_istream& is, char* s, streamsize n);

    streamsize gcount_;
};

// One character after skipping white space.
basic_istream<char>& operator>>(basic_istream<char>& is, char& c);

// Skips white space.
basic_istream<char>& ws(basic_istream<char>& is);

template <> class basic_iostream<char> : public basic_istream<char>, public basic_ostream<char> {
public:
    explicit basic_iostream(basic_streambuf<char>* sb) : basic_istream<char>(sb) {}
    ~basic_iostream() override;
};

} // namespace vrk
