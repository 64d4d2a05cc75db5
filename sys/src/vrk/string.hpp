// vrk/string.hpp: the library's growable string, bound to one allocator.
//
// Texts of up to 39 characters live inside the object; longer ones live in a
// heap block that copies on the same allocator share through an atomic count;
// a string can also be a read-only view of text it does not own. Every byte
// comes from the string's own `vrk::allocator` and goes back to it, never to
// a global heap. Growth throws (size errors, allocation failure); nothing
// here locks, and a single string object is not for concurrent use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "vrk/iosfwd.hpp"
#include "vrk/memory.hpp"

namespace vrk {

// Raw storage for n objects of T from an allocator: null for n = 0, the
// allocator's throwing `allocate` otherwise. A request above `max_size`
// (2^64 - 9 bytes for char) raises impl::throwBadAllocation before the
// allocator is asked. Converts to the pointer, so it reads as a call:
//     char* p = allocate_raw_chunk<char>(n, alloc);
template <class T> class allocate_raw_chunk {
public:
    // The largest request that is passed on to the allocator: a string block
    // of capacity c needs c + 9 bytes, and that sum must not wrap.
    static constexpr size_t max_size = (~size_t{0} - 8) / sizeof(T);

    allocate_raw_chunk(size_t n, allocator& ma);
    operator T*() const noexcept { return p_; } // NOLINT: implicit by design
    T* get() const noexcept { return p_; }

private:
    T* p_;
};

template <class CharT> class basic_string_retval;

// Storage core: the three storage states and the moves between them. The
// state is told by `rsrv_` alone: 39 inline, 40 or more heap, all ones
// read-only. A heap block is `rsrv_ + 9` bytes: the share count (size_t),
// then the characters and their NUL; `ptr_` points past the count.
template <class CharT> class string_base {
    static_assert(sizeof(CharT) == 1, "vrk strings hold byte characters");

public:
    static constexpr size_t BUF_SIZE = 40;                  // inline buffer, NUL included
    static constexpr size_t INLINE_CAPACITY = BUF_SIZE - 1; // 39
    static constexpr size_t READ_ONLY = ~size_t{0};         // rsrv_ of a view
    static constexpr size_t COUNT_SIZE = sizeof(size_t);    // share count in front of a block
    static constexpr size_t BLOCK_EXTRA = COUNT_SIZE + 1;   // count + NUL

    size_t size() const noexcept { return size_; }
    size_t length() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    // Characters the storage holds without growing; a read-only view can hold
    // nothing more than it shows, so its capacity is its length.
    size_t capacity() const noexcept { return rsrv_ == READ_ONLY ? size_ : rsrv_; }
    allocator& get_allocator() const noexcept { return *p_ma_; }

    bool is_read_only() const noexcept { return rsrv_ == READ_ONLY; }
    bool is_inline() const noexcept { return rsrv_ == INLINE_CAPACITY; }
    bool is_heap() const noexcept { return rsrv_ != READ_ONLY && rsrv_ > INLINE_CAPACITY; }
    // Strings sharing this string's heap block (itself included); 0 when the
    // text is not in a heap block. A snapshot when other threads share it.
    size_t share_count() const noexcept {
        return is_heap() ? __atomic_load_n(count_of_(bx_.ptr_), __ATOMIC_ACQUIRE) : 0;
    }

    // Raises vrk::rvalue_error, carrying the first 127 characters of the text,
    // when this string is a read-only view; otherwise does nothing.
    void check_writable() const {
        if (rsrv_ == READ_ONLY)
            throw_read_only_(__builtin_return_address(0));
    }

protected:
    union Bxty {
        CharT* ptr_;
        CharT buf_[BUF_SIZE];
        size_t aux_[5]; // the union copied as words
    };

    explicit string_base(allocator& ma) noexcept : rsrv_(INLINE_CAPACITY), size_(0), p_ma_(&ma) {
        bx_.buf_[0] = CharT();
    }
    // Releases a heap block (the last holder frees it); views and inline
    // texts own nothing.
    ~string_base() {
        if (is_heap())
            release_block_(bx_.ptr_);
    }
    string_base(const string_base&) = delete;
    string_base& operator=(const string_base&) = delete;

    // Makes the storage exclusive and able to hold max(n, size) characters;
    // returns the characters. Never called on a read-only view.
    CharT* grow_(size_t n);
    // Moves the text (up to newres characters of it) into a new exclusive
    // heap block of capacity newres; returns the new characters.
    CharT* enlarge_(size_t newres);
    // Moves the first new_sz characters back into the inline buffer; the
    // caller guarantees that a heap block is not shared.
    void tidy_(size_t new_sz) noexcept;

    CharT* chars_() noexcept { return rsrv_ == INLINE_CAPACITY ? bx_.buf_ : bx_.ptr_; }
    const CharT* chars_() const noexcept { return rsrv_ == INLINE_CAPACITY ? bx_.buf_ : bx_.ptr_; }
    bool shared_() const noexcept { return share_count() > 1; }
    // The capacity growth to at least n gives: n when that is more than half
    // again the current capacity, else the current capacity + half + 1.
    size_t grown_capacity_(size_t n) const noexcept {
        return (n > rsrv_ && n - rsrv_ > rsrv_ / 2) ? n : rsrv_ + rsrv_ / 2 + 1;
    }
    // Storage of `cap` characters with count 1; returns the characters.
    CharT* new_block_(size_t cap);
    void release_block_(CharT* chars) noexcept;
    static void add_ref_(CharT* chars) noexcept;
    static size_t* count_of_(CharT* chars) noexcept {
        return reinterpret_cast<size_t*>(reinterpret_cast<char*>(chars) - COUNT_SIZE);
    }
    // Exchanges the storage of two strings on the same allocator.
    void swap_storage_(string_base& rhs) noexcept;
    // Sets this empty string to the text of rhs (on any allocator) with the
    // copy rules: same allocator and long text shares the block; at most 39
    // characters go inline; else new storage of 59 for 40 to 58 characters,
    // exactly the length otherwise.
    void copy_from_(const string_base& rhs);

    // Size checks: underflow for a size that is negative as signed 64-bit,
    // overflow when size + 9 wraps. `line` names the checking site.
    static void check_size_(size_t n, int line, const void* caller) {
        if (n > ~size_t{0} - BLOCK_EXTRA)
            throw_overflow_(line, caller);
        if (static_cast<int64_t>(n) < 0)
            throw_underflow_(line, caller);
    }
    // a + b, raising the overflow error when the sum wraps.
    static size_t add_size_(size_t a, size_t b, int line, const void* caller) {
        if (b > ~size_t{0} - a)
            throw_overflow_(line, caller);
        return a + b;
    }
    [[noreturn]] static void throw_overflow_(int line, const void* caller);
    [[noreturn]] static void throw_underflow_(int line, const void* caller);
    [[noreturn]] void throw_read_only_(const void* caller) const;

    Bxty bx_;
    size_t rsrv_;
    size_t size_;
    allocator* p_ma_;
};

// The string. Copies on the same allocator share long texts; every change
// first makes the storage exclusive (and raises vrk::rvalue_error on a
// read-only view). Positions beyond the text raise the out-of-range error.
template <class CharT> class basic_string : public string_base<CharT> {
    using base = string_base<CharT>;

public:
    using value_type = CharT;
    using size_type = size_t;
    static constexpr size_t npos = ~size_t{0};

    explicit basic_string(allocator& ma) noexcept : base(ma) {}
    basic_string(const CharT* s, allocator& ma);
    basic_string(const CharT* s, size_t n, allocator& ma);
    // A copy on rhs's allocator (sharing a long text's block).
    basic_string(const basic_string& rhs) : base(*rhs.p_ma_) { this->copy_from_(rhs); }
    basic_string(const basic_string& rhs, allocator& ma) : base(ma) { this->copy_from_(rhs); }
    // Takes rhs's storage and allocator; rhs is left empty and inline.
    basic_string(basic_string&& rhs) noexcept : base(*rhs.p_ma_) { this->swap_storage_(rhs); }
    // Takes the string out of a return value (a read-only view stays one).
    basic_string(basic_string_retval<CharT>&& r) noexcept; // NOLINT: implicit by design
    basic_string(const basic_string_retval<CharT>& r, allocator& ma);

    // Assignments keep this string's allocator; a view raises rvalue_error.
    basic_string& operator=(const basic_string& rhs);
    // Not noexcept: a move across allocators copies, and a view raises.
    basic_string& operator=(basic_string&& rhs); // NOLINT(performance-noexcept-move-constructor)
    basic_string& operator=(const CharT* s) { return assign(s); }

    const CharT* c_str() const noexcept;
    const CharT* data() const noexcept { return this->chars_(); }
    // The characters for writing, up to capacity(): a shared block is first
    // copied (may allocate and throw). For a read-only view, the viewed text,
    // which must not be written.
    CharT* data();
    size_t max_size() const noexcept { return MAX_SIZE; }
    // The longest text the size checks let through: 2^63 - 1.
    static constexpr size_t MAX_SIZE = static_cast<size_t>(INT64_MAX);

    const CharT& operator[](size_t i) const noexcept { return data()[i]; }
    // Unshares first, like data().
    CharT& operator[](size_t i) { return data()[i]; }

    // Replaces the text by n characters at p (p may point into this text).
    basic_string& assign(const CharT* p, size_t n);
    basic_string& assign(const CharT* s);
    basic_string& assign(const basic_string& s) { return *this = s; }

    // Inserts c before pos (data() <= pos <= data() + size()); returns where c
    // now is.
    CharT* insert(const CharT* pos, CharT c);

    // Exchanges the texts; each string keeps its allocator. On different
    // allocators both texts are copied, and a view on either side raises
    // rvalue_error.
    void swap(basic_string& rhs);

    // Sets the length to new_sz without writing the characters between the
    // old and the new length. With use_buffer, a text of at most 39
    // characters goes back into the inline buffer.
    void raw_resize(size_t new_sz, bool use_buffer);

    // Capacity at least n (growth rules of grow_), storage exclusive.
    void reserve(size_t n);
    // Empties the text: a shared block is left for the inline buffer, an
    // exclusive block is kept.
    void clear();

    basic_string& append(const CharT* p, size_t n);
    basic_string& append(const CharT* s);
    basic_string& append(const basic_string& s) { return append(s.data(), s.size()); }
    void push_back(CharT c) { append(&c, 1); }
    basic_string& operator+=(const basic_string& s) { return append(s); }
    basic_string& operator+=(const CharT* s) { return append(s); }
    basic_string& operator+=(CharT c) { return append(&c, 1); }

    // First position of the n characters at s at or after pos; npos if none.
    size_t find(const CharT* s, size_t pos, size_t n) const noexcept;
    size_t find(const CharT* s, size_t pos = 0) const noexcept;
    size_t find(const basic_string& s, size_t pos = 0) const noexcept {
        return find(s.data(), pos, s.size());
    }
    size_t find(CharT c, size_t pos = 0) const noexcept { return find(&c, pos, 1); }
    // Last position of c at or before pos; npos if none.
    size_t rfind(CharT c, size_t pos = npos) const noexcept;

    // Byte order (as unsigned characters), then length: <0, 0, >0.
    int compare(const CharT* s, size_t n) const noexcept;
    int compare(const basic_string& s) const noexcept { return compare(s.data(), s.size()); }
    int compare(const CharT* s) const noexcept;

    // Up to n characters from pos, on this string's allocator.
    basic_string substr(size_t pos = 0, size_t n = npos) const;

private:
    template <class C> friend basic_string_retval<C> c_str(const C* s, size_t n, allocator& ma);
    struct read_only_tag {};
    // A read-only view of n characters at p.
    basic_string(const CharT* p, size_t n, allocator& ma, read_only_tag) noexcept : base(ma) {
        this->bx_.ptr_ = const_cast<CharT*>(p);
        this->rsrv_ = base::READ_ONLY;
        this->size_ = p ? n : 0;
    }
};

template <class CharT>
bool operator==(const basic_string<CharT>& a, const basic_string<CharT>& b) noexcept {
    return a.compare(b) == 0;
}
template <class CharT> bool operator==(const basic_string<CharT>& a, const CharT* b) noexcept {
    return a.compare(b) == 0;
}

// The result lives on the allocator of the (left) string operand.
template <class CharT>
basic_string<CharT> operator+(const basic_string<CharT>& a, const basic_string<CharT>& b);
template <class CharT> basic_string<CharT> operator+(const basic_string<CharT>& a, const CharT* b);
template <class CharT> basic_string<CharT> operator+(const CharT* a, const basic_string<CharT>& b);
template <class CharT> basic_string<CharT> operator+(const basic_string<CharT>& a, CharT b);

namespace impl {

// Holds the string that a return value or an argument carries.
template <class CharT> class StringAux {
protected:
    explicit StringAux(basic_string<CharT>&& s) noexcept : str_(std::move(s)) {}
    explicit StringAux(const basic_string<CharT>& s) : str_(s) {}
    StringAux(StringAux&& a) noexcept : str_(std::move(a.str_)) {}

    basic_string<CharT> str_;
};

} // namespace impl

// A string on its way out of a function, bound to the allocator that owns
// its storage. A `vrk::string` is built from it by taking its storage.
template <class CharT> class basic_string_retval : public impl::StringAux<CharT> {
    friend class basic_string<CharT>;

public:
    explicit basic_string_retval(basic_string<CharT>&& s) noexcept
        : impl::StringAux<CharT>(std::move(s)) {}
    // Shares a long text's block with s.
    explicit basic_string_retval(const basic_string<CharT>& s) : impl::StringAux<CharT>(s) {}
    basic_string_retval(basic_string_retval&& r) noexcept : impl::StringAux<CharT>(std::move(r)) {}
    basic_string_retval(const basic_string_retval&) = delete;
    basic_string_retval& operator=(const basic_string_retval&) = delete;

    const CharT* c_str() const noexcept { return this->str_.c_str(); }
    const CharT* data() const noexcept { return this->str_.data(); }
    size_t size() const noexcept { return this->str_.size(); }
    allocator& get_allocator() const noexcept { return this->str_.get_allocator(); }
};

using string_retval = basic_string_retval<char>;

// Read-only views: strings that show text they do not own. The text must
// outlive the view; c_str() of a view of n characters is terminated only if
// the viewed text is. `ma` is the allocator of copies made from the view.
template <class CharT> basic_string_retval<CharT> c_str(const CharT* s, size_t n, allocator& ma) {
    return basic_string_retval<CharT>(basic_string<CharT>(s, n, ma, {}));
}
// A view of the NUL-terminated text s (null gives an empty view).
template <class CharT> basic_string_retval<CharT> c_str(const CharT* s, allocator& ma) {
    size_t n = 0;
    if (s)
        while (s[n] != CharT())
            ++n;
    return c_str(s, n, ma);
}

// ---------------------------------------------------------------------------

template <class CharT>
basic_string<CharT>::basic_string(basic_string_retval<CharT>&& r) noexcept
    : base(r.str_.get_allocator()) {
    this->swap_storage_(r.str_);
}

template <class CharT>
basic_string<CharT>::basic_string(const basic_string_retval<CharT>& r, allocator& ma) : base(ma) {
    this->copy_from_(r.str_);
}

template <class CharT> const CharT* basic_string<CharT>::c_str() const noexcept {
    const CharT* p = this->chars_();
    if (p == nullptr) { // a view of nothing
        static const CharT EMPTY[1] = {};
        return EMPTY;
    }
    return p;
}

extern template class allocate_raw_chunk<char>;
extern template class string_base<char>;
extern template class basic_string<char>;
extern template basic_string<char> operator+(const basic_string<char>&, const basic_string<char>&);
extern template basic_string<char> operator+(const basic_string<char>&, const char*);
extern template basic_string<char> operator+(const char*, const basic_string<char>&);
extern template basic_string<char> operator+(const basic_string<char>&, char);

} // namespace vrk
