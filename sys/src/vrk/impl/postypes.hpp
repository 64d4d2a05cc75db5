// Internal header, reached through vrk/streambuf.hpp; include that instead.
// vrk/impl/postypes.hpp: sizes, offsets and positions of the vrk streams.
//
// Plain values; nothing here allocates or throws. A position whose offset is
// -1 is the failure position that seek operations return.
#pragma once

#include <cstdint>
#include <cwchar>

namespace vrk {

using streamsize = int64_t;
using streamoff = int64_t;

// A stream position: an offset and the conversion state at that offset.
class fpos {
public:
    constexpr fpos() noexcept : off_(0), state_() {}
    constexpr fpos(streamoff off) noexcept : off_(off), state_() {} // NOLINT: implicit by design

    constexpr operator streamoff() const noexcept { return off_; } // NOLINT: implicit by design
    constexpr streamoff offset() const noexcept { return off_; }
    constexpr std::mbstate_t state() const noexcept { return state_; }
    constexpr void state(std::mbstate_t s) noexcept { state_ = s; }

    constexpr fpos& operator+=(streamoff d) noexcept {
        off_ += d;
        return *this;
    }
    constexpr fpos& operator-=(streamoff d) noexcept {
        off_ -= d;
        return *this;
    }
    constexpr fpos operator+(streamoff d) const noexcept { return fpos(*this) += d; }
    constexpr fpos operator-(streamoff d) const noexcept { return fpos(*this) -= d; }
    constexpr streamoff operator-(const fpos& o) const noexcept { return off_ - o.off_; }
    friend constexpr bool operator==(const fpos& a, const fpos& b) noexcept {
        return a.off_ == b.off_;
    }

private:
    streamoff off_;
    std::mbstate_t state_;
};

using streampos = fpos;

} // namespace vrk
