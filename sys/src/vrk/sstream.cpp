// The string stream buffer: growth, positioning and put-back over a
// vrk::string.
#include "vrk/sstream.hpp"

#include <algorithm>

namespace vrk {

namespace {
constexpr int END = char_traits<char>::eof();
}

basic_stringbuf<char>::basic_stringbuf(allocator& ma) : basic_stringbuf(impl::in | impl::out, ma) {}

basic_stringbuf<char>::basic_stringbuf(impl::IosOpenmode mode, allocator& ma)
    : string_(ma), mode_(mode) {}

basic_stringbuf<char>::basic_stringbuf(const basic_string<char>& s, impl::IosOpenmode mode)
    : string_(s), mode_(mode) {
    init_areas_();
}

basic_stringbuf<char>::basic_stringbuf(const basic_string<char>& s, allocator& ma,
                                       impl::IosOpenmode mode)
    : string_(s, ma), mode_(mode) {
    init_areas_();
}

basic_stringbuf<char>::basic_stringbuf(const char* s, size_t n, allocator& ma,
                                       impl::IosOpenmode mode)
    : string_(s, n, ma), mode_(mode) {
    init_areas_();
}

basic_stringbuf<char>::~basic_stringbuf() = default;

void basic_stringbuf<char>::init_areas_() {
    setg(nullptr, nullptr, nullptr);
    setp(nullptr, nullptr);
    if (string_.empty())
        return; // no areas: the first write grows to MIN_GROWTH
    // The areas are written through, so a block shared with the source string
    // is copied first (data() does that).
    char* base = string_.data();
    const streamoff o =
        (mode_ & (impl::ate | impl::app)) != 0 ? static_cast<streamoff>(string_.size()) : 0;
    sync_(base, 0, o);
}

void basic_stringbuf<char>::sync_(char* base, streamoff i, streamoff o) noexcept {
    char* endg = base + string_.size();
    char* endp = base + string_.capacity();
    if (base != string_.data()) {
        // A caller's array from setbuf: its size came in as i.
        endg = base + i;
        endp = endg;
        i = 0;
    }
    if ((mode_ & impl::in) != 0)
        setg(base, base + i, endg);
    if ((mode_ & impl::out) != 0) {
        setp(base, endp);
        out_cur_ = base + o;
        if ((mode_ & impl::in) == 0)
            setg(endg, endg, endg);
    }
}

void basic_stringbuf<char>::extend_get_area_() noexcept {
    if (out_cur_ != nullptr && out_cur_ > in_end_) {
        if ((mode_ & impl::in) != 0)
            in_end_ = out_cur_;
        else
            setg(out_cur_, out_cur_, out_cur_);
    }
}

basic_string<char> basic_stringbuf<char>::str() const {
    basic_string<char> r(string_.get_allocator());
    if (out_beg_ != nullptr) {
        r.assign(out_beg_, static_cast<size_t>(text_end_() - out_beg_));
    } else if ((mode_ & impl::in) != 0 && in_beg_ != nullptr) {
        r.assign(in_beg_, static_cast<size_t>(in_end_ - in_beg_));
    } else {
        r.assign(string_.data(), string_.size());
    }
    return r;
}

void basic_stringbuf<char>::str(const char* s, size_t n) {
    basic_string<char> tmp(s, n, string_.get_allocator());
    string_.swap(tmp);
    init_areas_();
}

size_t basic_stringbuf<char>::size() const noexcept {
    if (out_beg_ != nullptr)
        return static_cast<size_t>(text_end_() - out_beg_);
    if ((mode_ & impl::in) != 0 && in_beg_ != nullptr)
        return static_cast<size_t>(in_end_ - in_beg_);
    return string_.size();
}

const char* basic_stringbuf<char>::c_str() {
    if (out_beg_ == nullptr)
        return (mode_ & impl::in) != 0 && in_beg_ != nullptr && !own_storage_(in_beg_)
                   ? nullptr
                   : string_.c_str();
    // A caller's array from setbuf: its get area ends with it, so the text
    // fills it and leaves no room for a terminator.
    if (!own_storage_(out_beg_))
        return nullptr;
    char* end = text_end_();
    // The storage is exclusive and large enough, so the string only takes
    // the new length (and its NUL) without moving.
    string_.raw_resize(static_cast<size_t>(end - out_beg_), false);
    return string_.c_str();
}

void basic_stringbuf<char>::clear(bool release_storage) {
    if (release_storage) {
        basic_string<char> empty(string_.get_allocator());
        string_.swap(empty);
        setg(nullptr, nullptr, nullptr);
        setp(nullptr, nullptr);
        return;
    }
    string_.clear();
    setg(nullptr, nullptr, nullptr);
    setp(nullptr, nullptr);
    char* base = string_.data();
    sync_(base, 0, 0);
}

void basic_stringbuf<char>::swap(basic_string<char>& s) {
    if (out_beg_ != nullptr) {
        char* end = text_end_();
        const size_t len = static_cast<size_t>(end - out_beg_);
        if (own_storage_(out_beg_)) {
            const streamoff in_pos = (mode_ & impl::in) != 0 ? in_cur_ - in_beg_ : 0;
            *end = '\0';
            string_.raw_resize(len, true);
            // A short text has moved into the inline buffer: the areas follow
            // it now, so that a swap that fails below leaves them valid.
            sync_(string_.data(), in_pos, static_cast<streamoff>(len));
        } else {
            // The text is in a caller's array: hand over a copy.
            string_.assign(out_beg_, len);
        }
    }
    string_.swap(s);
    setg(nullptr, nullptr, nullptr);
    setp(nullptr, nullptr);
    // The areas cover whatever storage came in, an empty string's included:
    // writing fills that storage before growing, and growth doubles a full
    // area, never capacity that sits idle behind an empty text.
    if (!string_.is_read_only())
        sync_(string_.data(), 0, static_cast<streamoff>(string_.size()));
}

basic_streambuf<char>* basic_stringbuf<char>::setbuf(char* s, streamsize n) {
    if (s == nullptr || n < 0)
        return this;
    // A view raises rvalue_error here; a shared block is left, an exclusive
    // one kept.
    string_.clear();
    if ((mode_ & impl::in) != 0)
        setg(s, s, s + n);
    else
        setg(s + n, s + n, s + n);
    if ((mode_ & impl::out) != 0)
        setp(s, s + n);
    return this;
}

streamsize basic_stringbuf<char>::showmanyc() {
    if ((mode_ & impl::in) == 0)
        return -1;
    extend_get_area_();
    return in_end_ - in_cur_;
}

int basic_stringbuf<char>::underflow() {
    if ((mode_ & impl::in) == 0)
        return END;
    extend_get_area_();
    if (in_cur_ < in_end_)
        return char_traits<char>::to_int_type(*in_cur_);
    return END;
}

int basic_stringbuf<char>::pbackfail(int c) {
    if (in_beg_ >= in_cur_)
        return END;
    if (c == END) {
        --in_cur_;
        return 0;
    }
    if (c == char_traits<char>::to_int_type(in_cur_[-1])) {
        --in_cur_;
        return c;
    }
    if ((mode_ & impl::out) != 0) {
        --in_cur_;
        *in_cur_ = char_traits<char>::to_char_type(c);
        return c;
    }
    return END;
}

int basic_stringbuf<char>::overflow(int c) {
    if ((mode_ & impl::out) == 0)
        return END;
    if (c == END)
        return 0;
    if (out_cur_ < out_end_) {
        *out_cur_++ = char_traits<char>::to_char_type(c);
        return c;
    }
    const size_t cap = string_.capacity();
    size_t new_cap = cap <= (~size_t{0}) / 2 ? 2 * cap : ~size_t{0};
    if (new_cap < MIN_GROWTH)
        new_cap = MIN_GROWTH;
    // A caller's array is never replaced by string storage.
    if (out_beg_ != nullptr && string_.empty() && !own_storage_(out_beg_))
        return END;
    const streamoff i = in_cur_ - in_beg_;
    const char* src = out_beg_;
    size_t len = static_cast<size_t>(out_end_ - out_beg_);
    streamoff o = out_cur_ - out_beg_;
    if (out_beg_ == nullptr) {
        // No put area yet: the string's own text (empty, or a view swapped
        // in) is kept and writing continues behind it.
        src = static_cast<const basic_string<char>&>(string_).data();
        len = string_.size();
        o = static_cast<streamoff>(len);
    }
    basic_string<char> grown(string_.get_allocator());
    grown.reserve(new_cap);
    grown.assign(src, len);
    grown.insert(grown.data() + grown.size(), char_traits<char>::to_char_type(c));
    string_.swap(grown);
    sync_(string_.data(), i, o);
    ++out_cur_;
    return c;
}

streampos basic_stringbuf<char>::seekoff(streamoff off, impl::IosSeekdir way,
                                         impl::IosOpenmode which) {
    bool testin = (which & mode_ & impl::in) != 0;
    bool testout = (which & mode_ & impl::out) != 0;
    const bool testboth = testin && testout && way != impl::cur;
    if ((which & impl::out) != 0)
        testin = false;
    if ((which & impl::in) != 0)
        testout = false;
    char* beg = testin ? in_beg_ : out_beg_;
    if ((beg == nullptr && off != 0) || !(testin || testout || testboth))
        return streampos(-1);
    extend_get_area_();
    streamoff newoffi = off;
    streamoff newoffo = off;
    if (way == impl::cur) {
        newoffi += in_cur_ - beg;
        newoffo += out_cur_ - beg;
    } else if (way == impl::end) {
        newoffi = newoffo = off + (in_end_ - beg);
    }
    const streamoff limit = in_end_ - beg;
    streamoff result = -1;
    if ((testin || testboth) && newoffi >= 0 && newoffi <= limit) {
        in_cur_ = beg + newoffi;
        result = newoffi;
    }
    if ((testout || testboth) && newoffo >= 0 && newoffo <= limit) {
        out_cur_ = beg + newoffo;
        result = newoffo;
    }
    return streampos(result);
}

streampos basic_stringbuf<char>::seekpos(streampos sp, impl::IosOpenmode which) {
    const bool testin = (which & mode_ & impl::in) != 0;
    const bool testout = (which & mode_ & impl::out) != 0;
    char* beg = testin ? in_beg_ : out_beg_;
    const streamoff pos = sp;
    if ((beg == nullptr && pos != 0) || !(testin || testout))
        return streampos(-1);
    extend_get_area_();
    if (pos >= 0 && pos <= in_end_ - beg) {
        if (testin)
            in_cur_ = beg + pos;
        if (testout)
            out_cur_ = beg + pos;
        return sp;
    }
    return streampos(-1);
}

basic_ostringstream<char>::~basic_ostringstream() = default;
basic_istringstream<char>::~basic_istringstream() = default;
basic_stringstream<char>::~basic_stringstream() = default;

} // namespace vrk
