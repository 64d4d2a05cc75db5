// vrk/base/ios_base.hpp: the format, state and exceptions-mask fields shared by
// every vrk stream, and the raising of stream failures.
//
// Plain field accesses; nothing here allocates. Only throwIOSFailure and
// throwNullFacetPointer throw, and they never return.
#pragma once

#include <cstddef>

#include "vrk/ext/noncopyable.hpp"
#include "vrk/impl/ios_flags.hpp"
#include "vrk/impl/postypes.hpp"
#include "vrk/locale.hpp"

namespace vrk {

class ios_base : private non_copyable {
public:
    using fmtflags = impl::IosFmtflags;
    using iostate = impl::IosIostate;
    using openmode = impl::IosOpenmode;
    using seekdir = impl::IosSeekdir;

    static constexpr fmtflags boolalpha = impl::boolalpha;
    static constexpr fmtflags dec = impl::dec;
    static constexpr fmtflags fixed = impl::fixed;
    static constexpr fmtflags hex = impl::hex;
    static constexpr fmtflags internal = impl::internal;
    static constexpr fmtflags left = impl::left;
    static constexpr fmtflags oct = impl::oct;
    static constexpr fmtflags right = impl::right;
    static constexpr fmtflags scientific = impl::scientific;
    static constexpr fmtflags showbase = impl::showbase;
    static constexpr fmtflags showpoint = impl::showpoint;
    static constexpr fmtflags showpos = impl::showpos;
    static constexpr fmtflags skipws = impl::skipws;
    static constexpr fmtflags unitbuf = impl::unitbuf;
    static constexpr fmtflags uppercase = impl::uppercase;
    static constexpr fmtflags adjustfield = impl::adjustfield;
    static constexpr fmtflags basefield = impl::basefield;
    static constexpr fmtflags floatfield = impl::floatfield;

    static constexpr iostate goodbit = impl::goodbit;
    static constexpr iostate badbit = impl::badbit;
    static constexpr iostate eofbit = impl::eofbit;
    static constexpr iostate failbit = impl::failbit;

    static constexpr openmode app = impl::app;
    static constexpr openmode ate = impl::ate;
    static constexpr openmode binary = impl::binary;
    static constexpr openmode in = impl::in;
    static constexpr openmode out = impl::out;
    static constexpr openmode trunc = impl::trunc;
    static constexpr openmode sync = impl::sync;

    static constexpr seekdir beg = impl::beg;
    static constexpr seekdir cur = impl::cur;
    static constexpr seekdir end = impl::end;

    // Slots of the user word store held in the object itself.
    static constexpr int LOCAL_WORDS = 8;

    virtual ~ios_base();

    fmtflags flags() const noexcept { return flags_; }
    fmtflags flags(fmtflags f) noexcept {
        fmtflags old = flags_;
        flags_ = f;
        return old;
    }
    fmtflags setf(fmtflags f) noexcept {
        fmtflags old = flags_;
        flags_ |= f;
        return old;
    }
    fmtflags setf(fmtflags f, fmtflags mask) noexcept {
        fmtflags old = flags_;
        flags_ = (flags_ & ~mask) | (f & mask);
        return old;
    }
    void unsetf(fmtflags mask) noexcept { flags_ &= ~mask; }

    streamsize precision() const noexcept { return precision_; }
    streamsize precision(streamsize p) noexcept {
        streamsize old = precision_;
        precision_ = p;
        return old;
    }
    streamsize width() const noexcept { return width_; }
    streamsize width(streamsize w) noexcept {
        streamsize old = width_;
        width_ = w;
        return old;
    }

    locale imbue(const locale& loc) noexcept;
    locale getloc() const noexcept { return ios_locale_; }

    // The user word store. Only the LOCAL_WORDS slots inside the object
    // exist: the store never allocates. An index outside them gets a scratch
    // word, zeroed at each call, so that writing to it does no harm.
    static int xalloc() noexcept;
    long& iword(int index) noexcept;
    void*& pword(int index) noexcept;

    // Raise the stream failure with `text`, and the missing-facet failure.
    // Both show the given file and line; neither returns.
    [[noreturn]] static void throwIOSFailure(const char* file, int line, const char* text);
    [[noreturn]] static void throwNullFacetPointer(const char* file, int line);

protected:
    ios_base() noexcept;
    // Default format: skip white space, decimal, precision 6, no width; state
    // and mask good; an empty word store.
    void init_() noexcept;

    struct PIWords {
        void* pword_;
        ptrdiff_t iword_;
    };

    streamsize precision_;
    streamsize width_;
    fmtflags flags_;
    iostate exception_;
    iostate buf_state_;
    PIWords word_zero_;
    PIWords local_word_[LOCAL_WORDS];
    int word_size_;
    PIWords* word_;
    locale ios_locale_;
};

} // namespace vrk
