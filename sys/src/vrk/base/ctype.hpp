// vrk/base/ctype.hpp: character classification for char through a table of
// 256 masks, the ctype facet of the vrk locale.
//
// Classification is a table lookup by the character's unsigned value, so it
// does not depend on the compiler's signedness of char. Never allocates,
// never throws.
#pragma once

#include <cstdint>

#include "vrk/locale.hpp"

namespace vrk {

class ctype_base {
public:
    using mask = uint16_t;
    static constexpr mask blank = 1;
    static constexpr mask cntrl = 2;
    static constexpr mask punct = 4;
    static constexpr mask alnum = 8;
    static constexpr mask upper = 256;
    static constexpr mask lower = 512;
    static constexpr mask alpha = 1024;
    static constexpr mask digit = 2048;
    static constexpr mask xdigit = 4096;
    static constexpr mask space = 8192;
    static constexpr mask print = 16384;
    static constexpr mask graph = 32768;
};

template <class CharT> class ctype;

template <> class ctype<char> : public locale::facet, public ctype_base {
public:
    static constexpr locale::id id{locale::CTYPE_ID};
    static constexpr unsigned TABLE_SIZE = 256;

    // Over `table` (TABLE_SIZE masks, kept by pointer), or the classic table
    // (the ASCII classes; characters 128 to 255 belong to no class) when null.
    explicit ctype(const mask* table = nullptr) noexcept
        : p_table_(table != nullptr ? table : classic_table()) {}
    ~ctype() override;

    bool is(mask m, char c) const noexcept {
        return (p_table_[static_cast<unsigned char>(c)] & m) != 0;
    }
    char widen(char c) const noexcept { return c; }
    char narrow(char c, char /*dfault*/) const noexcept { return c; }

    const mask* table() const noexcept { return p_table_; }
    static const mask* classic_table() noexcept;

private:
    const mask* p_table_;
};

} // namespace vrk
