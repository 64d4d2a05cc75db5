#include "fd_streambuf.hpp"

#include <cerrno>
#include <unistd.h>

namespace vrkexc {

fd_streambuf::fd_streambuf(int fd) noexcept : fd_(fd) {
    setg(in_, in_, in_);
    setp(out_, out_ + SIZE);
}

fd_streambuf::~fd_streambuf() { flush_(); }

bool fd_streambuf::write_all_(const char* p, size_t n) noexcept {
    while (n != 0) {
        const ssize_t w = ::write(fd_, p, n);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool fd_streambuf::flush_() noexcept {
    const size_t n = static_cast<size_t>(pptr() - pbase());
    setp(out_, out_ + SIZE);
    return write_all_(out_, n);
}

int fd_streambuf::sync() { return flush_() ? 0 : -1; }

int fd_streambuf::overflow(int c) {
    if (!flush_())
        return traits_type::eof();
    if (c == traits_type::eof())
        return 0;
    *pptr() = static_cast<char>(c);
    pbump(1);
    return c;
}

// Large blocks go straight to the descriptor after what is buffered.
vrk::streamsize fd_streambuf::xsputn(const char* s, vrk::streamsize n) {
    if (n <= epptr() - pptr())
        return basic_streambuf::xsputn(s, n);
    if (!flush_() || !write_all_(s, static_cast<size_t>(n)))
        return 0;
    return n;
}

int fd_streambuf::underflow() {
    if (gptr() < egptr())
        return traits_type::to_int_type(*gptr());
    for (;;) {
        const ssize_t r = ::read(fd_, in_, SIZE);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return traits_type::eof();
        setg(in_, in_, in_ + r);
        return traits_type::to_int_type(*gptr());
    }
}

} // namespace vrkexc
