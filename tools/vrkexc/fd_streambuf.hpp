// vrkexc/fd_streambuf.hpp: a vrk stream buffer over a file descriptor, for
// the tool's standard input, output and error.
//
// It owns two fixed 4 KiB arrays and never allocates. Write errors make
// overflow/sync fail (the stream records badbit); it never throws.
#pragma once

#include "vrk/streambuf.hpp"

namespace vrkexc {

class fd_streambuf : public vrk::basic_streambuf<char> {
public:
    explicit fd_streambuf(int fd) noexcept;
    ~fd_streambuf() override;

protected:
    int sync() override;
    int underflow() override;
    int overflow(int c) override;
    vrk::streamsize xsputn(const char* s, vrk::streamsize n) override;

private:
    bool flush_() noexcept;
    bool write_all_(const char* p, size_t n) noexcept;

    static constexpr size_t SIZE = 4096;
    int fd_;
    char in_[SIZE];
    char out_[SIZE];
};

} // namespace vrkexc
