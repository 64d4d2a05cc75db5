// vrk/sstream.hpp: a stream buffer over a growable vrk::string, and the
// string streams built on it (vrk::osstream, vrk::isstream, vrk::sstream).
//
// All storage comes from the string's allocator. Growth doubles the capacity
// (at least 512) and may throw the string's size errors or the allocator's
// failure out of overflow(); the streams absorb them into badbit (and dump()
// a vrk::exception) unless their mask holds badbit.
#pragma once

#include "vrk/istream.hpp"
#include "vrk/memory.hpp"
#include "vrk/ostream.hpp"
#include "vrk/string.hpp"

namespace vrk {

template <> class basic_stringbuf<char> : public basic_streambuf<char> {
public:
    static constexpr size_t MIN_GROWTH = 512;

    // Empty, no get or put area: the first character written grows the
    // storage to MIN_GROWTH.
    explicit basic_stringbuf(allocator& ma);
    basic_stringbuf(impl::IosOpenmode mode, allocator& ma);
    // Over a copy of `s` (on `s`'s allocator, or on `ma`). The get area
    // covers the text; writing starts at its beginning, or at its end with
    // `ate` or `app`.
    explicit basic_stringbuf(const basic_string<char>& s,
                             impl::IosOpenmode mode = impl::in | impl::out);
    basic_stringbuf(const basic_string<char>& s, allocator& ma,
                    impl::IosOpenmode mode = impl::in | impl::out);
    basic_stringbuf(const char* s, size_t n, allocator& ma,
                    impl::IosOpenmode mode = impl::in | impl::out);
    ~basic_stringbuf() override;

    // A copy of the text, on the buffer's allocator.
    basic_string<char> str() const;
    // Replaces the text by a copy of `s`, positions as in the constructor.
    void str(const char* s, size_t n);
    void str(const basic_string<char>& s) { str(s.data(), s.size()); }
    // The text, NUL-terminated, valid until the next write. Null when the
    // text lives in an array given to setbuf.
    const char* c_str();
    // Characters of the text.
    size_t size() const noexcept;
    // True when nothing has been written.
    bool empty_out() const noexcept { return out_cur_ == out_beg_; }
    // Forgets the text. With `release_storage` the storage goes back to the
    // allocator (the next write grows to MIN_GROWTH again); otherwise it is
    // kept and writing starts at its beginning.
    void clear(bool release_storage = false);
    // Exchanges the text with `s` (each keeps its allocator; different
    // allocators copy). Afterwards the buffer holds `s`'s old text with the
    // put position at its end.
    void swap(basic_string<char>& s);
    allocator& get_allocator() const noexcept { return string_.get_allocator(); }
    impl::IosOpenmode mode() const noexcept { return mode_; }

protected:
    basic_streambuf<char>* setbuf(char* s, streamsize n) override;
    streampos seekoff(streamoff off, impl::IosSeekdir way, impl::IosOpenmode which) override;
    streampos seekpos(streampos sp, impl::IosOpenmode which) override;
    streamsize showmanyc() override;
    int underflow() override;
    int pbackfail(int c) override;
    int overflow(int c) override;

private:
    // Resets the areas over `base` after a change of storage: get position
    // at base + i, put position at base + o.
    void sync_(char* base, streamoff i, streamoff o) noexcept;
    // Areas over the whole of string_, writing at its start or its end.
    void init_areas_();
    // Moves the end of the get area up to the put position.
    void extend_get_area_() noexcept;
    // The end of the text in the put area.
    char* text_end_() const noexcept {
        return in_end_ != nullptr && in_end_ > out_cur_ ? in_end_ : out_cur_;
    }
    bool own_storage_(const char* p) const noexcept { return p == string_.data(); }

    basic_string<char> string_;
    impl::IosOpenmode mode_;
};

namespace impl {

// A stream over its own string buffer: `Stream` is basic_ostream,
// basic_istream or basic_iostream; the string streams add their constructors.
template <class Stream> class string_stream_ : public Stream {
public:
    basic_stringbuf<char>* rdbuf() const noexcept {
        return const_cast<basic_stringbuf<char>*>(&stringbuf_);
    }
    basic_string<char> str() const { return stringbuf_.str(); }
    void str(const basic_string<char>& s) { stringbuf_.str(s); }
    const char* c_str() { return stringbuf_.c_str(); }
    void swap(basic_string<char>& s) { stringbuf_.swap(s); }

protected:
    // The stream is given the buffer before the buffer is built, as it only
    // keeps the pointer.
    template <class... Args>
    explicit string_stream_(Args&&... args)
        : Stream(&stringbuf_), stringbuf_(static_cast<Args&&>(args)...) {}
    ~string_stream_() override = default;

private:
    basic_stringbuf<char> stringbuf_;
};

} // namespace impl

template <> class basic_ostringstream<char> : public impl::string_stream_<basic_ostream<char>> {
public:
    explicit basic_ostringstream(allocator& ma) : string_stream_(impl::out, ma) {}
    basic_ostringstream(impl::IosOpenmode mode, allocator& ma)
        : string_stream_(mode | impl::out, ma) {}
    // `st` is the initial exceptions mask.
    basic_ostringstream(impl::IosOpenmode mode, ios_base::iostate st, allocator& ma)
        : string_stream_(mode | impl::out, ma) {
        exceptions(st);
    }
    explicit basic_ostringstream(const basic_string<char>& s, impl::IosOpenmode mode = impl::out)
        : string_stream_(s, mode | impl::out) {}
    ~basic_ostringstream() override;
};

template <> class basic_istringstream<char> : public impl::string_stream_<basic_istream<char>> {
public:
    explicit basic_istringstream(allocator& ma) : string_stream_(impl::in, ma) {}
    explicit basic_istringstream(const basic_string<char>& s, impl::IosOpenmode mode = impl::in)
        : string_stream_(s, mode | impl::in) {}
    basic_istringstream(const char* s, size_t n, allocator& ma)
        : string_stream_(s, n, ma, impl::in) {}
    ~basic_istringstream() override;
};

template <> class basic_stringstream<char> : public impl::string_stream_<basic_iostream<char>> {
public:
    explicit basic_stringstream(allocator& ma) : string_stream_(impl::in | impl::out, ma) {}
    explicit basic_stringstream(const basic_string<char>& s,
                                impl::IosOpenmode mode = impl::in | impl::out)
        : string_stream_(s, mode) {}
    ~basic_stringstream() override;
};

// Formatted insertion of a string's text (padded to the width).
inline basic_ostream<char>& operator<<(basic_ostream<char>& os, const basic_string<char>& s) {
    return impl::ostreamInsert(os, s.data(), static_cast<streamsize>(s.size()));
}

} // namespace vrk
