// The classic classification table.
#include "vrk/base/ctype.hpp"

#include <array>

namespace vrk {

namespace {

constexpr std::array<ctype_base::mask, ctype<char>::TABLE_SIZE> make_classic_table() {
    using m = ctype_base;
    std::array<ctype_base::mask, ctype<char>::TABLE_SIZE> t{};
    for (unsigned c = 0; c < 128; ++c) {
        ctype_base::mask v = 0;
        const bool up = c >= 'A' && c <= 'Z';
        const bool lo = c >= 'a' && c <= 'z';
        const bool dig = c >= '0' && c <= '9';
        if (c < 32 || c == 127)
            v |= m::cntrl;
        if (c == ' ' || (c >= '\t' && c <= '\r'))
            v |= m::space;
        if (c == ' ' || c == '\t')
            v |= m::blank;
        if (up)
            v |= m::upper | m::alpha;
        if (lo)
            v |= m::lower | m::alpha;
        if (dig)
            v |= m::digit;
        if (dig || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))
            v |= m::xdigit;
        if (up || lo || dig)
            v |= m::alnum;
        if (c >= 32 && c < 127)
            v |= m::print;
        if (c > 32 && c < 127) {
            v |= m::graph;
            if (!up && !lo && !dig)
                v |= m::punct;
        }
        t[c] = v;
    }
    return t;
}

constexpr auto CLASSIC_TABLE = make_classic_table();

} // namespace

ctype<char>::~ctype() = default;

const ctype_base::mask* ctype<char>::classic_table() noexcept { return CLASSIC_TABLE.data(); }

} // namespace vrk
