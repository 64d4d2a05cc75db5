// vrk/ext/dtoa.hpp: a double to text in the general notation of the C
// locale, for argument texts built while memory may be exhausted.
//
// Never allocates, throws, locks or reads the process's locale.
#pragma once

#include <cstddef>

namespace vrk {

// Writes the text of `value` with `precision` significant digits into
// `buf`, at most `size` characters including the terminator, exactly as
// printf's "%.*g" does in the C locale: fixed notation for decimal exponents
// from -5 to precision - 1, otherwise exponent notation (1e+21), trailing
// zeros dropped, "inf" and "-inf" for infinities, "-0" for negative zero.
// A precision of 0 counts as 1. Returns `buf`, or null for a NaN, a null or
// empty buffer, or a text that does not fit (`buf` then holds "" if it has
// room for it).
char* dtoa(double value, int precision, char* buf, size_t size) noexcept;

} // namespace vrk
