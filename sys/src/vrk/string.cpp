// The growable string: storage states, growth, sharing and its errors.
#include "vrk/string.hpp"

#include <cstring>

#include "vrk/base/impl/exception_class.hpp"
#include "vrk/throw_helpers.hpp"

namespace vrk {

namespace {
constexpr const char* FILE_NAME = "sys/src/vrk/string";
// Characters of a read-only view that go into its rvalue_error text.
constexpr size_t RVALUE_TEXT_MAX = 127;
} // namespace

// Checks a size at this line, naming the caller of the enclosing function.
#define VRK_CHECK_SIZE(n) this->check_size_((n), __LINE__, __builtin_return_address(0))
#define VRK_ADD_SIZE(a, b) this->add_size_((a), (b), __LINE__, __builtin_return_address(0))

template <class T>
allocate_raw_chunk<T>::allocate_raw_chunk(size_t n, allocator& ma) : p_(nullptr) {
    if (n == 0)
        return;
    if (n > max_size)
        impl::throwBadAllocation(n);
    p_ = static_cast<T*>(ma.allocate(n * sizeof(T)));
}

// --- string_base -----------------------------------------------------------

template <class CharT> void string_base<CharT>::throw_overflow_(int line, const void* caller) {
    overflow_error e(FILE_NAME, line, "vrk::string integer overflow", caller);
    e.register_on_thread();
    e.do_throw();
    impl::throw_check_base::throw_returned();
}

template <class CharT> void string_base<CharT>::throw_underflow_(int line, const void* caller) {
    underflow_error e(FILE_NAME, line, "vrk::string integer underflow", caller);
    e.register_on_thread();
    e.do_throw();
    impl::throw_check_base::throw_returned();
}

template <class CharT> void string_base<CharT>::throw_read_only_(const void* caller) const {
    // The text is copied into the exception, so a bounded stack copy suffices.
    char text[RVALUE_TEXT_MAX + 1];
    size_t n = 0;
    if (const CharT* p = bx_.ptr_)
        while (n < RVALUE_TEXT_MAX && n < size_ && p[n] != CharT()) {
            text[n] = static_cast<char>(p[n]);
            ++n;
        }
    text[n] = '\0';
    rvalue_error e(FILE_NAME, __LINE__, text, caller);
    e.register_on_thread();
    e.do_throw();
    impl::throw_check_base::throw_returned();
}

template <class CharT> CharT* string_base<CharT>::new_block_(size_t cap) {
    VRK_CHECK_SIZE(cap);
    char* block = allocate_raw_chunk<char>((cap + BLOCK_EXTRA) * sizeof(CharT), *p_ma_);
    // Nobody else sees the block yet: a plain store is enough.
    *reinterpret_cast<size_t*>(block) = 1;
    return reinterpret_cast<CharT*>(block + COUNT_SIZE);
}

template <class CharT> void string_base<CharT>::add_ref_(CharT* chars) noexcept {
    size_t* count = count_of_(chars);
    size_t old = __atomic_load_n(count, __ATOMIC_RELAXED);
    // Only a holder of the block increments, so the count is never 0 here.
    while (!__atomic_compare_exchange_n(count, &old, old + 1, true, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED)) {
    }
}

template <class CharT> void string_base<CharT>::release_block_(CharT* chars) noexcept {
    size_t* count = count_of_(chars);
    size_t old = __atomic_load_n(count, __ATOMIC_ACQUIRE);
    // The release half orders this holder's use of the characters before the
    // free; the acquire half lets the freeing holder see everyone's use.
    while (!__atomic_compare_exchange_n(count, &old, old - 1, true, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
    }
    if (old == 1)
        p_ma_->deallocate(count);
}

template <class CharT> void string_base<CharT>::swap_storage_(string_base& rhs) noexcept {
    for (int i = 0; i < 5; ++i)
        std::swap(bx_.aux_[i], rhs.bx_.aux_[i]);
    std::swap(rsrv_, rhs.rsrv_);
    std::swap(size_, rhs.size_);
}

template <class CharT> void string_base<CharT>::copy_from_(const string_base& rhs) {
    const size_t n = rhs.size_;
    const CharT* src = rhs.chars_();
    if (n <= INLINE_CAPACITY) {
        if (n)
            std::memcpy(bx_.buf_, src, n * sizeof(CharT));
        bx_.buf_[n] = CharT();
        size_ = n;
        return;
    }
    if (p_ma_ == rhs.p_ma_ && rhs.is_heap()) {
        add_ref_(rhs.bx_.ptr_);
        bx_.ptr_ = rhs.bx_.ptr_;
        rsrv_ = rhs.rsrv_;
        size_ = n;
        return;
    }
    // 59 is the capacity the first growth out of the inline buffer gives.
    const size_t first_growth = INLINE_CAPACITY + INLINE_CAPACITY / 2 + 1;
    const size_t cap = n < first_growth ? first_growth : n;
    CharT* p = new_block_(cap);
    std::memcpy(p, src, n * sizeof(CharT));
    p[n] = CharT();
    bx_.ptr_ = p;
    rsrv_ = cap;
    size_ = n;
}

template <class CharT> CharT* string_base<CharT>::grow_(size_t n) {
    if (n < size_)
        n = size_;
    if (is_heap() && rsrv_ >= n) {
        if (!shared_())
            return bx_.ptr_;
        if (n > INLINE_CAPACITY)
            return enlarge_(n);
        // Shared and short enough: unshare into the inline buffer.
        CharT* old = bx_.ptr_;
        std::memcpy(bx_.buf_, old, size_ * sizeof(CharT));
        bx_.buf_[size_] = CharT();
        rsrv_ = INLINE_CAPACITY;
        release_block_(old);
        return bx_.buf_;
    }
    if (is_inline() && n <= INLINE_CAPACITY)
        return bx_.buf_;
    return enlarge_(grown_capacity_(n));
}

template <class CharT> CharT* string_base<CharT>::enlarge_(size_t newres) {
    CharT* p = new_block_(newres);
    const bool heap = is_heap();
    CharT* old = chars_();
    const size_t keep = size_ < newres ? size_ : newres;
    std::memcpy(p, old, keep * sizeof(CharT));
    if (heap)
        release_block_(old);
    size_ = keep;
    p[keep] = CharT();
    rsrv_ = newres;
    bx_.ptr_ = p;
    return p;
}

template <class CharT> void string_base<CharT>::tidy_(size_t new_sz) noexcept {
    if (is_heap()) {
        CharT* old = bx_.ptr_; // the buffer overlays the pointer
        if (new_sz)
            std::memcpy(bx_.buf_, old, new_sz * sizeof(CharT));
        p_ma_->deallocate(count_of_(old));
    }
    rsrv_ = INLINE_CAPACITY;
    size_ = new_sz;
    bx_.buf_[new_sz] = CharT();
}

// --- basic_string ----------------------------------------------------------

template <class CharT> basic_string<CharT>::basic_string(const CharT* s, allocator& ma) : base(ma) {
    assign(s);
}

template <class CharT>
basic_string<CharT>::basic_string(const CharT* s, size_t n, allocator& ma) : base(ma) {
    assign(s, n);
}

template <class CharT>
basic_string<CharT>& basic_string<CharT>::operator=(const basic_string& rhs) {
    if (this == &rhs)
        return *this;
    this->check_writable();
    basic_string tmp(rhs, *this->p_ma_);
    this->swap_storage_(tmp);
    return *this;
}

template <class CharT>
basic_string<CharT>&
basic_string<CharT>::operator=( // NOLINT(performance-noexcept-move-constructor)
    basic_string&& rhs) {
    if (this == &rhs)
        return *this;
    this->check_writable();
    if (this->p_ma_ != rhs.p_ma_)
        return *this = static_cast<const basic_string&>(rhs);
    // Our old storage goes to rhs, which releases it.
    this->swap_storage_(rhs);
    return *this;
}

template <class CharT> CharT* basic_string<CharT>::data() {
    if (this->is_read_only())
        return this->bx_.ptr_;
    return this->grow_(0);
}

template <class CharT> basic_string<CharT>& basic_string<CharT>::assign(const CharT* s) {
    size_t n = 0;
    if (s)
        while (s[n] != CharT())
            ++n;
    return assign(s, n);
}

template <class CharT> basic_string<CharT>& basic_string<CharT>::assign(const CharT* p, size_t n) {
    this->check_writable();
    const CharT* cur = this->chars_();
    const uintptr_t roff = reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(cur);
    if (roff < this->size_) {
        // A piece of our own text: keep it, moved to the front.
        if (n > this->size_ - roff)
            n = this->size_ - roff;
        CharT* d = this->grow_(this->size_);
        std::memmove(d, d + roff, n * sizeof(CharT));
        this->size_ = n;
        d[n] = CharT();
        return *this;
    }
    VRK_CHECK_SIZE(n);
    const bool heap = this->is_heap();
    const bool shared = this->shared_();
    CharT* d;
    if (heap && !shared && this->rsrv_ >= n) {
        // An exclusive block is kept even for a short text: the string
        // buffer reserves a block and then assigns its text into it.
        d = this->bx_.ptr_;
    } else if (this->is_inline() && n <= base::INLINE_CAPACITY) {
        d = this->bx_.buf_;
    } else if (n <= base::INLINE_CAPACITY) {
        // A shared block (an exclusive one would have had room): the short
        // result goes inline. p may lie in that block; we hold it until the
        // copy is done.
        CharT* old = this->bx_.ptr_;
        if (n)
            std::memcpy(this->bx_.buf_, p, n * sizeof(CharT));
        this->rsrv_ = base::INLINE_CAPACITY;
        this->release_block_(old);
        this->size_ = n;
        this->bx_.buf_[n] = CharT();
        return *this;
    } else {
        // A shared block with room is replaced by one of exactly n, too
        // small storage by the growth formula.
        const size_t cap = (heap && this->rsrv_ >= n) ? n : this->grown_capacity_(n);
        CharT* nw = this->new_block_(cap);
        std::memcpy(nw, p, n * sizeof(CharT));
        if (heap)
            this->release_block_(this->bx_.ptr_);
        this->bx_.ptr_ = nw;
        this->rsrv_ = cap;
        this->size_ = n;
        nw[n] = CharT();
        return *this;
    }
    // In place: p may overlap the unused part of our own storage.
    if (n)
        std::memmove(d, p, n * sizeof(CharT));
    this->size_ = n;
    d[n] = CharT();
    return *this;
}

template <class CharT> CharT* basic_string<CharT>::insert(const CharT* pos, CharT c) {
    this->check_writable();
    const size_t off = static_cast<size_t>(reinterpret_cast<uintptr_t>(pos) -
                                           reinterpret_cast<uintptr_t>(this->chars_()));
    if (off > this->size_)
        throwOutOfRange(FILE_NAME, __LINE__, off, 0, this->size_);
    const size_t new_sz = VRK_ADD_SIZE(this->size_, 1);
    VRK_CHECK_SIZE(new_sz);
    CharT* d = this->grow_(new_sz);
    std::memmove(d + off + 1, d + off, (this->size_ - off + 1) * sizeof(CharT));
    d[off] = c;
    this->size_ = new_sz;
    return d + off;
}

template <class CharT> void basic_string<CharT>::swap(basic_string& rhs) {
    if (this == &rhs)
        return;
    if (this->p_ma_ == rhs.p_ma_) {
        this->swap_storage_(rhs);
        return;
    }
    this->check_writable();
    rhs.check_writable();
    // Both copies first, so a failure leaves both strings as they were.
    basic_string mine_there(*this, *rhs.p_ma_);
    basic_string theirs_here(rhs, *this->p_ma_);
    this->swap_storage_(theirs_here);
    rhs.swap_storage_(mine_there);
}

template <class CharT> void basic_string<CharT>::raw_resize(size_t new_sz, bool use_buffer) {
    this->check_writable();
    VRK_CHECK_SIZE(new_sz);
    const bool shared = this->shared_();
    if (use_buffer && new_sz <= base::INLINE_CAPACITY && !shared) {
        if (this->is_inline()) {
            this->size_ = new_sz;
            this->bx_.buf_[new_sz] = CharT();
        } else {
            this->tidy_(new_sz);
        }
        return;
    }
    CharT* d;
    if (shared && new_sz <= base::INLINE_CAPACITY) {
        CharT* old = this->bx_.ptr_;
        const size_t keep = this->size_ < new_sz ? this->size_ : new_sz;
        std::memcpy(this->bx_.buf_, old, keep * sizeof(CharT));
        this->rsrv_ = base::INLINE_CAPACITY;
        this->release_block_(old);
        d = this->bx_.buf_;
    } else if (shared && new_sz <= this->size_) {
        d = this->enlarge_(new_sz);
    } else {
        d = this->grow_(new_sz);
    }
    this->size_ = new_sz;
    d[new_sz] = CharT();
}

template <class CharT> void basic_string<CharT>::reserve(size_t n) {
    this->check_writable();
    VRK_CHECK_SIZE(n);
    this->grow_(n);
}

template <class CharT> void basic_string<CharT>::clear() {
    this->check_writable();
    if (this->shared_()) {
        CharT* old = this->bx_.ptr_;
        this->rsrv_ = base::INLINE_CAPACITY;
        this->release_block_(old);
    }
    this->size_ = 0;
    this->chars_()[0] = CharT();
}

template <class CharT> basic_string<CharT>& basic_string<CharT>::append(const CharT* s) {
    size_t n = 0;
    if (s)
        while (s[n] != CharT())
            ++n;
    return append(s, n);
}

template <class CharT> basic_string<CharT>& basic_string<CharT>::append(const CharT* p, size_t n) {
    this->check_writable();
    const size_t new_sz = VRK_ADD_SIZE(this->size_, n);
    VRK_CHECK_SIZE(new_sz);
    // p may point into our own text, which growth may move.
    const uintptr_t roff =
        reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(this->chars_());
    const bool own = roff < this->size_;
    CharT* d = this->grow_(new_sz);
    if (own)
        p = d + roff;
    if (n)
        std::memcpy(d + this->size_, p, n * sizeof(CharT));
    this->size_ = new_sz;
    d[new_sz] = CharT();
    return *this;
}

template <class CharT>
size_t basic_string<CharT>::find(const CharT* s, size_t pos, size_t n) const noexcept {
    const size_t sz = this->size_;
    if (pos > sz || n > sz - pos)
        return npos;
    const CharT* t = this->chars_();
    if (n == 0)
        return pos;
    for (size_t i = pos; i + n <= sz; ++i)
        if (t[i] == s[0] && std::memcmp(t + i, s, n * sizeof(CharT)) == 0)
            return i;
    return npos;
}

template <class CharT> size_t basic_string<CharT>::find(const CharT* s, size_t pos) const noexcept {
    size_t n = 0;
    while (s[n] != CharT())
        ++n;
    return find(s, pos, n);
}

template <class CharT> size_t basic_string<CharT>::rfind(CharT c, size_t pos) const noexcept {
    const size_t sz = this->size_;
    if (sz == 0)
        return npos;
    size_t i = pos < sz ? pos : sz - 1;
    const CharT* t = this->chars_();
    for (;; --i) {
        if (t[i] == c)
            return i;
        if (i == 0)
            return npos;
    }
}

template <class CharT> int basic_string<CharT>::compare(const CharT* s, size_t n) const noexcept {
    const size_t sz = this->size_;
    const size_t common = sz < n ? sz : n;
    // memcmp compares as unsigned char, whatever the signedness of char.
    const int r = common ? std::memcmp(this->chars_(), s, common * sizeof(CharT)) : 0;
    if (r != 0)
        return r < 0 ? -1 : 1;
    return sz < n ? -1 : (sz > n ? 1 : 0);
}

template <class CharT> int basic_string<CharT>::compare(const CharT* s) const noexcept {
    size_t n = 0;
    while (s[n] != CharT())
        ++n;
    return compare(s, n);
}

template <class CharT> basic_string<CharT> basic_string<CharT>::substr(size_t pos, size_t n) const {
    const size_t sz = this->size_;
    if (pos > sz)
        throwOutOfRange(FILE_NAME, __LINE__, pos, 0, sz);
    if (n > sz - pos)
        n = sz - pos;
    return basic_string(this->chars_() + pos, n, *this->p_ma_);
}

template <class CharT>
basic_string<CharT> operator+(const basic_string<CharT>& a, const basic_string<CharT>& b) {
    basic_string<CharT> r(a.get_allocator());
    r.reserve(a.size() + b.size());
    r.append(a);
    r.append(b);
    return r;
}

template <class CharT> basic_string<CharT> operator+(const basic_string<CharT>& a, const CharT* b) {
    basic_string<CharT> r(a, a.get_allocator());
    r.append(b);
    return r;
}

template <class CharT> basic_string<CharT> operator+(const CharT* a, const basic_string<CharT>& b) {
    basic_string<CharT> r(a, b.get_allocator());
    r.append(b);
    return r;
}

template <class CharT> basic_string<CharT> operator+(const basic_string<CharT>& a, CharT b) {
    basic_string<CharT> r(a, a.get_allocator());
    r.push_back(b);
    return r;
}

template class allocate_raw_chunk<char>;
template class string_base<char>;
template class basic_string<char>;
template basic_string<char> operator+(const basic_string<char>&, const basic_string<char>&);
template basic_string<char> operator+(const basic_string<char>&, const char*);
template basic_string<char> operator+(const char*, const basic_string<char>&);
template basic_string<char> operator+(const basic_string<char>&, char);

} // namespace vrk
