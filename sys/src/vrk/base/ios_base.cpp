// ios_base: construction, the word store and the raising of stream failures.
#include "vrk/base/ios_base.hpp"

#include <atomic>

#include "vrk/base/ios_failure.hpp"

namespace vrk {

ios_base::ios_base() noexcept
    : precision_(0), width_(0), flags_(static_cast<fmtflags>(0)), exception_(goodbit),
      buf_state_(goodbit), word_zero_{nullptr, 0}, local_word_{}, word_size_(LOCAL_WORDS),
      word_(local_word_), ios_locale_() {}

// The word store lives inside the object and the locale owns nothing, so
// there is nothing to free.
ios_base::~ios_base() = default;

void ios_base::init_() noexcept {
    precision_ = 6;
    width_ = 0;
    flags_ = skipws | dec;
    exception_ = goodbit;
    buf_state_ = goodbit;
    word_zero_ = PIWords{nullptr, 0};
    for (PIWords& w : local_word_)
        w = PIWords{nullptr, 0};
    word_size_ = LOCAL_WORDS;
    word_ = local_word_;
}

locale ios_base::imbue(const locale& loc) noexcept {
    locale old = ios_locale_;
    ios_locale_ = loc;
    return old;
}

int ios_base::xalloc() noexcept {
    static std::atomic<int> next{0};
    return next.fetch_add(1, std::memory_order_relaxed);
}

long& ios_base::iword(int index) noexcept {
    if (index >= 0 && index < word_size_)
        return word_[index].iword_;
    word_zero_ = PIWords{nullptr, 0};
    return word_zero_.iword_;
}

void*& ios_base::pword(int index) noexcept {
    if (index >= 0 && index < word_size_)
        return word_[index].pword_;
    word_zero_ = PIWords{nullptr, 0};
    return word_zero_.pword_;
}

void ios_failure::do_throw() { throw_as_<ios_failure>(); }

void null_facet_error::do_throw() { throw_as_<null_facet_error>(); }

void ios_base::throwIOSFailure(const char* file, int line, const char* text) {
    ios_failure e(file, line, text, __builtin_return_address(0));
    e.register_on_thread();
    impl::throw_check<ios_failure>(e).do_throw();
}

void ios_base::throwNullFacetPointer(const char* file, int line) {
    null_facet_error e(file, line, __builtin_return_address(0));
    e.register_on_thread();
    impl::throw_check<null_facet_error>(e).do_throw();
}

} // namespace vrk
