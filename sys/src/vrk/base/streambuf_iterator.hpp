// vrk/base/streambuf_iterator.hpp: character iterators over a stream buffer,
// as the number facets use them.
//
// The output iterator remembers a failed store instead of throwing; the input
// iterator compares equal to the end iterator at end-of-file. Neither
// allocates; exceptions of the buffer pass through.
#pragma once

#include "vrk/streambuf.hpp"

namespace vrk {

class ostreambuf_iterator {
public:
    // Failed from the start when there is no buffer.
    explicit ostreambuf_iterator(basic_streambuf<char>* sb) noexcept
        : p_sb_(sb), failed_(sb == nullptr) {}

    ostreambuf_iterator& operator=(char c) {
        if (!failed_ && p_sb_->sputc(c) == char_traits<char>::eof())
            failed_ = true;
        return *this;
    }
    ostreambuf_iterator& operator*() noexcept { return *this; }
    ostreambuf_iterator& operator++() noexcept { return *this; }
    ostreambuf_iterator& operator++(int) noexcept { return *this; }

    // True once a character could not be stored.
    bool failed() const noexcept { return failed_; }

private:
    basic_streambuf<char>* p_sb_;
    bool failed_;
};

class istreambuf_iterator {
public:
    // The end iterator.
    istreambuf_iterator() noexcept : p_sb_(nullptr) {}
    explicit istreambuf_iterator(basic_streambuf<char>* sb) noexcept : p_sb_(sb) {}

    // The current character; valid only when not at the end.
    char operator*() const { return char_traits<char>::to_char_type(p_sb_->sgetc()); }
    istreambuf_iterator& operator++() {
        p_sb_->sbumpc();
        return *this;
    }

    // Both at end-of-file, or both not.
    bool equal(const istreambuf_iterator& other) const { return at_end_() == other.at_end_(); }
    friend bool operator==(const istreambuf_iterator& a, const istreambuf_iterator& b) {
        return a.equal(b);
    }

private:
    bool at_end_() const { return p_sb_ == nullptr || p_sb_->sgetc() == char_traits<char>::eof(); }

    basic_streambuf<char>* p_sb_;
};

} // namespace vrk
