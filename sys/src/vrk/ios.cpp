// basic_ios<char>: construction, the state-change rule, the lazy fill and the
// format guard.
#include "vrk/ios.hpp"

#include "vrk/base/num_get.hpp"
#include "vrk/base/num_put.hpp"

namespace vrk {

basic_ios<char>::basic_ios() noexcept
    : tie_(nullptr), fill_(0), fill_init_(false), streambuf_(nullptr), ctype_(nullptr),
      num_put_(nullptr), num_get_(nullptr) {}

basic_ios<char>::~basic_ios() = default;

void basic_ios<char>::init(basic_streambuf<char>* sb, iostate st) {
    init_();
    tie_ = nullptr;
    fill_ = 0;
    fill_init_ = false;
    cache_facets_();
    streambuf_ = sb;
    // The argument is the initial mask; with the state good nothing can be
    // raised, and a caller asking for bits sees them on the next failure.
    exception_ = st;
    buf_state_ = goodbit;
}

void basic_ios<char>::cache_facets_() noexcept {
    const size_t ct = impl::getFacetId<ctype<char>>();
    const size_t np = impl::getFacetId<num_put>();
    const size_t ng = impl::getFacetId<num_get>();
    ctype_ = ios_locale_.getFacet_(ct) != nullptr
                 ? &static_cast<const ctype<char>&>(ios_locale_.useFacet_(ct))
                 : nullptr;
    num_put_ = ios_locale_.getFacet_(np) != nullptr
                   ? &static_cast<const num_put&>(ios_locale_.useFacet_(np))
                   : nullptr;
    num_get_ = ios_locale_.getFacet_(ng) != nullptr
                   ? &static_cast<const num_get&>(ios_locale_.useFacet_(ng))
                   : nullptr;
}

void basic_ios<char>::clear(iostate s) {
    iostate state = s;
    if (streambuf_ == nullptr)
        state |= badbit;
    buf_state_ = state;
    if ((exception_ & state) != 0)
        throwIOSFailure(IOS_FILE, __LINE__, "basic_ios::clear");
}

locale basic_ios<char>::imbue(const locale& loc) {
    locale old = ios_base::imbue(loc);
    cache_facets_();
    if (streambuf_ != nullptr)
        streambuf_->pubimbue(loc);
    return old;
}

void basic_ios<char>::init_fill_() {
    require_facet_(ctype_);
    fill_ = ctype_->widen(' ');
    fill_init_ = true;
}

basic_ios<char>::stream_guard::stream_guard(basic_ios& strm, iostate st)
    : p_stream_(&strm), fill_ch_(strm.fill()), width_(strm.width_), precision_(strm.precision_),
      flags_(strm.flags_), exception_(strm.exception_) {
    strm.exceptions(st);
}

// The constructor already initialised the fill, so writing it back cannot
// need the ctype facet again.
basic_ios<char>::stream_guard::~stream_guard() {
    p_stream_->fill_ = fill_ch_;
    p_stream_->fill_init_ = true;
    p_stream_->width_ = width_;
    p_stream_->precision_ = precision_;
    p_stream_->flags_ = flags_;
    p_stream_->exception_ = exception_;
}

} // namespace vrk
