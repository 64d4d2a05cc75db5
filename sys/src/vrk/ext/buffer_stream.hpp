// vrk/ext/buffer_stream.hpp: an output stream over a fixed character array
// (by default 2048 characters inside the object) that cuts off what does not
// fit.
//
// Never allocates, so it can render text inside a failing allocation path.
// Holds at most size - 1 characters (one place stays for the NUL); a write
// beyond sets badbit and is dropped, and raises "buffer_stream::overflow"
// only when the stream's exceptions mask holds badbit.
#pragma once

#include <cstddef>

#include "vrk/ostream.hpp"

namespace vrk {

template <size_t SIZE> class buffer_stream : public basic_streambuf<char> {
    static_assert(SIZE >= 1, "a buffer_stream needs room for its NUL");

public:
    static constexpr const char* FILE_NAME = "sys/src/vrk/ext/buffer_stream";

    // `st` is the stream's initial exceptions mask (goodbit: never raises).
    explicit buffer_stream(ios_base::iostate st = ios_base::goodbit)
        : p_buffer_(buffer_), buffer_size_(SIZE), stream_(this) {
        start_(st);
    }
    // Over the caller's array of `n` characters, which must outlive this
    // object. With n == 0 nothing can be written and c_str() is "".
    buffer_stream(char* buf, size_t n, ios_base::iostate st = ios_base::goodbit)
        : p_buffer_(n != 0 ? buf : buffer_), buffer_size_(n != 0 ? n : 1), stream_(this) {
        start_(st);
    }
    buffer_stream(const buffer_stream&) = delete;
    buffer_stream& operator=(const buffer_stream&) = delete;
    ~buffer_stream() override = default;

    // The text written so far, NUL-terminated.
    const char* c_str() noexcept {
        *out_cur_ = '\0';
        return p_buffer_;
    }
    size_t size() const noexcept { return static_cast<size_t>(out_cur_ - out_beg_); }
    bool empty() const noexcept { return out_cur_ == out_beg_; }
    // Forgets the text and the stream's state bits (the mask stays).
    void clear() {
        setp(p_buffer_, p_buffer_ + buffer_size_ - 1);
        *p_buffer_ = '\0';
        stream_.clear();
    }

    basic_ostream<char>& getStream() noexcept { return stream_; }
    operator basic_ostream<char>&() noexcept { return stream_; } // NOLINT: implicit by design

    basic_ostream<char>& operator<<(basic_ostream<char>& (*pf)(basic_ostream<char>&)) {
        return stream_ << pf;
    }
    basic_ostream<char>& operator<<(ios_base& (*pf)(ios_base&)) { return stream_ << pf; }
    // Anything the stream can insert.
    template <class T> basic_ostream<char>& operator<<(const T& v) { return stream_ << v; }

protected:
    // Terminates the text; never fails.
    int sync() override {
        *out_cur_ = '\0';
        return 0;
    }
    // Reached only when the array is full: the character is dropped, badbit
    // set, and the writer sees no failure of its own.
    int overflow(int c) override {
        stream_.set_state_quiet_(ios_base::badbit);
        if ((stream_.exceptions() & ios_base::badbit) != 0)
            ios_base::throwIOSFailure(FILE_NAME, __LINE__, "buffer_stream::overflow");
        return char_traits<char>::not_eof(c);
    }

private:
    void start_(ios_base::iostate st) {
        setp(p_buffer_, p_buffer_ + buffer_size_ - 1);
        *p_buffer_ = '\0';
        stream_.exceptions(st);
    }

    char* p_buffer_;
    size_t buffer_size_;
    basic_ostream<char> stream_;
    char buffer_[SIZE];
};

} // namespace vrk
